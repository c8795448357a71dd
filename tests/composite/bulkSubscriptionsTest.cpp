// Bulk subscriptions: event ids in list order, the group filters and the deletion events.
#include "compositeTest.h"

namespace
{

const char* const kTypes = R"({
  "stateValues": [{"id": "0x60001", "level1": 1, "level2": 2},
                  {"id": "0x60002", "level1": 3, "level2": 4}],
  "stateGroups": [{"id": "0x80005", "values": ["0x60001"]},
                  {"id": "0x80007", "values": ["0x60002"]}],
  "types": [{"id": "0x70169", "commands": ["0x1001A", "0x10003"],
             "stateGroups": ["0x80005", "0x80007"],
             "properties": [{"id": "0x30004", "storage": 7}, {"id": "0x301A4", "storage": 4}]},
            {"id": "0x70170"}]})";

constexpr UINT32 kPid = 11;

// The events subscribed since the last reset, in order, all by type 0x169 for kPid; then resets.
std::vector<UINT32> typeEvents()
{
    std::vector<UINT32> events;
    for (const panelsim::Subscription& s : panelsim::subscriptions())
    {
        EXPECT_TRUE(s.byType && s.typeOrUuid == 0x169u && s.pid == kPid);
        events.push_back(s.eventId);
    }
    panelsim::reset();
    return events;
}

} // namespace

using BulkSubscriptions = CompositeTest;

TEST_F(BulkSubscriptions, EveryDefinitionBecomesOneEventInListOrder)
{
    load(kTypes);
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllCommands(kPid, 0x70169, nullptr), TRUE);
    EXPECT_EQ(typeEvents(), (std::vector<UINT32>{0x0006001A, 0x00060003}));
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChange(kPid, 0x70169, nullptr), TRUE);
    EXPECT_EQ(typeEvents(), (std::vector<UINT32>{0x03010005, 0x03010007}));
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllPropertyChange(kPid, 0x70169, nullptr), 0);
    EXPECT_EQ(typeEvents(), (std::vector<UINT32>{0x03020004, 0x030201A4}));
    // The property form answers 1 for a type without properties.
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllPropertyChange(kPid, 0x70170, nullptr), 1);
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChange(kPid, 0x70170, nullptr), FALSE);
    EXPECT_TRUE(typeEvents().empty());
}

TEST_F(BulkSubscriptions, FiltersChooseTheGroupsThatCanTakeTheStates)
{
    load(kTypes);
    const std::vector<unsigned int> secondOnly{0x60009, 0x60002};
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(kPid, 0x70169, secondOnly),
              TRUE);
    EXPECT_EQ(typeEvents(), std::vector<UINT32>{0x03010007});
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(kPid, 0x70169, {{3, 4}}),
              TRUE);
    EXPECT_EQ(typeEvents(), std::vector<UINT32>{0x03010007});
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(kPid, 0x70169, {0x60009}),
              TRUE);
    // Empty filters are refused here, never handed to the group tests as a caller error.
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(kPid, 0x70169, {}), FALSE);
    EXPECT_EQ(EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(kPid, 0x70169, {}), FALSE);
    EXPECT_TRUE(typeEvents().empty());
    EXPECT_TRUE(assertReports().empty());
}

TEST_F(BulkSubscriptions, SecondDeletionEventOnlyAfterTheFirstWasAccepted)
{
    load(kTypes);
    EXPECT_EQ(EGW_SubscribeDeletedElementForWaitingNotifyByType(kPid, 0x70169, true, nullptr), 0);
    EXPECT_EQ(typeEvents(), (std::vector<UINT32>{0xF0010000, 0xF0020000}));
    load(kTypes);
    EXPECT_EQ(EGW_SubscribeDeletedElementForWaitingNotifyByType(kPid, 0x70169, false, nullptr), 0);
    EXPECT_EQ(typeEvents(), (std::vector<UINT32>{0xF0010000}));
    panelsim::injectFault("ElementServer::SubscribeByType", panelsim::FaultKind::Fail, 0, 1, 7);
    const auto refused = traceOf([] {
        EXPECT_EQ(EGW_SubscribeDeletedElementForWaitingNotifyByType(kPid, 0x70169, true, nullptr),
                  7);
    });
    EXPECT_EQ(callsWith(refused, "SubscribeByType").size(), 1u);
    // By element, a module not logged in is reported as 0: the second event is tried as well.
    const UINT32 element = add(0, 0x70169);
    const auto trace = traceOf([&] {
        EXPECT_EQ(
            EGW_SubscribeDeletedElementForWaitingNotifyByElement(kPid, element, true, nullptr), 0);
    });
    EXPECT_EQ(callsWith(trace, "::SubscribeByElement(").size(), 2u);
}
