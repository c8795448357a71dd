// The panel service's network side: Apache Thrift's threaded server, framed transport, binary
// (or compact) protocol, one PanelHandler per connection.
//
// The threaded server gives each connection a thread of its own. A session's long poll for
// events (nextEvents) then waits on its own thread without holding up any other client, each
// connection's handler object is the natural home of its session, and a thread costs little
// resident memory while it waits.
//
// What a peer can cost the server is bounded: the number of connections, in all and from one
// address (one beyond a bound is accepted and closed at once, so it learns at once instead of
// waiting in the listen backlog), the size of a frame and of the lists and strings it claims
// (service/wireLimits.h), the time a new connection may take to send its first request, the time
// a frame that has begun may take to arrive, and the time a connection may stay silent between
// requests. With a certificate and key the server speaks TLS; with a CA
// file it also demands a client certificate signed by that CA.
#ifndef SERVICE_SERVER_H
#define SERVICE_SERVER_H

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "service/panelHandler.h"

namespace apache::thrift::server
{
class TThreadedServer;
}

namespace egwservice
{

struct ServerSettings
{
    std::string address = "127.0.0.1";
    int port = 9190;      // 0: any free port
    bool compact = false; // the compact protocol instead of the binary one
    int maxConnections = 64;
    // Connections from one peer address: what one host can hold, so that another is served.
    int maxConnectionsPerAddress = 16;

    // TLS: PEM files. The certificate (with its chain) and key go together; with `tlsCa` the
    // server requires a client certificate that this CA signed (mutual TLS). Empty: plain TCP.
    std::string tlsCert;
    std::string tlsKey;
    std::string tlsCa;
    // Plain TCP on an address other than loopback is refused unless this is set.
    bool insecure = false;

    int maxFrameSize = 1048576;   // bytes of one frame, its 4-byte header not counted
    int receiveTimeoutMs = 10000; // a frame that has begun must have arrived within this
    int firstRequestMs = 5000;    // a new connection's first request must have arrived within this
    int idleTimeoutMs = 300000;   // silence between requests before the connection is closed

    bool tls() const { return !tlsCert.empty(); }
};

// A setting the server cannot start with: a certificate without its key, plain TCP on an address
// other than loopback without `insecure`. What the message says is for the operator.
struct SettingsRefused : std::runtime_error
{
    using std::runtime_error::runtime_error;
};
// A certificate, key or CA file that cannot be read or does not fit.
struct TlsFilesRefused : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// Whether the address names this host only: 127.0.0.0/8, ::1 (also as ::ffff:127.x.x.x) or
// "localhost".
bool isLoopback(const std::string& address);

// Throws SettingsRefused for settings the server must not start with; binds nothing.
void checkSettings(const ServerSettings& settings);

class PanelServer
{
public:
    // Checks the settings (checkSettings) and loads the TLS files; throws SettingsRefused or
    // TlsFilesRefused. Binds nothing until serve().
    PanelServer(ServiceCore& core, const ServerSettings& settings);
    ~PanelServer();
    PanelServer(const PanelServer&) = delete;
    PanelServer& operator=(const PanelServer&) = delete;

    // Listens and serves until stop(); `listening` is told the port once it is bound.
    void serve(const std::function<void(int port)>& listening);
    // Ends serve(): no new connections, every session's long poll woken, open ones closed.
    void stop();

private:
    ServiceCore& core_;
    std::unique_ptr<apache::thrift::server::TThreadedServer> server_;
    struct Listening;
    std::shared_ptr<Listening> listening_;
    class BoundedListener;
    std::shared_ptr<BoundedListener> listener_;
};

} // namespace egwservice

#endif
