// What one connection may cost the server: a frame larger than the bound, a frame that stalls or
// trickles, a connection that stays silent, and more connections than the bound. Each peer loses
// its own connection at the bound the settings give; the clients that behave are served all along.
#include <chrono>
#include <functional>
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

constexpr int kFrameLimit = 4096;
constexpr int kReceiveMs = 800;
constexpr int kIdleMs = 4000;
// How much later than its bound a connection may be closed on a loaded machine.
constexpr milliseconds kSlack{1500};

std::string frameHeader(std::uint32_t size)
{
    return {static_cast<char>(size >> 24), static_cast<char>(size >> 16),
            static_cast<char>(size >> 8), static_cast<char>(size)};
}

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

private:
    std::shared_ptr<TSocket> socket_;
};

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
        {"stays silent", [](RawPeer&) {}, milliseconds(kIdleMs * 3 / 4),
         milliseconds(kIdleMs) + kSlack},
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

// Twenty peers stalled in the middle of a frame: the others' replies come as fast as before.
TEST_F(Abuse, StalledFramesDoNotDelayOthers)
{
    auto steady = connect();
    const std::string echo = framedEcho(4);
    std::vector<std::unique_ptr<RawPeer>> stalled;
    for (int i = 0; i < 20; ++i)
    {
        stalled.push_back(std::make_unique<RawPeer>(port()));
        stalled.back()->send(echo.substr(0, echo.size() - 2));
    }
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_LT(echoTime(*steady).count(), kReceiveMs / 2);
        EXPECT_LT(echoTime(*connect()).count(), kReceiveMs / 2);
    }
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
        // The listening socket hands over a silent connection after about a second.
        ASSERT_TRUE(within(milliseconds(kIdleMs / 2), [&] {
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
