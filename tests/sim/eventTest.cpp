// Subscriptions and the events the dispatcher queues for modules.
#include <chrono>
#include <cstring>
#include <thread>

#include "simFixture.h"

namespace
{

using namespace std::chrono_literals;

constexpr unsigned kModule = 11;
constexpr unsigned kOtherModule = 12;
constexpr unsigned kFireAlarmChange = 0x03010001;
constexpr unsigned kPreDeleteCommand = 0x00064286;

class EventTest : public SimTest
{
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        root = add(0, 0x0169);
        panelsim::loginModule(kModule);
        panelsim::loginModule(kOtherModule);
        ASSERT_EQ(server().OpenEventDispatcher(), 0);
    }

    std::vector<panelsim::Event> drain(unsigned pid)
    {
        std::vector<panelsim::Event> events;
        panelsim::Event e;
        while (panelsim::takeEvent(pid, e))
            events.push_back(e);
        return events;
    }

    unsigned root = 0;
};

TEST_F(EventTest, SubscriptionsNeedALoginAreListedAndUnsubscribed)
{
    EXPECT_NE(server().SubscribeByType(0x0FFF, kFireAlarmChange, false, kModule), 0)
        << "type unknown";
    EXPECT_NE(Element(root + 5).SubscribeByElement(kFireAlarmChange, false, kModule), 0)
        << "unknown element";
    EXPECT_EQ(server().SubscribeByType(0x0169, kFireAlarmChange, false, kModule), 0);
    EXPECT_EQ(server().SubscribeByType(0x0169, kFireAlarmChange, false, kModule), 0)
        << "a duplicate changes nothing";
    EXPECT_EQ(Element(root).SubscribeByElement(kPreDeleteCommand, false, kModule), 0);
    const auto list = panelsim::subscriptions();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_TRUE(list[0].byType);
    EXPECT_EQ(list[0].typeOrUuid, 0x0169u);
    EXPECT_FALSE(list[1].byType);
    EXPECT_EQ(list[1].typeOrUuid, root);

    EXPECT_EQ(server().Un_SubscribeByType(0x0169, kFireAlarmChange, kModule), 0);
    EXPECT_NE(server().Un_SubscribeByType(0x0169, kFireAlarmChange, kModule), 0);
    EXPECT_NE(Element(root).Un_SubscribeByElement(kPreDeleteCommand, kOtherModule), 0);
    EXPECT_EQ(Element(root).Un_SubscribeByElement(kPreDeleteCommand, kModule), 0);
    EXPECT_TRUE(panelsim::subscriptions().empty());

    // By element, only a module logged in for events may subscribe.
    EXPECT_EQ(Element(root).SubscribeByElement(kFireAlarmChange, false, 40),
              static_cast<int>(0x80070004u));
    panelsim::loginModule(40);
    EXPECT_EQ(Element(root).SubscribeByElement(kFireAlarmChange, false, 40), 0);
    panelsim::logoutModule(40);
    EXPECT_EQ(Element(root).SubscribeByElement(kPreDeleteCommand, false, 40),
              static_cast<int>(0x80070004u));
}

TEST_F(EventTest, StateChangeReachesEachModuleOnceWithItsRecord)
{
    server().SubscribeByType(0x0169, kFireAlarmChange, false, kModule);
    Element(root).SubscribeByElement(kFireAlarmChange, false, kModule);
    server().SubscribeByType(0x0169, kFireAlarmChange, true, kOtherModule); // one shot

    ASSERT_EQ(Element(root).SetState(0x0001, 0x60002, false), 0);
    for (unsigned pid : {kModule, kOtherModule})
    {
        const auto events = drain(pid);
        ASSERT_EQ(events.size(), 1u) << "module " << pid;
        EXPECT_EQ(events[0].eventId, kFireAlarmChange);
        EXPECT_EQ(events[0].uuid, root);
        ASSERT_EQ(events[0].data.size(), 16u);
        unsigned words[4];
        std::memcpy(words, events[0].data.data(), sizeof words);
        EXPECT_EQ(words[0], root);
        EXPECT_EQ(words[1], 0x80001u);
        EXPECT_EQ(words[2], 0x60002u) << "new value first";
        EXPECT_EQ(words[3], 0x60001u) << "then the previous one";
    }
    EXPECT_EQ(panelsim::subscriptions().size(), 2u) << "the one shot has ended";
    Element(root).SetState(0x0001, 0x60002, false);
    Element(root).SetState(0x0001, 0x60003, true);
    EXPECT_TRUE(drain(kModule).empty()) << "no change, or a silent one, raises nothing";
    Element(root).SetState(0x0001, 0x60001, false);
    EXPECT_EQ(drain(kModule).size(), 1u);
    EXPECT_TRUE(drain(kOtherModule).empty());

    EXPECT_NE(server().OpenEventDispatcher(), 0) << "already open";
    EXPECT_EQ(server().CloseEventDispatcher(), 0);
    EXPECT_NE(server().CloseEventDispatcher(), 0);
    EXPECT_FALSE(panelsim::isDispatcherOpen());
    Element(root).SetState(0x0001, 0x60002, false);
    EXPECT_TRUE(drain(kModule).empty()) << "nothing is raised while the dispatcher is closed";
}

TEST_F(EventTest, PropertyAndCommandEventsCarryTheirData)
{
    server().SubscribeByType(0x0169, 0x0302000A, false, kModule);
    server().SubscribeByType(0x0169, 0x00064001, false, kModule);
    char name[] = "Hall";
    Property p(0x000A);
    p.SetData(name, 4);
    ASSERT_EQ(Element(root).SetProperty(p, false), 0);
    Element source(root);
    char parameters[] = {1, 2, 3};
    ASSERT_EQ(Element(root).ExecuteCommand(0x4001, &source, parameters, 3, false), 0);
    EXPECT_NE(Element(root).ExecuteCommand(0x4999, nullptr, nullptr, 0, false), 0)
        << "not a command of the type";
    ASSERT_EQ(Element(root).ExecuteCommand(0x4001, nullptr, nullptr, 0, true), 0);

    const auto events = drain(kModule);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].eventId, 0x0302000Au);
    EXPECT_EQ(events[0].data, "Hall");
    EXPECT_EQ(events[1].eventId, 0x00064001u);
    EXPECT_EQ(events[1].source, root);
    EXPECT_EQ(events[1].data, std::string("\1\2\3", 3));

    const auto executed = panelsim::executedCommands();
    ASSERT_EQ(executed.size(), 2u) << "silent commands are recorded too";
    EXPECT_EQ(executed[0].target, root);
    EXPECT_EQ(executed[0].command, 0x4001);
    EXPECT_EQ(executed[0].source, root);
    EXPECT_EQ(executed[1].source, 0u);
    EXPECT_TRUE(executed[1].parameters.empty());
}

TEST_F(EventTest, WaitedDeleteAnnouncesBeforeAndConfirmsAfter)
{
    const unsigned hardware = add(root, 0x0170);
    add(hardware, 0x0204);
    Element(hardware).SubscribeByElement(0xF0010000, false, kModule);
    Element(hardware).SubscribeByElement(0xF0020000, false, kModule);
    server().SubscribeByType(0x0170, 0xF0020000, false, kOtherModule);
    bool announcedFirst = false;
    std::thread watcher([&] {
        panelsim::Event e;
        announcedFirst = panelsim::waitEvent(kModule, e, 2000ms) && e.eventId == 0xF0010000;
    });
    Element element(hardware);
    EXPECT_EQ(server().DeleteElementWaitForNoticication(element), 0);
    watcher.join();
    EXPECT_TRUE(announcedFirst);
    const auto rest = drain(kModule);
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0].eventId, 0xF0020000u);
    EXPECT_EQ(rest[0].uuid, hardware);
    EXPECT_EQ(drain(kOtherModule).size(), 1u);
    EXPECT_EQ(panelsim::elementCount(), 1u);
    EXPECT_NE(server().DeleteElementWaitForNoticication(element), 0);
}

TEST_F(EventTest, FullQueueDropsCountsAndReports)
{
    server().SubscribeByType(0x0169, kFireAlarmChange, false, kModule);
    for (int i = 0; i < 1030; ++i)
        Element(root).SetState(0x0001, i % 2 ? 0x60001 : 0x60002, false);
    EXPECT_EQ(panelsim::droppedEvents(kModule), 6u);
    EXPECT_EQ(panelsim::droppedEvents(kOtherModule), 0u);
    EXPECT_EQ(drain(kModule).size(), 1024u);
    ASSERT_EQ(logLines().size(), 6u);
    EXPECT_EQ(logLines()[0].level, 4);
    EXPECT_EQ(logLines()[0].module, "<PanelSim>");
    EXPECT_NE(logLines()[0].text.find("module 11"), std::string::npos) << logLines()[0].text;
}

} // namespace
