// Element identification and event text: singleton elements by type chain, identity numbers and
// ID strings, and the event detail record.
#ifndef ELEMENT_GATEWAY_IDENTITY_H
#define ELEMENT_GATEWAY_IDENTITY_H

#include <string>

#include "api/gatewayTypes.h"
#include "host/elementServer.h"

// ---- Unique elements ---------------------------------------------------------------------------

// The one element of a singleton type (untagged type number), found through its fixed type chain.
// An unsupported type stores 5 through the error pointer (when not null) and gives an empty element.
EGW_API Element GetUniqueElement(unsigned short type, int* error);

// ---- Identity numbers and ID strings -----------------------------------------------------------

// 1 when type is one of the first count entries of table.
EGW_API BOOL checkTable(const unsigned short* table, unsigned int count, unsigned short type);
EGW_API BOOL IsPoints(unsigned short type);
// Fills at most one of the five identity numbers from this element alone.
EGW_API void whoami(Element& element, unsigned int& rootAddress, unsigned int& sectionAddress,
                    unsigned int& pointDeviceId, unsigned int& subUnitAddress,
                    unsigned int& fourDigitAddress);
// The dotted ID string; the element is used as the walking cursor and ends at the tree root.
EGW_API std::string GetIDString(Element& element);

// ---- Event detail ------------------------------------------------------------------------------

// The event detail record; the caller zeroes it, the gateway fills the fields that the element's
// category calls for.
struct ENENT_FIELD
{
    UINT32 SelfID;
    UINT32 SelfAddress;
    UINT32 ParentID;
    UINT32 ParentAddress;
    UINT32 DeviceID;
    bool HasProxy;
    UINT32 ProxyID;
    UINT32 ProxyAddress;
};

class EGW_API ENEventFormat
{
public:
    ENEventFormat();

    bool IsInputZone(unsigned int uuid);
    bool IsChildOfBoradOr4MCard(unsigned int uuid);
    // The four type predicates take the tagged type id (type number with 0x70000 ORed in).
    bool IsIO_Module_FD_FRD(unsigned int type);
    bool IsChannelOfIOModule(unsigned int type);
    bool IsDetector(unsigned int type);
    bool IsAddresSounder(unsigned int type);

    // 0 (no element) to 14.
    int CheckCategoryByType(unsigned int uuid);

    void GetSelfIDAndAddress(unsigned int uuid, ENENT_FIELD& field, bool withId, bool withAddress);
    void GetParentIDAndAdress(unsigned int uuid, ENENT_FIELD& field, bool withId, bool withAddress);
    void GetDeviceID(unsigned int uuid, ENENT_FIELD& field, bool fromParent);
    unsigned int GetProxyElementID(unsigned int uuid, bool direction);
    unsigned int GetProxyEvacZoneID(unsigned int uuid, bool direction);
    void GetProxyIDAndAddress(unsigned int uuid, ENENT_FIELD& field, bool direction,
                              bool withProxyParent, bool evacZone);

    // Classifies the element, fills the record for its category and returns the category.
    int GetEventDetails(unsigned int uuid, ENENT_FIELD& field);
};

#endif
