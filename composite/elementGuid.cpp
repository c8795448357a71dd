// GUID numbering: every element receives a panel-wide serial number the first time it needs one,
// drawn from the counter that the tree's root keeps.
#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "composite/gatewayComposite.h"
#include "host/debugPrint.h"

namespace
{

constexpr UINT32 PROPERTY_GUID = 0x301A4;
// The GUID most recently given out; 0 before the first.
constexpr UINT32 PROPERTY_CIE_AVAILABLE_ID = 0x301A6;

} // namespace

// The counter is read, incremented and written back by separate element-server calls and no lock
// is taken here: callers that number elements from several threads hold the element-server lock
// around the call.
void EGW_ELementServerManagerElementGUID(UINT32 uuid, void* pElementServerThriftClient)
{
    static constexpr char kFn[] = "void EGW_ELementServerManagerElementGUID(UINT32, void*)";
    EGW_REQUIRE(__null != pElementServerThriftClient, kFn, );
    void* const client = pElementServerThriftClient;

    UINT32 guid = 0;
    if (0 == uuid || !EGW_ElementServerGetPropertyIntDataById(uuid, PROPERTY_GUID, guid, client) ||
        0 != guid)
    {
        return;
    }

    const UINT32 rootUuid = EGW_ELementServerGetTreeRoot(client);
    UINT32 lastGiven = 0;
    if (!EGW_ElementServerGetPropertyIntDataById(rootUuid, PROPERTY_CIE_AVAILABLE_ID, lastGiven,
                                                 client))
    {
        DebugPrint(4, egw::kModuleTag,
                   "<EGW_ELementServerManagerElementGUID>Error:            read "
                   "PROPERTY_CIE_AVAILABLE_ID value fault!!            uuid=0x%x, mRootUuid=0x%x\n",
                   uuid, rootUuid);
        // The report quotes the message as written, so it stays one literal.
        // clang-format off
        EGW_FAIL("<EGW_ELementServerManagerElementGUID>Error:            read PROPERTY_CIE_AVAILABLE_ID value fault!!\n", kFn, );
        // clang-format on
    }

    const UINT32 next = lastGiven + 1;
    if (!EGW_ElementServerSetPropertyIntDataById(uuid, PROPERTY_GUID, next, client))
    {
        // clang-format off
        EGW_FAIL("<EGW_ELementServerManagerElementGUID>Error:            set PROPERTY_GUID value fault!!\n", kFn, );
        // clang-format on
    }
    if (!EGW_ElementServerSetPropertyIntDataById(rootUuid, PROPERTY_CIE_AVAILABLE_ID, next, client))
    {
        // clang-format off
        EGW_FAIL("<EGW_ELementServerManagerElementGUID>Error:            set PROPERTY_CIE_AVAILABLE_ID value fault!!\n", kFn, );
        // clang-format on
    }
}

INT32 EGW_ELementServerValidateElementByUuid(UINT32 uuid, void* client)
{
    void* const handle = client != nullptr ? client : GetThriftClientInstance();
    EGW_ELementServerManagerElementGUID(uuid, handle);
    return EGW_ElementServerValidElementInner(uuid, handle);
}
