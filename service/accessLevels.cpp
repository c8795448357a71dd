// The one table of access levels. Level 1 reads (all but the passwords), follows events and reads
// event details; level 2 operates the panel (commands, states); level 3 configures it (elements,
// properties, relations, default states, GUIDs); level 4 manages the passwords and the element
// that holds them.
#include "service/accessLevels.h"

#include <algorithm>
#include <iterator>

namespace egwservice
{
namespace
{

struct Rule
{
    const char* operation;
    int level;
};

constexpr Rule kRules[] = {
    // Service and session
    {"getServiceInfo", 1},
    {"echo", 1},
    {"getAccessLevels", 1},
    {"getSession", 1},
    {"login", 1},
    {"logout", 1},
    // Reading the tree, the type library and event details
    {"getRoot", 1},
    {"getParent", 1},
    {"getChildren", 1},
    {"getElementType", 1},
    {"findElementByType", 1},
    {"findElementByProperty", 1},
    {"collectSubtree", 1},
    {"getUniqueElement", 1},
    {"getSubtreeRoots", 1},
    {"getIdString", 1},
    {"getAddressRecord", 1},
    {"getAddressTexts", 1},
    {"formatAddressList", 1},
    {"readProperty", 1},
    {"getBool", 1},
    {"getInteger", 1},
    {"getDateTime", 1},
    {"getBytes", 1},
    {"readProperties", 1},
    {"getTypeInfo", 1},
    {"getPropertyDefaults", 1},
    {"getDefaultInteger", 1},
    {"getPropertyStorageType", 1},
    {"getStateValues", 1},
    {"getDefaultStateOfGroup", 1},
    {"getDefaultStates", 1},
    {"getDescendantTypes", 1},
    {"getState", 1},
    {"getStates", 1},
    {"getRelations", 1},
    {"getVisibleRelations", 1},
    {"getEventDetail", 1},
    {"snapshot", 1},
    {"getElementKeys", 1},
    // Events
    {"subscribe", 1},
    {"unsubscribe", 1},
    {"nextEvents", 1},
    {"getConditions", 1},
    {"queryEvents", 1},
    // Operating the panel
    {"executeCommand", 2},
    {"broadcastCommand", 2},
    {"setState", 2},
    // Configuring the panel
    {"setBool", 3},
    {"setInteger", 3},
    {"setDateTime", 3},
    {"setBytes", 3},
    {"addElement", 3},
    {"deleteElement", 3},
    {"deleteElementWaited", 3},
    {"addRelation", 3},
    {"deleteRelation", 3},
    {"resetToDefaultStates", 3},
    {"assignGuid", 3},
    {"validateElement", 3},
    {"queryAudit", 3},
};

// The access-level passwords of the panel element (type 0x70007).
constexpr UINT32 kPasswordLevel2 = 0x30010;
constexpr UINT32 kPasswordLevel3 = 0x30011;
constexpr UINT32 kPasswordLevel3Service = 0x3000C;
constexpr UINT32 kPasswordLevel4 = 0x301F0;

} // namespace

int requiredLevel(const std::string& operation)
{
    const auto rule = std::find_if(std::begin(kRules), std::end(kRules),
                                   [&](const Rule& r) { return operation == r.operation; });
    return rule == std::end(kRules) ? 0 : rule->level;
}

std::map<std::string, int> accessTable()
{
    std::map<std::string, int> table;
    for (const Rule& rule : kRules)
    {
        table.emplace(rule.operation, rule.level);
    }
    return table;
}

int propertyLevel(UINT32 propertyId)
{
    const UINT32 id = 0x30000u | (propertyId & 0xFFFFu);
    const bool password = id == kPasswordLevel2 || id == kPasswordLevel3 ||
                          id == kPasswordLevel3Service || id == kPasswordLevel4;
    return password ? kHighestLevel : kLowestLevel;
}

int elementLevel(UINT32 typeId)
{
    return (typeId & 0xFFFFu) == (kPasswordHolderType & 0xFFFFu) ? kHighestLevel : kLowestLevel;
}

LevelPasswords passwordProperties(int level)
{
    switch (level)
    {
    case 2:
        return {kPasswordLevel2, 0};
    case 3:
        return {kPasswordLevel3, kPasswordLevel3Service};
    case 4:
        return {kPasswordLevel4, 0};
    default:
        return {0, 0};
    }
}

} // namespace egwservice
