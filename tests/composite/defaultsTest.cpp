// Default values and default states: the panel's strtol, the byte-order mark, passwords, and the
// all-or-nothing reset of an element to its default states.
#include "compositeTest.h"

namespace
{

// 0x70008 holds integer defaults and an enumeration, 0x70007 the passwords (no L4 among them);
// 0x30101 and the L2 password have a second default record, which does not count. 0x70169's
// second of three groups has no default.
const char* const kTypes = R"({
  "stateValues": [{"id": "0x60001"}, {"id": "0x60002"}, {"id": "0x60003"}],
  "stateGroups": [{"id": "0x80005", "values": ["0x60001", "0x60002"], "default": "0x60001"},
                  {"id": "0x80007", "values": ["0x60002", "0x60003"], "default": "0x60003"},
                  {"id": "0x80009", "values": ["0x60001"]}],
  "types": [
    {"id": "0x70008", "properties": [
      {"id": "0x30101", "storage": 4, "default": "\uFEFF42"},
      {"id": "0x30109", "storage": 4, "default": "8"},
      {"id": "0x30101", "storage": 4, "default": "7"},
      {"id": "0x30102", "storage": 4, "default": "-1"},
      {"id": "0x30103", "storage": 4, "default": " 17abc"},
      {"id": "0x30104", "storage": 4, "default": "abc"},
      {"id": "0x30105", "storage": 4, "default": "\uFEFF"},
      {"id": "0x30106", "storage": 4, "default": "4294967295"},
      {"id": "0x30107", "storage": 4, "default": "-99999999999"},
      {"id": "0x30108", "storage": 3, "default": "5"}]},
    {"id": "0x70007", "properties": [
      {"id": "0x3000C", "storage": 12, "default": "\uFEFFlevel3.1"},
      {"id": "0x30010", "storage": 12, "default": "2222"},
      {"id": "0x30010", "storage": 12, "default": "9999"},
      {"id": "0x30011", "storage": 12, "default": "\uFEFF"}]},
    {"id": "0x70169", "stateGroups": ["0x80005", "0x80009", "0x80007"]},
    {"id": "0x70170", "stateGroups": ["0x80005", "0x80007"]}]})";

constexpr UINT32 kProject = ENUM_PRODUCT_ZT480EN;

} // namespace

using Defaults = CompositeTest;

TEST_F(Defaults, IntegerTextsReadAsA32BitStrtolReadsThem)
{
    load(kTypes);
    // 4294967295 fits a 64-bit long: a host strtol alone would let it through as 0xFFFFFFFF.
    const std::pair<UINT32, UINT32> cases[] = {
        {0x30101, 42}, {0x30102, 0xFFFFFFFF}, {0x30103, 17},        {0x30104, 0},
        {0x30105, 0},  {0x30106, 0x7FFFFFFF}, {0x30107, 0x80000000}};
    for (const auto& [property, expected] : cases)
    {
        UINT32 value = 0xDEAD;
        EXPECT_EQ(EGW_BASIC_GetDefaultIntegerTypeProperty(0x70008, property, value), TRUE);
        EXPECT_EQ(value, expected) << std::hex << property;
    }
    EXPECT_EQ(logLines()[0].text,
              "Element[0x70008]--Property[0x30101] default value is 42, calue string is 42 !\n");
    // An enumeration is no integer: FALSE and 0 before any list is read.
    UINT32 value = 5;
    const auto trace = traceOf([&] {
        EXPECT_EQ(EGW_BASIC_GetDefaultIntegerTypeProperty(0x70008, 0x30108, value), FALSE);
    });
    EXPECT_EQ(value, 0u);
    EXPECT_TRUE(callsWith(trace, "GetPropertyDefaultList").empty());
    // An integer property that the type does not list has no default there.
    value = 5;
    EXPECT_EQ(EGW_BASIC_GetDefaultIntegerTypeProperty(0x70007, 0x30101, value), FALSE);
    EXPECT_EQ(value, 0u);
}

TEST_F(Defaults, PasswordsLoseTheirByteOrderMark)
{
    load(kTypes);
    EXPECT_EQ(EGW_BASIC_GetDefaultPassowrdL3_1(kProject), "level3.1");
    EXPECT_EQ(EGW_BASIC_GetDefaultPassowrdL2(kProject), "2222");
    EXPECT_EQ(EGW_BASIC_GetDefaultPassowrdL3(kProject), "");
    ASSERT_EQ(logLines().size(), 3u);
    EXPECT_EQ(logLines()[0].level, 2);
    EXPECT_EQ(logLines()[0].text,
              "sDefaultPassword is level3.1, string is \xEF\xBB\xBFlevel3.1 !\n");

    EXPECT_EQ(EGW_BASIC_GetDefaultPassowrdL2(0x90327), "");
    EXPECT_EQ(EGW_BASIC_GetDefaultPassowrdByLevelProperty(0x30012, kProject), "");
    EXPECT_EQ(EGW_BASIC_GetDefaultPassowrdL4(kProject), "");
    EXPECT_EQ(reportedExpressions(),
              (std::vector<std::string>{
                  "ENUM_PRODUCT_ZT480EN == mProjectID", "!\"Error property ID! \\n\"",
                  "!\"Don`t find the necessary property default value! \\n\""}));
}

TEST_F(Defaults, ResetSetsEveryGroupOrNone)
{
    load(kTypes);
    std::vector<S_EGW_GET_DEFAULT_STATUS> list{{1, 1}, {2, 2}};
    EXPECT_EQ(EGW_BASIC_GetDefaultStatus(0x70169, list), FALSE);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(list[0].mGroupId == 0x80005 && list[0].mDefaultStateValue == 0x60001);

    const UINT32 incomplete = add(0, 0x70169), complete = add(incomplete, 0x70170);
    for (UINT32 uuid : {incomplete, complete})
    {
        ASSERT_EQ(EGW_ELementServerSetStateValueByUuid(0x60002, uuid, 0x80005, nullptr), TRUE);
        ASSERT_EQ(EGW_ELementServerSetStateValueByUuid(0x60002, uuid, 0x80007, nullptr), TRUE);
        EGW_SetOneElementToDefaultStates(uuid);
    }
    const auto state = [](UINT32 uuid, UINT32 group) {
        UINT32 value = 0;
        EGW_ELementServerGetStateValueByUuid(value, uuid, group, nullptr);
        return value;
    };
    EXPECT_EQ(state(incomplete, 0x80005), 0x60002u);
    EXPECT_EQ(state(complete, 0x80005), 0x60001u);
    EXPECT_EQ(state(complete, 0x80007), 0x60003u);
    ASSERT_EQ(logLines().size(), 1u);
    EXPECT_EQ(logLines()[0].level, 4);
    EXPECT_EQ(logLines()[0].text,
              "<EGW_SetOneElementToDefaultStates>Warning:" + std::string(21, ' ') +
                  "get all default state failt!!" + std::string(21, ' ') +
                  "uuid=" + hexText(incomplete) + ", elementType=0x70169\n");
}
