// The operator page's side of egwd: an HTTP (or HTTPS) listener that serves the page's files and
// carries the page's Thrift calls, in the Thrift JSON protocol, into the same PanelHandler sessions
// as the Thrift port.
//
// A browser's session is a PanelHandler kept in a bounded map under a random cookie; POST
// /session starts one, POST /thrift runs one call of it. Both want the Thrift JSON content type,
// which a plain form of another site cannot send, and the cookie is HttpOnly and SameSite=Strict.
// Both also want a Host header that names this listener, and an Origin, when the browser sends
// one, of this listener: a page of another site, even one whose name is made to resolve to this
// host, cannot start or use a session. The page's sessions have their own bound, apart from the
// Thrift port's, and one address may hold only some of them; its connections are bounded as
// service/pageConnections.h says.
#ifndef SERVICE_HTTP_LISTENER_H
#define SERVICE_HTTP_LISTENER_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "service/pageConnections.h"
#include "service/panelHandler.h"

namespace egwservice
{

struct PageSettings
{
    std::string address = "127.0.0.1";
    int port = 0;        // 0: any free port
    std::string webRoot; // the directory of index.html, page.js and style.css
    std::string tlsCert; // both given: HTTPS with them
    std::string tlsKey;
    bool insecure = false;               // plain HTTP on an address other than loopback
    std::size_t maxSessions = 16;        // browsers served at once
    std::size_t sessionsPerAddress = 4;  // of them from one peer address
    std::chrono::seconds idleLimit{300}; // a browser silent this long has its session dropped
    std::size_t maxBody = 1024 * 1024;   // bytes of one request's body
    std::size_t maxHeaders = 64;         // header lines of one request
    int backlog = 64;                    // connections waiting to be accepted
    // Connections served at once (each holds a thread; a long poll holds one) and their bounds.
    ConnectionBounds connections;
    // Host names besides the listener's address and localhost that the page may be reached by.
    std::vector<std::string> hostNames;
};

// Refused settings: a plain HTTP listener on a non-loopback address, half a TLS pair, a missing
// web root, a certificate that does not load, a port that cannot be bound.
struct PageRefused : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

class PageServer
{
public:
    PageServer(ServiceCore& core, PageSettings settings);
    ~PageServer();
    PageServer(const PageServer&) = delete;
    PageServer& operator=(const PageServer&) = delete;

    // Binds and serves on a thread of its own; returns the bound port.
    int start();
    // Closes the listener and waits for the requests under way (long polls end with the events'
    // stop).
    void stop();
    bool tls() const;

private:
    struct Sessions;
    struct Listener;
    ServiceCore& core_;
    PageSettings settings_;
    std::shared_ptr<Sessions> sessions_;
    std::unique_ptr<Listener> listener_;
    std::thread thread_;
};

// The installed page's directory for an egwd at this path: <prefix>/share/elementGateway/web
// beside <prefix>/bin/egwd, or the build tree's web directory; empty when neither has index.html.
std::string findWebRoot(const std::string& egwdPath);

} // namespace egwservice

#endif
