// Checks of remote requests, made before the library is called: a remote client must never reach
// one of the library's precondition reports. Every refusal is a PanelError whose message names the
// element, property or argument at fault.
#ifndef SERVICE_REQUEST_CHECKS_H
#define SERVICE_REQUEST_CHECKS_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "elementGateway.h"
#include "panelService_types.h"

namespace egwservice
{

namespace rpc = ::egw::rpc;

[[noreturn]] void refuse(rpc::ErrorCode::type code, const std::string& message);
// "0x30004"
std::string hex(std::uint64_t value);

// Category tags of the ids, in their upper half.
enum class IdKind : UINT32
{
    Command = 0x1,
    Relation = 0x2,
    Property = 0x3,
    StateValue = 0x6,
    ElementType = 0x7,
    StateGroup = 0x8
};

// A 32-bit value of the panel carried in an i64; refused outside 0 to 4294967295.
UINT32 word(std::int64_t value, const char* argument);
// An id of the kind: its tag checked, its low half not 0.
UINT32 idOf(IdKind kind, std::int64_t id, const char* argument);
// Byte strings the library takes with a 16-bit size: 1 to 65535 bytes (0 allowed with allowEmpty).
UINT16 byteCount(const std::string& bytes, const char* argument, bool allowEmpty);
// A list that the library must not be given empty.
void notEmpty(std::size_t size, const char* argument);

// How a property's value is held, by the storage type number of the type library.
enum class Storage
{
    None, // the type library does not know the property
    Truth,
    Integer8,
    Integer16,
    Integer32,
    DateTime,
    Bytes
};
Storage storageOf(UINT32 storageType);

// An element that exists, with its type.
struct Subject
{
    UINT32 uuid;
    UINT32 type; // tagged
};

// What the type library says about element types, looked up once per request.
class TypeFacts
{
public:
    // The element of the uuid; refused when it names none.
    Subject element(std::int64_t uuid, const char* argument = "uuid");
    // The property when the element's type defines it.
    UINT32 property(const Subject& subject, std::int64_t propertyId);
    UINT32 stateGroup(const Subject& subject, std::int64_t groupId);
    UINT32 stateValue(UINT32 groupId, std::int64_t value);
    UINT32 command(const Subject& subject, std::int64_t commandId);
    // A type id the type library defines.
    UINT32 elementType(std::int64_t typeId, const char* argument = "typeId");

    const std::vector<EGW_PropertyDef_Thrift>& properties(UINT32 type);
    // True when the type defines the property.
    bool defines(UINT32 type, UINT32 propertyId);
    const std::vector<unsigned int>& stateGroups(UINT32 type);

private:
    std::unordered_map<UINT32, std::vector<EGW_PropertyDef_Thrift>> properties_;
    std::unordered_map<UINT32, std::vector<unsigned int>> groups_;
};

} // namespace egwservice

#endif
