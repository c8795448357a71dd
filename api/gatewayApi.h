// Element access: the thin operations on one element of the element tree. Each builds its own
// temporary host objects, makes its host calls, converts the answer and releases everything before
// it returns. The trailing void* is the caller's client handle; these operations never read it.
#ifndef ELEMENT_GATEWAY_API_H
#define ELEMENT_GATEWAY_API_H

#include <string>
#include <vector>

#include "api/gatewayTypes.h"

// ---- Client handles ----------------------------------------------------------------------------

// A new handle on the heap; release it with ThriftClient_Close.
EGW_API ElementServerThriftClient* NewThriftClientInstance();
// The library's static handle: the same address on every call, never freed.
EGW_API ElementServerThriftClient* GetThriftClientInstance();
// Frees a handle from NewThriftClientInstance; null and the static handle are left alone.
EGW_API void ThriftClient_Close(ElementServerThriftClient* client);

// ---- Lock, event dispatcher, type, validation --------------------------------------------------

// Policy 1 takes the host lock policy 0, policy 2 the host policy 2; other values are refused.
// Returns the host's code.
EGW_API INT32 EGW_ElementServerLock(UINT32 mLockPolicy, void*);
EGW_API INT32 EGW_ElementServerUnlock(void*);
EGW_API INT32 EGW_ELementServerOpenEventDispatcher(void*);
EGW_API INT32 EGW_ELementServerCloseEventDispatcher(void*);
// The element's type number with 0x70000 ORed in, or 0 when the uuid names no element.
EGW_API UINT32 EGW_ElementServerGetElementTypeByUuid(UINT32 uuid, void*);
// The host's validation of one element; its code unchanged.
EGW_API INT32 EGW_ElementServerValidElementInner(UINT32 uuid, void*);

// ---- Typed properties: 1 when read or written, else 0 with the output untouched ----------------

EGW_API BOOL EGW_ElementServerGetPropertyBoolDataById(UINT32 uuid, UINT32 propertyId, int& value,
                                                      void*);
EGW_API BOOL EGW_ElementServerSetPropertyBoolDataById(UINT32 uuid, UINT32 propertyId, int value,
                                                      void*);
// 1-, 2- or 4-byte integers by the property's storage type; 2-byte values are sign-extended.
EGW_API BOOL EGW_ElementServerGetPropertyIntDataById(UINT32 uuid, UINT32 propertyId, UINT32& value,
                                                     void*);
// Stores the low 1, 2 or 4 bytes of the value, by the property's storage type.
EGW_API BOOL EGW_ElementServerSetPropertyIntDataById(UINT32 uuid, UINT32 propertyId, UINT32 value,
                                                     void*);
EGW_API BOOL EGW_ElementServerGetPropertyDatetimeDataById(UINT32 uuid, UINT32 propertyId,
                                                          tagBSC_DATETIME& value, void*);
EGW_API BOOL EGW_ElementServerSetPropertyDatetimeDataById(UINT32 uuid, UINT32 propertyId,
                                                          const tagBSC_DATETIME& value, void*);
// Appends the property's bytes to the string (third argument: the property id).
EGW_API BOOL EGW_ElementServerGetStringProperty(std::string&, UINT32 uuid, UINT32, void*);
// Writes mDataSize bytes from pData (fourth argument: the property id).
EGW_API BOOL EGW_ElementServerSetStringProperty(const void* pData, UINT16 mDataSize, UINT32 uuid,
                                                UINT32, void*);
// Clears the string, then appends the property's bytes.
EGW_API BOOL EGW_ElementServerGetPropertyDataByPropertyID(UINT32 uuid, UINT32 propertyId,
                                                          std::string& value, void*);

// ---- Element lifecycle -------------------------------------------------------------------------

// Adds an element of the type under the parent, or the root when the parent is 0 and there is no
// root yet. The new uuid, or 0.
EGW_API UINT32 EGW_ELementServerAddElementByType(UINT32 parentElementUuid, UINT32 elementTypeId,
                                                 bool, void*);
EGW_API INT32 EGW_ELementServerDeleteElementByUuid(UINT32 uuid, void*);
EGW_API INT32 EGW_ELementServerDeleteElementWaitNotifyInner(UINT32 uuid);

// ---- Tree navigation and reference relations: uuids, 0 for none; lists are appended to ---------

EGW_API UINT32 EGW_ELementServerGetTreeRoot(void*);
EGW_API UINT32 EGW_ELementServerGetParentUuid(UINT32 uuid, void*);
EGW_API void EGW_ELementServerGetChildrenUuidList(std::vector<int>&, UINT32 uuid, void*);
// The first element below the start whose property holds exactly the given bytes.
EGW_API UINT32 EGW_ELementServerGetElementByProperty(UINT32 rootElementUuid, UINT32 propertyId,
                                                     const void* pPropertyData,
                                                     UINT16 mPropertyDataSize, bool, void*);
// The start element (0: the root) when it has the type, else the first element of it below.
EGW_API UINT32 EGW_ELementServerGetElementByElementTypeId(UINT32, UINT32 ElementTypeId, bool,
                                                          void*);
EGW_API UINT32 EGW_ELementServerGetHardwareTreeRoot(void*);
EGW_API UINT32 EGW_ELementServerGetP2TreeRoot(void*);
EGW_API UINT32 EGW_ELementServerGetDetectionTreeRoot(void*);
EGW_API UINT32 EGW_ELementServerGetControlTreeRoot(void*);
// Holder uuid, target uuid, relation type.
EGW_API BOOL EGW_ELementServerAddReferenceRelation(int, int, UINT32, void*);
EGW_API BOOL EGW_ELementServerDelReferenceRelation(int, int, UINT32, void*);
// Appends the elements related to uuid by the relation type; the int selects the direction.
EGW_API void EGW_ElementServerGetReferenceRelations(std::vector<int>&, UINT32 uuid, UINT32, int,
                                                    void*);

// ---- Subscriptions, states, commands, ID string ------------------------------------------------

// pid, element type id, event id; the host's code.
EGW_API INT32 EGW_ElementServerSubscribeByType(UINT32 pid, UINT32, UINT32, void*);
EGW_API INT32 EGW_ElementServerUnSubscribeByType(UINT32 pid, UINT32, UINT32, void*);
// pid, uuid, event id; a refusal because the module has not logged in is logged and reported as 0.
EGW_API INT32 EGW_ElementServerSubscribeByElement(UINT32 pid, UINT32 uuid, UINT32, void*);
EGW_API INT32 EGW_ElementServerUnSubscribeByElement(UINT32 pid, UINT32 uuid, UINT32, void*);
// value, uuid, state id; a state whose value is 0 reads as failure.
EGW_API BOOL EGW_ELementServerGetStateValueByUuid(UINT32& value, UINT32 uuid, UINT32, void*);
EGW_API BOOL EGW_ELementServerSetStateValueByUuid(UINT32 value, UINT32 uuid, UINT32, void*);
// Target uuid, command id, source uuid (0: none), parameter bytes and their count.
EGW_API INT32 EGW_ElementServerExecuteCommand(UINT32 uuid, UINT32, UINT32, const void*, UINT16,
                                              void*);
// Replaces the string with the element's ID string.
EGW_API void EGW_ElementServerGetIDStringOfElement(std::string&, UINT32 uuid, void*);

#endif
