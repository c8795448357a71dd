// Identity numbers and the ID string of an element: which number an element contributes depends
// only on its type, through five fixed type lists.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "identity/gatewayIdentity.h"

namespace
{

constexpr unsigned short kRootTypes[] = {0x0169};
constexpr unsigned short kSectionTypes[] = {0x0242, 0x0290, 0x0265, 0x0250, 0x0171, 0x0246,
                                            0x0248, 0x0204, 0x0293, 0x0297, 0x0299};
constexpr unsigned short kPointTypes[] = {0x0172, 0x0173, 0x0174, 0x0175, 0x0176, 0x0177, 0x0178,
                                          0x017A, 0x017B, 0x0179, 0x0180, 0x0181, 0x0182, 0x0183,
                                          0x0184, 0x0185, 0x0186, 0x6237, 0x6239, 0x0187};
constexpr unsigned short kSubUnitTypes[] = {
    0x0189, 0x0190, 0x0191, 0x0192, 0x0193, 0x0195, 0x0352, 0x0353, 0x0196, 0x0197, 0x0198, 0x0199,
    0x0200, 0x0201, 0x0202, 0x0203, 0x0243, 0x0245, 0x0244, 0x0288, 0x0291, 0x0278, 0x0273, 0x0274,
    0x0266, 0x0279, 0x0267, 0x0268, 0x0269, 0x0276, 0x0275, 0x0277, 0x0251, 0x0252, 0x0253, 0x0254,
    0x0257, 0x0255, 0x0256, 0x0247, 0x0249, 0x0271, 0x0261, 0x0270, 0x0194, 0x623A, 0x6238};
constexpr unsigned short kFourDigitTypes[] = {0x0296, 0x0298, 0x0300, 0x0294};

static_assert(std::size(kSectionTypes) == 11 && std::size(kPointTypes) == 20 &&
                  std::size(kSubUnitTypes) == 47 && std::size(kFourDigitTypes) == 4,
              "the ID string's type lists");

constexpr unsigned short kAddressProperty = 0x0004;
constexpr unsigned short kDeviceIdProperty = 0x0005;

// Identity number k (0-based) comes from the elements of one type list, read from one property.
struct IdentityRule
{
    const unsigned short* types;
    unsigned int count;
    unsigned short property;
};

constexpr IdentityRule kRules[] = {
    {kRootTypes, std::size(kRootTypes), kAddressProperty},
    {kSectionTypes, std::size(kSectionTypes), kAddressProperty},
    {kPointTypes, std::size(kPointTypes), kDeviceIdProperty},
    {kSubUnitTypes, std::size(kSubUnitTypes), kAddressProperty},
    {kFourDigitTypes, std::size(kFourDigitTypes), kAddressProperty},
};

// Every listed type with the rule of its list, sorted by type. No type is in two lists, so the
// first rule that lists a type is the only one: a walk up a deep tree finds it with one binary
// search per element instead of scanning all 83 entries.
struct ListedType
{
    unsigned short type;
    unsigned char rule;
};
constexpr std::size_t kListedTypeCount = std::size(kRootTypes) + std::size(kSectionTypes) +
                                         std::size(kPointTypes) + std::size(kSubUnitTypes) +
                                         std::size(kFourDigitTypes);

constexpr std::array<ListedType, kListedTypeCount> sortedListedTypes()
{
    std::array<ListedType, kListedTypeCount> table{};
    std::size_t filled = 0;
    for (std::size_t rule = 0; rule < std::size(kRules); ++rule)
    {
        for (unsigned int i = 0; i < kRules[rule].count; ++i)
        {
            const unsigned short type = kRules[rule].types[i];
            std::size_t at = filled++;
            for (; at > 0 && table[at - 1].type > type; --at)
            {
                table[at] = table[at - 1];
            }
            table[at] = {type, static_cast<unsigned char>(rule)};
        }
    }
    return table;
}
constexpr std::array<ListedType, kListedTypeCount> kListedTypes = sortedListedTypes();

constexpr bool typesAreDistinct()
{
    for (std::size_t i = 1; i < kListedTypes.size(); ++i)
    {
        if (kListedTypes[i - 1].type == kListedTypes[i].type)
        {
            return false;
        }
    }
    return true;
}
static_assert(typesAreDistinct(), "no type is in two of the ID string's lists");

// Stores the property's value into `number` when it holds exactly four bytes.
void readIdentityNumber(Element& element, unsigned short propertyId, unsigned int& number)
{
    Property property = element.GetPropertyByPropertyID(propertyId);
    unsigned short size = 0;
    const void* data = property.GetData(&size);
    if (data != nullptr && size == sizeof(std::uint32_t))
    {
        std::uint32_t value = 0;
        std::memcpy(&value, data, sizeof value);
        number = value;
    }
}

// The ID string's numbers are printed as the panel's signed decimal fields.
int asDecimal(unsigned int number)
{
    return static_cast<int>(number);
}

// Appends one printf-formatted field of at most 12 characters.
__attribute__((format(printf, 2, 3))) void appendField(std::string& text, const char* format, ...)
{
    char field[16];
    va_list values;
    va_start(values, format);
    const int length = std::vsnprintf(field, sizeof field, format, values);
    va_end(values);
    text.append(field, static_cast<std::size_t>(length));
}

} // namespace

BOOL checkTable(const unsigned short* table, unsigned int count, unsigned short type)
{
    for (unsigned int i = 0; i < count; ++i)
    {
        if (table[i] == type)
        {
            return TRUE;
        }
    }
    return FALSE;
}

BOOL IsPoints(unsigned short type)
{
    return checkTable(kPointTypes, std::size(kPointTypes), type);
}

void whoami(Element& element, unsigned int& rootAddress, unsigned int& sectionAddress,
            unsigned int& pointDeviceId, unsigned int& subUnitAddress,
            unsigned int& fourDigitAddress)
{
    unsigned int* const numbers[] = {&rootAddress, &sectionAddress, &pointDeviceId, &subUnitAddress,
                                     &fourDigitAddress};
    const unsigned short type = element.GetType();
    const auto byType = [](const ListedType& entry, unsigned short wanted) {
        return entry.type < wanted;
    };
    const ListedType* const listed =
        std::lower_bound(kListedTypes.begin(), kListedTypes.end(), type, byType);
    // The rule of the type's list applies while its number is still 0, whether or not the
    // property then holds a value.
    if (listed != kListedTypes.end() && listed->type == type && *numbers[listed->rule] == 0)
    {
        readIdentityNumber(element, kRules[listed->rule].property, *numbers[listed->rule]);
    }
}

std::string GetIDString(Element& element)
{
    unsigned int root = 0, section = 0, point = 0, subUnit = 0, fourDigit = 0;
    // Nearest first: an element's own number wins over an ancestor's of the same list.
    int error = 0;
    do
    {
        whoami(element, root, section, point, subUnit, fourDigit);
        error = 0;
        const Element parent = element.GetParent(&error);
        element = parent;
    } while (error == 0);

    if (root == 0)
    {
        return std::string();
    }
    std::string text;
    appendField(text, "%02d", asDecimal(root));
    if (fourDigit != 0)
    {
        // A four-digit address identifies the element on its own below the root.
        appendField(text, ".%04d", asDecimal(fourDigit));
    }
    else if (section != 0)
    {
        appendField(text, ".%03d", asDecimal(section));
        if (point != 0)
        {
            appendField(text, ".%08X", point);
        }
        if (subUnit != 0)
        {
            appendField(text, ".%02d", asDecimal(subUnit));
        }
    }
    return text;
}
