// Typed property access: integer widths by storage type, truth values, date-time records and
// byte strings.
#include <cstring>

#include "apiPanel.h"

namespace
{

using PropertyAccessTest = ApiPanelTest;

TEST_F(PropertyAccessTest, IntegersTakeTheWidthOfTheirStorageType)
{
    const unsigned probe = buildTree().probe;
    const std::string four("\x45\x23\x01\x00", 4);
    const struct
    {
        unsigned storage;
        std::string stored;  // bytes in the property
        UINT32 read;         // what the reader yields
        std::string written; // bytes after writing 0x12345
    } rows[] = {
        {3, "\x78\x56\x34\x12", 0x12345678u, four},
        {4, "\xFF\xFF\xFF\xFF", 0xFFFFFFFFu, four},
        {6, std::string("\x01\0\0\x80", 4), 0x80000001u, four},
        {19, std::string("\x02\0\0\0", 4), 2u, four},
        {7, "\xFF", 0xFFu, "\x45"},
        {16, "\x80", 0x80u, "\x45"},
        {5, std::string("\0\x80", 2), 0xFFFF8000u, "\x45\x23"},
        {15, "\xFF\xFF", 0xFFFFFFFFu, "\x45\x23"},
        {15, "\xFF\x7F", 0x7FFFu, "\x45\x23"},
    };
    for (const auto& row : rows)
    {
        SCOPED_TRACE(row.storage);
        const unsigned id = storageProperty(row.storage);
        setBytes(probe, id, row.stored);
        UINT32 value = 0;
        EXPECT_EQ(EGW_ElementServerGetPropertyIntDataById(probe, id, value, {}), TRUE);
        EXPECT_EQ(value, row.read);
        EXPECT_EQ(EGW_ElementServerSetPropertyIntDataById(probe, id, 0x12345u, {}), TRUE);
        EXPECT_EQ(bytesOf(probe, id), row.written);
    }
}

TEST_F(PropertyAccessTest, OtherStorageTypesAreNoIntegers)
{
    const unsigned probe = buildTree().probe;
    // 0x00113 names a 4-byte property by its number, but the type library knows only its tagged id.
    for (unsigned id : {0x30101u, 0x30102u, 0x30108u, 0x3010Cu, 0x3010Eu, 0x30111u, 0x30112u,
                        0x30114u, 0x301FFu, 0x00113u})
    {
        SCOPED_TRACE(id);
        const std::string before = bytesOf(probe, id);
        UINT32 value = 0xDEADBEEFu;
        EXPECT_EQ(EGW_ElementServerGetPropertyIntDataById(probe, id, value, {}), FALSE);
        EXPECT_EQ(value, 0xDEADBEEFu);
        panelsim::startTrace();
        EXPECT_EQ(EGW_ElementServerSetPropertyIntDataById(probe, id, 1, {}), FALSE);
        EXPECT_TRUE(callsWith(panelsim::stopTrace(), "SetProperty").empty());
        EXPECT_EQ(bytesOf(probe, id), before);
    }
    UINT32 value = 9;
    panelsim::startTrace();
    EXPECT_EQ(EGW_ElementServerGetPropertyIntDataById(probe, 0x30301, value, {}),
              FALSE); // empty
    EXPECT_TRUE(callsWith(panelsim::stopTrace(), "GetPropertyTypeByID").empty());
    EXPECT_EQ(value, 9u);
}

TEST_F(PropertyAccessTest, TruthValuesAndDateTimesHaveTheirSize)
{
    const unsigned probe = buildTree().probe;
    int flag = 0;
    EXPECT_EQ(EGW_ElementServerGetPropertyBoolDataById(probe, storageProperty(2), flag, {}), FALSE);
    setBytes(probe, storageProperty(1), "\x05");
    EXPECT_EQ(EGW_ElementServerGetPropertyBoolDataById(probe, storageProperty(1), flag, {}), TRUE);
    EXPECT_EQ(flag, 5);
    EXPECT_EQ(EGW_ElementServerSetPropertyBoolDataById(probe, storageProperty(1), 7, {}), TRUE);
    EXPECT_EQ(bytesOf(probe, storageProperty(1)), "\x01");

    const tagBSC_DATETIME written{2024, 2, 29, 4, 86399u, 999999u};
    const unsigned id = storageProperty(9);
    EXPECT_EQ(EGW_ElementServerSetPropertyDatetimeDataById(probe, id, written, {}), TRUE);
    EXPECT_EQ(bytesOf(probe, id), std::string(reinterpret_cast<const char*>(&written), 13));
    tagBSC_DATETIME read{};
    EXPECT_EQ(EGW_ElementServerGetPropertyDatetimeDataById(probe, id, read, {}), TRUE);
    EXPECT_EQ(std::memcmp(&read, &written, 13), 0);
    for (std::size_t size : {12u, 14u})
    {
        setBytes(probe, id, std::string(size, '\x11'));
        EXPECT_EQ(EGW_ElementServerGetPropertyDatetimeDataById(probe, id, read, {}), FALSE);
        EXPECT_EQ(std::memcmp(&read, &written, 13), 0);
    }
}

TEST_F(PropertyAccessTest, StringGetterAppendsAndDataGetterReplaces)
{
    const unsigned probe = buildTree().probe;
    setBytes(probe, storageProperty(12), std::string("cd\0", 3));
    const struct
    {
        unsigned id;
        BOOL ok;
        std::string appended, replaced; // the text "ab" after each getter
    } rows[] = {{storageProperty(12), TRUE, std::string("abcd\0", 5), std::string("cd\0", 3)},
                {0x30300, TRUE, "ab", ""}, // a value of no bytes
                {0x30301, FALSE, "ab", ""}};
    for (const auto& row : rows)
    {
        std::string text = "ab";
        EXPECT_EQ(EGW_ElementServerGetStringProperty(text, probe, row.id, {}), row.ok);
        EXPECT_EQ(text, row.appended);
        text = "ab";
        EXPECT_EQ(EGW_ElementServerGetPropertyDataByPropertyID(probe, row.id, text, {}), row.ok);
        EXPECT_EQ(text, row.replaced);
    }
}

} // namespace
