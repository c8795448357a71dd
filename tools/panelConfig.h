// Panel configuration files: a JSON description of an installed panel (its element tree, property
// values, state values and reference relations), loaded into the element tree through the gateway's
// exported operations. Format: docs/panel-config.md.
#ifndef TOOLS_PANEL_CONFIG_H
#define TOOLS_PANEL_CONFIG_H

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "elementGateway.h"

namespace panelconfig
{

// The kinds of ids a panel file names, each with the category tag its ids carry at the gateway.
enum class IdKind
{
    ElementType,
    Property,
    StateGroup,
    StateValue,
    Relation
};

// The names that a type library gives its ids, both ways. Panel files may name ids instead of
// writing their numbers; tools print the names.
class Vocabulary
{
public:
    // Reads the names out of a type library's text (format: docs/type-library.md). On failure
    // returns false with one message naming the source, the place and the problem.
    static bool fromTypeLibraryText(const std::string& text, const std::string& sourceName,
                                    Vocabulary& vocabulary, std::string& error);

    void add(IdKind kind, UINT32 id, const std::string& name);
    // False when the name is unknown.
    bool idOf(IdKind kind, const std::string& name, UINT32& id) const;
    // A name, or a number ("0x30004", "0x4", "4"), as the kind's tagged id; false when the text is
    // neither or the number is not an id of that kind.
    bool idFromText(IdKind kind, const std::string& text, UINT32& id) const;
    // The id's name, or an empty string.
    std::string nameOf(IdKind kind, UINT32 id) const;
    // True when the type library defines the id (named or not).
    bool knows(IdKind kind, UINT32 id) const;
    // Every id of the kind that the type library defines, in ascending order.
    std::vector<UINT32> ids(IdKind kind) const;

private:
    std::map<std::string, UINT32> ids_[5];
    std::map<UINT32, std::string> names_[5];
};

// The full id as the gateway's type-library queries take it: a bare 16-bit number gets its kind's
// category tag; an id that already carries a tag is returned unchanged.
UINT32 taggedId(IdKind kind, UINT32 id);

// One element created from the file, in file order (parents before their children).
struct LoadedElement
{
    UINT32 uuid;
};

struct LoadedPanel
{
    std::string name;
    std::vector<LoadedElement> elements; // elements[0] is the tree root

    // The uuid of the element with that key, 0 when there is none.
    UINT32 uuidOf(const std::string& key) const;
    // The key of the element with that uuid, empty when it has none.
    std::string keyOf(UINT32 uuid) const;

    // The relation types that the file uses, ascending.
    std::vector<UINT32> relationTypes;
    // The elements that the file names; most elements of a large panel have no key.
    std::unordered_map<std::string, UINT32> uuidByKey;
    std::unordered_map<UINT32, std::string> keyByUuid;
};

// Called now and then while a panel is read and built, with the share done (0 to 1).
using Progress = std::function<void(double done)>;

// Loads a panel into an element tree that has no root yet; the vocabulary is that of the type
// library in force, and element types it does not know are refused. The file is read as a stream
// into a compact plan; everything the gateway can check ahead (structure, types and where they may
// stand, property ids and values, state groups and values, keys, relation targets) is checked
// before the tree is touched; when a gateway call still fails, every element added so far is
// deleted again. On failure returns false with one message naming the source, the place (JSON
// pointer, or line and column) and the problem, and leaves the tree as it was.
bool loadPanelText(const std::string& text, const std::string& sourceName,
                   const Vocabulary& vocabulary, LoadedPanel& panel, std::string& error);
bool loadPanelFile(const std::string& path, const Vocabulary& vocabulary, LoadedPanel& panel,
                   std::string& error, const Progress& progress = Progress());
bool loadPanelStream(std::istream& in, const std::string& sourceName, const Vocabulary& vocabulary,
                     LoadedPanel& panel, std::string& error, const Progress& progress = Progress());

// Writes the element tree below `root` as a panel file: every element with its type, the
// properties that hold a value (by name when the vocabulary has one), its state groups that are
// not at 0, and its relations of the types in `relationTypes`; keys from `keys` where given,
// otherwise made up ("e<uuid>") for the elements that relations point to. Loading the text into
// an empty tree gives the same tree. `progress` gets the share of elements written.
void writePanel(std::ostream& out, UINT32 root, const Vocabulary& vocabulary,
                const std::vector<UINT32>& relationTypes,
                const std::unordered_map<UINT32, std::string>& keys, const std::string& name,
                const Progress& progress = Progress());

// The value of one property as a panel file writes it, in JSON: true or false, a number, a text, a
// date-time object; null when the element has no value there.
std::string readPropertyValue(UINT32 uuid, UINT32 propertyId);
// Writes one property from a value written as in a panel file (JSON); a byte-string property also
// takes the bare text. On failure returns false with the problem in `error`, nothing written.
bool writePropertyValue(UINT32 uuid, UINT32 propertyId, const std::string& valueText,
                        std::string& error);

// A panel file of `loops` loop cards with `devicesPerLoop` addressable devices each (detectors,
// sounders and input/output modules in turn), with its detection zones and evacuation zones; for
// benchmarks and load tests.
std::string generatePanelText(unsigned loops, unsigned devicesPerLoop);
// The same panel written to a stream, one element a line, without holding it in memory.
void generatePanel(std::ostream& out, unsigned loops, unsigned devicesPerLoop,
                   const Progress& progress = Progress());
// The number of elements of such a panel.
unsigned long long generatedElementCount(unsigned loops, unsigned devicesPerLoop);

} // namespace panelconfig

#endif
