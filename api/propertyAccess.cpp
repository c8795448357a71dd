// Typed property access: the host's raw property bytes as truth values, integers of the storage
// type's width, date-time records and byte strings.
#include <cstdint>
#include <cstring>

#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "host/typeLibrary.h"

namespace
{

// Integer storage types: bit T of a group's set is 1 when storage type T is stored with the
// group's width. Groups are tried in this order; types above 19 are never integers.
struct IntegerGroup
{
    UINT32 typeBits;
    unsigned width;
};
constexpr IntegerGroup kIntegerGroups[] = {{0x80058u, 4}, {0x10080u, 1}, {0x8020u, 2}};
constexpr UINT32 kLastStorageType = 19;

// Stored width in bytes of an integer storage type, or 0 when the type holds no integer.
unsigned integerWidth(UINT32 storageType)
{
    if (storageType > kLastStorageType)
    {
        return 0;
    }
    for (const IntegerGroup& group : kIntegerGroups)
    {
        if (((group.typeBits >> storageType) & 1u) != 0)
        {
            return group.width;
        }
    }
    return 0;
}

// The integer of `width` bytes at `data`: 1-byte values are unsigned, 2-byte values signed.
UINT32 readInteger(const unsigned char* data, unsigned width)
{
    switch (width)
    {
    case 1:
        return data[0];
    case 2:
    {
        std::int16_t value = 0;
        std::memcpy(&value, data, sizeof value);
        return static_cast<UINT32>(static_cast<std::int32_t>(value));
    }
    default:
    {
        std::uint32_t value = 0;
        std::memcpy(&value, data, sizeof value);
        return value;
    }
    }
}

// A property of one element to be written: the element is held first so that the property goes
// first. The bytes given to write() stay the caller's until SetProperty has returned.
class PropertyWrite
{
public:
    PropertyWrite(UINT32 uuid, UINT32 propertyId)
        : element_(uuid), property_(egw::low16(propertyId))
    {
    }

    BOOL write(const void* data, UINT16 size)
    {
        // The host only reads the bytes; its interface is not const-correct.
        property_.SetData(const_cast<void*>(data), size);
        return egw::boolFromStatus(element_.SetProperty(property_, false));
    }

private:
    Element element_;
    Property property_;
};

// The property's bytes appended to `text`; an empty property gives 0 and leaves the text alone.
BOOL appendPropertyBytes(std::string& text, UINT32 uuid, UINT32 propertyId)
{
    egw::PropertyRead read(uuid, propertyId);
    if (read.empty())
    {
        return FALSE;
    }
    unsigned short size = 0;
    const unsigned char* data = read.data(size);
    if (size == 0)
    {
        return TRUE;
    }
    if (data == nullptr) // GCOVR_EXCL_BR_LINE: no host gives null data with a size (coverage.md)
    {
        return FALSE;
    }
    text.append(reinterpret_cast<const char*>(data), size);
    return TRUE;
}

} // namespace

BOOL EGW_ElementServerGetPropertyBoolDataById(UINT32 uuid, UINT32 propertyId, int& value, void*)
{
    egw::PropertyRead read(uuid, propertyId);
    unsigned short size = 0;
    const unsigned char* data = read.data(size);
    if (data == nullptr || size != 1)
    {
        return FALSE;
    }
    // Passed on as stored: a byte other than 0 or 1 is the host's to explain.
    value = data[0];
    return TRUE;
}

BOOL EGW_ElementServerSetPropertyBoolDataById(UINT32 uuid, UINT32 propertyId, int value, void*)
{
    const unsigned char stored = value != 0 ? 1 : 0;
    return PropertyWrite(uuid, propertyId).write(&stored, sizeof stored);
}

BOOL EGW_ElementServerGetPropertyIntDataById(UINT32 uuid, UINT32 propertyId, UINT32& value, void*)
{
    egw::PropertyRead read(uuid, propertyId);
    if (read.empty())
    {
        return FALSE;
    }
    unsigned short size = 0;
    const unsigned char* data = read.data(size);
    if (data == nullptr)
    {
        return FALSE;
    }
    // The host keeps an integer property exactly as wide as its storage type, so the width comes
    // from the type library, not from the size the property reports.
    const unsigned width = integerWidth(GetPropertyTypeByID(propertyId));
    if (width == 0)
    {
        return FALSE;
    }
    value = readInteger(data, width);
    return TRUE;
}

BOOL EGW_ElementServerSetPropertyIntDataById(UINT32 uuid, UINT32 propertyId, UINT32 value, void*)
{
    PropertyWrite property(uuid, propertyId);
    // Narrowed silently: the storage type decides how much of the value is kept.
    const std::uint8_t byte = static_cast<std::uint8_t>(value);
    const std::uint16_t half = static_cast<std::uint16_t>(value);
    const std::uint32_t whole = value;
    switch (integerWidth(GetPropertyTypeByID(propertyId)))
    {
    case 4:
        return property.write(&whole, sizeof whole);
    case 1:
        return property.write(&byte, sizeof byte);
    case 2:
        return property.write(&half, sizeof half);
    default:
        return FALSE;
    }
}

BOOL EGW_ElementServerGetPropertyDatetimeDataById(UINT32 uuid, UINT32 propertyId,
                                                  tagBSC_DATETIME& value, void*)
{
    egw::PropertyRead read(uuid, propertyId);
    unsigned short size = 0;
    const unsigned char* data = read.data(size);
    if (data == nullptr || size != sizeof value)
    {
        return FALSE;
    }
    std::memcpy(&value, data, sizeof value);
    return TRUE;
}

BOOL EGW_ElementServerSetPropertyDatetimeDataById(UINT32 uuid, UINT32 propertyId,
                                                  const tagBSC_DATETIME& value, void*)
{
    unsigned char record[sizeof value];
    std::memcpy(record, &value, sizeof record);
    return PropertyWrite(uuid, propertyId).write(record, sizeof record);
}

BOOL EGW_ElementServerGetStringProperty(std::string& text, UINT32 uuid, UINT32 propertyId, void*)
{
    EGW_REQUIRE(0 != uuid,
                "BOOL EGW_ElementServerGetStringProperty(std::string&, UINT32, UINT32, void*)",
                FALSE);
    return appendPropertyBytes(text, uuid, propertyId);
}

BOOL EGW_ElementServerSetStringProperty(const void* pData, UINT16 mDataSize, UINT32 uuid,
                                        UINT32 propertyId, void*)
{
    constexpr const char* kFn =
        "BOOL EGW_ElementServerSetStringProperty(const void*, UINT16, UINT32, UINT32, void*)";
    EGW_REQUIRE(0 != uuid, kFn, FALSE);
    EGW_REQUIRE(__null != pData, kFn, FALSE);
    EGW_REQUIRE(mDataSize > 0, kFn, FALSE);
    return PropertyWrite(uuid, propertyId).write(pData, mDataSize);
}

BOOL EGW_ElementServerGetPropertyDataByPropertyID(UINT32 uuid, UINT32 propertyId,
                                                  std::string& value, void*)
{
    // Cleared first, so the string ends empty or holding exactly the property's bytes.
    value.clear();
    return appendPropertyBytes(value, uuid, propertyId);
}
