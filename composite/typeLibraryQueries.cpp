// Queries of the host type library: storage types of properties, visibility and default states,
// and the definition lists of an element type converted into the wire side's records. The host's
// order of entries is kept everywhere.
#include "composite/gatewayComposite.h"

namespace
{

// Storage type classes as bit sets over the type number.
constexpr UINT32 kNumberTypes =
    (1u << 4) | (1u << 5) | (1u << 6) | (1u << 7) | (1u << 15) | (1u << 16) | (1u << 19);
constexpr UINT32 kStringTypes = 1u << 12;
constexpr UINT32 kBoolTypes = 1u << 1;
constexpr UINT32 kEnumTypes = 1u << 3;

// The type number goes out only when it is in the class.
BOOL isOfTypeClass(UINT32 propertyId, UINT32* type, UINT32 typeClass)
{
    const UINT32 code = EGW_ElementServerGetPropertyTypeById(propertyId);
    if (code >= 32 || ((typeClass >> code) & 1u) == 0)
    {
        return FALSE;
    }
    if (type != nullptr)
    {
        *type = code;
    }
    return TRUE;
}

} // namespace

UINT32 EGW_ElementServerGetPropertyTypeById(UINT32 propertyId)
{
    return GetPropertyTypeByID(propertyId);
}

BOOL ISValidTypeByPropertyID(UINT32 propertyId)
{
    return 0 != EGW_ElementServerGetPropertyTypeById(propertyId) ? TRUE : FALSE;
}

BOOL IsNumberTypeByPropertyID(UINT32 propertyId, UINT32* type)
{
    return isOfTypeClass(propertyId, type, kNumberTypes);
}

BOOL IsStringTypeByPropertyID(UINT32 propertyId, UINT32* type)
{
    return isOfTypeClass(propertyId, type, kStringTypes);
}

BOOL IsBoolTypeByByPropertyID(UINT32 propertyId, UINT32* type)
{
    return isOfTypeClass(propertyId, type, kBoolTypes);
}

BOOL IsEnumTypeByByPropertyID(UINT32 propertyId, UINT32* type)
{
    return isOfTypeClass(propertyId, type, kEnumTypes);
}

UINT32 EGW_BASIC_GetVisibleByElementType(UINT32 elementTypeId)
{
    return GetVisibleByType(elementTypeId);
}

UINT32 EGW_GetDefaultStatusOfGroup(UINT32 stateGroupId)
{
    return GetDefaultStatusOfGroup(stateGroupId);
}

// The id lists are emptied before the host is asked, so a host that throws leaves them empty.
UINT32 EGW_GetAllStatusInGroup(UINT32 stateGroupId, std::vector<unsigned int>& values)
{
    values.clear();
    values = GetAllStatusInGroup(stateGroupId);
    return static_cast<UINT32>(values.size());
}

UINT32 EGW_ELementServerGetCommandListByElementTypeId(std::vector<unsigned int>& commands,
                                                      UINT32 elementTypeId)
{
    commands.clear();
    commands = GetCommandList(elementTypeId);
    return static_cast<UINT32>(commands.size());
}

BOOL EGW_ElementServerGetStateGroupIdListByElementTypeId(std::vector<unsigned int>& groups,
                                                         UINT32 elementTypeId)
{
    groups = GetStateList(elementTypeId);
    return groups.empty() ? FALSE : TRUE;
}

// A type without property definitions leaves the caller's list as it was.
UINT32 EGW_ELementServerGetPropertyInformationList(UINT32 elementTypeId,
                                                   std::vector<EGW_PropertyDef_Thrift>& list)
{
    const std::vector<PropertyDef> definitions = GetPropertyList(elementTypeId);
    if (definitions.empty())
    {
        return 0;
    }
    list.clear();
    for (const PropertyDef& definition : definitions)
    {
        list.push_back({definition.PropertyID, definition.Attr1, definition.Attr2, definition.Attr3,
                        definition.Attr4, definition.Attr5, definition.Attr6, definition.Attr7});
    }
    return static_cast<UINT32>(definitions.size());
}

UINT32 EGW_ELementServerGetRelationList(UINT32 elementTypeId,
                                        std::vector<EGW_RelationDef_Thrift>& list)
{
    list.clear();
    const std::vector<RelationDef> definitions = GetRelationList(elementTypeId);
    for (const RelationDef& definition : definitions)
    {
        // Attr2 is widened without sign: the host's 0xFFFF stays 65535.
        list.push_back({definition.RelatedTypeID, definition.RelationKind, definition.Attr1,
                        UINT32{definition.Attr2}, definition.Attr3});
    }
    return static_cast<UINT32>(definitions.size());
}

UINT32 EGW_ELementServerGetPropertyDefaultDataList(UINT32 elementTypeId,
                                                   std::vector<PropertyDefaultDef>& list)
{
    list.clear();
    list = GetPropertyDefaultList(elementTypeId);
    return static_cast<UINT32>(list.size());
}
