// Sessions: the login guard's rules, logins that lapse after a time without requests, the bound
// on sessions open at once, and the passwords' holder kept from levels below 4. The time is a
// clock the test moves.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
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

using Refusal = LoginGuard::Refusal;

// One login at the guard: admitted and failed (`result` is the block it starts), admitted and
// granted, or refused before its password is looked at (`result` is the wait).
enum class Login
{
    Fails,
    Succeeds,
    Refused
};

struct Step
{
    long second;
    const char* address;
    int level;
    bool certified;
    Login what;
    Refusal refusal; // for Refused
    long result;
};

TEST(LoginGuard, Rules)
{
    LoginLimits limits;
    limits.failuresAllowed = 2;
    limits.longestBlock = seconds(60);
    limits.addressesKept = 3;
    limits.guessesPerMinute = 2; // one every 30 s
    const TestClock time;
    LoginGuard guard(limits, time.clock());
    const char* const a = "192.0.2.1";
    constexpr Login fails = Login::Fails;
    constexpr Login refused = Login::Refused;
    constexpr Refusal none = Refusal::None;
    const std::vector<Step> steps = {
        // Per address and level: blocked after two failures; each failure after a block doubles
        // it, up to the longest block.
        {0, a, 4, false, fails, none, 0},
        {0, a, 4, false, fails, none, 30},
        {1, a, 4, false, refused, Refusal::Address, 29},
        // Neither another level nor a certified peer from the same address is blocked, and a
        // granted login at another level lifts nothing.
        {1, a, 4, true, fails, none, 0},
        {1, a, 2, false, Login::Succeeds, none, 0},
        {1, a, 4, false, refused, Refusal::Address, 29},
        {31, a, 4, false, fails, none, 60},
        {91, a, 4, false, fails, none, 60},
        // A granted login forgets the failures of its own address and level.
        {500, a, 2, false, fails, none, 0},
        {500, a, 2, false, Login::Succeeds, none, 0},
        {500, a, 2, false, fails, none, 0},
        // Per level over all addresses: two checked passwords, then one every 30 s. The other
        // levels and the certified peers have budgets of their own.
        {1000, "198.51.100.1", 3, false, fails, none, 0},
        {1000, "198.51.100.2", 3, false, fails, none, 0},
        {1000, "198.51.100.3", 3, false, refused, Refusal::Level, 30},
        {1000, "198.51.100.3", 2, false, fails, none, 0},
        {1000, "198.51.100.3", 3, true, fails, none, 0},
        {1029, "198.51.100.4", 3, false, refused, Refusal::Level, 1},
        {1030, "198.51.100.4", 3, false, fails, none, 0},
        // Room for a new address never lifts a block: with every record blocked, a new address
        // waits for the first block to end, and then only that record goes.
        {2000, "203.0.113.1", 4, false, fails, none, 0},
        {2000, "203.0.113.1", 4, false, fails, none, 30},
        {2001, "203.0.113.2", 3, false, fails, none, 0},
        {2001, "203.0.113.2", 3, false, fails, none, 30},
        {2002, "203.0.113.3", 2, false, fails, none, 0},
        {2002, "203.0.113.3", 2, false, fails, none, 30},
        {2010, "203.0.113.4", 4, false, refused, Refusal::Full, 20},
        {2030, "203.0.113.4", 4, false, fails, none, 0},
        {2030, "203.0.113.2", 3, false, refused, Refusal::Address, 1},
        {2030, "203.0.113.3", 2, false, refused, Refusal::Address, 2},
    };
    for (const Step& step : steps)
    {
        time.setSecond(step.second);
        const egwservice::LoginAttempt attempt{step.address, step.level, step.certified};
        const LoginGuard::Admission admission = guard.admit(attempt);
        const std::string where = "second " + std::to_string(step.second) + ", " + step.address +
                                  ", level " + std::to_string(step.level);
        if (step.what == Login::Refused)
        {
            EXPECT_EQ(admission.refusal, step.refusal) << where;
            EXPECT_EQ(admission.wait.count(), step.result) << where;
            continue;
        }
        ASSERT_EQ(admission.refusal, Refusal::None) << where;
        if (step.what == Login::Fails)
        {
            EXPECT_EQ(guard.failed(attempt).count(), step.result) << where;
        }
        else
        {
            guard.succeeded(attempt);
        }
    }
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
        start(settings);
    }
    void start(egwservice::ServiceSettings settings, const egwservice::PanelFiles& files = {})
    {
        settings.clock = time.clock();
        startService(files, settings);
    }

    // The code of the PanelError that the call raises; 0 when it raises none.
    template <typename Call>
    static int refusal(Call&& call, std::string* message = nullptr)
    {
        try
        {
            call();
        }
        catch (const servicetest::rpc::PanelError& error)
        {
            if (message != nullptr)
            {
                *message = error.message;
            }
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

// A Thrift client connected from 127.0.0.x (every address of 127.0.0.0/8 reaches the loopback
// interface); its socket closes with it.
std::unique_ptr<servicetest::rpc::PanelServiceClient> clientFrom(int x, int port)
{
    sockaddr_in from{AF_INET, 0, {htonl(0x7F000000u | static_cast<std::uint32_t>(x))}, {}};
    sockaddr_in to{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const auto socket = std::make_shared<apache::thrift::transport::TSocket>(fd); // closes fd
    if (::bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
        ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
    {
        throw std::runtime_error("no connection from 127.0.0." + std::to_string(x));
    }
    return std::make_unique<servicetest::rpc::PanelServiceClient>(
        std::make_shared<apache::thrift::protocol::TBinaryProtocol>(
            std::make_shared<apache::thrift::transport::TFramedTransport>(socket)));
}

class GuardedLogins : public SessionLimits
{
protected:
    void SetUp() override { start({}); }
};

// Logins from loopback addresses 127.0.0.x, `count` times from `from` (from `from` onwards when
// `rotating`), all answered `code`.
struct LoginCase
{
    long second;
    int from;
    int count;
    bool rotating;
    int level;
    const char* password;
    int code;
    const char* says; // a part of the refusal's message, or nullptr
};

TEST_F(GuardedLogins, PerAddressAndLevelAndOverAllAddressesWithTheirRows)
{
    constexpr int kBad = ErrorCode::BAD_PASSWORD;
    constexpr int kLimit = ErrorCode::LIMIT;
    const std::vector<LoginCase> cases = {
        // Five wrong level-3 passwords block 127.0.0.1 at level 3, even for the right one; a
        // granted login at level 2 in between forgets none of them, and level 2 stays open.
        {0, 1, 4, false, 3, "wrong", kBad, nullptr},
        {0, 1, 1, false, 2, "2222", 0, nullptr},
        {0, 1, 1, false, 3, "wrong", kBad, "are now refused for 30 s"},
        {0, 1, 1, false, 3, "3333", kLimit, "from 127.0.0.1 are refused for 30 s more"},
        {0, 1, 1, false, 2, "2222", 0, nullptr},
        // Ten level-4 guesses a minute are checked, from all addresses together; then not even
        // the right password is looked at, until the budget has regained a guess (6 s).
        {0, 2, 10, true, 4, "wrong", kBad, nullptr},
        {0, 12, 1, false, 4, "4444", kLimit, "refused for 6 s more: wrong passwords from all"},
        {6, 13, 1, false, 4, "4444", 0, nullptr},
        {30, 1, 1, false, 3, "3333", 0, nullptr},
    };
    auto admin = connectAt(3);
    std::map<int, std::unique_ptr<servicetest::rpc::PanelServiceClient>> clients;
    for (const LoginCase& c : cases)
    {
        time.setSecond(c.second);
        for (int n = 0; n < c.count; ++n)
        {
            const int x = c.from + (c.rotating ? n : 0);
            auto& client = clients[x];
            if (!client)
            {
                client = clientFrom(x, port());
            }
            servicetest::rpc::SessionInfo session;
            std::string message;
            EXPECT_EQ(refusal([&] { client->login(session, c.level, c.password); }, &message),
                      c.code)
                << "second " << c.second << ", 127.0.0." << x << ", level " << c.level;
            if (c.says != nullptr)
            {
                EXPECT_NE(message.find(c.says), std::string::npos) << message;
            }
        }
    }
    EXPECT_EQ(rows(*admin, "loginFailed").size(), 15u);
    EXPECT_EQ(rows(*admin, "loginBlocked").size(), 2u);
    const auto logins = rows(*admin, "login");
    ASSERT_EQ(logins.size(), 5u);
    EXPECT_EQ(logins[0].after, "3");
    EXPECT_EQ(logins[0].peer.rfind("127.0.0.1:", 0), 0u);
}

// A panel whose root is the panel element, holding its own level-4 password "4711", above a
// hardware root.
class PasswordHolder : public SessionLimits
{
protected:
    void SetUp() override
    {
        panelFile_ = (std::filesystem::temp_directory_path() /
                      ("egwd-holder-" + std::to_string(::getpid()) + ".json"))
                         .string();
        std::ofstream(panelFile_)
            << R"({"version": 1, "name": "Annex panel", "root": {"key": "panel",
                   "type": "CompactPanel", "properties": {"PasswordLevel4": "4711"},
                   "children": [{"key": "hardware", "type": "CompactHardwareRoot"}]}})";
        egwservice::ServiceSettings settings;
        settings.logins.failuresAllowed = 1000;
        settings.logins.guessesPerMinute = 10000;
        start(settings, {"", panelFile_});
    }
    void TearDown() override
    {
        SessionLimits::TearDown();
        std::filesystem::remove(panelFile_);
    }

    std::string panelFile_;
};

// Nothing below level 4 brings back the default passwords; level 4 may change or drop them.
TEST_F(PasswordHolder, OnlyLevelFourChangesThePasswords)
{
    using Rpc = servicetest::rpc::PanelServiceClient;
    auto guest = connect();
    const std::int64_t root = (*guest)->getRoot();
    std::vector<std::int64_t> children;
    (*guest)->getChildren(children, root);
    ASSERT_EQ(children.size(), 1u);
    const std::int64_t hardware = children[0];
    const std::string zeroLed = std::string(1, '\0') + "42";
    struct Case
    {
        int level;
        const char* what;
        std::function<void(Rpc&)> change;
        int code;
        std::string opens; // the level-4 password afterwards
    };
    const std::vector<Case> cases = {
        {3, "deleting the holder", [&](Rpc& c) { c.deleteElement(root); },
         ErrorCode::ACCESS_DENIED, "4711"},
        {3, "the waited delete of the holder",
         [&](Rpc& c) { c.deleteElementWaited(root, {}, 2); }, ErrorCode::ACCESS_DENIED, "4711"},
        {3, "resetting the holder's states", [&](Rpc& c) { c.resetToDefaultStates(root); }, 0,
         "4711"},
        {3, "deleting a subtree without it", [&](Rpc& c) { c.deleteElement(hardware); }, 0,
         "4711"},
        {4, "an empty password", [&](Rpc& c) { c.setBytes(root, 0x301F0, std::string(2, '\0')); },
         ErrorCode::BAD_ARGUMENT, "4711"},
        {4, "a password led by a zero byte", [&](Rpc& c) { c.setBytes(root, 0x301F0, zeroLed); },
         0, zeroLed},
        {4, "deleting the holder", [&](Rpc& c) { c.deleteElement(root); }, 0, "4444"},
        {3, "adding a holder as the new root", [&](Rpc& c) { c.addElement(0, 0x70007, false); },
         ErrorCode::ACCESS_DENIED, "4444"},
    };
    std::string level4 = "4711";
    for (const Case& c : cases)
    {
        auto client = connect();
        servicetest::rpc::SessionInfo session;
        (*client)->login(session, c.level, c.level == 4 ? level4 : "3333");
        EXPECT_EQ(refusal([&] { c.change(*client->operator->()); }), c.code) << c.what;
        level4 = c.opens;
        auto check = connect();
        EXPECT_EQ(refusal([&] { (*check)->login(session, 4, level4); }), 0) << c.what;
        if (level4 != "4444")
        {
            EXPECT_EQ(refusal([&] { (*check)->login(session, 4, "4444"); }),
                      ErrorCode::BAD_PASSWORD)
                << c.what;
        }
    }
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
