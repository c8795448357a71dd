#include "service/requestChecks.h"

#include <algorithm>
#include <cstdio>

namespace egwservice
{
namespace
{

const char* kindName(IdKind kind)
{
    switch (kind)
    {
    case IdKind::Command:
        return "command";
    case IdKind::Relation:
        return "relation type";
    case IdKind::Property:
        return "property";
    case IdKind::StateValue:
        return "state value";
    case IdKind::ElementType:
        return "element type";
    case IdKind::StateGroup:
        return "state group";
    }
    return "";
}

std::string elementText(const Subject& subject)
{
    return "element " + std::to_string(subject.uuid) + " (type " + hex(subject.type) + ")";
}

template <typename List>
bool holds(const List& list, UINT32 value)
{
    return std::find(list.begin(), list.end(), value) != list.end();
}

} // namespace

void refuse(rpc::ErrorCode::type code, const std::string& message)
{
    rpc::PanelError error;
    error.code = code;
    error.message = message;
    throw error;
}

std::string hex(std::uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

UINT32 word(std::int64_t value, const char* argument)
{
    if (value < 0 || value > 0xFFFFFFFFll)
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT, std::string(argument) + " " + std::to_string(value) +
                                                 " is not a 32-bit value (0 to 4294967295)");
    }
    return static_cast<UINT32>(value);
}

UINT32 idOf(IdKind kind, std::int64_t id, const char* argument)
{
    const UINT32 value = word(id, argument);
    const UINT32 tag = static_cast<UINT32>(kind);
    if ((value >> 16) != tag)
    {
        refuse(rpc::ErrorCode::WRONG_CATEGORY, std::string(argument) + " " + hex(value) +
                                                   " is not a " + kindName(kind) + " id (" +
                                                   hex(tag) + "xxxx)");
    }
    if ((value & 0xFFFFu) == 0)
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT,
               std::string(argument) + " " + hex(value) + " names no " + kindName(kind));
    }
    return value;
}

UINT16 byteCount(const std::string& bytes, const char* argument, bool allowEmpty)
{
    if (bytes.size() > 0xFFFFu || (bytes.empty() && !allowEmpty))
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT, std::string(argument) + " holds " +
                                                 std::to_string(bytes.size()) +
                                                 " bytes; the panel takes 1 to 65535");
    }
    return static_cast<UINT16>(bytes.size());
}

void notEmpty(std::size_t size, const char* argument)
{
    if (size == 0)
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT, std::string(argument) + " is empty");
    }
}

Storage storageOf(UINT32 storageType)
{
    switch (storageType)
    {
    case 0:
        return Storage::None;
    case 1:
        return Storage::Truth;
    case 2:
        return Storage::DateTime;
    case 7:
    case 16:
        return Storage::Integer8;
    case 5:
    case 15:
        return Storage::Integer16;
    case 3:
    case 4:
    case 6:
    case 19:
        return Storage::Integer32;
    default:
        return Storage::Bytes;
    }
}

Subject TypeFacts::element(std::int64_t uuid, const char* argument)
{
    const UINT32 value = word(uuid, argument);
    const UINT32 type = value == 0 ? 0 : EGW_ElementServerGetElementTypeByUuid(value, nullptr);
    if (type == 0)
    {
        refuse(rpc::ErrorCode::NO_SUCH_ELEMENT,
               std::string(argument) + " " + std::to_string(value) + ": no element has this uuid");
    }
    return {value, type};
}

const std::vector<EGW_PropertyDef_Thrift>& TypeFacts::properties(UINT32 type)
{
    auto found = properties_.find(type);
    if (found == properties_.end())
    {
        std::vector<EGW_PropertyDef_Thrift> list;
        EGW_ELementServerGetPropertyInformationList(type, list);
        found = properties_.emplace(type, std::move(list)).first;
    }
    return found->second;
}

const std::vector<unsigned int>& TypeFacts::stateGroups(UINT32 type)
{
    auto found = groups_.find(type);
    if (found == groups_.end())
    {
        std::vector<unsigned int> list;
        EGW_ElementServerGetStateGroupIdListByElementTypeId(list, type);
        found = groups_.emplace(type, std::move(list)).first;
    }
    return found->second;
}

bool TypeFacts::defines(UINT32 type, UINT32 propertyId)
{
    const auto& list = properties(type);
    return std::any_of(list.begin(), list.end(), [&](const EGW_PropertyDef_Thrift& p) {
        return (p.PropertyID & 0xFFFFu) == (propertyId & 0xFFFFu);
    });
}

UINT32 TypeFacts::property(const Subject& subject, std::int64_t propertyId)
{
    const UINT32 id = idOf(IdKind::Property, propertyId, "propertyId");
    if (!defines(subject.type, id))
    {
        refuse(rpc::ErrorCode::NOT_DEFINED, elementText(subject) + " has no property " + hex(id));
    }
    return id;
}

UINT32 TypeFacts::stateGroup(const Subject& subject, std::int64_t groupId)
{
    const UINT32 id = idOf(IdKind::StateGroup, groupId, "groupId");
    if (!holds(stateGroups(subject.type), id))
    {
        refuse(rpc::ErrorCode::NOT_DEFINED, elementText(subject) + " has no state group " + hex(id));
    }
    return id;
}

UINT32 TypeFacts::stateValue(UINT32 groupId, std::int64_t value)
{
    const UINT32 id = idOf(IdKind::StateValue, value, "value");
    std::vector<unsigned int> values;
    EGW_GetAllStatusInGroup(groupId, values);
    if (!holds(values, id))
    {
        refuse(rpc::ErrorCode::NOT_DEFINED,
               "state group " + hex(groupId) + " cannot take the value " + hex(id));
    }
    return id;
}

UINT32 TypeFacts::command(const Subject& subject, std::int64_t commandId)
{
    const UINT32 id = idOf(IdKind::Command, commandId, "commandId");
    std::vector<unsigned int> commands;
    EGW_ELementServerGetCommandListByElementTypeId(commands, subject.type);
    if (!holds(commands, id))
    {
        refuse(rpc::ErrorCode::NOT_DEFINED, elementText(subject) + " has no command " + hex(id));
    }
    return id;
}

UINT32 TypeFacts::elementType(std::int64_t typeId, const char* argument)
{
    const UINT32 id = idOf(IdKind::ElementType, typeId, argument);
    std::vector<unsigned int> groups;
    std::vector<unsigned int> commands;
    std::vector<EGW_RelationDef_Thrift> relations;
    const bool known = !properties(id).empty() || EGW_BASIC_GetVisibleByElementType(id) != 0 ||
                       EGW_ELementServerGetRelationList(id, relations) != 0 ||
                       EGW_ELementServerGetCommandListByElementTypeId(commands, id) != 0 ||
                       !stateGroups(id).empty();
    if (!known)
    {
        refuse(rpc::ErrorCode::NOT_DEFINED,
               std::string(argument) + " " + hex(id) + ": the type library defines no such type");
    }
    return id;
}

} // namespace egwservice
