#include "service/httpListener.h"

#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <set>

// Debian's cpp-httplib is built with OpenSSL (its pkg-config file says so): SSLServer is there.
#include <httplib.h>
#include <openssl/rand.h>

#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include "service/server.h"
#include "service/wireLimits.h"

namespace egwservice
{
namespace
{

using Clock = std::chrono::steady_clock;

// The content type of the Thrift JSON protocol as the npm thrift package sends it. A form of
// another site can only send form or plain-text types, and a script of another site that sets
// this one must first ask (a CORS preflight), which this listener never answers.
const char* const kThriftJson = "application/vnd.apache.thrift.json";
const char* const kCookieName = "egwSession";

// 128 random bits, as 32 hexadecimal digits.
std::string newCookie()
{
    unsigned char bits[16];
    if (RAND_bytes(bits, sizeof bits) != 1)
    {
        throw std::runtime_error("no random bits for a session cookie");
    }
    static const char digits[] = "0123456789abcdef";
    std::string cookie;
    for (const unsigned char byte : bits)
    {
        cookie += digits[byte >> 4];
        cookie += digits[byte & 0x0F];
    }
    return cookie;
}

// The value of our cookie in the request's Cookie header, or empty.
std::string cookieOf(const httplib::Request& request)
{
    const std::string header = request.get_header_value("Cookie");
    const std::string wanted = std::string(kCookieName) + "=";
    std::size_t at = 0;
    while (at < header.size())
    {
        while (at < header.size() && (header[at] == ' ' || header[at] == ';'))
        {
            ++at;
        }
        const std::size_t end = std::min(header.find(';', at), header.size());
        if (header.compare(at, wanted.size(), wanted) == 0)
        {
            return header.substr(at + wanted.size(), end - at - wanted.size());
        }
        at = end;
    }
    return {};
}

bool isThriftJson(const httplib::Request& request)
{
    const std::string type = request.get_header_value("Content-Type");
    return type.compare(0, std::strlen(kThriftJson), kThriftJson) == 0 &&
           (type.size() == std::strlen(kThriftJson) || type[std::strlen(kThriftJson)] == ';');
}

void answer(httplib::Response& response, int status, const std::string& text)
{
    response.status = status;
    response.set_content(text + "\n", "text/plain; charset=utf-8");
}

// The page's files as they are asked for ("/page.js"), found once when the listener starts. A
// request for anything else is not found: the mount point alone would open a path cut at a NUL
// byte ("/index.html%00.css" opened index.html and named it a style sheet).
std::shared_ptr<const std::set<std::string>> pageFiles(const std::string& webRoot)
{
    namespace fs = std::filesystem;
    fs::path root = fs::absolute(webRoot).lexically_normal();
    if (!root.has_filename())
    {
        root = root.parent_path(); // "web/" is "web"
    }
    auto files = std::make_shared<std::set<std::string>>();
    files->insert("/");
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
    {
        if (entry.is_regular_file())
        {
            files->insert("/" + entry.path().lexically_relative(root).generic_string());
        }
    }
    return files;
}

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Whether the request's Host names this listener: the address the connection came to, the
// listener's address, localhost or a configured name, with the listener's port (which a browser
// leaves out when it is the scheme's own). An Origin, when there is one, must be that same place.
bool ownPlace(const httplib::Request& request, const PageSettings& settings, bool tls)
{
    const std::string host = lowered(request.get_header_value("Host"));
    const std::string port = std::to_string(request.local_port);
    const bool usualPort = request.local_port == (tls ? 443 : 80);
    std::vector<std::string> names = settings.hostNames;
    names.insert(names.end(), {request.local_addr, settings.address, "localhost"});
    const bool named = std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        const std::string shown =
            name.find(':') != std::string::npos ? "[" + name + "]" : lowered(name);
        return host == shown + ":" + port || (usualPort && host == shown);
    });
    const std::string origin = lowered(request.get_header_value("Origin"));
    return named && !host.empty() &&
           (!request.has_header("Origin") || origin == (tls ? "https://" : "http://") + host);
}

} // namespace

// The browsers' sessions by cookie. A session's calls run one at a time, as on a Thrift
// connection: the handler is not shared between threads.
struct PageServer::Sessions
{
    struct Session
    {
        std::string address; // the peer's, without its port
        std::shared_ptr<PanelHandler> handler;
        rpc::PanelServiceProcessor processor;
        std::mutex calls;
        Clock::time_point lastUse;

        explicit Session(std::shared_ptr<PanelHandler> h) : handler(h), processor(h) {}
    };

    ServiceCore& core;
    const PageSettings& settings;
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<Session>> byCookie;

    Sessions(ServiceCore& c, const PageSettings& s) : core(c), settings(s) {}

    // A new session for the browser, or empty with the reason in `why` when the page's bound
    // or the address's share of it is reached. The browser's old session, if it names one, ends.
    std::string open(const std::string& previous, const std::string& address, int port,
                     std::string& why)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        byCookie.erase(previous);
        dropIdle();
        const auto fromAddress = static_cast<std::size_t>(
            std::count_if(byCookie.begin(), byCookie.end(),
                          [&](const auto& entry) { return entry.second->address == address; }));
        if (byCookie.size() >= settings.maxSessions || fromAddress >= settings.sessionsPerAddress)
        {
            why = fromAddress >= settings.sessionsPerAddress
                      ? address + " holds " + std::to_string(settings.sessionsPerAddress) +
                            " of the page's sessions already"
                      : "the page serves no more browsers at once";
            return {};
        }
        std::string cookie = newCookie();
        auto session = std::make_shared<Session>(std::make_shared<PanelHandler>(
            core, address + ":" + std::to_string(port), 1, false, SessionBound::page));
        session->address = address;
        session->lastUse = Clock::now();
        byCookie.emplace(cookie, std::move(session));
        return cookie;
    }

    std::shared_ptr<Session> find(const std::string& cookie)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        dropIdle();
        const auto found = byCookie.find(cookie);
        if (found == byCookie.end())
        {
            return nullptr;
        }
        found->second->lastUse = Clock::now();
        return found->second;
    }

    // A session in use is kept alive by the request that holds it.
    void dropIdle()
    {
        const Clock::time_point now = Clock::now();
        for (auto it = byCookie.begin(); it != byCookie.end();)
        {
            it = now - it->second->lastUse > settings.idleLimit ? byCookie.erase(it) : ++it;
        }
    }
};

struct PageServer::Listener
{
    std::unique_ptr<httplib::Server> server;
    int socket = -1; // the listening socket, once made
};

PageServer::PageServer(ServiceCore& core, PageSettings settings)
    : core_(core), settings_(std::move(settings)),
      sessions_(std::make_shared<Sessions>(core_, settings_)),
      listener_(std::make_unique<Listener>())
{
    // The Thrift port's rule: a certificate with its key, and plain HTTP on loopback only.
    ServerSettings side;
    side.address = settings_.address;
    side.tlsCert = settings_.tlsCert;
    side.tlsKey = settings_.tlsKey;
    side.insecure = settings_.insecure;
    checkSettings(side);
    const bool withTls = side.tls();
    if (settings_.webRoot.empty() ||
        !std::filesystem::exists(std::filesystem::path(settings_.webRoot) / "index.html"))
    {
        throw PageRefused("the page's files are not found (no index.html in \"" +
                          settings_.webRoot + "\"): give --web-root");
    }
    // A request carries its body and, besides, its head and a chunked body's framing.
    settings_.connections.requestBytes = settings_.maxBody + 64 * 1024;
    listener_->server =
        boundedPageServer(settings_.connections, settings_.tlsCert, settings_.tlsKey);
    if (!listener_->server->is_valid())
    {
        throw PageRefused("the page's certificate or key does not load (" + settings_.tlsCert +
                          ", " + settings_.tlsKey + ")");
    }
    httplib::Server& http = *listener_->server;
    const auto threads = static_cast<std::size_t>(settings_.connections.connections);
    http.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    http.set_payload_max_length(settings_.maxBody);
    // What the Keep-Alive header tells the browser; pageConnections keeps to the same.
    http.set_keep_alive_timeout(
        std::chrono::duration_cast<std::chrono::seconds>(settings_.connections.keepAlive).count());
    http.set_keep_alive_max_count(
        static_cast<std::size_t>(settings_.connections.requestsPerConnection));
    // The listening socket, so that its backlog can be set once it is bound.
    Listener* const listener = listener_.get();
    http.set_socket_options([listener](socket_t socket) {
        httplib::default_socket_options(socket);
        listener->socket = socket;
    });
    // Every state-changing request names this listener; no request has more header lines than a
    // browser sends.
    const PageSettings& bounds = settings_;
    std::shared_ptr<const std::set<std::string>> files;
    try
    {
        files = pageFiles(settings_.webRoot);
    }
    catch (const std::filesystem::filesystem_error& e)
    {
        throw PageRefused("the page's files cannot be listed: " + std::string(e.what()));
    }
    http.set_pre_routing_handler([&bounds, withTls, files](const httplib::Request& request,
                                                           httplib::Response& response) {
        if (request.headers.size() > bounds.maxHeaders)
        {
            answer(response, 431, "more than " + std::to_string(bounds.maxHeaders) + " headers");
            return httplib::Server::HandlerResponse::Handled;
        }
        if ((request.method == "GET" || request.method == "HEAD") &&
            files->count(request.path) == 0)
        {
            answer(response, 404, "not found");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (request.method == "POST" && !ownPlace(request, bounds, withTls))
        {
            answer(response, 403,
                   "refused: the request's Host or Origin is not this listener (another site's "
                   "page cannot use the operator page's sessions)");
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    // The page loads only its own files and talks only to this listener.
    http.set_default_headers({{"Content-Security-Policy",
                               "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'; "
                               "form-action 'none'"},
                              {"X-Content-Type-Options", "nosniff"},
                              {"Referrer-Policy", "no-referrer"},
                              {"Cache-Control", "no-store"}});
    // The page's script goes out as it is: cpp-httplib compresses exactly "application/javascript"
    // anew for every request, which held the page's start back by one to two seconds.
    http.set_file_extension_and_mimetype_mapping("js", "application/javascript; charset=utf-8");
    if (!http.set_mount_point("/", settings_.webRoot))
    {
        throw PageRefused("the page's files cannot be served from \"" + settings_.webRoot + "\"");
    }

    const std::string cookieFlags =
        std::string("; Path=/; HttpOnly; SameSite=Strict") + (withTls ? "; Secure" : "");
    const std::shared_ptr<Sessions> sessions = sessions_;
    http.Post("/session", [sessions, cookieFlags](const httplib::Request& request,
                                                  httplib::Response& response) {
        if (!isThriftJson(request))
        {
            return answer(response, 415, std::string("a session is started with ") + kThriftJson);
        }
        std::string why;
        const std::string cookie =
            sessions->open(cookieOf(request), request.remote_addr, request.remote_port, why);
        if (cookie.empty())
        {
            return answer(response, 503, why);
        }
        response.set_header("Set-Cookie", std::string(kCookieName) + "=" + cookie + cookieFlags);
        answer(response, 200, "session started");
    });
    // A call's lists and strings are held to what its body holds (and lists to longestListFor).
    WireLimits limits;
    limits.longestList = longestListFor(core_.settings().batchLimit);
    limits.longestString = static_cast<std::int32_t>(
        std::min<std::size_t>(settings_.maxBody, std::numeric_limits<std::int32_t>::max()));
    http.Post("/thrift", [sessions, limits](const httplib::Request& request,
                                            httplib::Response& response) {
        if (!isThriftJson(request))
        {
            return answer(response, 415, std::string("a call is sent as ") + kThriftJson);
        }
        const std::shared_ptr<Sessions::Session> session = sessions->find(cookieOf(request));
        if (!session)
        {
            return answer(response, 403, "no session: the page starts one with POST /session");
        }
        using apache::thrift::protocol::TJSONProtocol;
        using apache::thrift::transport::TMemoryBuffer;
        auto in = std::make_shared<TMemoryBuffer>(
            reinterpret_cast<std::uint8_t*>(const_cast<char*>(request.body.data())),
            static_cast<std::uint32_t>(request.body.size()));
        auto out = std::make_shared<TMemoryBuffer>();
        try
        {
            // A call that finds its session busy is most often an operator's action behind the
            // page's long poll: the poll ends at once, so the action does not wait it out.
            std::unique_lock<std::mutex> lock(session->calls, std::try_to_lock);
            if (!lock.owns_lock())
            {
                session->handler->hurryEvents();
                lock.lock();
            }
            const auto input = boundedJson(in, limits);
            auto output = std::make_shared<TJSONProtocol>(out);
            session->processor.process(input, output, nullptr);
        }
        catch (const apache::thrift::TException& e)
        {
            return answer(response, 400, std::string("not a Thrift JSON call: ") + e.what());
        }
        response.set_content(out->getBufferAsString(), kThriftJson);
    });
}

PageServer::~PageServer()
{
    stop();
}

int PageServer::start()
{
    httplib::Server& http = *listener_->server;
    const int port =
        settings_.port == 0
            ? http.bind_to_any_port(settings_.address)
            : (http.bind_to_port(settings_.address, settings_.port) ? settings_.port : -1);
    if (port < 0)
    {
        throw PageRefused("the page cannot listen on " + settings_.address + ":" +
                          std::to_string(settings_.port));
    }
    // cpp-httplib listens with a backlog fixed when it was built; this one fits the page's bounds.
    if (listener_->socket >= 0)
    {
        ::listen(listener_->socket, settings_.backlog);
    }
    thread_ = std::thread([&http] { http.listen_after_bind(); });
    return port;
}

void PageServer::stop()
{
    if (thread_.joinable())
    {
        listener_->server->stop();
        thread_.join();
    }
}

bool PageServer::tls() const
{
    return dynamic_cast<httplib::SSLServer*>(listener_->server.get()) != nullptr;
}

std::string findWebRoot(const std::string& egwdPath)
{
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path programDir = fs::weakly_canonical(egwdPath, ignored).parent_path();
    for (const fs::path& candidate :
         {programDir / ".." / "share" / "elementGateway" / "web", programDir / ".." / "web"})
    {
        if (fs::exists(candidate / "index.html", ignored))
        {
            return fs::weakly_canonical(candidate, ignored).string();
        }
    }
    return {};
}

} // namespace egwservice
