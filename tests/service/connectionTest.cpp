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

// A plain loopback connection that sends whatever bytes it is given.
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

    // Whether the server ends the connection within the bound (what it sends before is read
    // and dropped).
    bool closedByServer(milliseconds bound)
    {
        socket_->setRecvTimeout(static_cast<int>(bound.count()));
        std::uint8_t buffer[4096];
        try
        {
            while (socket_->read(buffer, sizeof buffer) > 0)
            {
            }
            return true;
        }
        catch (const TTransportException& e)
        {
            return e.getType() != TTransportException::TIMED_OUT;
        }
    }

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
        std::vector<rpc::Uuid> detectors;
        (*admin_)->collectSubtree(detectors, 0, kDetectorType);
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
             (*caller).send_snapshot(0, {0x30002, 0x30004}, true);
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

// The server holds a thread per connection, so a misbehaving peer that stays costs one thread,
// which it gives back when it goes; many such peers at once do not stop the others being served.
TEST_F(Connections, ManyHalfFramesAtOnceAreGivenBackWhenTheyGo)
{
    const long sessions = core().openSessions;
    const long threads = threadsOfThisProcess();
    const std::string frame = framedEcho(5);
    std::vector<std::unique_ptr<RawPeer>> peers;
    for (int i = 0; i < 20; ++i)
    {
        peers.push_back(std::make_unique<RawPeer>(port()));
        peers.back()->send(frame.substr(0, frame.size() - 3));
    }
    EXPECT_TRUE(within(kNoticeBound, [&] { return core().openSessions == sessions + 20; }));
    EXPECT_EQ((*admin_)->echo(9), 9);
    EXPECT_NE((*connect())->getRoot(), 0);
    peers.clear();
    EXPECT_TRUE(within(kNoticeBound, [&] {
        return core().openSessions == sessions && threadsOfThisProcess() == threads;
    })) << core().openSessions << " sessions open, " << threadsOfThisProcess() << " threads ("
        << threads << " before)";
    EXPECT_EQ(reports(), 0);
}

} // namespace
} // namespace servicetest
