// The operator page's connections, served with what each may cost the listener bounded.
//
// cpp-httplib reads a request with a timeout on each read only, keeps every header a request
// sends, and lets a connection wait as long as the peer likes for a thread. So its connection loop
// is taken over here (its own request handling does the rest): each connection takes a place, in
// all and from its peer's address, or is closed at once; its first request must have come within
// the first-request timeout; every request, head and body, must have arrived whole within the
// request timeout from its first byte, and may carry so many bytes; between requests the
// connection waits the keep-alive timeout. A peer that drips its header lines, sends a million
// headers or keeps connections silent loses them at those bounds, and another peer is served.
#ifndef SERVICE_PAGE_CONNECTIONS_H
#define SERVICE_PAGE_CONNECTIONS_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace httplib
{
class Server;
}

namespace egwservice
{

struct ConnectionBounds
{
    long connections = 32; // connections served at once (each holds a thread)
    long perAddress = 8;   // of them from one peer address
    std::chrono::milliseconds firstRequest{5000};       // a new connection's first request, whole
    std::chrono::milliseconds request{10000};           // any request, whole, from its first byte
    std::chrono::milliseconds keepAlive{2000};          // silence between requests
    std::chrono::milliseconds write{5000};              // a reply the peer does not take
    std::size_t requestBytes = 1024 * 1024 + 64 * 1024; // head and body of one request
    int requestsPerConnection = 100;
};

// The listener, plain or (with a certificate and key) TLS, with the bounds. Its handlers and
// settings are cpp-httplib's own.
std::unique_ptr<httplib::Server> boundedPageServer(const ConnectionBounds& bounds,
                                                   const std::string& tlsCert,
                                                   const std::string& tlsKey);

} // namespace egwservice

#endif
