// The type library as the simulator holds it in memory: element types with their property,
// relation, command and state-group definitions, the state groups and the state values. One
// library is in force at a time; a loaded library is never changed, so readers share it.
#ifndef PANELSIM_TYPE_LIBRARY_MODEL_H
#define PANELSIM_TYPE_LIBRARY_MODEL_H

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/typeLibrary.h"

namespace panelsim::detail
{

// Category tags: the upper 16 bits of an id.
constexpr unsigned kCommandTag = 0x1;
constexpr unsigned kPropertyTag = 0x3;
constexpr unsigned kStateValueTag = 0x6;
constexpr unsigned kElementTypeTag = 0x7;
constexpr unsigned kStateGroupTag = 0x8;

inline unsigned tagged(unsigned tag, unsigned short number)
{
    return tag << 16 | number;
}

inline unsigned short low16(unsigned id)
{
    return static_cast<unsigned short>(id & 0xFFFFu);
}

// Width in bytes of an integer storage type (3, 4, 6, 19: 4; 5, 15: 2; 7, 16: 1), 0 for the others.
unsigned integerWidth(unsigned storage);

struct ElementTypeDefinition
{
    unsigned visibility = 0;
    std::vector<PropertyDefaultDef> properties;
    std::vector<unsigned> storage;                   // per property
    std::vector<std::optional<std::string>> initial; // per property: a new element's value
    std::vector<RelationDef> relations;
    std::vector<unsigned> commands;
    std::vector<unsigned> stateGroups;

    // Index of the property whose id has these low 16 bits, or -1.
    int propertyIndex(unsigned short propertyId) const;
    // The state group whose id has these low 16 bits, or 0.
    unsigned stateGroup(unsigned short groupId) const;
    bool hasCommand(unsigned short commandId) const;
    bool hasChildType(unsigned short typeNumber) const;
};

struct StateGroupDefinition
{
    std::vector<unsigned> values;
    unsigned defaultValue = 0; // 0: none
};

struct StateValueDefinition
{
    unsigned level1 = 0;
    unsigned level2 = 0;
};

struct TypeLibrary
{
    std::unordered_map<unsigned, ElementTypeDefinition> types; // by tagged type id
    std::unordered_map<unsigned, StateGroupDefinition> groups; // by group id
    std::unordered_map<unsigned, StateValueDefinition> values; // by state value id
    std::unordered_map<unsigned, unsigned> propertyStorage;    // by tagged property id

    const ElementTypeDefinition* type(unsigned typeId) const;
    const ElementTypeDefinition* typeNumber(unsigned short number) const
    {
        return type(tagged(kElementTypeTag, number));
    }
    const StateGroupDefinition* group(unsigned groupId) const;
};

// Builds a library from its JSON text; on failure returns null and sets `error` to one message
// naming `source`, the place in the text and the problem.
std::shared_ptr<const TypeLibrary> parseTypeLibrary(const std::string& text,
                                                    const std::string& source, std::string& error);

// The library in force. Callers keep the pointer for the length of one operation.
std::shared_ptr<const TypeLibrary> typeLibrary();

} // namespace panelsim::detail

#endif
