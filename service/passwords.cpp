#include "service/passwords.h"

#include "elementGateway.h"
#include "service/accessLevels.h"

namespace egwservice
{
namespace
{

constexpr UINT32 kPanelType = 0x70007;

std::string withoutByteOrderMark(std::string text)
{
    static const std::string kMark("\xEF\xBB\xBF");
    if (text.compare(0, kMark.size(), kMark) == 0)
    {
        text.erase(0, kMark.size());
    }
    return text;
}

// The panel element's value of the property; empty when there is no panel element or no value.
std::string panelValue(UINT32 propertyId)
{
    const UINT32 panel = EGW_ELementServerGetElementByElementTypeId(0, kPanelType, false, nullptr);
    std::string value;
    if (panel == 0 ||
        EGW_ElementServerGetPropertyDataByPropertyID(panel, propertyId, value, nullptr) != TRUE)
    {
        return std::string();
    }
    // A stored text may end at a zero byte, as the panel's own text fields do.
    return withoutByteOrderMark(value.substr(0, value.find('\0')));
}

// The type library's default, through the library's default-password operations; asked only when
// the type library holds a default for the property, so that nothing is reported as missing.
std::string defaultValue(UINT32 propertyId)
{
    std::vector<PropertyDefaultDef> defaults;
    EGW_ELementServerGetPropertyDefaultDataList(kPanelType, defaults);
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
        std::string password = panelValue(property);
        if (password.empty())
        {
            password = defaultValue(property);
        }
        if (!password.empty())
        {
            passwords.push_back(password);
        }
    }
    return passwords;
}

bool samePassword(const std::string& given, const std::string& expected)
{
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

} // namespace egwservice
