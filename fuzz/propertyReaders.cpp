// The property readers over arbitrary stored bytes: any run of bytes is stored into any property
// of an element of a small panel, then read back by every reader and by the identity and event
// functions that read addresses and device IDs. Each reader must take exactly the values of its
// width and leave the rest alone; an ID string never exceeds its 44 characters.
#include <cstring>
#include <vector>

#include "elementGateway.h"
#include "fuzzSupport.h"
#include "host/typeLibrary.h"
#include "panelsim/panelsim.h"
#include "samplePanel.h"

namespace
{

constexpr UINT32 kUntouched = 0xA5A5A5A5u;

const std::vector<UINT32>& panelElements()
{
    static const std::vector<UINT32> elements = [] {
        panelsim::reset();
        panelsim::setLogSink([](int, const std::string&, const std::string&) {});
        return buildSamplePanel().all();
    }();
    return elements;
}

// The integer as the panel stores it: little-endian, 2-byte values signed, 1-byte unsigned.
UINT32 storedInteger(const std::string& bytes)
{
    if (bytes.size() == 2)
    {
        int16_t half = 0;
        std::memcpy(&half, bytes.data(), 2);
        return static_cast<UINT32>(static_cast<int32_t>(half));
    }
    UINT32 value = 0;
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
}

void checkReaders(UINT32 uuid, UINT32 propertyId, const std::string& bytes)
{
    int truth = 0x5A;
    const BOOL truthRead = EGW_ElementServerGetPropertyBoolDataById(uuid, propertyId, truth, nullptr);
    FUZZ_CHECK(truthRead == (bytes.size() == 1 ? TRUE : FALSE));
    FUZZ_CHECK(truth == (truthRead ? static_cast<unsigned char>(bytes[0]) : 0x5A));

    const UINT32 storage = EGW_ElementServerGetPropertyTypeById(propertyId);
    const bool integer = storage <= 19 && ((0x80058u | 0x10080u | 0x8020u) >> storage & 1u) != 0;
    UINT32 number = kUntouched;
    const BOOL numberRead = EGW_ElementServerGetPropertyIntDataById(uuid, propertyId, number, nullptr);
    FUZZ_CHECK(numberRead == (integer ? TRUE : FALSE));
    FUZZ_CHECK(number == (integer ? storedInteger(bytes) : kUntouched));

    tagBSC_DATETIME when;
    std::memset(&when, 0xA5, sizeof when);
    const BOOL whenRead = EGW_ElementServerGetPropertyDatetimeDataById(uuid, propertyId, when, nullptr);
    FUZZ_CHECK(whenRead == (bytes.size() == sizeof when ? TRUE : FALSE));
    if (whenRead)
        FUZZ_CHECK(std::memcmp(&when, bytes.data(), sizeof when) == 0);

    std::string appended = "ab";
    FUZZ_CHECK(EGW_ElementServerGetStringProperty(appended, uuid, propertyId, nullptr) == TRUE);
    FUZZ_CHECK(appended == "ab" + bytes);
    std::string replaced = "ab";
    FUZZ_CHECK(EGW_ElementServerGetPropertyDataByPropertyID(uuid, propertyId, replaced, nullptr) == TRUE);
    FUZZ_CHECK(replaced == bytes);
}

// The identity and event functions read addresses and device IDs of whatever width is stored.
void readIdentities(const std::vector<UINT32>& elements)
{
    for (UINT32 uuid : elements)
    {
        std::string id;
        FUZZ_CHECK(EGW_BASIC_THRIFT_GetPhysicalAddress(uuid, id, nullptr) == TRUE);
        FUZZ_CHECK(id.size() <= 44);
        EGW_THRIFT_ADDRESS_STRUCT address{};
        EGW_GetThriftAddressStructByUuid(address, uuid, nullptr);
        ENENT_FIELD field{};
        const int category = ENEventFormat().GetEventDetails(uuid, field);
        FUZZ_CHECK(category >= 1 && category <= 14 && category != 13);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool installed = (AssertionCount::install(), true);
    (void)installed;
    const std::vector<UINT32>& elements = panelElements();
    FuzzInput in(data, size);
    while (in.remaining() != 0)
    {
        const UINT32 uuid = elements[in.take<uint8_t>() % elements.size()];
        const UINT32 type = EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
        std::vector<EGW_PropertyDef_Thrift> properties;
        EGW_ELementServerGetPropertyInformationList(type, properties);
        const auto pick = in.take<UINT16>();
        // Mostly a property the type has; now and then any id at all.
        const UINT32 propertyId = (pick & 0x8000) || properties.empty()
                                      ? 0x30000u | (pick & 0x7FFF)
                                      : properties[pick % properties.size()].PropertyID;
        const std::string bytes = in.takeBytes(in.take<uint8_t>());
        if (bytes.empty())
            continue;
        if (EGW_ElementServerSetStringProperty(bytes.data(), static_cast<UINT16>(bytes.size()), uuid,
                                               propertyId, nullptr))
            checkReaders(uuid, propertyId, bytes);
    }
    readIdentities(elements);
    FUZZ_CHECK(AssertionCount::value() == 0);
    FUZZ_CHECK(panelsim::liveElements() == 0 && panelsim::liveProperties() == 0);
    return 0;
}
