// The dense element store and the packed value records.
#include "panelsim/nodeStore.h"

namespace panelsim::detail
{

unsigned NodeStore::add(unsigned parent, unsigned short type, bool validated)
{
    const unsigned slot = next_ - base_;
    if ((slot >> kBlockBits) == blocks_.size())
        blocks_.push_back(std::make_unique<Node[]>(kBlockSize));
    const unsigned uuid = next_++;
    Node& node = blocks_[slot >> kBlockBits][slot & (kBlockSize - 1)];
    node.parent = parent;
    node.type = type;
    node.validated = validated;
    ++count_;
    if (Node* parentNode = find(parent))
    {
        node.previousSibling = parentNode->lastChild;
        if (Node* last = find(parentNode->lastChild))
            last->nextSibling = uuid;
        else
            parentNode->firstChild = uuid;
        parentNode->lastChild = uuid;
    }
    return uuid;
}

Node* NodeStore::find(unsigned uuid)
{
    if (uuid < base_ || uuid >= next_)
        return nullptr;
    const unsigned slot = uuid - base_;
    Node& node = blocks_[slot >> kBlockBits][slot & (kBlockSize - 1)];
    return node.type != 0 ? &node : nullptr;
}

void NodeStore::erase(unsigned uuid)
{
    Node* node = find(uuid);
    if (node == nullptr)
        return;
    Node* parent = find(node->parent);
    Node* previous = find(node->previousSibling);
    Node* next = find(node->nextSibling);
    if (previous)
        previous->nextSibling = node->nextSibling;
    else if (parent)
        parent->firstChild = node->nextSibling;
    if (next)
        next->previousSibling = node->previousSibling;
    else if (parent)
        parent->lastChild = node->previousSibling;
    *node = Node();
    --count_;
}

void NodeStore::clear()
{
    blocks_.clear();
    base_ = next_;
    count_ = 0;
}

namespace ValueRecords
{
namespace
{

constexpr std::size_t kHeader = 5;

unsigned short number(const std::string& records, std::size_t at)
{
    return static_cast<unsigned short>(static_cast<unsigned char>(records[at]) |
                                       static_cast<unsigned char>(records[at + 1]) << 8);
}

// Offset of the value's record, or npos.
std::size_t locate(const std::string& records, char kind, unsigned short id)
{
    for (std::size_t at = 0; at < records.size(); at += kHeader + number(records, at + 3))
    {
        if (records[at] == kind && number(records, at + 1) == id)
            return at;
    }
    return std::string::npos;
}

} // namespace

bool find(const std::string& records, char kind, unsigned short id, std::string& bytes)
{
    const std::size_t at = locate(records, kind, id);
    if (at == std::string::npos)
        return false;
    bytes.assign(records, at + kHeader, number(records, at + 3));
    return true;
}

void put(std::string& records, char kind, unsigned short id, const std::string& bytes)
{
    const std::size_t at = locate(records, kind, id);
    if (at != std::string::npos)
        records.erase(at, kHeader + number(records, at + 3));
    const auto size = static_cast<unsigned short>(bytes.size());
    const char header[kHeader] = {kind, static_cast<char>(id & 0xFF), static_cast<char>(id >> 8),
                                  static_cast<char>(size & 0xFF), static_cast<char>(size >> 8)};
    records.append(header, kHeader).append(bytes);
}

} // namespace ValueRecords

} // namespace panelsim::detail
