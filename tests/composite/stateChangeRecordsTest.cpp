// State-change records: the crosswise pack, the 16-byte form, pattern tables and group tests.
#include <array>
#include <cstring>

#include "compositeTest.h"

namespace
{

// Group G takes A (levels 1/2) and B (1/3); 0x80007 takes C (4/2) and B; 0x80009 takes D, whose
// level-1 type does not fit in a byte.
const char* const kTypes = R"({
  "stateValues": [{"id": "0x60001", "level1": 1, "level2": 2},
                  {"id": "0x60002", "level1": 1, "level2": 3},
                  {"id": "0x60003", "level1": 4, "level2": 2},
                  {"id": "0x60004", "level1": 257, "level2": 2}],
  "stateGroups": [{"id": "0x80005", "values": ["0x60001", "0x60002"]},
                  {"id": "0x80007", "values": ["0x60003", "0x60002"]},
                  {"id": "0x80009", "values": ["0x60004"]}],
  "types": [{"id": "0x70169", "stateGroups": ["0x80005"]}]})";

constexpr UINT32 G = 0x80005, A = 0x60001, B = 0x60002;
using Words = std::array<UINT32, 4>;

// The record's 16 bytes at an odd address, as a wire buffer may hold them.
struct Wire
{
    explicit Wire(const Words& words) { std::memcpy(bytes + 1, words.data(), 16); }
    const void* data() const { return bytes + 1; }
    unsigned char bytes[17] = {};
};

Words wordsOf(const EGW_CONTROLPARA& r)
{
    return {r.mUuid, r.mGroupId, r.mFirstStateValue, r.mSecondStateValue};
}

} // namespace

using StateChangeRecords = CompositeTest;

TEST_F(StateChangeRecords, PackStoresTheStateValuesCrosswise)
{
    load(kTypes);
    EGW_CONTROLPARA record{};
    ASSERT_EQ(EGW_BASIC_PackStateChangeInforData(record, 0x10, G, A, B), TRUE);
    EXPECT_EQ(wordsOf(record), (Words{0x10, G, B, A}));
    const Wire wire(wordsOf(record));
    EXPECT_EQ(wire.bytes[5], 0x05); // little-endian group id
    EGW_CONTROLPARA unpacked{};
    EXPECT_EQ(EGW_BASIC_UnpackStateChangeInforData(unpacked, wire.data(), 16), TRUE);
    EXPECT_EQ(wordsOf(unpacked), (Words{0x10, G, B, A}));
    // A group id of category 6, or a value of category 8, leaves the record untouched.
    EXPECT_EQ(EGW_BASIC_PackStateChangeInforData(record, 1, A, A, B), FALSE);
    EXPECT_EQ(EGW_BASIC_PackStateChangeInforData(record, 1, G, A, G), FALSE);
    EXPECT_EQ(wordsOf(record), (Words{0x10, G, B, A}));
}

TEST_F(StateChangeRecords, UnpackCopiesTheWordsBeforeItChecksThem)
{
    load(kTypes);
    EGW_CONTROLPARA record{7, 7, 7, 7};
    for (UINT32 size : {15u, 17u})
        EXPECT_EQ(EGW_BASIC_UnpackStateChangeInforData(record, Wire({1, G, B, A}).data(), size),
                  FALSE);
    EXPECT_EQ(wordsOf(record), (Words{7, 7, 7, 7}));
    for (const Words& invalid : {Words{0x10, G, 0, A}, Words{0x11, A, B, A}})
    {
        EXPECT_EQ(EGW_BASIC_UnpackStateChangeInforData(record, Wire(invalid).data(), 16), FALSE);
        EXPECT_EQ(wordsOf(record), invalid);
    }
}

TEST_F(StateChangeRecords, FirstMatchingRowWinsAndLaterRowsAreNotRead)
{
    load(kTypes);
    const UINT32 element = add(0, 0x70169);
    const Wire change({element, G, B, A});
    // Table, result, rows looked at (one type read each).
    const std::tuple<std::vector<EGW_GROUP_STATE_STRUCT>, BOOL, std::size_t> cases[] = {
        {{{0, 0, 0, 0}, {0x70170, 0, 0, 0}}, TRUE, 1},
        {{{0x70170, 0, 0, 0}, {0, 0x80007, 0, 0}, {0x70169, G, B, A}, {0, 0, 0, 0}}, TRUE, 3},
        {{{0, G, A, B}, {0x169, 0, 0, 0}}, FALSE, 2},
    };
    for (const auto& [table, result, rowsRead] : cases)
    {
        BOOL matched = 2;
        const auto trace = traceOf([&, &rows = table] {
            matched = EGW_BASIC_CompareTableData(change.data(), 16, rows.data(),
                                                 static_cast<UINT32>(rows.size()));
        });
        EXPECT_EQ(matched, result);
        EXPECT_EQ(callsWith(trace, "::GetType()").size(), rowsRead);
    }
    const EGW_GROUP_STATE_STRUCT anyRow[] = {{0, 0, 0, 0}};
    EXPECT_EQ(EGW_BASIC_CompareTableData(Wire({element, G, B, 0}).data(), 16, anyRow, 1), FALSE);
}

TEST_F(StateChangeRecords, CategoriesMatchOnOneValueWithBothLevels)
{
    load(kTypes);
    EXPECT_EQ(EGW_BASIC_CheckInductStateCategoryInGroup(G, {{1, 2}}), TRUE);
    // (1, 3) and (4, 2): each level is there, never both on one value.
    EXPECT_EQ(EGW_BASIC_CheckInductStateCategoryInGroup(0x80007, {{1, 2}}), FALSE);
    EXPECT_EQ(EGW_BASIC_CheckInductStateCategoryInGroup(0x80007, {{9, 9}, {4, 2}}), TRUE);
    // Level 257 must not match the byte 1 it would be cut to.
    EXPECT_EQ(EGW_BASIC_CheckInductStateCategoryInGroup(0x80009, {{1, 2}}), FALSE);
    EXPECT_EQ(EGW_BASIC_CheckInductStateIDInGroup(0x80007, {A}), FALSE);
    EXPECT_EQ(EGW_BASIC_CheckInductStateIDInGroup(G, {}), FALSE);
    EXPECT_EQ(reportedExpressions(), std::vector<std::string>{"0 != mStateIdList.size()"});
}
