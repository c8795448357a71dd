// The host type library and ID-definition library over the library in force, and the control
// functions that put another library in force.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

#include "host/idDefine.h"
#include "host/typeLibrary.h"
#include "panelsim/hostCall.h"
#include "panelsim/panelsim.h"
#include "panelsim/typeLibraryModel.h"

namespace panelsim::detail
{

// The sample library's text, compiled in from panelsim/types/sampleTypes.json.
extern const char kSampleTypeLibrary[];
extern const std::size_t kSampleTypeLibrarySize;

namespace
{

struct LibraryInForce
{
    std::mutex mutex;
    std::shared_ptr<const TypeLibrary> library;
};

const std::shared_ptr<const TypeLibrary>& sampleLibrary()
{
    static const std::shared_ptr<const TypeLibrary> sample = [] {
        std::string error;
        auto library =
            parseTypeLibrary(panelsim::sampleTypeLibraryText(), "sampleTypes.json", error);
        if (!library)
        {
            // Only a broken build gets here; the simulator still runs, with no types at all.
            std::fprintf(stderr, "panelsim: the shipped sample type library is broken: %s\n",
                         error.c_str());
            library = std::make_shared<TypeLibrary>();
        }
        return library;
    }();
    return sample;
}

LibraryInForce& inForce()
{
    static LibraryInForce holder{{}, sampleLibrary()};
    return holder;
}

void putInForce(std::shared_ptr<const TypeLibrary> library)
{
    LibraryInForce& holder = inForce();
    const std::lock_guard<std::mutex> lock(holder.mutex);
    holder.library = std::move(library);
}

// The shape of every query: the host-call entry, then the answer from the library in force, or
// `failed` when a fault says so.
template <typename Result, typename Answer>
Result query(const char* operation, unsigned id, Result failed, Answer answer)
{
    if (hostCall(operation, nullptr, [&] { return hex(id); }) != 0)
        return failed;
    return answer(*typeLibrary());
}

// A query about one definition, found by its id in one of the library's maps: `pick`'s answer
// from the definition, or an empty answer for an unknown id.
template <typename Map, typename Pick>
auto definitionQuery(const char* operation, unsigned id, const Map TypeLibrary::*map, Pick pick)
{
    using Result = decltype(pick(std::declval<const typename Map::mapped_type&>()));
    return query(operation, id, Result(), [&](const TypeLibrary& library) {
        const auto found = (library.*map).find(id);
        return found == (library.*map).end() ? Result() : pick(found->second);
    });
}

} // namespace

std::shared_ptr<const TypeLibrary> typeLibrary()
{
    LibraryInForce& holder = inForce();
    const std::lock_guard<std::mutex> lock(holder.mutex);
    return holder.library;
}

int ElementTypeDefinition::propertyIndex(unsigned short propertyId) const
{
    for (std::size_t i = 0; i < properties.size(); ++i)
    {
        if (low16(properties[i].PropertyID) == propertyId)
            return static_cast<int>(i);
    }
    return -1;
}

unsigned ElementTypeDefinition::stateGroup(unsigned short groupId) const
{
    for (unsigned group : stateGroups)
    {
        if (low16(group) == groupId)
            return group;
    }
    return 0;
}

bool ElementTypeDefinition::hasCommand(unsigned short commandId) const
{
    return std::any_of(commands.begin(), commands.end(),
                       [&](unsigned command) { return low16(command) == commandId; });
}

bool ElementTypeDefinition::hasChildType(unsigned short typeNumber) const
{
    return std::any_of(relations.begin(), relations.end(), [&](const RelationDef& r) {
        return r.RelationKind == 0 && r.RelatedTypeID == tagged(kElementTypeTag, typeNumber);
    });
}

const ElementTypeDefinition* TypeLibrary::type(unsigned typeId) const
{
    const auto found = types.find(typeId);
    return found == types.end() ? nullptr : &found->second;
}

const StateGroupDefinition* TypeLibrary::group(unsigned groupId) const
{
    const auto found = groups.find(groupId);
    return found == groups.end() ? nullptr : &found->second;
}

} // namespace panelsim::detail

using namespace panelsim::detail;

// ---- Host type library --------------------------------------------------------------------------

unsigned int GetPropertyTypeByID(unsigned int propertyId)
{
    return definitionQuery("GetPropertyTypeByID", propertyId, &TypeLibrary::propertyStorage,
                           [](unsigned storage) { return storage; });
}

std::vector<PropertyDef> GetPropertyList(unsigned int elementTypeId)
{
    return definitionQuery("GetPropertyList", elementTypeId, &TypeLibrary::types,
                           [](const ElementTypeDefinition& t) {
                               std::vector<PropertyDef> list;
                               for (const PropertyDefaultDef& d : t.properties)
                                   list.push_back({d.PropertyID, d.Attr1, d.Attr2, d.Attr3, d.Attr4,
                                                   d.Attr5, d.Attr6, d.Attr7});
                               return list;
                           });
}

std::vector<RelationDef> GetRelationList(unsigned int elementTypeId)
{
    return definitionQuery("GetRelationList", elementTypeId, &TypeLibrary::types,
                           [](const ElementTypeDefinition& t) { return t.relations; });
}

std::vector<unsigned int> GetCommandList(unsigned int elementTypeId)
{
    return definitionQuery("GetCommandList", elementTypeId, &TypeLibrary::types,
                           [](const ElementTypeDefinition& t) { return t.commands; });
}

std::vector<unsigned int> GetStateList(unsigned int elementTypeId)
{
    return definitionQuery("GetStateList", elementTypeId, &TypeLibrary::types,
                           [](const ElementTypeDefinition& t) { return t.stateGroups; });
}

std::vector<PropertyDefaultDef> GetPropertyDefaultList(unsigned int elementTypeId)
{
    return definitionQuery("GetPropertyDefaultList", elementTypeId, &TypeLibrary::types,
                           [](const ElementTypeDefinition& t) { return t.properties; });
}

unsigned int GetVisibleByType(unsigned int elementTypeId)
{
    return definitionQuery("GetVisibleByType", elementTypeId, &TypeLibrary::types,
                           [](const ElementTypeDefinition& t) { return t.visibility; });
}

std::vector<unsigned int> GetAllStatusInGroup(unsigned int stateGroupId)
{
    return definitionQuery("GetAllStatusInGroup", stateGroupId, &TypeLibrary::groups,
                           [](const StateGroupDefinition& g) { return g.values; });
}

unsigned int GetDefaultStatusOfGroup(unsigned int stateGroupId)
{
    return definitionQuery("GetDefaultStatusOfGroup", stateGroupId, &TypeLibrary::groups,
                           [](const StateGroupDefinition& g) { return g.defaultValue; });
}

// ---- Host ID-definition library -----------------------------------------------------------------

unsigned int CIDDefine::GetTypebyID(unsigned int id)
{
    return query("CIDDefine::GetTypebyID", id, 0u, [&](const TypeLibrary&) { return id >> 16; });
}

unsigned int CIDDefine::GetStatusL1TypebyID(unsigned int stateValue)
{
    return definitionQuery("CIDDefine::GetStatusL1TypebyID", stateValue, &TypeLibrary::values,
                           [](const StateValueDefinition& v) { return v.level1; });
}

unsigned int CIDDefine::GetStatusL2TypebyID(unsigned int stateValue)
{
    return definitionQuery("CIDDefine::GetStatusL2TypebyID", stateValue, &TypeLibrary::values,
                           [](const StateValueDefinition& v) { return v.level2; });
}

// ---- Control ------------------------------------------------------------------------------------

namespace panelsim
{

bool loadTypeLibraryText(const std::string& text, const std::string& sourceName, std::string& error)
{
    auto library = parseTypeLibrary(text, sourceName, error);
    if (!library)
        return false;
    putInForce(std::move(library));
    return true;
}

bool loadTypeLibraryFile(const std::string& path, std::string& error)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
    {
        error = path + ": cannot be opened";
        return false;
    }
    std::ostringstream text;
    text << file.rdbuf();
    return loadTypeLibraryText(text.str(), path, error);
}

void loadSampleTypeLibrary()
{
    putInForce(sampleLibrary());
}

const std::string& sampleTypeLibraryText()
{
    static const std::string text(kSampleTypeLibrary, kSampleTypeLibrarySize);
    return text;
}

} // namespace panelsim
