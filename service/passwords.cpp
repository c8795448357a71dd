#include "service/passwords.h"

#include "elementGateway.h"
#include "service/accessLevels.h"

#include <optional>

namespace egwservice
{
namespace
{

// The panel element's value of the property; none when there is no panel element or it holds no
// value. Only a value that is not there at all gives way to the default: any bytes the element
// holds are the password, even when they begin with a zero byte.
std::optional<std::string> panelValue(UINT32 propertyId)
{
    const UINT32 panel =
        EGW_ELementServerGetElementByElementTypeId(0, kPasswordHolderType, false, nullptr);
    std::string value;
    if (panel == 0 ||
        EGW_ElementServerGetPropertyDataByPropertyID(panel, propertyId, value, nullptr) != TRUE)
    {
        return std::nullopt;
    }
    return value;
}

// The type library's default, through the library's default-password operations; asked only when
// the type library holds a default for the property, so that nothing is reported as missing.
std::string defaultValue(UINT32 propertyId)
{
    std::vector<PropertyDefaultDef> defaults;
    EGW_ELementServerGetPropertyDefaultDataList(kPasswordHolderType, defaults);
    bool present = false;
    for (const PropertyDefaultDef& record : defaults)
    {
        present = present || record.PropertyID == propertyId;
    }
    if (!present)
    {
        return std::string();
    }
    return EGW_BASIC_GetDefaultPassowrdByLevelProperty(propertyId, ENUM_PRODUCT_ZT480EN);
}

} // namespace

std::vector<std::string> levelPasswords(int level)
{
    const LevelPasswords properties = passwordProperties(level);
    std::vector<std::string> passwords;
    for (const UINT32 property : {properties.first, properties.second})
    {
        if (property == 0)
        {
            continue;
        }
        const std::optional<std::string> held = panelValue(property);
        const std::string password = passwordText(held ? *held : defaultValue(property));
        // An empty password opens nothing, whether held or the default: the level stays shut
        // rather than open to everyone.
        if (!password.empty())
        {
            passwords.push_back(password);
        }
    }
    return passwords;
}

namespace
{

std::string withoutPadding(std::string bytes)
{
    bytes.erase(bytes.find_last_not_of('\0') + 1);
    return bytes;
}

} // namespace

std::string passwordText(std::string stored)
{
    static const std::string kMark("\xEF\xBB\xBF");
    if (stored.compare(0, kMark.size(), kMark) == 0)
    {
        stored.erase(0, kMark.size());
    }
    return withoutPadding(std::move(stored));
}

bool samePassword(const std::string& givenBytes, const std::string& expected)
{
    const std::string given = withoutPadding(givenBytes);
    // Every byte of the longer text is looked at; the lengths count as one more difference.
    const std::size_t length = given.size() > expected.size() ? given.size() : expected.size();
    unsigned difference = given.size() == expected.size() ? 0u : 1u;
    for (std::size_t i = 0; i < length; ++i)
    {
        const unsigned char a = i < given.size() ? static_cast<unsigned char>(given[i]) : 0;
        const unsigned char b = i < expected.size() ? static_cast<unsigned char>(expected[i]) : 0;
        difference |= static_cast<unsigned>(a ^ b);
    }
    return difference == 0;
}

UINT32 passwordHolderIn(UINT32 subtreeRoot, void* client)
{
    return EGW_ELementServerGetElementByElementTypeId(subtreeRoot, kPasswordHolderType, false,
                                                      client);
}

} // namespace egwservice
