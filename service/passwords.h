// The access-level passwords: read from the panel element when it holds them, else the type
// library's defaults; compared in constant time and never logged.
#ifndef SERVICE_PASSWORDS_H
#define SERVICE_PASSWORDS_H

#include <string>
#include <vector>

namespace egwservice
{

// The passwords that open the level (level 3 has two); empty when the panel has none for it.
std::vector<std::string> levelPasswords(int level);

// True when the texts are equal; the time taken does not depend on where they differ.
bool samePassword(const std::string& given, const std::string& expected);

} // namespace egwservice

#endif
