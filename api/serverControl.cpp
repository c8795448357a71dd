// The element server as a whole (lock, event dispatcher) and the two smallest per-element calls.
#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "host/debugPrint.h"

INT32 EGW_ElementServerLock(UINT32 mLockPolicy, void*)
{
    constexpr const char* kFn = "INT32 EGW_ElementServerLock(UINT32, void*)";
    // Callers choose between waiting for the tree (1) and trying once (2); the host's shared
    // policy is not offered to them.
    LockPolicy policy = LOCK_POLICY_WAIT;
    switch (mLockPolicy)
    {
    case 1:
        policy = LOCK_POLICY_WAIT;
        break;
    case 2:
        policy = LOCK_POLICY_TRY;
        break;
    default:
        DebugPrint(4, egw::kModuleTag, "Error input,mLockPolicy=%d\n",
                   static_cast<int>(mLockPolicy));
        // -1: no lock was taken; the host's own codes for a refused lock are its own.
        EGW_FAIL("<EGW_ElementServerLock> Error mLockPolicy value\n", kFn, -1);
    }
    return egw::server().Lock(policy);
}

INT32 EGW_ElementServerUnlock(void*)
{
    return egw::server().UnLock();
}

INT32 EGW_ELementServerOpenEventDispatcher(void*)
{
    return egw::server().OpenEventDispatcher();
}

INT32 EGW_ELementServerCloseEventDispatcher(void*)
{
    return egw::server().CloseEventDispatcher();
}

UINT32 EGW_ElementServerGetElementTypeByUuid(UINT32 uuid, void*)
{
    const unsigned short type = Element(uuid).GetType();
    // Type 0 means "no element": it never carries the tag.
    return type == 0 ? 0 : (0x70000u | type);
}

INT32 EGW_ElementServerValidElementInner(UINT32 uuid, void*)
{
    return Element(uuid).Validate(false);
}
