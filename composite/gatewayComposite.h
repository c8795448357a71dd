// Composite functions: operations built from several element operations and type-library queries,
// for the wire-facing callers and the panel's modules.
#ifndef ELEMENT_GATEWAY_COMPOSITE_H
#define ELEMENT_GATEWAY_COMPOSITE_H

#include <string>
#include <vector>

#include "api/gatewayTypes.h"
#include "host/typeLibrary.h"

// ---- Records -----------------------------------------------------------------------------------

// An element's address value and the storage type number of the property it came from.
typedef struct S_EGW_THRIFT_ADDRESS_STRUCT
{
    UINT32 mData;
    UINT32 mDataType;
} EGW_THRIFT_ADDRESS_STRUCT;

// A state change: element, state group and two state values of that group. Its data form is
// these four words, 16 bytes, little-endian.
struct EGW_CONTROLPARA
{
    UINT32 mUuid;
    UINT32 mGroupId;
    UINT32 mFirstStateValue;
    UINT32 mSecondStateValue;
};

// One row of a state-change pattern table; 0 in a word matches any value.
struct EGW_GROUP_STATE_STRUCT
{
    UINT32 mElementType;
    UINT32 mGroupId;
    UINT32 mFirstStateValue;
    UINT32 mSecondStateValue;
};

// A two-level status category of a state value.
struct S_EGWStateCategoryStruct
{
    unsigned char mStatusL1Type;
    unsigned char mStatusL2Type;
};

// The default state of one state group.
struct S_EGW_GET_DEFAULT_STATUS
{
    UINT32 mGroupId;
    UINT32 mDefaultStateValue;
};

// One state to set before a waited delete.
struct S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST
{
    UINT32 mUuid;
    UINT32 mGroupId;
    UINT32 mStateValue;
};

// A property definition as handed to the wire side.
struct EGW_PropertyDef_Thrift
{
    UINT32 PropertyID;
    unsigned char Attr1;
    UINT32 Attr2;
    UINT32 Attr3;
    unsigned char Attr4;
    unsigned char Attr5;
    unsigned char Attr6;
    unsigned char Attr7;
};

// A relation definition as handed to the wire side; Attr2 is the host's 16-bit value widened.
struct EGW_RelationDef_Thrift
{
    UINT32 RelatedTypeID;
    signed char RelationKind;
    UINT16 Attr1;
    UINT32 Attr2;
    unsigned char Attr3;
};

static_assert(sizeof(EGW_CONTROLPARA) == 16 && sizeof(EGW_GROUP_STATE_STRUCT) == 16,
              "state-change records are four 32-bit words");
static_assert(sizeof(S_EGWStateCategoryStruct) == 2, "a status category is two bytes");
static_assert(sizeof(PropertyDef) == 20 && offsetof(PropertyDef, Attr2) == 8 &&
                  offsetof(PropertyDef, Attr3) == 12 && offsetof(PropertyDef, Attr4) == 16 &&
                  offsetof(PropertyDef, Attr7) == 19,
              "the host's PropertyDef layout");
static_assert(sizeof(RelationDef) == 12 && offsetof(RelationDef, RelationKind) == 4 &&
                  offsetof(RelationDef, Attr1) == 6 && offsetof(RelationDef, Attr2) == 8 &&
                  offsetof(RelationDef, Attr3) == 10,
              "the host's RelationDef layout");
static_assert(offsetof(PropertyDefaultDef, Attr7) == 19 &&
                  offsetof(PropertyDefaultDef, DefaultValue) ==
                      (sizeof(PropertyDef) + alignof(std::string) - 1) / alignof(std::string) *
                          alignof(std::string),
              "PropertyDefaultDef is PropertyDef followed by the default text");

// The project whose access-level default passwords the gateway serves.
enum EGW_PRODUCT_ID
{
    ENUM_PRODUCT_ZT480EN = 0x90328
};

// ---- Container marshalling ---------------------------------------------------------------------

EGW_API UINT32 EGW_BASIC_GetVectorSize(const std::vector<int>& vec);
// Copies the vector into a buffer of mSizeBuffer elements; FALSE with count 0 when it does not fit.
EGW_API BOOL EGW_BASIC_ReadVectorContain(const std::vector<int>& vec, INT32* pBuffer,
                                         UINT32 mSizeBuffer, UINT32& count);
// Replaces the vector's contents with count elements of the buffer.
EGW_API BOOL EGW_BASIC_WriteVectorContain(std::vector<int>& vec, const INT32* pBuffer, UINT32 count);
EGW_API UINT32 EGW_BASIC_GetStringSize(const std::string& str);
// The string's own first byte (null for an empty string); size receives the byte count.
EGW_API const char* EGW_BASIC_GetStringdata(const std::string& str, UINT32& size);
// Copies the string's bytes into the buffer; size receives the length (16 bits) even when the
// buffer is too small, in which case FALSE is returned.
EGW_API BOOL EGW_BASIC_ReadStringContain(const std::string& str, void* pBuffer, UINT16 bufferSize,
                                         UINT16& size);
// Appends length bytes (after emptying the string when bClear); FALSE and no change for length 0.
EGW_API BOOL EGW_BASIC_WriteStringContain(std::string& str, const void* pBuffer, UINT16 length,
                                          BOOL bClear);
EGW_API BOOL CheckIsHavedInList(const std::vector<unsigned int>& list, UINT32 value);

// ---- Element address records -------------------------------------------------------------------

EGW_API BOOL EGW_GetThriftAddressStructByUuid(EGW_THRIFT_ADDRESS_STRUCT& record, UINT32 mUuid,
                                              void* client);
// Both replace the string with the element's ID string and return TRUE.
EGW_API BOOL EGW_BASIC_THRIFT_GetPhysicalAddress(UINT32 mCurrentUuid, std::string& str,
                                                 void* client);
EGW_API BOOL EGW_BASIC_THRIFT_GetLogicAddress(UINT32 mCurrentUuid, std::string& str, void* client);
// Appends the record's value as "%x", and a dot when bAddDot.
EGW_API void EGW_BASIC_THRIFT_WriteDataInAddressString(const EGW_THRIFT_ADDRESS_STRUCT& record,
                                                       std::string& str, BOOL bAddDot);
// Replaces the string with the records' values last to first, dotted, and a trailing zero byte.
EGW_API BOOL EGW_BASIC_FormatAddressStructDataList(
    std::string& str, const std::vector<S_EGW_THRIFT_ADDRESS_STRUCT>& list);

// ---- State-change records and state-group checks -----------------------------------------------

// Stores uuid, groupId, firstStateValue, secondStateValue (note the crosswise argument order).
EGW_API BOOL EGW_BASIC_PackStateChangeInforData(EGW_CONTROLPARA& record, UINT32 uuid,
                                                UINT32 groupId, UINT32 secondStateValue,
                                                UINT32 firstStateValue);
EGW_API BOOL EGW_BASIC_UnpackStateChangeInforData(EGW_CONTROLPARA& record, const void* data,
                                                  UINT32 size);
// TRUE when the record matches a row of the table; the first matching row ends the search.
EGW_API BOOL EGW_BASIC_CompareTableData(const void* data, UINT32 size,
                                        const EGW_GROUP_STATE_STRUCT* table, UINT32 rowCount);
EGW_API BOOL EGW_BASIC_CheckInductStateIDInGroup(UINT32 mGroupId,
                                                 const std::vector<unsigned int>& mStateIdList);
EGW_API BOOL EGW_BASIC_CheckInductStateCategoryInGroup(
    UINT32 mGroupId, const std::vector<S_EGWStateCategoryStruct>& mStateCategoryList);

// ---- Bulk subscriptions ------------------------------------------------------------------------

EGW_API INT32 EGW_SubscribeDeletedElementForWaitingNotifyByType(UINT32 pid, UINT32 elementType,
                                                                bool bSecondEvent, void* client);
EGW_API INT32 EGW_SubscribeDeletedElementForWaitingNotifyByElement(UINT32 pid, UINT32 uuid,
                                                                   bool bSecondEvent, void* client);
EGW_API BOOL EGW_BASIC_THRIFT_SubscribeAllCommands(UINT32 pid, UINT32 elementType, void* client);
EGW_API BOOL EGW_BASIC_THRIFT_SubscribeAllStateChange(UINT32 pid, UINT32 elementType, void* client);
EGW_API BOOL EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(
    UINT32 pid, UINT32 elementType, const std::vector<unsigned int>& stateIdList);
EGW_API BOOL EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(
    UINT32 pid, UINT32 elementType, const std::vector<S_EGWStateCategoryStruct>& categoryList);
// 1 when the type has no properties, 0 after subscribing every property.
EGW_API BOOL EGW_BASIC_THRIFT_SubscribeAllPropertyChange(UINT32 pid, UINT32 elementType,
                                                         void* client);

// ---- Element GUID management and validation ----------------------------------------------------

EGW_API void EGW_ELementServerManagerElementGUID(UINT32 uuid, void* pElementServerThriftClient);
EGW_API INT32 EGW_ELementServerValidateElementByUuid(UINT32 uuid, void* client);

// ---- Default values and default states ---------------------------------------------------------

EGW_API BOOL EGW_BASIC_GetDefaultIntegerTypeProperty(UINT32 elementTypeId, UINT32 propertyId,
                                                     UINT32& value);
EGW_API std::string EGW_BASIC_GetDefaultPassowrdByLevelProperty(UINT32 propertyId,
                                                                UINT32 mProjectID);
EGW_API std::string EGW_BASIC_GetDefaultPassowrdL2(UINT32 mProjectID);
EGW_API std::string EGW_BASIC_GetDefaultPassowrdL3(UINT32 mProjectID);
EGW_API std::string EGW_BASIC_GetDefaultPassowrdL3_1(UINT32 mProjectID);
EGW_API std::string EGW_BASIC_GetDefaultPassowrdL4(UINT32 mProjectID);
// Empties the list, then appends one record per state group; FALSE at the first group without one.
EGW_API BOOL EGW_BASIC_GetDefaultStatus(UINT32 elementTypeId,
                                        std::vector<S_EGW_GET_DEFAULT_STATUS>& list);
EGW_API void EGW_SetOneElementToDefaultStates(UINT32 uuid);

// ---- Relationship and population queries -------------------------------------------------------

EGW_API BOOL EGW_BroadcastCommandToRelationship(UINT32 mUuid, UINT32 commandId, UINT32 sourceUuid,
                                                UINT32 relationType, BOOL direction,
                                                BOOL bIncludeSelf, void* client);
// Replaces the list with the visible elements the relation reaches, in relation order.
EGW_API void EGW_BASIC_THRIFT_GetVisibleRelationElementList(UINT32 uuid, UINT32 relationType,
                                                            INT32 direction, std::vector<int>& out,
                                                            void* client);
// Replaces the list with the subtree's elements of the type (0: any) in pre-order; their number.
EGW_API UINT32 EGW_BASIC_THRIFT_GetAllElementUuidByElementType(UINT32 rootUuid,
                                                               UINT32 elementTypeId,
                                                               std::vector<unsigned int>& out,
                                                               void* client);
EGW_API void EBT_SUB_GetAllElementUuidByElementType(UINT32 uuid, UINT32 elementTypeId,
                                                    std::vector<unsigned int>& out, void* client);
EGW_API UINT32 EGW_ELementServerDeleteElementWaitNotifyByUuid(
    UINT32 rootUuid, std::vector<S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST>& changeList, UINT32 mode);
// Replaces the list with every type that can occur below the type, each once.
EGW_API BOOL EGW_BASIC_THRIFT_GetAllChildrenElementType(std::vector<unsigned int>& out,
                                                        UINT32 mParentElementTypeID);
EGW_API BOOL EGW_BASIC_THRIFT_GetAllChildrenElementTypeInner(std::vector<unsigned int>& out,
                                                             UINT32 mParentElementTypeID);

// ---- Type-library queries ----------------------------------------------------------------------

EGW_API UINT32 EGW_ElementServerGetPropertyTypeById(UINT32 propertyId);
EGW_API BOOL ISValidTypeByPropertyID(UINT32 propertyId);
// The four predicates store the storage type number through the pointer (when not null) only
// when they return TRUE.
EGW_API BOOL IsNumberTypeByPropertyID(UINT32 propertyId, UINT32* type);
EGW_API BOOL IsStringTypeByPropertyID(UINT32 propertyId, UINT32* type);
EGW_API BOOL IsBoolTypeByByPropertyID(UINT32 propertyId, UINT32* type);
EGW_API BOOL IsEnumTypeByByPropertyID(UINT32 propertyId, UINT32* type);
EGW_API UINT32 EGW_BASIC_GetVisibleByElementType(UINT32 elementTypeId);
EGW_API UINT32 EGW_GetDefaultStatusOfGroup(UINT32 stateGroupId);
EGW_API UINT32 EGW_GetAllStatusInGroup(UINT32 stateGroupId, std::vector<unsigned int>& values);
EGW_API UINT32 EGW_ELementServerGetCommandListByElementTypeId(std::vector<unsigned int>& commands,
                                                              UINT32 elementTypeId);
EGW_API BOOL EGW_ElementServerGetStateGroupIdListByElementTypeId(std::vector<unsigned int>& groups,
                                                                 UINT32 elementTypeId);
// Leaves the list untouched when the type has no property definitions.
EGW_API UINT32 EGW_ELementServerGetPropertyInformationList(
    UINT32 elementTypeId, std::vector<EGW_PropertyDef_Thrift>& list);
EGW_API UINT32 EGW_ELementServerGetRelationList(UINT32 elementTypeId,
                                                std::vector<EGW_RelationDef_Thrift>& list);
EGW_API UINT32 EGW_ELementServerGetPropertyDefaultDataList(UINT32 elementTypeId,
                                                           std::vector<PropertyDefaultDef>& list);

#endif
