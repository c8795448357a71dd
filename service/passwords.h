// The access-level passwords: read from the panel element when it holds them, else the type
// library's defaults; compared in constant time and never logged.
#ifndef SERVICE_PASSWORDS_H
#define SERVICE_PASSWORDS_H

#include <string>
#include <vector>

#include "api/gatewayTypes.h"

namespace egwservice
{

// The passwords that open the level (level 3 has two); empty when the panel has none for it.
std::vector<std::string> levelPasswords(int level);

// A stored password as it is compared: the bytes without a leading byte-order mark and without
// the zero bytes that pad a text at its end. Zero bytes before other bytes belong to it.
std::string passwordText(std::string stored);

// True when the given password, without the zero bytes at its end, equals the expected one; the
// time taken does not depend on where they differ.
bool samePassword(const std::string& given, const std::string& expected);

// An element of the subtree (its root included) of the type that holds the passwords; 0 when
// the subtree has none. Deleting it would bring back the type library's default passwords.
UINT32 passwordHolderIn(UINT32 subtreeRoot, void* client);

} // namespace egwservice

#endif
