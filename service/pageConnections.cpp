#include "service/pageConnections.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <type_traits>

#include <httplib.h>
#include <openssl/ssl.h>

#include "service/slots.h"

namespace egwservice
{
namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The bytes of a request's head (request line and headers) at most: far more than a browser sends.
constexpr std::size_t kHeadBytes = 32 * 1024;

// Waits until the socket is ready for `events` (or has failed), or the deadline has passed.
bool readyBy(int fd, short events, Clock::time_point deadline)
{
    for (;;)
    {
        const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
        if (left <= 0)
        {
            return false;
        }
        pollfd wait{fd, events, 0};
        const int ready = ::poll(&wait, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (ready > 0)
        {
            return true;
        }
        if (ready < 0 && errno != EINTR)
        {
            return false;
        }
    }
}

void addressOf(const sockaddr_storage& address, std::string& ip, int& port)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address.ss_family == AF_INET6)
    {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
        inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
        port = ntohs(v6.sin6_port);
    }
    else
    {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
        inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
        port = ntohs(v4.sin_port);
    }
    ip = text;
}

template <typename Name>
void endOf(int fd, Name name, std::string& ip, int& port)
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    ip.clear();
    port = 0;
    if (name(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    {
        addressOf(address, ip, port);
    }
}

// The connection's bytes, plain or TLS, on a non-blocking socket: every wait ends at a deadline.
// A request's head is held to kHeadBytes and the whole request to the bytes given for it; the
// head ends at its empty line, which is all that is looked for here (cpp-httplib reads the rest).
class BoundedStream final : public httplib::Stream
{
public:
    BoundedStream(int fd, SSL* ssl, milliseconds write) : fd_(fd), ssl_(ssl), write_(write) {}

    // Whether a request begins (its first byte is here) by `until`.
    bool requestBegins(Clock::time_point until) { return begin_ < end_ || fill(until); }

    // The next request must have arrived whole by `deadline` and carries at most `bytes`.
    void nextRequest(Clock::time_point deadline, std::size_t bytes)
    {
        deadline_ = deadline;
        left_ = bytes;
        headLeft_ = kHeadBytes;
        blankLine_ = 0;
        overrun_ = false;
    }
    // A read of the request failed (its bytes or its time ran out, or the peer left): the
    // connection is not used again.
    bool overrun() const { return overrun_; }

    bool is_readable() const override
    {
        pollfd wait{fd_, POLLIN, 0};
        return begin_ < end_ || (ssl_ != nullptr && SSL_pending(ssl_) > 0) ||
               ::poll(&wait, 1, 0) > 0;
    }
    bool is_writable() const override { return readyBy(fd_, POLLOUT, Clock::now() + write_); }

    ssize_t read(char* ptr, size_t size) override
    {
        const bool spent = left_ == 0 || (blankLine_ < 4 && headLeft_ == 0);
        if (spent || (begin_ == end_ && !fill(deadline_)))
        {
            overrun_ = true;
            return -1;
        }
        std::size_t count = std::min({size, end_ - begin_, left_});
        if (blankLine_ < 4)
        {
            count = std::min(count, headLeft_);
            for (std::size_t i = 0; i < count && blankLine_ < 4; ++i)
            {
                const char expected = (blankLine_ % 2 == 0) ? '\r' : '\n';
                const char byte = buffer_[begin_ + i];
                blankLine_ = byte == expected ? blankLine_ + 1 : (byte == '\r' ? 1 : 0);
                if (blankLine_ == 4)
                {
                    count = i + 1; // the body is counted against the request's bytes only
                }
            }
            headLeft_ -= count;
        }
        std::memcpy(ptr, buffer_ + begin_, count);
        begin_ += count;
        left_ -= count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* ptr, size_t size) override
    {
        const Clock::time_point deadline = Clock::now() + write_;
        for (;;)
        {
            if (ssl_ != nullptr)
            {
                const int sent =
                    SSL_write(ssl_, ptr, static_cast<int>(std::min<size_t>(size, INT_MAX)));
                if (sent > 0)
                {
                    return sent;
                }
                if (!await(SSL_get_error(ssl_, sent), deadline))
                {
                    return -1;
                }
                continue;
            }
            const ssize_t sent = ::send(fd_, ptr, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent >= 0)
            {
                return sent;
            }
            if ((errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) ||
                !readyBy(fd_, POLLOUT, deadline))
            {
                return -1;
            }
        }
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override
    {
        endOf(fd_, ::getpeername, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override
    {
        endOf(fd_, ::getsockname, ip, port);
    }
    socket_t socket() const override { return fd_; }

private:
    // What a TLS call that could not finish waits for; false when it failed or time ran out.
    bool await(int error, Clock::time_point deadline) const
    {
        if (error == SSL_ERROR_WANT_READ)
        {
            return readyBy(fd_, POLLIN, deadline);
        }
        if (error == SSL_ERROR_WANT_WRITE)
        {
            return readyBy(fd_, POLLOUT, deadline);
        }
        return false;
    }

    // Reads what has come into the empty buffer, waiting until the deadline; false at the end of
    // the connection, on an error, or when time has run out.
    bool fill(Clock::time_point deadline)
    {
        begin_ = end_ = 0;
        for (;;)
        {
            if (ssl_ != nullptr)
            {
                const int got = SSL_read(ssl_, buffer_, sizeof buffer_);
                if (got > 0)
                {
                    end_ = static_cast<std::size_t>(got);
                    return true;
                }
                if (!await(SSL_get_error(ssl_, got), deadline))
                {
                    return false;
                }
                continue;
            }
            const ssize_t got = ::recv(fd_, buffer_, sizeof buffer_, MSG_DONTWAIT);
            if (got > 0)
            {
                end_ = static_cast<std::size_t>(got);
                return true;
            }
            if (got == 0 || (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) ||
                !readyBy(fd_, POLLIN, deadline))
            {
                return false;
            }
        }
    }

    const int fd_;
    SSL* const ssl_;
    const milliseconds write_;
    char buffer_[4096];
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    Clock::time_point deadline_;
    std::size_t left_ = 0;
    std::size_t headLeft_ = 0;
    int blankLine_ = 0; // how much of "\r\n\r\n" has just been read
    bool overrun_ = false;
};

// Closes the connection's socket when the connection ends, however it ends.
struct SocketCloser
{
    int fd;
    ~SocketCloser()
    {
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
    }
};

struct SslFree
{
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};

// The TLS handshake, done by `deadline`; null when it fails or takes longer.
std::unique_ptr<SSL, SslFree> handshake(SSL_CTX* context, int fd, Clock::time_point deadline)
{
    std::unique_ptr<SSL, SslFree> ssl(SSL_new(context));
    if (!ssl || SSL_set_fd(ssl.get(), fd) != 1)
    {
        return nullptr;
    }
    for (;;)
    {
        const int done = SSL_accept(ssl.get());
        if (done == 1)
        {
            return ssl;
        }
        const int error = SSL_get_error(ssl.get(), done);
        const short wanted = error == SSL_ERROR_WANT_READ    ? POLLIN
                             : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                             : 0;
        if (wanted == 0 || !readyBy(fd, wanted, deadline))
        {
            return nullptr;
        }
    }
}

template <class Base>
class BoundedServer final : public Base
{
public:
    template <class... Args>
    explicit BoundedServer(const ConnectionBounds& bounds, Args&&... args)
        : Base(std::forward<Args>(args)...), bounds_(bounds),
          slots_(std::make_shared<Slots>(bounds.connections, bounds.perAddress, "page connections"))
    {
    }

private:
    bool process_and_close_socket(socket_t sock) override
    {
        const SocketCloser closer{sock};
        serve(sock);
        return true;
    }

    void serve(int fd)
    {
        std::string peer;
        int port = 0;
        endOf(fd, ::getpeername, peer, port);
        std::string why;
        const auto place = slots_->take(peer, why);
        if (!place)
        {
            tellRefused(why);
            return;
        }
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        const Clock::time_point first = Clock::now() + bounds_.firstRequest;
        std::unique_ptr<SSL, SslFree> ssl;
        if constexpr (std::is_same_v<Base, httplib::SSLServer>)
        {
            ssl = handshake(this->ssl_context(), fd, first);
            if (!ssl)
            {
                return;
            }
        }
        BoundedStream stream(fd, ssl.get(), bounds_.write);
        // The listening socket is closed when the page stops: no further request is read.
        for (int left = bounds_.requestsPerConnection;
             left > 0 && this->svr_sock_ != INVALID_SOCKET; --left)
        {
            const bool isFirst = left == bounds_.requestsPerConnection;
            if (!stream.requestBegins(isFirst ? first : Clock::now() + bounds_.keepAlive))
            {
                break;
            }
            const Clock::time_point whole = Clock::now() + bounds_.request;
            stream.nextRequest(isFirst ? std::min(first, whole) : whole, bounds_.requestBytes);
            bool closed = false;
            if (!this->process_request(stream, left == 1, closed, nullptr) || closed ||
                stream.overrun())
            {
                break;
            }
        }
        if (ssl)
        {
            SSL_shutdown(ssl.get());
        }
    }

    // Said once a minute at most, so that a flood of connections does not flood the log.
    void tellRefused(const std::string& why)
    {
        const long refused = ++refused_;
        const auto now = Clock::now().time_since_epoch().count();
        auto told = told_.load();
        if (told == 0 ||
            now - told >=
                std::chrono::duration_cast<Clock::duration>(std::chrono::minutes(1)).count())
        {
            if (told_.compare_exchange_strong(told, now))
            {
                std::cerr << "egwd: the operator page: " << why
                          << "; closing such new ones at once (" << refused << " so far)"
                          << std::endl;
            }
        }
    }

    const ConnectionBounds bounds_;
    std::shared_ptr<Slots> slots_;
    std::atomic<long> refused_{0};
    std::atomic<Clock::rep> told_{0};
};

} // namespace

std::unique_ptr<httplib::Server> boundedPageServer(const ConnectionBounds& bounds,
                                                   const std::string& tlsCert,
                                                   const std::string& tlsKey)
{
    if (tlsCert.empty())
    {
        return std::make_unique<BoundedServer<httplib::Server>>(bounds);
    }
    return std::make_unique<BoundedServer<httplib::SSLServer>>(bounds, tlsCert.c_str(),
                                                               tlsKey.c_str());
}

} // namespace egwservice
