// Fault injection, the call trace, the call counter, live objects and the debug log.
#include <cstring>

#include "host/debugPrint.h"
#include "simFixture.h"

namespace
{

using FaultTest = SimTest;
using panelsim::FaultKind;

TEST_F(FaultTest, TraceRecordsEveryHostCallInOrder)
{
    const unsigned root = add(0, 0x0169);
    panelsim::startTrace();
    server().Lock(LOCK_POLICY_WAIT);
    Element(root).GetPropertyByPropertyID(0x4);
    Element(root).ExecuteCommand(0x4286, nullptr, nullptr, 0, false);
    const unsigned short chain[] = {0x169, 0x170, 0x171, 0};
    server().FindElementWithTypeChain(chain, nullptr);
    GetPropertyTypeByID(0x30004);
    CIDDefine::GetTypebyID(0x80001);
    DebugPrint(3, "<Test>", "x");
    server().UnLock();
    const std::vector<std::string> expected = {
        "ElementServer::GetElementServer()",
        "ElementServer::Lock(0)",
        "Element(" + hexText(root) + ")::GetPropertyByPropertyID(0x4)",
        "Element(" + hexText(root) + ")::ExecuteCommand(0x4286, null, 0 bytes, false)",
        "ElementServer::GetElementServer()",
        "ElementServer::FindElementWithTypeChain({0x169, 0x170, 0x171})",
        "GetPropertyTypeByID(0x30004)",
        "CIDDefine::GetTypebyID(0x80001)",
        "DebugPrint(3, <Test>)",
        "ElementServer::GetElementServer()",
        "ElementServer::UnLock()",
    };
    EXPECT_EQ(panelsim::stopTrace(), expected);
    EXPECT_TRUE(panelsim::stopTrace().empty());
}

TEST_F(FaultTest, FailShowsAsEachOperationsOwnFailure)
{
    const unsigned root = add(0, 0x0169);
    panelsim::injectFault("ElementServer::GetRoot", FaultKind::Fail, 0, 1, 42);
    int error = 0;
    EXPECT_EQ(server().GetRoot(&error).GetUUID(), 0u);
    EXPECT_EQ(error, 42);
    EXPECT_EQ(server().GetRoot(&error).GetUUID(), root) << "count 1: the next call goes through";

    panelsim::injectFault("Element::GetType", FaultKind::Fail, 0, 0);
    panelsim::injectFault("Element::GetPropertyByPropertyID", FaultKind::Fail);
    panelsim::injectFault("Element::GetChildrenList", FaultKind::Fail);
    panelsim::injectFault("Element::SetState", FaultKind::Fail, 0, 1, 9);
    panelsim::injectFault("GetCommandList", FaultKind::Fail);
    panelsim::injectFault("ElementServer::EnumElement", FaultKind::Fail);
    add(root, 0x0170);
    EXPECT_EQ(Element(root).GetType(), 0);
    EXPECT_EQ(Element(root).GetType(), 0) << "count 0: every call from then on";
    EXPECT_TRUE(Element(root).GetPropertyByPropertyID(0x4).IsEmpty());
    EXPECT_TRUE(Element(root).GetChildrenList().empty());
    EXPECT_EQ(Element(root).SetState(0x1, 0x60002, false), 9);
    EXPECT_EQ(Element(root).GetState(0x1), 0x60001u) << "a failed call changes nothing";
    EXPECT_TRUE(GetCommandList(0x70169).empty());
    bool visited = false;
    Element start(root);
    server().EnumElement(
        &start, [](Element&, void* v, bool&) { return *static_cast<bool*>(v) = true; }, &visited,
        false, true);
    EXPECT_FALSE(visited);
    panelsim::clearFaults();
    EXPECT_EQ(Element(root).GetType(), 0x0169);
}

TEST_F(FaultTest, PropertyAccessorsFailTooButSetDataCannot)
{
    Property p(0x4);
    char byte = 1;
    panelsim::injectFault("Property::SetData", FaultKind::Fail);
    p.SetData(&byte, 1);
    panelsim::injectFault("Property::IsEmpty", FaultKind::Fail);
    panelsim::injectFault("Property::GetData", FaultKind::Fail);
    EXPECT_TRUE(p.IsEmpty());
    unsigned short size = 5;
    EXPECT_EQ(p.GetData(&size), nullptr);
    EXPECT_EQ(size, 0);
    EXPECT_FALSE(p.IsEmpty()) << "the value was set";
    EXPECT_NE(p.GetData(&size), nullptr);
}

TEST_F(FaultTest, ThrowStopsTheOperationBeforeItChangesAnything)
{
    const unsigned root = add(0, 0x0169);
    panelsim::injectFault("ElementServer::AddElement", FaultKind::Throw, 1, 1);
    EXPECT_NE(add(root, 0x0170), 0u) << "skip 1: the first call goes through";
    try
    {
        add(root, 0x0170);
        ADD_FAILURE() << "no fault thrown";
    }
    catch (const panelsim::InjectedFault& fault)
    {
        EXPECT_NE(std::string(fault.what()).find("ElementServer::AddElement"), std::string::npos);
    }
    EXPECT_EQ(children(root).size(), 1u);
    EXPECT_NE(add(root, 0x0170), 0u);
}

TEST_F(FaultTest, TheKthCallFromNowFailsWhateverItIs)
{
    const unsigned root = add(0, 0x0169);
    const unsigned long before = panelsim::hostCallCount();
    panelsim::injectFaultAtCall(2, FaultKind::Fail, false, 7);
    Element e(root);
    EXPECT_EQ(e.GetType(), 0x0169);                // call 1
    EXPECT_EQ(e.SetState(0x1, 0x60002, false), 7); // call 2
    EXPECT_EQ(e.SetState(0x1, 0x60002, false), 0); // call 3
    EXPECT_EQ(panelsim::hostCallCount() - before, 3u);

    panelsim::injectFaultAtCall(1, FaultKind::Throw, true);
    EXPECT_THROW(e.GetType(), panelsim::InjectedFault);
    EXPECT_THROW(GetStateList(0x70169), panelsim::InjectedFault);
    panelsim::reset();
    EXPECT_EQ(panelsim::hostCallCount(), 0u);
    EXPECT_EQ(e.GetType(), 0) << "reset cleared the faults (and the tree)";
}

TEST_F(FaultTest, LiveCountersFollowEveryCopyAndHostList)
{
    const unsigned root = add(0, 0x0169);
    add(root, 0x0170);
    add(root, 0x0292);
    EXPECT_EQ(panelsim::liveElements(), 0);
    {
        std::list<Element> list = Element(root).GetChildrenList();
        EXPECT_EQ(panelsim::liveElements(), 2);
        Element copy = list.front();
        Element assigned;
        assigned = copy;
        EXPECT_EQ(panelsim::liveElements(), 4);
        Property p = Element(root).GetPropertyByPropertyID(0x4);
        std::vector<Property> properties(3, p);
        Property assignedProperty(0x9);
        assignedProperty = p;
        EXPECT_EQ(panelsim::liveProperties(), 5);
        unsigned short size = 0;
        EXPECT_EQ(assignedProperty.GetID(), 0x4);
        EXPECT_EQ(std::memcmp(assignedProperty.GetData(&size), p.GetData(&size), 4), 0)
            << "copies carry the value";
    }
    EXPECT_EQ(panelsim::liveElements(), 0);
    EXPECT_EQ(panelsim::liveProperties(), 0);
}

// A Property taken from an Element, or written through one, that is still alive when that Element
// goes is counted; copies count as taken from the same Element.
TEST_F(FaultTest, PropertiesOutlivingTheirElementAreCounted)
{
    const unsigned root = add(0, 0x0169);
    {
        Element element(root);
        Property property = element.GetPropertyByPropertyID(0x4);
        Property written(0x4);
        written.SetData(property.GetData(nullptr), 4);
        element.SetProperty(written, true);
    }
    EXPECT_EQ(panelsim::propertiesOutlivingElements(), 0);
    {
        Property property = Element(root).GetPropertyByPropertyID(0x4);
        EXPECT_EQ(panelsim::propertiesOutlivingElements(), 1);
        const std::vector<Property> copies(2, property);
        Property written(0x4);
        {
            Element element(root);
            element.SetProperty(written, true);
        }
        EXPECT_EQ(panelsim::propertiesOutlivingElements(), 2);
        Element other(root);
        EXPECT_EQ(panelsim::propertiesOutlivingElements(), 2) << "another Element is no matter";
    }
    EXPECT_EQ(panelsim::propertiesOutlivingElements(), 2);
    panelsim::reset();
    EXPECT_EQ(panelsim::propertiesOutlivingElements(), 0);
}

TEST_F(FaultTest, DebugPrintFormatsAnyLengthForTheSink)
{
    const std::string longText(5000, 'x');
    DebugPrint(4, "<GatewayApiLib>", "value=%d, text=%s\n", 42, longText.c_str());
    ASSERT_EQ(logLines().size(), 1u);
    EXPECT_EQ(logLines()[0].level, 4);
    EXPECT_EQ(logLines()[0].module, "<GatewayApiLib>");
    EXPECT_EQ(logLines()[0].text, "value=42, text=" + longText + "\n");

    panelsim::setLogSink(nullptr);
    ::testing::internal::CaptureStderr();
    DebugPrint(2, "<Mod>", "a %s", "line");
    DebugPrint(3, "<Mod>", "b\n");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[2] <Mod> a line\n[3] <Mod> b\n");
}

} // namespace
