// Creating and deleting elements of the tree. What an add or delete implies for children,
// relations and subscriptions is the element server's; the gateway picks the call and its
// fixed arguments.
#include "api/callingFrame.h"
#include "api/gatewayApi.h"

UINT32 EGW_ELementServerAddElementByType(UINT32 parentElementUuid, UINT32 elementTypeId,
                                         bool bValidate, void*)
{
    ElementServer& es = egw::server();
    int error = 0;
    Element added;
    if (parentElementUuid != 0)
    {
        Element parent(parentElementUuid);
        added = es.AddElement(&parent, egw::low16(elementTypeId), false, &error, bValidate);
    }
    else
    {
        // Without a parent the new element becomes the root, which only an empty tree can take.
        // Only the error word of GetRoot counts; the root it returns is dropped at once.
        es.GetRoot(&error);
        if (error == 0)
        {
            return 0;
        }
        // The host writes the error word on every call, so it is passed on as GetRoot left it.
        added = es.AddElement(nullptr, egw::low16(elementTypeId), false, &error, bValidate);
    }
    return error == 0 ? added.GetUUID() : 0;
}

INT32 EGW_ELementServerDeleteElementByUuid(UINT32 uuid, void*)
{
    ElementServer& es = egw::server();
    Element element(uuid);
    return es.DeleteElement(element, false);
}

INT32 EGW_ELementServerDeleteElementWaitNotifyInner(UINT32 uuid)
{
    Element element(uuid);
    return egw::server().DeleteElementWaitForNoticication(element);
}
