// The element-server lock: re-entrant for its holder, exclusive against other threads. Many threads
// adding at once are the reliability stress test's.
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "simFixture.h"

namespace
{

using LockTest = SimTest;
using namespace std::chrono_literals;

TEST_F(LockTest, PoliciesAndUnlockWithoutLock)
{
    EXPECT_NE(server().Lock(LOCK_POLICY_SHARED), 0);
    EXPECT_NE(server().UnLock(), 0) << "this thread holds no lock";
    EXPECT_EQ(server().Lock(LOCK_POLICY_WAIT), 0);
    EXPECT_EQ(server().Lock(LOCK_POLICY_TRY), 0) << "re-entrant for the holder";
    EXPECT_NE(add(0, 0x0169), 0u) << "host operations go on under the thread's own lock";
    EXPECT_EQ(server().UnLock(), 0);
    EXPECT_EQ(server().UnLock(), 0);
    EXPECT_NE(server().UnLock(), 0);
}

TEST_F(LockTest, AnotherThreadIsExcludedUntilTheLastUnlock)
{
    ASSERT_EQ(server().Lock(LOCK_POLICY_WAIT), 0);
    ASSERT_EQ(server().Lock(LOCK_POLICY_WAIT), 0);

    std::promise<int> tried;
    std::atomic<bool> added{false};
    std::thread other([&] {
        tried.set_value(server().Lock(LOCK_POLICY_TRY));
        EXPECT_NE(server().UnLock(), 0) << "the failed try left nothing to unlock";
        add(0, 0x0169); // waits for the tree
        added = true;
    });
    EXPECT_NE(tried.get_future().get(), 0)
        << "try fails at once while another thread holds the tree";
    std::this_thread::sleep_for(5ms);
    EXPECT_FALSE(added) << "an operation of another thread waits for the lock";
    EXPECT_EQ(panelsim::elementCount(), 0u);

    EXPECT_EQ(server().UnLock(), 0);
    std::this_thread::sleep_for(5ms);
    EXPECT_FALSE(added) << "still held once";
    EXPECT_EQ(server().UnLock(), 0);
    other.join();
    EXPECT_TRUE(added);
    EXPECT_EQ(panelsim::elementCount(), 1u);
}

} // namespace
