// Sixteen threads on one panel for a bounded time, with host faults injected at random: reads,
// writes, subscriptions, relation changes, additions and deletions, and GUID handouts bracketed
// by the element-server lock. Afterwards no GUID has been handed out twice, no host object is
// alive and the tree is consistent. Built with -DEGW_SANITIZE=thread it is the race check;
// EGW_STRESS_MS sets the running time (default 1500 ms).
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "samplePanel.h"
#include "support/panelFixture.h"

namespace
{

using Clock = std::chrono::steady_clock;
constexpr UINT32 PROPERTY_GUID = 0x301A4;
constexpr UINT32 PROPERTY_CIE_AVAILABLE_ID = 0x301A6;
constexpr unsigned kThreads = 16;
constexpr unsigned kFirstPid = 20;

// Host operations that the fault threads make fail now and then. The lock itself is left alone:
// a failed unlock would keep the tree held, which is the caller's to retry, and is retried below.
const char* const kFaultyOperations[] = {
    "Element::GetType",         "Element::GetPropertyByPropertyID", "Property::GetData",
    "Property::IsEmpty",        "Element::SetProperty",             "Element::GetParent",
    "Element::GetChildrenList", "Element::GetReferenceRelations",   "Element::SetState",
    "Element::GetState",        "ElementServer::GetRoot",           "ElementServer::AddElement",
    "ElementServer::DeleteElement", "ElementServer::AddReferenceRelation",
    "ElementServer::SubscribeByType", "Element::SubscribeByElement", "GetPropertyTypeByID",
    "GetStateList",             "CTreeItem::GetUUID",               "DebugPrint",
    "ElementServer::UnLock"};

// Precondition and invariant reports of this thread: the fixture's recorder is not for threads.
thread_local unsigned reportsOnThisThread = 0;
void countReport(const char*, const char*, const char*, int)
{
    ++reportsOnThisThread;
}

struct Shared
{
    SamplePanel panel;
    std::vector<UINT32> elements; // the sample panel's; the spare is never deleted here
    std::vector<UINT32> homes; // one section per thread, for its own additions
    Clock::time_point end;
    std::atomic<unsigned long> operations{0};
    std::atomic<unsigned long> faults{0};
    // GUIDs in the order they were handed out; written only while the element-server lock is
    // held, so the lock alone must keep the writes apart.
    std::vector<UINT32> handedOut;
};

// Takes the element-server lock, or gives up when the host refuses or throws.
bool lockTree()
{
    try
    {
        return EGW_ElementServerLock(1, nullptr) == 0;
    }
    catch (const panelsim::InjectedFault&)
    {
        return false;
    }
}

// Releases the lock; a failed release is retried, else the tree would stay held.
void unlockTree()
{
    for (;;)
    {
        try
        {
            if (EGW_ElementServerUnlock(nullptr) == 0)
                return;
        }
        catch (const panelsim::InjectedFault&)
        {
        }
    }
}

class Worker
{
public:
    Worker(Shared& shared, unsigned index) : s_(shared), index_(index), random_(index) {}

    void run()
    {
        while (Clock::now() < s_.end)
        {
            try
            {
                step();
            }
            catch (const panelsim::InjectedFault&)
            {
                ++s_.faults;
            }
            ++s_.operations;
        }
    }

private:
    UINT32 anyElement() { return s_.elements[random_() % s_.elements.size()]; }

    void step()
    {
        switch (index_ % 8)
        {
        case 0: read(); break;
        case 1: write(); break;
        case 2: subscribe(); break;
        case 3: relate(); break;
        case 4: addAndDelete(); break;
        case 5: handOutGuid(); break;
        case 6: walk(); break;
        default: injectFault(); break;
        }
    }

    void read()
    {
        const UINT32 uuid = anyElement();
        UINT32 value = 0;
        std::string text;
        std::vector<int> children;
        ENENT_FIELD field{};
        EGW_ElementServerGetPropertyIntDataById(uuid, 0x30004, value, nullptr);
        EGW_ElementServerGetPropertyDataByPropertyID(uuid, 0x30002, text, nullptr);
        EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
        EGW_ELementServerGetParentUuid(uuid, nullptr);
        EGW_ELementServerGetChildrenUuidList(children, uuid, nullptr);
        EGW_ElementServerGetIDStringOfElement(text, uuid, nullptr);
        ENEventFormat().GetEventDetails(uuid, field);
    }

    void write()
    {
        EGW_ElementServerSetPropertyIntDataById(s_.panel.section, 0x30004, random_() % 100, nullptr);
        EGW_ElementServerSetStringProperty("zone", 4, s_.panel.point, 0x30002, nullptr);
        EGW_ELementServerSetStateValueByUuid(random_() % 2 ? 0x60001 : 0x60002, s_.panel.detector,
                                             0x80001, nullptr);
        EGW_SetOneElementToDefaultStates(s_.panel.detector);
    }

    void subscribe()
    {
        const UINT32 pid = kFirstPid + index_;
        EGW_BASIC_THRIFT_SubscribeAllStateChange(pid, 0x70048, nullptr);
        EGW_ElementServerSubscribeByElement(pid, s_.panel.detector, 0x03010001, nullptr);
        EGW_ElementServerUnSubscribeByElement(pid, s_.panel.detector, 0x03010001, nullptr);
        EGW_ElementServerUnSubscribeByType(pid, 0x70048, 0x03010001, nullptr);
    }

    void relate()
    {
        std::vector<int> related;
        const UINT32 target = random_() % 2 ? s_.panel.zone : s_.panel.evacZone;
        EGW_ELementServerAddReferenceRelation(static_cast<int>(s_.panel.sounder), static_cast<int>(target),
                                              kProxyRelation, nullptr);
        EGW_BASIC_THRIFT_GetVisibleRelationElementList(s_.panel.sounder, kProxyRelation, 1, related,
                                                       nullptr);
        EGW_ELementServerDelReferenceRelation(static_cast<int>(s_.panel.sounder), static_cast<int>(target),
                                              kProxyRelation, nullptr);
    }

    void addAndDelete()
    {
        const UINT32 home = s_.homes[index_];
        const UINT32 point = EGW_ELementServerAddElementByType(home, 0x70172, false, nullptr);
        const UINT32 unit = EGW_ELementServerAddElementByType(point, 0x70189, false, nullptr);
        (void)unit;
        if (random_() % 2)
            EGW_ELementServerDeleteElementByUuid(point, nullptr);
        else
        {
            std::vector<S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST> changes;
            EGW_ELementServerDeleteElementWaitNotifyByUuid(point, changes, 0);
        }
    }

    // Numbers a new element while holding the lock, and records the GUID it got when the whole
    // handout went through: a handout that met a fault may have numbered its element without
    // advancing the counter, which the panel reports as a broken tree.
    void handOutGuid()
    {
        const UINT32 point = EGW_ELementServerAddElementByType(s_.homes[index_], 0x70172, false, nullptr);
        if (point == 0 || !lockTree())
            return;
        const unsigned reportsBefore = reportsOnThisThread;
        try
        {
            EGW_ELementServerManagerElementGUID(point, GetThriftClientInstance());
            UINT32 guid = 0;
            if (reportsOnThisThread == reportsBefore &&
                EGW_ElementServerGetPropertyIntDataById(point, PROPERTY_GUID, guid, nullptr) && guid != 0)
            {
                UINT32 counter = 0;
                if (EGW_ElementServerGetPropertyIntDataById(s_.panel.root, PROPERTY_CIE_AVAILABLE_ID,
                                                            counter, nullptr) &&
                    counter == guid)
                    s_.handedOut.push_back(guid);
            }
        }
        catch (const panelsim::InjectedFault&)
        {
            ++s_.faults;
        }
        unlockTree();
    }

    void walk()
    {
        std::vector<unsigned> all;
        EGW_BASIC_THRIFT_GetAllElementUuidByElementType(s_.panel.root, 0, all, nullptr);
        EGW_ELementServerGetHardwareTreeRoot(nullptr);
        int error = 0;
        const Element unique = GetUniqueElement(0x0170, &error);
        EGW_BASIC_THRIFT_GetAllChildrenElementType(all, 0x70169);
    }

    void injectFault()
    {
        const char* operation = kFaultyOperations[random_() % (sizeof kFaultyOperations /
                                                                sizeof kFaultyOperations[0])];
        panelsim::injectFault(operation,
                              random_() % 2 ? panelsim::FaultKind::Throw : panelsim::FaultKind::Fail,
                              random_() % 200, 1);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }

    Shared& s_;
    unsigned index_;
    std::minstd_rand random_;
};

// Walks the tree with the gateway and checks it against itself: every child names its parent,
// no uuid twice, as many elements as the simulator holds, every relation between live elements.
void expectConsistentTree(UINT32 root)
{
    std::vector<unsigned> all;
    ASSERT_EQ(EGW_BASIC_THRIFT_GetAllElementUuidByElementType(root, 0, all, nullptr),
              panelsim::elementCount());
    const std::set<unsigned> unique(all.begin(), all.end());
    EXPECT_EQ(unique.size(), all.size()) << "an element is reached twice";
    for (unsigned uuid : all)
    {
        std::vector<int> children;
        EGW_ELementServerGetChildrenUuidList(children, uuid, nullptr);
        for (int child : children)
            EXPECT_EQ(EGW_ELementServerGetParentUuid(static_cast<UINT32>(child), nullptr), uuid);
        for (int direction : {0, 1})
        {
            std::vector<int> related;
            EGW_ElementServerGetReferenceRelations(related, uuid, kProxyRelation, direction, nullptr);
            for (int other : related)
                EXPECT_EQ(unique.count(static_cast<unsigned>(other)), 1u) << "relation to a deleted element";
        }
    }
}

using StressTest = PanelTest;

TEST_F(StressTest, SixteenThreadsWithRandomHostFaults)
{
    panelsim::setLogSink([](int, const std::string&, const std::string&) {});
    const EGW_AssertHandler fixtureHandler = EGW_SetAssertHandler(&countReport);
    Shared shared;
    shared.panel = buildSamplePanel();
    shared.elements = shared.panel.all();
    for (unsigned i = 0; i < kThreads; ++i)
    {
        shared.homes.push_back(
            EGW_ELementServerAddElementByType(shared.panel.hardware, 0x70204, false, nullptr));
        panelsim::loginModule(kFirstPid + i);
    }
    const char* configured = std::getenv("EGW_STRESS_MS");
    shared.end = Clock::now() + std::chrono::milliseconds(configured ? std::atoi(configured) : 1500);

    std::vector<std::thread> threads;
    std::vector<Worker> workers;
    workers.reserve(kThreads);
    for (unsigned i = 0; i < kThreads; ++i)
        workers.emplace_back(shared, i);
    for (Worker& worker : workers)
        threads.emplace_back(&Worker::run, &worker);
    for (std::thread& thread : threads)
        thread.join();
    panelsim::clearFaults();
    EGW_SetAssertHandler(fixtureHandler);

    std::printf("stress: %lu operations, %lu injected faults met, %zu GUIDs handed out\n",
                shared.operations.load(), shared.faults.load(), shared.handedOut.size());
    EXPECT_GT(shared.faults.load(), 0u) << "no fault was met: the run proves little";
    EXPECT_GT(shared.handedOut.size(), 0u);
    for (std::size_t i = 1; i < shared.handedOut.size(); ++i)
        EXPECT_LT(shared.handedOut[i - 1], shared.handedOut[i]) << "GUID handed out twice";
    expectConsistentTree(shared.panel.root);
}

} // namespace
