// Address records: which property an address comes from and its text, byte for byte.
#include "compositeTest.h"

using AddressRecords = CompositeTest;

TEST_F(AddressRecords, FirstAddressPropertyWinsSecondIsTheFallback)
{
    load(R"({"types": [
      {"id": "0x70169", "properties": [{"id": "0x30004", "storage": 7, "default": "42"},
                                       {"id": "0x30005", "storage": 15, "default": "-32768"}]},
      {"id": "0x70170", "properties": [{"id": "0x30005", "storage": 15, "default": "-32768"}]},
      {"id": "0x70171", "properties": [{"id": "0x30006", "storage": 4, "default": "1"}]}]})");
    const UINT32 root = add(0, 0x70169);
    // Element, result, mData, mDataType of a record that starts as {5, 6}.
    const std::tuple<UINT32, BOOL, UINT32, UINT32> cases[] = {
        {root, TRUE, 42, 7},
        {add(root, 0x70170), TRUE, 0xFFFF8000u, 15},
        {add(root, 0x70171), FALSE, 5, 6}};
    for (const auto& [element, result, data, type] : cases)
    {
        EGW_THRIFT_ADDRESS_STRUCT record{5, 6};
        EXPECT_EQ(EGW_GetThriftAddressStructByUuid(record, element, nullptr), result);
        EXPECT_TRUE(record.mData == data && record.mDataType == type) << std::hex << record.mData;
    }
}

TEST_F(AddressRecords, ListTextIsReversedDottedAndEndsWithAZeroByte)
{
    std::string str = "old text";
    EXPECT_EQ(EGW_BASIC_FormatAddressStructDataList(str, {{0x2A, 7}, {0x3, 16}, {0x10, 6}}), TRUE);
    EXPECT_EQ(str, std::string("10.3.2a\0", 8));
    EXPECT_EQ(EGW_BASIC_FormatAddressStructDataList(str, {{0xFFFF8000u, 15}, {0, 19}}), TRUE);
    EXPECT_EQ(str, std::string("0.ffff8000\0", 11));
    EXPECT_EQ(EGW_BASIC_FormatAddressStructDataList(str, {}), TRUE);
    EXPECT_EQ(str, std::string(1, '\0'));
}

TEST_F(AddressRecords, RecordOfAnotherTypeStopsTheTextWhereItStands)
{
    std::string str;
    // Written last to first: the record of type 4 comes second and ends the text.
    EXPECT_EQ(EGW_BASIC_FormatAddressStructDataList(str, {{1, 4}, {2, 6}}), FALSE);
    EXPECT_EQ(str, "2.");
    ASSERT_EQ(logLines().size(), 1u);
    EXPECT_EQ(logLines()[0].level, 5);
    EXPECT_EQ(logLines()[0].text, "<EGW_BASIC_THRIFT_WriteDataInAddressString> Error: data type!" +
                                      std::string(16, ' ') + "data type=4\n");
    EXPECT_EQ(reportedExpressions(),
              std::vector<std::string>{
                  "!\"<EGW_BASIC_THRIFT_WriteDataInAddressString> Error: data type!\\n\""});
    for (UINT32 type : {3u, 17u, 20u})
        EGW_BASIC_THRIFT_WriteDataInAddressString({1, type}, str, TRUE);
    EXPECT_EQ(str, "2.");
}

TEST_F(AddressRecords, AddressStringsAreTheIdString)
{
    const UINT32 element = add(add(0, 0x70169), 0x70169);
    std::string expected, physical = "old", logic = "old";
    EGW_ElementServerGetIDStringOfElement(expected, element, nullptr);
    EXPECT_EQ(EGW_BASIC_THRIFT_GetPhysicalAddress(element, physical, nullptr), TRUE);
    EXPECT_EQ(EGW_BASIC_THRIFT_GetLogicAddress(element, logic, nullptr), TRUE);
    EXPECT_TRUE(physical == expected && logic == expected) << physical;
    EXPECT_EQ(EGW_BASIC_THRIFT_GetLogicAddress(0, logic, nullptr), FALSE);
    EXPECT_EQ(reportedExpressions(), std::vector<std::string>{"0 != mCurrentUuid"});
    EXPECT_EQ(assertReports()[0].function,
              "BOOL EGW_BASIC_THRIFT_GetLogicAddress(UINT32, std::string&, void*)");
}
