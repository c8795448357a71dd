// Queries over several elements: broadcast order, visible relations, pre-order walks, the
// cycle-safe type walk and the order of the waited delete.
#include "compositeTest.h"

namespace
{

const char* const kTypes = R"({
  "stateValues": [{"id": "0x60001"}, {"id": "0x60002"}],
  "stateGroups": [{"id": "0x80005", "values": ["0x60001", "0x60002"], "default": "0x60001"}],
  "types": [
    {"id": "0x70169", "visibility": "0x90301", "commands": ["0x14286", "0x10050"],
     "stateGroups": ["0x80005"],
     "relations": [{"type": 0, "kind": 0}, {"type": "0x70170", "kind": 0},
                   {"type": "0x70171", "kind": 0}]},
    {"id": "0x70170", "visibility": "0x90302", "commands": ["0x14286", "0x10050"],
     "stateGroups": ["0x80005"],
     "relations": [{"type": "0x70171", "kind": 0}, {"type": "0x70172", "kind": 1}]},
    {"id": "0x70171", "visibility": "0x90303", "commands": ["0x14286", "0x10050"],
     "stateGroups": ["0x80005"]},
    {"id": "0x70172", "visibility": "0x90301", "commands": ["0x14286"], "stateGroups": ["0x80005"]},
    {"id": "0x76101", "visibility": "0x90301"},
    {"id": "0x70020", "relations": [{"type": "0x70021", "kind": 0}]},
    {"id": "0x70021", "relations": [{"type": "0x70020", "kind": 0}]}]})";

} // namespace

// R(0x70169) has children A(0x70170) and B(0x70172); A has A1(0x70171) and A2(0x70172); B has
// V(0x76101).
class PopulationQueries : public CompositeTest
{
protected:
    void SetUp() override
    {
        CompositeTest::SetUp();
        load(kTypes);
        build();
    }

    void build()
    {
        R = add(0, 0x70169);
        A = add(R, 0x70170);
        A1 = add(A, 0x70171);
        A2 = add(A, 0x70172);
        B = add(R, 0x70172);
        V = add(B, 0x76101);
    }

    static void relate(UINT32 holder, std::initializer_list<UINT32> targets, UINT32 relation)
    {
        for (UINT32 target : targets)
            ASSERT_EQ(EGW_ELementServerAddReferenceRelation(holder, target, relation, nullptr),
                      TRUE);
    }

    static std::vector<UINT32> commandTargets()
    {
        std::vector<UINT32> targets;
        for (const panelsim::ExecutedCommand& command : panelsim::executedCommands())
            targets.push_back(command.target);
        return targets;
    }

    UINT32 R = 0, A = 0, A1 = 0, A2 = 0, B = 0, V = 0;
};

TEST_F(PopulationQueries, BroadcastReachesRelatedElementsThenItself)
{
    relate(R, {A, A1}, 0x20002);
    EXPECT_EQ(EGW_BroadcastCommandToRelationship(R, 0x10050, B, 0x20002, TRUE, TRUE, nullptr),
              TRUE);
    EXPECT_EQ(EGW_BroadcastCommandToRelationship(A2, 0x10050, 0, 0x20002, TRUE, FALSE, nullptr),
              TRUE);
    EXPECT_EQ(commandTargets(), (std::vector<UINT32>{A, A1, R}));
    // B's type has no command 0x10050: the broadcast ends there, A after it receives nothing.
    relate(R, {B, A}, 0x20003);
    EXPECT_EQ(EGW_BroadcastCommandToRelationship(R, 0x10050, 0, 0x20003, TRUE, TRUE, nullptr),
              FALSE);
    EXPECT_EQ(commandTargets().size(), 3u);
    EXPECT_EQ(reportedExpressions(), std::vector<std::string>{"0 == mReturn"});
    // A relation the host holds twice takes the command twice.
    ASSERT_EQ(panelsim::addRelationAgain(A, A1, 0x0005), 0);
    ASSERT_EQ(panelsim::addRelationAgain(A, A1, 0x0005), 0);
    EXPECT_EQ(EGW_BroadcastCommandToRelationship(A, 0x10050, 0, 0x20005, TRUE, FALSE, nullptr),
              TRUE);
    EXPECT_EQ(commandTargets(), (std::vector<UINT32>{A, A1, R, A1, A1}));
}

TEST_F(PopulationQueries, VisibleRelationsOnlyAndNothingFromBefore)
{
    relate(R, {B, A1, A, V}, 0x20004);
    std::vector<int> out{99, 98};
    EGW_BASIC_THRIFT_GetVisibleRelationElementList(R, 0x20004, 1, out, nullptr);
    EXPECT_EQ(out, (std::vector<int>{static_cast<int>(B), static_cast<int>(A)}));
    // Listed as often as the relation query gives it.
    ASSERT_EQ(panelsim::addRelationAgain(R, A, 0x0004), 0);
    EGW_BASIC_THRIFT_GetVisibleRelationElementList(R, 0x20004, 1, out, nullptr);
    EXPECT_EQ(out,
              (std::vector<int>{static_cast<int>(B), static_cast<int>(A), static_cast<int>(A)}));
}

TEST_F(PopulationQueries, SubtreeWalkIsPreOrderThroughNonMatchingElements)
{
    const std::pair<UINT32, std::vector<UINT32>> cases[] = {
        {0, {R, A, A1, A2, B, V}}, {0x70172, {A2, B}}, {0x70020, {}}};
    for (const auto& [type, expected] : cases)
    {
        std::vector<unsigned int> out{7};
        EXPECT_EQ(EGW_BASIC_THRIFT_GetAllElementUuidByElementType(R, type, out, nullptr),
                  expected.size());
        EXPECT_EQ(out, expected) << std::hex << type;
    }
}

TEST_F(PopulationQueries, ChildTypeWalkListsEachTypeOnceAndSurvivesCycles)
{
    std::vector<unsigned int> out{5};
    const auto trace = traceOf([&] { EGW_BASIC_THRIFT_GetAllChildrenElementType(out, 0x70169); });
    EXPECT_EQ(out, (std::vector<unsigned int>{0x70170, 0x70171}));
    EXPECT_EQ(callsWith(trace, "GetRelationList(0x70171)").size(), 1u);
    // The child relation to type 0 that the walk skipped is in the type's definitions.
    std::vector<EGW_RelationDef_Thrift> relations;
    ASSERT_EQ(EGW_ELementServerGetRelationList(0x70169, relations), 3u);
    EXPECT_TRUE(relations[0].RelatedTypeID == 0 && relations[0].RelationKind == 0);
    EXPECT_TRUE(reportedExpressions().empty());
    EXPECT_EQ(EGW_BASIC_THRIFT_GetAllChildrenElementType(out, 0x70020), TRUE);
    EXPECT_EQ(out, (std::vector<unsigned int>{0x70021, 0x70020}));
}

TEST_F(PopulationQueries, WaitedDeleteCommandsThenStatesThenDeletes)
{
    const auto set = [](UINT32 uuid, UINT32 value) {
        return "Element(" + hexText(uuid) + ")::SetState(0x5, " + hexText(value) + ", false)";
    };
    for (UINT32 mode : {0u, 1u, 2u, 5u})
    {
        panelsim::reset();
        build();
        const UINT32 root = mode == 0 ? A1 : A;
        // Per mode: nothing; the root's defaults; every subtree element's; the change list.
        const std::vector<std::string> expectedStates[] = {
            {},
            {set(A, 0x60001)},
            {set(A, 0x60001), set(A1, 0x60001), set(A2, 0x60001)},
            {set(A1, 0x60002), set(R, 0x60002)}};
        std::vector<S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST> changes;
        if (mode != 0)
            changes = {{A1, 0x80005, 0x60002}, {R, 0x80005, 0x60002}};

        UINT32 result = 99;
        const auto trace = traceOf(
            [&] { result = EGW_ELementServerDeleteElementWaitNotifyByUuid(root, changes, mode); });
        EXPECT_EQ(result, 0u);
        EXPECT_EQ(callsWith(trace, "::SetState("), expectedStates[std::min(mode, 3u)]) << mode;
        // Every command goes before the first state change, the deletion after everything.
        const auto firstState = std::find_if(trace.begin(), trace.end(), [](const std::string& c) {
            return c.find("::SetState(") != std::string::npos;
        });
        EXPECT_TRUE(callsWith({firstState, trace.end()}, "::ExecuteCommand(").empty());
        EXPECT_EQ(trace.back(),
                  "ElementServer::DeleteElementWaitForNoticication(" + hexText(root) + ")");
        const std::vector<UINT32> subtree{A, A1, A2};
        EXPECT_EQ(commandTargets(), mode == 0 ? std::vector<UINT32>{A1} : subtree);
        for (const panelsim::ExecutedCommand& command : panelsim::executedCommands())
            EXPECT_TRUE(command.command == 0x4286 && command.source == root);
    }
}
