// The panel service's network side: Apache Thrift's threaded server, framed transport, binary
// (or compact) protocol, one PanelHandler per connection.
//
// The threaded server gives each connection a thread of its own. A session's long poll for
// events (nextEvents) then waits on its own thread without holding up any other client, each
// connection's handler object is the natural home of its session, and a thread costs little
// resident memory while it waits. The number of connections is bounded.
#ifndef SERVICE_SERVER_H
#define SERVICE_SERVER_H

#include <functional>
#include <memory>
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
    int port = 9190;            // 0: any free port
    bool compact = false;       // the compact protocol instead of the binary one
    int maxConnections = 64;
};

class PanelServer
{
public:
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
};

} // namespace egwservice

#endif
