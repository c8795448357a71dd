// Peers that misbehave on the connection: one that leaves in the middle of a call, one that sends
// half a frame, one that never reads the reply to its long poll, and one that sends garbage. Each
// must cost the server nothing it keeps: its session closes, its thread ends, and the clients
// that behave are served all along. Every wait is bounded.
#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <thrift/transport/TTransportException.h>

#include "tests/service/serviceFixture.h"

namespace servicetest
{
namespace
{

using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TMemoryBuffer;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TTransportException;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::int64_t kDetectorType = 0x70048;
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr std::int64_t kFireAlarmEvent = 0x03010001;
// How long the server may take to notice a peer that is gone, beyond what the peer asked for.
constexpr milliseconds kNoticeBound{5000};
// The bounds of the abuse tests below.
constexpr int kFrameLimit = 4096;
constexpr int kReceiveMs = 800;
constexpr int kFirstRequestMs = 2000;
constexpr int kIdleMs = 4000;
// The listening socket hands over a connection on which nothing has been sent after about this.
constexpr milliseconds kAcceptDelay{1000};
// How much later than its bound a connection may be closed on a loaded machine.
constexpr milliseconds kSlack{1500};

std::string frameHeader(std::uint32_t size)
{
    return {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
            static_cast<char>(size >> 8), static_cast<char>(size)};
}

long threadsOfThisProcess()
{
    long count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        count += task.is_directory() ? 1 : 0;
    }
    return count;
}

bool within(milliseconds bound, const std::function<bool()>& done)
{
    const auto end = Clock::now() + bound;
    while (!done())
    {
        if (Clock::now() >= end)
        {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    return true;
}

// The bytes of one call as the generated client frames it, for peers that send them in part.
std::string framedEcho(std::int64_t value)
{
    const auto memory = std::make_shared<TMemoryBuffer>();
    const auto framed = std::make_shared<TFramedTransport>(memory);
    rpc::PanelServiceClient client(std::make_shared<TBinaryProtocol>(framed));
    client.send_echo(value);
    return memory->getBufferAsString();
}

// A loopback connection that sends raw bytes and times how long the server keeps it.
class RawPeer
{
public:
    explicit RawPeer(int port) : socket_(std::make_shared<TSocket>("127.0.0.1", port))
    {
        socket_->open();
    }

    void send(const std::string& bytes)
    {
        socket_->write(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                       static_cast<std::uint32_t>(bytes.size()));
    }

    // How long until the server ends the connection, or `bound` when it has not by then.
    milliseconds closedAfter(milliseconds bound)
    {
        const auto start = Clock::now();
        const auto end = start + bound;
        std::uint8_t buffer[256];
        try
        {
            for (;;)
            {
                const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
                if (left.count() <= 0)
                {
                    return bound;
                }
                socket_->setRecvTimeout(static_cast<int>(left.count()));
                if (socket_->read(buffer, sizeof buffer) == 0)
                {
                    break;
                }
            }
        }
        catch (const TTransportException& e)
        {
            if (e.getType() == TTransportException::TIMED_OUT)
            {
                return bound;
            }
        }
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }

    // Whether the server ends the connection within the bound.
    bool closedByServer(milliseconds bound) { return closedAfter(bound) < bound; }

    void close() { socket_->close(); }

private:
    std::shared_ptr<TSocket> socket_;
};

// A framed client whose requests are sent without waiting for their replies.
class Caller
{
public:
    explicit Caller(int port)
        : socket_(std::make_shared<TSocket>("127.0.0.1", port)),
          transport_(std::make_shared<TFramedTransport>(socket_)),
          client_(std::make_shared<TBinaryProtocol>(transport_))
    {
        transport_->open();
    }

    rpc::PanelServiceClient& operator*() { return client_; }
    void close() { transport_->close(); }

private:
    std::shared_ptr<TSocket> socket_;
    std::shared_ptr<TFramedTransport> transport_;
    rpc::PanelServiceClient client_;
};

struct Misbehaviour
{
    const char* name;
    // How long the server may keep the peer's session by design (a long poll it asked for).
    milliseconds allowed;
    std::function<void(int port, rpc::Uuid detector)> act;
};

class Connections : public ServiceFixture
{
protected:
    void SetUp() override
    {
        ServiceFixture::SetUp();
        admin_ = connectAt(3);
        const std::vector<rpc::Uuid> detectors = collectAll(*admin_, 0, kDetectorType);
        ASSERT_FALSE(detectors.empty());
        detector_ = detectors.front();
    }

    void TearDown() override
    {
        admin_.reset();
        ServiceFixture::TearDown();
    }

    // Changes the detector's fire-alarm state, so that a session following it has an event.
    void raiseEvent()
    {
        const rpc::Id now = (*admin_)->getState(detector_, kFireAlarmGroup);
        (*admin_)->setState(detector_, kFireAlarmGroup, now == 0x60002 ? 0x60001 : 0x60002);
    }

    std::unique_ptr<Client> admin_;
    rpc::Uuid detector_ = 0;
};

rpc::Subscription detectorAlarms(rpc::Uuid detector)
{
    rpc::Subscription s;
    s.kind = rpc::SubscriptionKind::BY_ELEMENT;
    s.target = detector;
    s.eventId = kFireAlarmEvent;
    return s;
}

TEST_F(Connections, MisbehavingPeersCostTheServerNothingItKeeps)
{
    const std::vector<Misbehaviour> peers = {
        {"sends a request and leaves without its reply", milliseconds(0),
         [](int port, rpc::Uuid) {
             Caller caller(port);
             rpc::SnapshotRequest whole;
             whole.propertyIds = {0x30002, 0x30004};
             whole.withStates = true;
             (*caller).send_snapshot(whole);
             caller.close();
         }},
        {"sends half a frame and leaves", milliseconds(0),
         [](int port, rpc::Uuid) {
             const std::string frame = framedEcho(42);
             RawPeer peer(port);
             peer.send(frame.substr(0, frame.size() / 2));
             peer.close();
         }},
        {"sends a frame header only and leaves", milliseconds(0),
         [](int port, rpc::Uuid) {
             RawPeer peer(port);
             peer.send(framedEcho(7).substr(0, 4));
             peer.close();
         }},
        {"never reads the reply to a long poll that has events", milliseconds(0),
         [this](int port, rpc::Uuid detector) {
             Caller caller(port);
             (*caller).subscribe(detectorAlarms(detector));
             raiseEvent();
             (*caller).send_nextEvents(10, 60000);
             std::this_thread::sleep_for(milliseconds(200)); // the reply waits unread
             caller.close();
         }},
        {"leaves during a long poll that has no events", milliseconds(1000),
         [](int port, rpc::Uuid detector) {
             Caller caller(port);
             (*caller).subscribe(detectorAlarms(detector));
             (*caller).send_nextEvents(10, 1000);
             caller.close();
         }},
        {"sends random bytes", milliseconds(0),
         [](int port, rpc::Uuid) {
             std::minstd_rand random(7);
             std::string bytes(4096, '\0');
             for (char& byte : bytes)
             {
                 byte = static_cast<char>(random());
             }
             RawPeer peer(port);
             peer.send(bytes);
             EXPECT_TRUE(peer.closedByServer(kNoticeBound)) << "the server kept the connection";
         }},
        {"sends a line of text", milliseconds(0),
         [](int port, rpc::Uuid) {
             RawPeer peer(port);
             peer.send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
             EXPECT_TRUE(peer.closedByServer(kNoticeBound)) << "the server kept the connection";
         }},
        {"sends a whole frame of zeros", milliseconds(0),
         [](int port, rpc::Uuid) {
             std::string frame(68, '\0');
             frame[3] = 64;
             RawPeer peer(port);
             peer.send(frame);
             EXPECT_TRUE(peer.closedByServer(kNoticeBound)) << "the server kept the connection";
         }},
        {"announces a frame larger than any the server takes", milliseconds(0),
         [](int port, rpc::Uuid) {
             RawPeer peer(port);
             peer.send(std::string("\x7f\xff\xff\xff", 4) + framedEcho(1).substr(4));
             EXPECT_TRUE(peer.closedByServer(kNoticeBound)) << "the server kept the connection";
         }},
    };

    // A client that behaves, connected all along; its session and thread are part of the count.
    auto steady = connect();
    ASSERT_EQ((*steady)->echo(1), 1);
    const long sessions = core().openSessions;
    const long threads = threadsOfThisProcess();
    std::int64_t calls = 1;
    for (const Misbehaviour& peer : peers)
    {
        SCOPED_TRACE(peer.name);
        peer.act(port(), detector_);
        EXPECT_TRUE(within(peer.allowed + kNoticeBound, [&] {
            return core().openSessions == sessions && threadsOfThisProcess() == threads;
        })) << core().openSessions << " sessions open (" << sessions << " before), "
            << threadsOfThisProcess() << " threads (" << threads << " before)";
        ++calls;
        EXPECT_EQ((*steady)->echo(calls), calls);
        EXPECT_NE((*connect())->getRoot(), 0);
    }
    EXPECT_EQ(reports(), 0);
}

// What one connection may cost the server: a frame larger than the bound, a frame that stalls or
// trickles, a connection that sends nothing or stays silent after a request, and more connections
// than the bound. Each peer loses its own connection at the bound the settings give; the clients
// that behave are served all along.
class Abuse : public ServiceFixture
{
protected:
    void SetUp() override { start(64); }

    void start(int maxConnections)
    {
        egwservice::ServiceSettings settings;
        settings.maxSessions = 100000;
        egwservice::ServerSettings server;
        server.maxFrameSize = kFrameLimit;
        server.receiveTimeoutMs = kReceiveMs;
        server.idleTimeoutMs = kIdleMs;
        server.firstRequestMs = kFirstRequestMs;
        server.maxConnections = maxConnections;
        startService({}, settings, server);
    }

    milliseconds echoTime(Client& client)
    {
        const auto start = Clock::now();
        EXPECT_EQ(client->echo(11), 11);
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }
};

struct PeerCase
{
    const char* name;
    std::function<void(RawPeer&)> act;
    milliseconds earliest; // the server must keep the connection at least this long
    milliseconds latest;   // and end it by then
};

TEST_F(Abuse, EachPeerLosesItsConnectionAtItsOwnBound)
{
    const std::string echo = framedEcho(3);
    const std::vector<PeerCase> cases = {
        {"announces a frame one byte over the bound",
         [](RawPeer& p) { p.send(frameHeader(kFrameLimit + 1)); }, milliseconds(0),
         milliseconds(kReceiveMs / 2)},
        {"announces a frame at the bound and stalls",
         [](RawPeer& p) { p.send(frameHeader(kFrameLimit)); }, milliseconds(kReceiveMs * 3 / 4),
         milliseconds(kReceiveMs) + kSlack},
        {"sends half a request and stalls",
         [&](RawPeer& p) { p.send(echo.substr(0, echo.size() / 2)); },
         milliseconds(kReceiveMs * 3 / 4), milliseconds(kReceiveMs) + kSlack},
        {"sends a frame a byte at a time, each within the receive timeout",
         [](RawPeer& p) {
             p.send(frameHeader(64));
             for (int i = 0; i < 3 * kReceiveMs / 200; ++i)
             {
                 std::this_thread::sleep_for(milliseconds(200));
                 try
                 {
                     p.send("x");
                 }
                 catch (const TTransportException&)
                 {
                     return; // closed by the server meanwhile
                 }
             }
         },
         milliseconds(0), milliseconds(kReceiveMs * 3 - 200)},
        {"connects and stays silent", [](RawPeer&) {}, milliseconds(kFirstRequestMs * 3 / 4),
         milliseconds(kFirstRequestMs) + kAcceptDelay + kSlack},
        {"asks once and stays silent", [&](RawPeer& p) { p.send(echo); },
         milliseconds(kIdleMs * 3 / 4), milliseconds(kIdleMs) + kSlack},
    };
    for (const PeerCase& peer : cases)
    {
        SCOPED_TRACE(peer.name);
        RawPeer raw(port());
        const auto start = Clock::now();
        peer.act(raw);
        raw.closedAfter(peer.latest + kSlack);
        const auto total = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
        EXPECT_GE(total.count(), peer.earliest.count());
        EXPECT_LE(total.count(), peer.latest.count());
        EXPECT_LT(echoTime(*connect()).count(), kReceiveMs);
    }
    EXPECT_EQ(reports(), 0);
}

// A session that waits in a long poll longer than the receive timeout is not a stalled frame, and
// a request within the frame bound is served.
TEST_F(Abuse, LongPollsAndRequestsWithinTheBoundAreServed)
{
    auto client = connect();
    std::vector<rpc::Event> events;
    const auto start = Clock::now();
    (*client)->nextEvents(events, 10, 2 * kReceiveMs);
    EXPECT_GE(Clock::now() - start, milliseconds(2 * kReceiveMs - 100));
    EXPECT_EQ((*client)->echo(5), 5);
    rpc::SessionInfo session;
    // A login frame just under the bound: refused for its password, not for its size.
    EXPECT_THROW((*client)->login(session, 2, std::string(kFrameLimit - 100, 'x')),
                 rpc::PanelError);
    EXPECT_EQ((*client)->echo(6), 6);
    EXPECT_THROW((*client)->login(session, 2, std::string(kFrameLimit + 100, 'x')),
                 TTransportException);
}

// Twenty peers stalled in the middle of a frame: each costs a session and a thread while it stays,
// the others' replies come as fast as before, and all is given back when they go.
TEST_F(Abuse, StalledFramesDoNotDelayOthersAndAreGivenBack)
{
    auto steady = connect();
    const long sessions = core().openSessions;
    const long threads = threadsOfThisProcess();
    const std::string echo = framedEcho(4);
    std::vector<std::unique_ptr<RawPeer>> stalled;
    for (int i = 0; i < 20; ++i)
    {
        stalled.push_back(std::make_unique<RawPeer>(port()));
        stalled.back()->send(echo.substr(0, echo.size() - 2));
    }
    EXPECT_TRUE(within(milliseconds(kReceiveMs / 2),
                       [&] { return core().openSessions == sessions + 20; }));
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_LT(echoTime(*steady).count(), kReceiveMs / 2);
        EXPECT_LT(echoTime(*connect()).count(), kReceiveMs / 2);
    }
    stalled.clear();
    EXPECT_TRUE(within(kNoticeBound, [&] {
        return core().openSessions == sessions && threadsOfThisProcess() == threads;
    })) << core().openSessions << " sessions open, " << threadsOfThisProcess() << " threads ("
        << threads << " before)";
    EXPECT_EQ(reports(), 0);
}

// 200 silent connections: with a bound below 200 the next client is refused at once (its
// connection closed before any reply, not left waiting), with a bound above it is served.
TEST_F(Abuse, IdleConnectionsBeyondTheBoundAreClosedAtOnce)
{
    for (const int bound : {150, 300})
    {
        SCOPED_TRACE("--max-connections " + std::to_string(bound));
        TearDown();
        start(bound);
        const long before = core().openSessions;
        std::vector<std::unique_ptr<RawPeer>> idle;
        for (int i = 0; i < 200; ++i)
        {
            idle.push_back(std::make_unique<RawPeer>(port()));
        }
        // The listening socket hands over a silent connection after about a second; the 200
        // threads then start (slowly under an emulator), all before the first idle bound ends.
        ASSERT_TRUE(within(milliseconds(kIdleMs * 3 / 4), [&] {
            return core().openSessions == before + std::min(bound, 200);
        })) << core().openSessions;
        const auto start = Clock::now();
        Client next(port());
        if (bound < 200)
        {
            EXPECT_THROW(next->echo(7), TTransportException);
            EXPECT_LT(Clock::now() - start, milliseconds(kReceiveMs));
            // When they leave, their places are free again.
            idle.clear();
            ASSERT_TRUE(
                within(milliseconds(kIdleMs), [&] { return core().openSessions == before; }));
            EXPECT_EQ((*connect())->echo(8), 8);
        }
        else
        {
            EXPECT_EQ(next->echo(9), 9);
        }
    }
}

// Plain TCP is served on loopback only, unless --insecure; TLS anywhere.
TEST(TransportSettings, PlainTcpBeyondLoopbackNeedsInsecure)
{
    const struct
    {
        const char* address;
        bool loopback;
    } addresses[] = {
        {"127.0.0.1", true},
        {"127.255.0.9", true},
        {"::1", true},
        {"localhost", true},
        {"::ffff:127.0.0.1", true},
        {"0.0.0.0", false},
        {"::", false},
        {"", false},
        {"128.0.0.1", false},
        {"10.1.2.3", false},
        {"::ffff:10.0.0.1", false},
        {"localhost.example", false},
        {"fe80::1", false},
    };
    for (const auto& a : addresses)
    {
        SCOPED_TRACE(a.address);
        EXPECT_EQ(egwservice::isLoopback(a.address), a.loopback);
        egwservice::ServerSettings plain;
        plain.address = a.address;
        if (a.loopback)
        {
            EXPECT_NO_THROW(egwservice::checkSettings(plain));
        }
        else
        {
            EXPECT_THROW(egwservice::checkSettings(plain), egwservice::SettingsRefused);
        }
        egwservice::ServerSettings insecure = plain;
        insecure.insecure = true;
        EXPECT_NO_THROW(egwservice::checkSettings(insecure));
        egwservice::ServerSettings tls = plain;
        tls.tlsCert = "server.pem";
        tls.tlsKey = "server.key";
        EXPECT_NO_THROW(egwservice::checkSettings(tls));
    }
}

} // namespace
} // namespace servicetest
