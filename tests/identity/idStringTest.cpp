// Identity numbers and ID strings over chains of elements of the five type lists.
#include <cstring>

#include "api/apiPanel.h"

namespace
{

constexpr unsigned short kRoot = 0x0169, kSection = 0x0171, kPoint = 0x6239, kSubUnit = 0x0189,
                         kFourDigit = 0x0296, kUnlisted = 0x0188;

class IdStringTest : public ApiPanelTest
{
protected:
    // An element whose address (a point: device ID) holds the value.
    static unsigned addWith(unsigned parent, unsigned short type, unsigned value)
    {
        const unsigned uuid = addElement(parent, type);
        std::string bytes(4, '\0');
        std::memcpy(&bytes[0], &value, 4);
        setBytes(uuid, type == kPoint ? 0x30005 : 0x30004, bytes);
        return uuid;
    }

    static std::string idString(unsigned uuid)
    {
        Element element(uuid);
        return GetIDString(element);
    }
};

TEST_F(IdStringTest, ShapesByTheNumbersFound)
{
    const struct
    {
        unsigned root, fourDigit, section, point, subUnit;
        const char* text;
    } rows[] = {
        {0, 12, 7, 0xA1B2C3, 3, ""},
        {1, 12, 7, 0xA1B2C3, 3, "01.0012"},
        {1, 0, 0, 0xA1B2C3, 3, "01"},
        {1, 0, 7, 0, 0, "01.007"},
        {1, 0, 7, 0xA1B2C3, 0, "01.007.00A1B2C3"},
        {1, 0, 7, 0xA1B2C3, 3, "01.007.00A1B2C3.03"},
        {1, 0, 7, 0, 3, "01.007.03"},
        {123, 0, 0xFFFFFFFFu, 0xFFFFFFFFu, 45, "123.-01.FFFFFFFF.45"},
    };
    for (const auto& row : rows)
    {
        panelsim::reset();
        const unsigned four = addWith(addWith(0, kRoot, row.root), kFourDigit, row.fourDigit);
        const unsigned section = addWith(addElement(four, kUnlisted), kSection, row.section);
        EXPECT_EQ(idString(addWith(addWith(section, kPoint, row.point), kSubUnit, row.subUnit)),
                  row.text);
    }
}

TEST_F(IdStringTest, NearestNonZeroNumberOfAListWins)
{
    const unsigned outer = addWith(addWith(0, kRoot, 1), kSection, 7);
    EXPECT_EQ(idString(addElement(addWith(outer, kSection, 9), kUnlisted)), "01.009");
    EXPECT_EQ(idString(addWith(outer, kSection, 0)), "01.007");
    EXPECT_EQ(idString(addElement(outer, 0x7000)), "01.007") << "a type above every list";
    const unsigned point = addElement(outer, kPoint);
    setBytes(point, 0x30005, "\xC3\xB2\xA1"); // three bytes are no device ID
    EXPECT_EQ(idString(point), "01.007");
}

TEST_F(IdStringTest, WhoamiFillsOnlyAnEmptyNumberOfItsOwnList)
{
    const unsigned section = addWith(addWith(0, kRoot, 1), kSection, 7);
    Element element(section);
    for (unsigned before : {5u, 0u})
    {
        unsigned n[5] = {0, before, 0, 0, 0};
        whoami(element, n[0], n[1], n[2], n[3], n[4]);
        EXPECT_EQ(std::vector<unsigned>(n, n + 5),
                  (std::vector<unsigned>{0, before == 0 ? 7 : before, 0, 0, 0}));
    }
    GetIDString(element);
    EXPECT_NE(element.GetUUID(), section); // the walk leaves its cursor behind
}

TEST_F(IdStringTest, TypeLists)
{
    const unsigned short table[] = {3, 9};
    EXPECT_EQ(checkTable(nullptr, 0, 0), FALSE);
    EXPECT_EQ(checkTable(table, 2, 9), TRUE);
    EXPECT_EQ(checkTable(table, 1, 9), FALSE);
    EXPECT_EQ(IsPoints(0x6239) + IsPoints(0x0172) + IsPoints(0x0187), 3);
    EXPECT_EQ(IsPoints(0x0188) + IsPoints(0x0171) + IsPoints(0x0189), 0);
}

} // namespace
