// egwd: the panel service. Serves the element tree to remote callers over Apache Thrift until
// SIGTERM or SIGINT.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include <CLI/CLI.hpp>
#include <thrift/TOutput.h>

#include "service/database.h"
#include "service/hostPanel.h"
#include "service/httpListener.h"
#include "service/server.h"
#include "service/thriftLog.h"

using namespace egwservice;

namespace
{

// SIGTERM and SIGINT, blocked in every thread from the start so that only the waiter below
// receives them.
sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

// Waits for SIGTERM or SIGINT on a thread of its own and then stops the server.
class StopOnSignal
{
public:
    explicit StopOnSignal(PanelServer& server) : server_(server), signals_(stopSignals())
    {
        waiter_ = std::thread([this] {
            int signal = 0;
            sigwait(&signals_, &signal);
            if (!done_)
            {
                std::cerr << "egwd: " << (signal == SIGTERM ? "SIGTERM" : "SIGINT")
                          << ", stopping" << std::endl;
                server_.stop();
            }
        });
    }
    ~StopOnSignal()
    {
        // serve() can also end on its own (the listening socket failed); the waiter is then
        // released with a signal of its own.
        done_ = true;
        pthread_kill(waiter_.native_handle(), SIGTERM);
        waiter_.join();
    }
    StopOnSignal(const StopOnSignal&) = delete;
    StopOnSignal& operator=(const StopOnSignal&) = delete;

private:
    PanelServer& server_;
    sigset_t signals_;
    std::atomic<bool> done_{false};
    std::thread waiter_;
};

// Every request is checked before the library is called, so a report here means a check is
// missing: it is logged, without the library's source path, for the panel maker to see.
void logReport(const char* expression, const char* function, const char*, int)
{
    std::cerr << "egwd: the library reported a broken precondition: " << expression << " in "
              << function << std::endl;
}

// Transport: TLS, plain TCP beyond loopback, and what one connection and one address may cost.
void addTransportOptions(CLI::App& app, ServerSettings& server)
{
    app.add_option("--max-connections", server.maxConnections, "connections served at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--max-connections-per-address", server.maxConnectionsPerAddress,
                   "connections served at once from one peer address")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--tls-cert", server.tlsCert,
                   "PEM certificate (with its chain) to serve TLS with; needs --tls-key");
    app.add_option("--tls-key", server.tlsKey, "PEM private key of --tls-cert");
    app.add_option("--tls-ca", server.tlsCa,
                   "PEM CA certificate(s): only clients with a certificate they signed are served");
    app.add_flag("--insecure", server.insecure,
                 "serve plain TCP on an address other than loopback (no TLS)");
    app.add_option("--max-frame-size", server.maxFrameSize, "bytes of the largest request frame")
        ->capture_default_str()
        ->check(CLI::Range(1024, 256 * 1024 * 1024));
    app.add_option("--first-request-timeout", server.firstRequestMs,
                   "milliseconds in which a new connection's first request must have arrived")
        ->capture_default_str()
        ->check(CLI::Range(10, 3600000));
    app.add_option("--receive-timeout", server.receiveTimeoutMs,
                   "milliseconds in which a request, once begun, must have arrived")
        ->capture_default_str()
        ->check(CLI::Range(10, 3600000));
    app.add_option("--idle-timeout", server.idleTimeoutMs,
                   "milliseconds a connection may stay silent between requests")
        ->capture_default_str()
        ->check(CLI::Range(100, 7 * 86400000));
}

// The operator page: off unless --http-port is given; its sessions and connections are bounded
// apart from the Thrift port's.
void addPageOptions(CLI::App& app, PageSettings& page, int& httpPort)
{
    app.add_option("--http-port", httpPort,
                   "port of the operator page in a browser (0: any free port; default: no page)")
        ->check(CLI::Range(0, 65535));
    app.add_option("--http-address", page.address, "address of the operator page")
        ->capture_default_str();
    app.add_option("--http-host", page.hostNames,
                   "a host name the page is reached by, besides its address and localhost "
                   "(repeatable)");
    app.add_option("--web-root", page.webRoot,
                   "directory of the page's files (default: share/elementGateway/web beside the "
                   "installed egwd, or the build tree's web)")
        ->check(CLI::ExistingDirectory);
    app.add_option("--http-sessions", page.maxSessions, "browsers the page serves at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 10000));
    app.add_option("--http-sessions-per-address", page.sessionsPerAddress,
                   "of them from one peer address")
        ->capture_default_str()
        ->check(CLI::Range(1, 10000));
    app.add_option("--http-connections", page.connections.connections,
                   "connections (threads) the page serves at once")
        ->capture_default_str()
        ->check(CLI::Range(2, 1000));
    app.add_option("--http-connections-per-address", page.connections.perAddress,
                   "of them from one peer address")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app.add_option("--http-request-timeout", page.connections.request,
                   "milliseconds in which a request to the page, once begun, must have arrived")
        ->capture_default_str()
        ->check(CLI::Range(100, 600000));
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"egwd: serves the element tree of the fire-detection panel to remote callers "
                 "over Apache Thrift (framed transport)."};
    app.set_version_flag("--version", std::string("egwd ") + EGW_VERSION);
    PanelFiles files;
    ServerSettings server;
    ServiceSettings service;
    service.serviceVersion = EGW_VERSION;
    std::string protocol = "binary";
    app.add_option("--address", server.address, "address to listen on")
        ->capture_default_str();
    app.add_option("--port", server.port, "port to listen on (0: any free port)")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    app.add_option("--protocol", protocol, "Thrift protocol")
        ->capture_default_str()
        ->check(CLI::IsMember({"binary", "compact"}));
    app.add_option("--types", files.typesFile, "type library file (simulator; default: the sample)")
        ->check(CLI::ExistingFile);
    app.add_option("--panel", files.panelFile, "panel configuration file (simulator; default: the "
                                               "sample panel)")
        ->check(CLI::ExistingFile);
    addTransportOptions(app, server);
    app.add_option("--queue-limit", service.queueLimit, "events queued per session")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
    // Long reads come in pages, each read under the element server's lock.
    app.add_option("--page-elements", service.pages.elements,
                   "elements of one page of snapshot, collectSubtree and getElementKeys")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--reply-bytes", service.pages.replyBytes,
                   "estimated bytes of one page or batched read's reply")
        ->capture_default_str()
        ->check(CLI::Range(4096, 256 * 1024 * 1024));
    // Records: the database of the audit trail and the event memory, and what it keeps.
    // No file is written where egwd happens to be started: the database is given, or it lies in
    // the state directory systemd made for the service.
    service.database.clear();
    service.followPanel = true;
    app.add_option("--database", service.database,
                   "SQLite database file of the audit trail and the event memory (made with mode "
                   "0600); :memory: keeps no records past the run. Default under systemd: "
                   "$STATE_DIRECTORY/egwd.db; elsewhere it must be given");
    app.add_option("--audit-rows", service.auditRetention.rows, "audit rows kept (the newest)")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{1}, std::int64_t{1000000000}));
    app.add_option("--audit-days", service.auditRetention.days, "days an audit row is kept")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{1}, std::int64_t{36500}));
    app.add_option("--event-rows", service.eventRows, "events kept in the event memory")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{1}, std::int64_t{100000000}));
    app.add_option("--event-queue", service.eventQueue,
                   "events waiting to be stored in the event memory (beyond: a gap row)")
        ->capture_default_str()
        ->check(CLI::Range(std::size_t{1}, std::size_t{1000000}));
    long refusalPeriod = service.refusals.period.count();
    app.add_option("--refusal-period", refusalPeriod,
                   "seconds between two audit rows of one address's refusals of one operation "
                   "at level 1")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    // Sessions: the login guard, lapsed logins, sessions open at once.
    long firstBlock = service.logins.firstBlock.count();
    long longestBlock = service.logins.longestBlock.count();
    long sessionIdle = service.sessionIdle.count();
    app.add_option("--login-failures", service.logins.failuresAllowed,
                   "failed logins at a level from one address before its logins there are refused")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app.add_option("--login-guesses", service.logins.guessesPerMinute,
                   "passwords checked per level and minute over all peers (again as many for "
                   "peers with a client certificate)")
        ->capture_default_str()
        ->check(CLI::Range(1, 10000));
    app.add_option("--login-block", firstBlock,
                   "seconds the first refusal lasts; each later failure doubles it")
        ->capture_default_str()
        ->check(CLI::Range(1, 86400));
    app.add_option("--login-block-max", longestBlock, "longest refusal in seconds")
        ->capture_default_str()
        ->check(CLI::Range(1, 86400));
    app.add_option("--session-idle", sessionIdle,
                   "seconds without a request after which a session's login lapses (level 1)")
        ->capture_default_str()
        ->check(CLI::Range(1, 86400 * 7));
    app.add_option("--max-sessions", service.maxSessions,
                   "sessions open at once over the Thrift port (the page has its own bound)")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    PageSettings page;
    int httpPort = -1;
    addPageOptions(app, page, httpPort);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
        {
            return app.exit(e); // --help, --version
        }
        // A command line that cannot be used: the usual status 2, the program's name first.
        std::cerr << "egwd: " << e.what() << " (egwd --help shows the usage)\n";
        return 2;
    }
    server.compact = protocol == "compact";
    try
    {
        checkSettings(server);
        if (httpPort >= 0)
        {
            // The page's listener keeps the same rule on its own address.
            ServerSettings pageSide = server;
            pageSide.address = page.address;
            checkSettings(pageSide);
        }
    }
    catch (const SettingsRefused& e)
    {
        std::cerr << "egwd: " << e.what() << '\n';
        return 2;
    }
    if (service.database.empty())
    {
        // systemd's StateDirectory= may name several folders, separated by colons: the first.
        const char* const state = std::getenv("STATE_DIRECTORY");
        const std::string first = state == nullptr ? std::string()
                                                   : std::string(state).substr(
                                                         0, std::string(state).find(':'));
        if (first.empty())
        {
            std::cerr << "egwd: give --database FILE for the audit trail and the event memory, "
                         "or --database :memory: for a panel without records (egwd --help shows "
                         "the usage)\n";
            return 2;
        }
        service.database = first + "/egwd.db";
    }
    service.logins.firstBlock = std::chrono::seconds(firstBlock);
    service.logins.longestBlock = std::chrono::seconds(std::max(firstBlock, longestBlock));
    service.sessionIdle = std::chrono::seconds(sessionIdle);
    service.refusals.period = std::chrono::seconds(refusalPeriod);
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    EGW_SetAssertHandler(logReport);
    try
    {
        preparePanel(files, service);
    }
    catch (const PanelRefused& e)
    {
        std::cerr << "egwd: " << e.what() << '\n';
        return 1;
    }
    std::signal(SIGPIPE, SIG_IGN);
    // Thrift's own lines (a connection that timed out or failed its handshake) carry egwd's name
    // like every other line of its log, at most 20 a minute.
    static ThriftLog thriftLog(std::cerr, 20);
    apache::thrift::GlobalOutput.setOutputFunction(
        [](const char* message) { thriftLog.write(message); });
    // A file grown past the size limit fails its write (EFBIG) like a full disk, and the change
    // it was to record is refused; it must not end the service.
    std::signal(SIGXFSZ, SIG_IGN);
    const std::unique_ptr<EventSource> events = makeEventSource();
    std::unique_ptr<ServiceCore> opened;
    try
    {
        opened = std::make_unique<ServiceCore>(service, *events);
    }
    catch (const DatabaseError& e)
    {
        std::cerr << "egwd: the database cannot be used: " << e.what() << '\n';
        return 1;
    }
    ServiceCore& core = *opened;
    // The certificate files are read here, before anything listens.
    std::unique_ptr<PanelServer> served;
    try
    {
        served = std::make_unique<PanelServer>(core, server);
    }
    catch (const TlsFilesRefused& e)
    {
        std::cerr << "egwd: " << e.what() << '\n';
        return 1;
    }
    // The page takes the Thrift port's TLS pair and its --insecure: the same rule for both.
    std::unique_ptr<PageServer> pageServer;
    if (httpPort >= 0)
    {
        page.port = httpPort;
        page.tlsCert = server.tlsCert;
        page.tlsKey = server.tlsKey;
        page.insecure = server.insecure;
        if (page.webRoot.empty())
        {
            std::error_code ignored;
            page.webRoot = findWebRoot(std::filesystem::read_symlink("/proc/self/exe", ignored));
        }
        try
        {
            pageServer = std::make_unique<PageServer>(core, page);
            const int port = pageServer->start();
            std::cout << "egwd: operator page on " << (pageServer->tls() ? "https" : "http")
                      << "://"
                      << (page.address.find(':') != std::string::npos ? "[" + page.address + "]"
                                                                      : page.address)
                      << ":" << port << "/" << std::endl;
        }
        catch (const std::exception& e)
        {
            std::cerr << "egwd: " << e.what() << '\n';
            return 1;
        }
    }
    PanelServer& panelServer = *served;
    try
    {
        const StopOnSignal stopper(panelServer);
        panelServer.serve([&](int port) {
            std::cout << "egwd: serving \"" << core.settings().panelDescription << "\" on "
                      << server.address << ":" << port << " (" << protocol << " protocol)"
                      << std::endl;
        });
    }
    catch (const std::exception& e)
    {
        std::cerr << "egwd: cannot serve on " << server.address << ":" << server.port << ": "
                  << e.what() << '\n';
        return 1;
    }
    thriftLog.finish();
    std::cerr << "egwd: stopped" << std::endl;
    return 0;
}
