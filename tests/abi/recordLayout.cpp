// The host's records as the panel's 32-bit ARM board and its older host libraries lay them out:
// compiled in the armhf build with the legacy string ABI, where a std::string is one pointer.
// The public headers check what holds on every target; this adds the panel's exact sizes.
#include <cstddef>
#include <type_traits>

#include "elementGateway.h"

static_assert(std::is_unsigned<char>::value && sizeof(long) == 4 && alignof(unsigned int) == 4,
              "the panel's C++ conventions: unsigned char, 32-bit long, 4-byte int alignment");

static_assert(sizeof(tagBSC_DATETIME) == 13, "tagBSC_DATETIME is 13 bytes");
static_assert(sizeof(PropertyDef) == 20 && offsetof(PropertyDef, Attr1) == 4 &&
                  offsetof(PropertyDef, Attr2) == 8 && offsetof(PropertyDef, Attr3) == 12 &&
                  offsetof(PropertyDef, Attr4) == 16 && offsetof(PropertyDef, Attr7) == 19,
              "PropertyDef is 20 bytes");
static_assert(sizeof(RelationDef) == 12 && offsetof(RelationDef, RelationKind) == 4 &&
                  offsetof(RelationDef, Attr1) == 6 && offsetof(RelationDef, Attr2) == 8 &&
                  offsetof(RelationDef, Attr3) == 10,
              "RelationDef is 12 bytes");
static_assert(sizeof(PropertyDefaultDef) == 24 && offsetof(PropertyDefaultDef, Attr7) == 19 &&
                  offsetof(PropertyDefaultDef, DefaultValue) == 20,
              "PropertyDefaultDef is PropertyDef's 20 bytes and a one-pointer string at 20");
