// The elements of the simulated tree, kept by uuid. Uuids are handed out counting up and never
// handed out twice, so the store is a dense array: the element of uuid u is slot u - base, in
// blocks of fixed size that never move. A tree built parent before child is then laid out in the
// order a depth-first walk visits it.
#ifndef PANELSIM_NODE_STORE_H
#define PANELSIM_NODE_STORE_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace panelsim::detail
{

// One element, 56 bytes on a 64-bit machine. Children are a list through the siblings, so an
// element without children owns no memory for them. Values hold only what was written since the
// element was made (see ValueRecords); the others are its type's defaults.
struct Node
{
    unsigned parent = 0;
    unsigned short type = 0; // 0: no element (never made, or deleted)
    bool validated = false;
    unsigned firstChild = 0;
    unsigned lastChild = 0;
    unsigned nextSibling = 0;
    unsigned previousSibling = 0;
    std::string values;
};

class NodeStore
{
public:
    // Makes an element with the next uuid and hands the uuid out.
    unsigned add(unsigned parent, unsigned short type, bool validated);
    // The element of the uuid, or null when none exists.
    Node* find(unsigned uuid);
    // Unlinks the element from its parent's children and frees its slot (its children stay; the
    // caller erases them first).
    void erase(unsigned uuid);
    // Erases every element; the uuids handed out so far stay used.
    void clear();
    std::size_t size() const { return count_; }

private:
    static constexpr unsigned kBlockBits = 10;
    static constexpr unsigned kBlockSize = 1u << kBlockBits;

    std::vector<std::unique_ptr<Node[]>> blocks_;
    unsigned base_ = 1; // the uuid of slot 0
    unsigned next_ = 1; // the uuid handed out next
    std::size_t count_ = 0;
};

// The values written to an element, packed into one byte string: per value a kind byte, the
// 16-bit id and the 16-bit length (least significant byte first), then the bytes. A value that
// fits stays inside the string object itself.
namespace ValueRecords
{
constexpr char kProperty = 'p';
constexpr char kState = 's';

// The bytes of the value, or false when none was written.
bool find(const std::string& records, char kind, unsigned short id, std::string& bytes);
void put(std::string& records, char kind, unsigned short id, const std::string& bytes);
} // namespace ValueRecords

} // namespace panelsim::detail

#endif
