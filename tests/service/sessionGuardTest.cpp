// Sessions: logins refused after failures from one address, logins that lapse after a time
// without requests, and the bound on sessions open at once. The time is a clock the test moves.
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "service/loginGuard.h"
#include "tests/service/serviceFixture.h"

namespace
{

using egwservice::LoginGuard;
using egwservice::LoginLimits;
using std::chrono::seconds;

// A steady clock that moves only when the test says.
struct TestClock
{
    std::shared_ptr<std::atomic<long>> elapsed = std::make_shared<std::atomic<long>>(0);

    egwservice::SessionClock clock() const
    {
        return [elapsed = elapsed] { return egwservice::SteadyTime(seconds(1000000 + *elapsed)); };
    }
    void setSecond(long second) const { *elapsed = second; }
};

enum class Login
{
    Fails,
    Succeeds,
    Asks
};

struct Step
{
    long second;
    const char* address;
    Login what;
    long block; // after the step: how long logins from the address are refused
};

TEST(LoginGuard, BlocksDoublesCapsAndForgets)
{
    LoginLimits limits;
    limits.addressesKept = 3;
    const TestClock time;
    LoginGuard guard(limits, time.clock());
    const char* const a = "192.0.2.1";
    const std::vector<Step> steps = {
        // Four failures are allowed; the fifth blocks for 30 s.
        {0, a, Login::Fails, 0},
        {0, a, Login::Fails, 0},
        {1, a, Login::Fails, 0},
        {2, a, Login::Fails, 0},
        {3, a, Login::Fails, 30},
        {13, a, Login::Asks, 20},
        {32, a, Login::Asks, 1},
        {33, a, Login::Asks, 0},
        // Each failure after a block doubles it, up to 15 minutes.
        {33, a, Login::Fails, 60},
        {93, a, Login::Fails, 120},
        {213, a, Login::Fails, 240},
        {453, a, Login::Fails, 480},
        {933, a, Login::Fails, 900},
        {1833, a, Login::Fails, 900},
        // Another address is not touched.
        {1833, "192.0.2.2", Login::Asks, 0},
        // A granted login forgets the failures: four more are allowed again.
        {2733, a, Login::Succeeds, 0},
        {2733, a, Login::Fails, 0},
        {2733, a, Login::Fails, 0},
        {2733, a, Login::Fails, 0},
        {2733, a, Login::Fails, 0},
        {2733, a, Login::Fails, 30},
        // Quiet for the longest block after the block ended: the address starts afresh.
        {3663, a, Login::Fails, 0},
        {3663, a, Login::Fails, 0},
        {3663, a, Login::Fails, 0},
        {3663, a, Login::Fails, 0},
        {3663, a, Login::Fails, 30},
    };
    for (const Step& step : steps)
    {
        time.setSecond(step.second);
        seconds block{0};
        switch (step.what)
        {
        case Login::Fails:
            block = guard.failed(step.address);
            EXPECT_EQ(guard.blockedFor(step.address), block);
            break;
        case Login::Succeeds:
            guard.succeeded(step.address);
            block = guard.blockedFor(step.address);
            break;
        case Login::Asks:
            block = guard.blockedFor(step.address);
            break;
        }
        EXPECT_EQ(block.count(), step.block) << "second " << step.second << ", " << step.address;
    }
}

TEST(LoginGuard, KeepsABoundedNumberOfAddresses)
{
    LoginLimits limits;
    limits.addressesKept = 3;
    const TestClock time;
    LoginGuard guard(limits, time.clock());
    long second = 0;
    for (const char* address : {"192.0.2.1", "192.0.2.2", "192.0.2.3", "192.0.2.4"})
    {
        for (int failure = 0; failure < 4; ++failure)
        {
            time.setSecond(++second);
            EXPECT_EQ(guard.failed(address).count(), 0);
        }
    }
    // The fourth address pushed out the one whose last failure is oldest; the others are kept.
    EXPECT_EQ(guard.failed("192.0.2.1").count(), 0);
    EXPECT_EQ(guard.failed("192.0.2.4").count(), 30);
    EXPECT_EQ(guard.failed("192.0.2.3").count(), 30);
}

TEST(LoginGuard, AddressOfPeer)
{
    EXPECT_EQ(LoginGuard::addressOf("127.0.0.1:40000"), "127.0.0.1");
    EXPECT_EQ(LoginGuard::addressOf("::1:40000"), "::1");
    EXPECT_EQ(LoginGuard::addressOf("[2001:db8::1]:40000"), "2001:db8::1");
    EXPECT_EQ(LoginGuard::addressOf("unknown"), "unknown");
}

// egwd in the test process going by a clock the test moves, with at most three sessions open.
class SessionLimits : public servicetest::ServiceFixture
{
protected:
    void SetUp() override
    {
        egwservice::ServiceSettings settings;
        settings.maxSessions = 3;
        settings.clock = time.clock();
        startService({}, settings);
    }

    // The code of the PanelError that the call raises; 0 when it raises none.
    template <typename Call>
    static int refusal(Call&& call)
    {
        try
        {
            call();
        }
        catch (const servicetest::rpc::PanelError& error)
        {
            return error.code;
        }
        return 0;
    }

    // The audit rows of one operation, newest first.
    static std::vector<servicetest::rpc::AuditEntry> rows(servicetest::Client& admin,
                                                          const std::string& operation)
    {
        servicetest::rpc::AuditQuery query;
        query.operation = operation;
        query.max = 100;
        std::vector<servicetest::rpc::AuditEntry> found;
        admin->queryAudit(found, query);
        return found;
    }

    TestClock time;
};

using servicetest::rpc::ErrorCode;

TEST_F(SessionLimits, IdleLoginLapsesToLevelOneWithItsRow)
{
    auto admin = connectAt(3);
    auto operator2 = connectAt(2);
    servicetest::rpc::SessionInfo session;
    time.setSecond(299);
    (*operator2)->getSession(session);
    EXPECT_EQ(session.accessLevel, 2);
    time.setSecond(299 + 300);
    (*admin)->login(session, 3, "3333");
    (*operator2)->getSession(session);
    EXPECT_EQ(session.accessLevel, 1);
    EXPECT_EQ(refusal([&] { (*operator2)->setState(1, 1, 1); }), ErrorCode::ACCESS_DENIED);

    const auto expired = rows(*admin, "sessionExpired");
    ASSERT_EQ(expired.size(), 2u); // the admin's lapsed too before its new login
    const auto& row = expired[0].sessionId == session.sessionId ? expired[0] : expired[1];
    EXPECT_EQ(row.sessionId, session.sessionId);
    EXPECT_EQ(row.before, "2");
    EXPECT_EQ(row.after, "1");
}

TEST_F(SessionLimits, FailedLoginsBlockTheAddressWithTheirRows)
{
    auto admin = connectAt(3);
    auto guest = connect();
    servicetest::rpc::SessionInfo session;
    for (int failure = 1; failure <= 5; ++failure)
    {
        EXPECT_EQ(refusal([&] { (*guest)->login(session, 3, "wrong"); }), ErrorCode::BAD_PASSWORD);
    }
    EXPECT_EQ(refusal([&] { (*guest)->login(session, 3, "3333"); }), ErrorCode::LIMIT);
    time.setSecond(30);
    (*guest)->login(session, 3, "3333");
    EXPECT_EQ(session.accessLevel, 3);
    (*guest)->logout(session);

    EXPECT_EQ(rows(*admin, "loginFailed").size(), 5u);
    EXPECT_EQ(rows(*admin, "loginBlocked").size(), 1u);
    const auto logins = rows(*admin, "login");
    ASSERT_EQ(logins.size(), 2u);
    EXPECT_EQ(logins[0].after, "3");
    EXPECT_EQ(logins[0].sessionId, session.sessionId);
    EXPECT_EQ(rows(*admin, "logout").size(), 1u);
}

TEST_F(SessionLimits, SessionBeyondTheBoundIsRefused)
{
    std::vector<std::unique_ptr<servicetest::Client>> open;
    for (int n = 0; n < 3; ++n)
    {
        open.push_back(connect());
        EXPECT_EQ((*open.back())->echo(n), n);
    }
    auto fourth = connect();
    EXPECT_EQ(refusal([&] { (*fourth)->echo(4); }), ErrorCode::LIMIT);
    EXPECT_EQ(refusal([&] { (*fourth)->echo(4); }), ErrorCode::LIMIT);
    // Once sessions have closed there is room again.
    fourth.reset();
    open.pop_back();
    const auto deadline = std::chrono::steady_clock::now() + seconds(20);
    while (core().openSessions >= 3 && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    auto later = connect();
    EXPECT_EQ((*later)->echo(5), 5);
}

} // namespace
