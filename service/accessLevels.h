// The panel's access levels as the service applies them: which level each remote operation needs,
// and which properties (the access-level passwords) only level 4 may read or write.
#ifndef SERVICE_ACCESS_LEVELS_H
#define SERVICE_ACCESS_LEVELS_H

#include <map>
#include <string>

#include "api/gatewayTypes.h"

namespace egwservice
{

constexpr int kLowestLevel = 1;
constexpr int kHighestLevel = 4;

// The level the remote operation needs; 0 when the service has no such operation.
int requiredLevel(const std::string& operation);
// Every operation with its level, for clients that show what they may do.
std::map<std::string, int> accessTable();

// The level needed to read or write a property: 4 for the password properties of the panel
// element, else 1 (the operation's own level still applies).
int propertyLevel(UINT32 propertyId);

// The type of the panel element, the element that holds the passwords. Adding an element of this
// type, or deleting a subtree that holds one, needs level 4: either could put another element's
// passwords, or the type library's defaults, in place of the ones held.
constexpr UINT32 kPasswordHolderType = 0x70007;
// The level needed to add an element of the type or delete a subtree holding one of that type:
// 4 for the password holder's type, else 1 (the operation's own level still applies).
int elementLevel(UINT32 typeId);

// The password property (or properties) of a level, on the panel element; none for level 1.
struct LevelPasswords
{
    UINT32 first;
    UINT32 second; // 0: none
};
LevelPasswords passwordProperties(int level);

} // namespace egwservice

#endif
