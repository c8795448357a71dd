// egwd: the panel service. Serves the element tree to remote callers over Apache Thrift until
// SIGTERM or SIGINT.
#include <atomic>
#include <csignal>
#include <iostream>
#include <thread>

#include <CLI/CLI.hpp>

#include "service/hostPanel.h"
#include "service/server.h"

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
    app.add_option("--max-connections", server.maxConnections, "connections served at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--queue-limit", service.queueLimit, "events queued per session")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
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
    const std::unique_ptr<EventSource> events = makeEventSource();
    ServiceCore core(service, *events);
    PanelServer panelServer(core, server);
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
    std::cerr << "egwd: stopped" << std::endl;
    return 0;
}
