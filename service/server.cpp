#include "service/server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSSLServerSocket.h>
#include <thrift/transport/TSSLSocket.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>
#include <thrift/transport/TVirtualTransport.h>

#include "service/slots.h"
#include "service/wireLimits.h"

namespace egwservice
{
namespace
{

using apache::thrift::TConnectionInfo;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TServerTransport;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TSSLServerSocket;
using apache::thrift::transport::TSSLSocketFactory;
using apache::thrift::transport::TTransport;
using apache::thrift::transport::TTransportException;
using Clock = std::chrono::steady_clock;

// Ends TLS handshakes that take longer than the receive timeout as a whole. The handshake runs
// inside Thrift's TLS socket, whose waits are bounded one at a time, so a peer that sends its
// hello a byte at a time would hold a connection and its thread for as long as it likes. One
// thread keeps the deadlines of the handshakes under way and shuts a late one's socket down,
// which ends that handshake with an error.
class HandshakeDeadlines
{
public:
    HandshakeDeadlines() = default;
    ~HandshakeDeadlines()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    HandshakeDeadlines(const HandshakeDeadlines&) = delete;
    HandshakeDeadlines& operator=(const HandshakeDeadlines&) = delete;

    // One handshake's deadline, kept while this lives; the socket stays open until it is gone.
    class Watch
    {
    public:
        Watch(HandshakeDeadlines& deadlines, int fd, int ms) : deadlines_(deadlines)
        {
            const std::lock_guard<std::mutex> lock(deadlines_.mutex_);
            id_ = deadlines_.next_++;
            deadlines_.watched_[id_] = {Clock::now() + std::chrono::milliseconds(ms), fd, false};
            deadlines_.wake_.notify_one();
        }
        ~Watch()
        {
            const std::lock_guard<std::mutex> lock(deadlines_.mutex_);
            deadlines_.watched_.erase(id_);
        }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

        bool expired() const
        {
            const std::lock_guard<std::mutex> lock(deadlines_.mutex_);
            return deadlines_.watched_.at(id_).expired;
        }

    private:
        HandshakeDeadlines& deadlines_;
        std::uint64_t id_ = 0;
    };

private:
    struct Deadline
    {
        Clock::time_point when;
        int fd;
        bool expired;
    };

    void run()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_)
        {
            auto earliest = Clock::time_point::max();
            const auto now = Clock::now();
            for (auto& entry : watched_)
            {
                Deadline& deadline = entry.second;
                if (deadline.expired)
                {
                    continue;
                }
                if (deadline.when <= now)
                {
                    ::shutdown(deadline.fd, SHUT_RDWR);
                    deadline.expired = true;
                }
                else
                {
                    earliest = std::min(earliest, deadline.when);
                }
            }
            if (earliest == Clock::time_point::max())
            {
                wake_.wait(lock);
            }
            else
            {
                wake_.wait_until(lock, earliest);
            }
        }
    }

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::uint64_t, Deadline> watched_;
    std::uint64_t next_ = 0;
    bool stop_ = false;
    std::thread thread_{[this] { run(); }}; // last: starts once the members above are made
};

// One connection's socket, as the framed transport reads it, with two clocks.
//
// A single receive timeout on the socket cannot tell a peer that is silent between requests (a
// client waiting for its operator, minutes are fine) from one that stopped in the middle of a
// frame (it holds a connection slot and a thread for nothing), and a timeout per read does not
// bound a frame sent a byte at a time. So this transport follows the frames itself: while no
// frame has begun, a read may wait for the idle timeout; once the first byte of a frame has
// come, the whole frame (its 4-byte length, then that many bytes) must arrive before the receive
// deadline, and every read waits only for what is left of it. A new connection's first request
// has a shorter bound than the idle timeout: a peer that connects and stays silent holds a place
// for that long only. On a TLS connection the handshake comes before the first frame: its first
// byte may take the first-request timeout, the rest of it the receive timeout, and the first
// request's time starts when it has ended.
class FrameClock : public apache::thrift::transport::TVirtualTransport<FrameClock>
{
public:
    // On a TLS connection `handshakes` and `interrupt` are the listener's; otherwise null.
    FrameClock(std::shared_ptr<TSocket> socket, const ServerSettings& settings,
               std::unique_ptr<Slots::Place> place, std::shared_ptr<HandshakeDeadlines> handshakes,
               std::shared_ptr<THRIFT_SOCKET> interrupt)
        : TVirtualTransport(socket->getConfiguration()), socket_(std::move(socket)),
          receive_(settings.receiveTimeoutMs), idle_(settings.idleTimeoutMs),
          firstRequest_(std::min(settings.firstRequestMs, settings.idleTimeoutMs)),
          place_(std::move(place)), handshakes_(std::move(handshakes)),
          interrupt_(std::move(interrupt)),
          firstDeadline_(Clock::now() + std::chrono::milliseconds(firstRequest_))
    {
    }
    FrameClock(const FrameClock&) = delete;
    FrameClock& operator=(const FrameClock&) = delete;

    TSocket& socket() { return *socket_; }

    bool isOpen() const override { return socket_->isOpen(); }
    bool peek() override { return socket_->peek(); }
    void open() override { socket_->open(); }
    void close() override { socket_->close(); }
    void write(const std::uint8_t* buffer, std::uint32_t length) { socket_->write(buffer, length); }
    void flush() override { socket_->flush(); }
    const std::string getOrigin() const override { return socket_->getOrigin(); }

    std::uint32_t read(std::uint8_t* buffer, std::uint32_t length)
    {
        if (handshakes_ && !handshaken_)
        {
            shakeHands();
        }
        if (headerSeen_ == 0 && bodyLeft_ == 0)
        {
            socket_->setRecvTimeout(served_ ? idle_ : leftMs(firstDeadline_, kNoFirstRequest));
            const std::uint32_t got = socket_->read(buffer, length);
            deadline_ = Clock::now() + std::chrono::milliseconds(receive_);
            if (!served_)
            {
                deadline_ = std::min(deadline_, firstDeadline_);
            }
            follow(buffer, got);
            return got;
        }
        socket_->setRecvTimeout(leftMs(deadline_, served_ ? kFrameLate : kNoFirstRequest));
        const std::uint32_t got = socket_->read(buffer, length);
        follow(buffer, got);
        return got;
    }

private:
    // The TLS handshake, at the first read: the peer's first byte may take the idle timeout, the
    // whole handshake after it the receive timeout. The wait for that byte is the plain socket's,
    // so that it does not start the handshake; it wakes when the server stops.
    void shakeHands()
    {
        pollfd wait[2] = {{socket_->getSocketFD(), POLLIN, 0}, {-1, POLLIN, 0}};
        if (interrupt_)
        {
            wait[1].fd = *interrupt_;
        }
        const int ready = ::poll(wait, 2, firstRequest_);
        if (ready <= 0 || (wait[1].revents & POLLIN) != 0)
        {
            throw TTransportException(TTransportException::END_OF_FILE,
                                      "no TLS handshake within the first-request timeout");
        }
        const HandshakeDeadlines::Watch watch(*handshakes_, socket_->getSocketFD(), receive_);
        socket_->setRecvTimeout(receive_);
        try
        {
            // A write of nothing: TSSLSocket completes the handshake first. (Its reads would
            // too, but then wait for a request as well; its checks for data skip a socket whose
            // handshake has not begun.)
            socket_->write(nullptr, 0);
        }
        catch (const TTransportException&)
        {
            if (watch.expired())
            {
                throw TTransportException(TTransportException::TIMED_OUT,
                                          "the TLS handshake did not end within the receive "
                                          "timeout");
            }
            throw;
        }
        handshaken_ = true;
        firstDeadline_ = Clock::now() + std::chrono::milliseconds(firstRequest_);
    }

    static constexpr const char* kFrameLate = "a frame did not arrive within the receive timeout";
    static constexpr const char* kNoFirstRequest =
        "no whole request within the first-request timeout of a new connection";

    // What is left until the deadline, for a socket wait (which takes 0 for "no limit").
    static int leftMs(Clock::time_point deadline, const char* late)
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
        {
            throw TTransportException(TTransportException::TIMED_OUT, late);
        }
        return static_cast<int>(left);
    }

    // Moves along the frame by the bytes read: the 4-byte length first, then the body.
    void follow(const std::uint8_t* bytes, std::uint32_t count)
    {
        for (std::uint32_t i = 0; i < count;)
        {
            if (bodyLeft_ == 0)
            {
                length_ = (length_ << 8) | bytes[i++];
                if (++headerSeen_ == 4)
                {
                    headerSeen_ = 0;
                    // An oversize or negative length is the framed transport's to refuse.
                    bodyLeft_ = length_ & 0x7fffffffu;
                    length_ = 0;
                    served_ = served_ || bodyLeft_ == 0;
                }
            }
            else
            {
                const std::uint32_t take = std::min(count - i, bodyLeft_);
                bodyLeft_ -= take;
                i += take;
                served_ = served_ || bodyLeft_ == 0;
            }
        }
    }

    std::shared_ptr<TSocket> socket_;
    const int receive_;
    const int idle_;
    const int firstRequest_;
    std::unique_ptr<Slots::Place> place_;
    std::shared_ptr<HandshakeDeadlines> handshakes_;
    std::shared_ptr<THRIFT_SOCKET> interrupt_; // readable when the server stops
    Clock::time_point firstDeadline_;
    bool served_ = false; // a whole frame has come
    Clock::time_point deadline_;
    std::uint32_t length_ = 0;
    int headerSeen_ = 0;
    std::uint32_t bodyLeft_ = 0;
    bool handshaken_ = false;
};

class HandlerFactory : public rpc::PanelServiceIfFactory
{
public:
    // `certified`: every connection shows a client certificate of the trusted CA (--tls-ca); the
    // handshake, before the first request is read, refuses any other.
    HandlerFactory(ServiceCore& core, bool certified) : core_(core), certified_(certified) {}

    rpc::PanelServiceIf* getHandler(const TConnectionInfo& connection) override
    {
        std::string peer = "unknown";
        if (const auto clock = std::dynamic_pointer_cast<FrameClock>(connection.transport))
        {
            peer = clock->socket().getPeerAddress() + ":" +
                   std::to_string(clock->socket().getPeerPort());
        }
        return new PanelHandler(core_, peer, 1, certified_);
    }

    void releaseHandler(rpc::PanelServiceIf* handler) override { delete handler; }

private:
    ServiceCore& core_;
    const bool certified_;
};

// The TLS listening socket, telling the socket its connections' waits watch for the server's stop.
class TlsListener : public TSSLServerSocket
{
public:
    using TSSLServerSocket::TSSLServerSocket;
    std::shared_ptr<THRIFT_SOCKET> stopSignal() const { return pChildInterruptSockReader_; }
};

std::shared_ptr<TSSLSocketFactory> serverTls(const ServerSettings& settings)
{
    auto factory = std::make_shared<TSSLSocketFactory>();
    factory->server(true);
    const auto load = [](const char* option, const std::string& file, auto&& step) {
        // OpenSSL's words for a missing file are "system lib"; the system's own are clearer.
        if (::access(file.c_str(), R_OK) != 0)
        {
            throw TlsFilesRefused(option + (" " + file) + ": " + std::strerror(errno));
        }
        try
        {
            step(file.c_str());
        }
        catch (const TTransportException& e)
        {
            throw TlsFilesRefused(option + (" " + file) + ": " + e.what());
        }
    };
    load("--tls-cert", settings.tlsCert, [&](const char* f) { factory->loadCertificate(f); });
    load("--tls-key", settings.tlsKey, [&](const char* f) { factory->loadPrivateKey(f); });
    if (!settings.tlsCa.empty())
    {
        load("--tls-ca", settings.tlsCa,
             [&](const char* f) { factory->loadTrustedCertificates(f); });
    }
    factory->authenticate(!settings.tlsCa.empty());
    return factory;
}

} // namespace

bool isLoopback(const std::string& address)
{
    if (address == "localhost")
    {
        return true;
    }
    in_addr v4{};
    if (inet_pton(AF_INET, address.c_str(), &v4) == 1)
    {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) == 1)
    {
        if (IN6_IS_ADDR_LOOPBACK(&v6))
        {
            return true;
        }
        return IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127;
    }
    return false;
}

void checkSettings(const ServerSettings& settings)
{
    if (settings.tlsCert.empty() != settings.tlsKey.empty())
    {
        throw SettingsRefused(settings.tlsCert.empty() ? "--tls-key needs --tls-cert"
                                                       : "--tls-cert needs --tls-key");
    }
    if (!settings.tlsCa.empty() && !settings.tls())
    {
        throw SettingsRefused("--tls-ca needs --tls-cert and --tls-key");
    }
    if (!settings.tls() && !settings.insecure && !isLoopback(settings.address))
    {
        throw SettingsRefused(
            "refusing plain TCP on " + settings.address +
            ": anyone who reaches that address could read and operate the panel; give "
            "--tls-cert and --tls-key (and --tls-ca to admit only clients with a certificate), or "
            "--insecure on a network that is otherwise protected");
    }
}

// The listening socket with the connection bounds, in all and per peer address: a connection
// beyond one is accepted and closed at once, so its peer learns at once instead of waiting in the
// listen backlog, and the server's own bound is never reached and never stops accepting.
class PanelServer::BoundedListener : public TServerTransport
{
public:
    BoundedListener(std::shared_ptr<TServerSocket> socket, const ServerSettings& settings)
        : socket_(std::move(socket)), tls_(std::dynamic_pointer_cast<TlsListener>(socket_)),
          settings_(settings)
    {
    }

    TServerSocket& socket() { return *socket_; }

    bool isOpen() const override { return socket_->isOpen(); }
    void listen() override { socket_->listen(); }
    void interrupt() override { socket_->interrupt(); }
    void interruptChildren() override { socket_->interruptChildren(); }
    THRIFT_SOCKET getSocketFD() override { return socket_->getSocketFD(); }
    void close() override { socket_->close(); }

protected:
    std::shared_ptr<TTransport> acceptImpl() override
    {
        for (;;)
        {
            auto connection = std::dynamic_pointer_cast<TSocket>(socket_->accept());
            std::string why;
            if (auto place = slots_->take(connection->getPeerAddress(), why))
            {
                return std::make_shared<FrameClock>(std::move(connection), settings_,
                                                    std::move(place), handshakes_,
                                                    tls_ ? tls_->stopSignal() : nullptr);
            }
            connection->close();
            tellRefused(why);
        }
    }

private:
    // Said once a minute at most, so that a flood of connections does not flood the log.
    void tellRefused(const std::string& why)
    {
        ++refused_;
        const auto now = Clock::now();
        if (now - told_ >= std::chrono::minutes(1))
        {
            told_ = now;
            std::cerr << "egwd: " << why << "; closing such new ones at once (" << refused_
                      << " so far)" << std::endl;
        }
    }

    std::shared_ptr<TServerSocket> socket_;
    std::shared_ptr<TlsListener> tls_;
    std::shared_ptr<HandshakeDeadlines> handshakes_ =
        tls_ ? std::make_shared<HandshakeDeadlines>() : nullptr;
    const ServerSettings settings_;
    std::shared_ptr<Slots> slots_ = std::make_shared<Slots>(
        settings_.maxConnections, settings_.maxConnectionsPerAddress, "connections");
    std::atomic<long> refused_{0};
    Clock::time_point told_ = Clock::now() - std::chrono::minutes(2);
};

// Tells the bound port once the server listens.
struct PanelServer::Listening : TServerEventHandler
{
    std::shared_ptr<BoundedListener> listener;
    std::function<void(int)> callback;

    void preServe() override
    {
        if (callback)
        {
            callback(listener->socket().getPort());
        }
    }
};

PanelServer::PanelServer(ServiceCore& core, const ServerSettings& settings)
    : core_(core), listening_(std::make_shared<Listening>())
{
    checkSettings(settings);
    std::shared_ptr<TServerSocket> socket;
    if (settings.tls())
    {
        socket =
            std::make_shared<TlsListener>(settings.address, settings.port, serverTls(settings));
    }
    else
    {
        socket = std::make_shared<TServerSocket>(settings.address, settings.port);
    }
    // A reply the peer does not take within the receive timeout ends its connection too.
    socket->setSendTimeout(settings.receiveTimeoutMs);
    listener_ = std::make_shared<BoundedListener>(socket, settings);
    listening_->listener = listener_;
    // A request's lists are held to longestListFor, a string to what a frame holds.
    WireLimits limits;
    limits.longestList = longestListFor(core.settings().batchLimit);
    limits.longestString = settings.maxFrameSize;
    server_ = std::make_unique<apache::thrift::server::TThreadedServer>(
        std::make_shared<rpc::PanelServiceProcessorFactory>(std::make_shared<HandlerFactory>(core, !settings.tlsCa.empty())),
        listener_, boundedFrames(settings.maxFrameSize), boundedProtocol(settings.compact, limits));
    // The listener keeps the bound; the server's own one would stop accepting instead.
    server_->setConcurrentClientLimit(std::numeric_limits<int>::max());
    server_->setServerEventHandler(listening_);
}

PanelServer::~PanelServer() = default;

void PanelServer::serve(const std::function<void(int port)>& listening)
{
    listening_->callback = listening;
    server_->serve();
}

void PanelServer::stop()
{
    core_.events().stop();
    server_->stop();
}

} // namespace egwservice
