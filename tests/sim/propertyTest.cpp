// Property values: defaults converted by storage type, and the width invariant of integers.
#include <cstring>

#include "simFixture.h"

namespace
{

using PropertyTest = SimTest;

std::string bytesOf(unsigned value, std::size_t width)
{
    char bytes[4];
    std::memcpy(bytes, &value, sizeof bytes);
    return std::string(bytes, width);
}

// The bytes of a property as the element holds them; "<empty>" when it has no value.
std::string read(unsigned uuid, unsigned short id)
{
    Property p = Element(uuid).GetPropertyByPropertyID(id);
    unsigned short size = 0;
    const void* data = p.GetData(&size);
    return p.IsEmpty() ? "<empty>" : std::string(static_cast<const char*>(data), size);
}

int write(unsigned uuid, unsigned short id, const std::string& bytes)
{
    Property p(id);
    std::string copy = bytes;
    p.SetData(&copy[0], static_cast<unsigned short>(copy.size()));
    return Element(uuid).SetProperty(p, false);
}

struct DefaultCase
{
    unsigned short property;
    unsigned storage;
    std::string expected;
};

// Defaults of the compact panel (type 0x0007) in the sample library, one per storage kind.
const DefaultCase kDefaults[] = {
    {0x0004, 6, bytesOf(1, 4)},           // "1", 4 bytes
    {0x0020, 6, bytesOf(42, 4)},          // "42"
    {0x0021, 4, bytesOf(0xFFFFFFFFu, 4)}, // "-1"
    {0x0022, 19, bytesOf(17, 4)},         // " 17abc": blanks skipped, digits up to 'a'
    {0x0025, 6, bytesOf(42, 4)},          // byte-order mark, then "42"
    {0x0006, 1, std::string(1, '\1')},    // truth value "1"
    {0x0007, 5, bytesOf(static_cast<unsigned>(-60), 2)},
    {0x0023, 15, bytesOf(static_cast<unsigned>(-300), 2)},
    {0x0008, 7, bytesOf(200, 1)},
    {0x0024, 16, bytesOf(255, 1)},
    {0x0009, 3, bytesOf(2, 4)}, // enumeration
    {0x000A, 12, "Annex"},      // string: its bytes
    {0x000C, 12, "3131"},       // string after the byte-order mark
    {0x0002, 12, ""},           // empty text: a value of no bytes
    {0x000B, 2, "<empty>"},     // date-time without default: no value
};

TEST_F(PropertyTest, NewElementsStartFromTheirTypesDefaultsConvertedByStorageType)
{
    const unsigned panel = add(0, 0x0007);
    for (const DefaultCase& c : kDefaults)
    {
        EXPECT_EQ(GetPropertyTypeByID(0x30000u | c.property), c.storage) << std::hex << c.property;
        EXPECT_EQ(read(panel, c.property), c.expected) << std::hex << c.property;
    }
}

struct WidthCase
{
    unsigned short property;
    std::size_t width; // 0: any length is kept
};

const WidthCase kWidths[] = {
    {0x0004, 4}, {0x0021, 4}, {0x0022, 4}, {0x0009, 4}, // storage 6, 4, 19, 3
    {0x0007, 2}, {0x0023, 2},                           // storage 5, 15
    {0x0008, 1}, {0x0024, 1},                           // storage 7, 16
    {0x0006, 0}, {0x000A, 0}, {0x000B, 0},              // truth value, string, date-time
};

TEST_F(PropertyTest, IntegersKeepExactlyTheirWidthOtherStorageTypesTakeAnyBytes)
{
    const unsigned panel = add(0, 0x0007);
    for (const WidthCase& c : kWidths)
    {
        for (std::size_t length : {0u, 1u, 2u, 4u, 13u})
        {
            const std::string value(length, '\x5A');
            const bool accepted = c.width == 0 || c.width == length;
            EXPECT_EQ(write(panel, c.property, value) == 0, accepted)
                << std::hex << c.property << " with " << std::dec << length << " bytes";
            if (accepted)
            {
                EXPECT_EQ(read(panel, c.property), value);
            }
        }
    }
}

TEST_F(PropertyTest, WritesToUnknownElementsOrUndefinedPropertiesAreRefused)
{
    const unsigned root = add(0, 0x0169);
    EXPECT_NE(write(root + 50, 0x0004, bytesOf(1, 4)), 0);
    EXPECT_NE(write(root, 0x0010, "1234"), 0) << "the panel type has no password property";
    Property empty(0x000A);
    EXPECT_NE(Element(root).SetProperty(empty, false), 0) << "a property without value";
    EXPECT_EQ(read(root + 50, 0x0004), "<empty>");
    EXPECT_EQ(read(root, 0x0010), "<empty>");
}

TEST_F(PropertyTest, ValuesUpToTheLargestSizeAreKeptWhole)
{
    const unsigned root = add(0, 0x0169);
    std::string large(65535, '\0');
    for (std::size_t i = 0; i < large.size(); ++i)
        large[i] = static_cast<char>(i * 7);
    ASSERT_EQ(write(root, 0x000A, large), 0);
    EXPECT_EQ(read(root, 0x000A), large);
}

} // namespace
