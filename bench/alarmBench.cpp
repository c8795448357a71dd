// Alarm delivery under load: egwd's server in this process on a generated panel, a level-2
// operator raising fire alarms (setState) with a level-1 session subscribed to them, and a small
// read (getInteger) from another client; measured once on a quiet service and once while four
// level-1 clients loop the heaviest reads (whole-tree snapshot with properties and states,
// collectSubtree of the whole tree, readProperties of the most pairs). With --whole the long reads
// are served as one page each, as the service did before its reads came in pages. Command and
// figures: docs/performance.md.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "PanelService.h"
#include "service/hostPanel.h"
#include "service/server.h"
#include "tools/panelConfig.h"

namespace
{

namespace rpc = ::egw::rpc;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kDetectorType = 0x70048;
constexpr std::int64_t kLabel = 0x30002;
constexpr std::int64_t kAddress = 0x30004;
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr std::int64_t kNormal = 0x60001;
constexpr std::int64_t kFireAlarm = 0x60002;
constexpr std::int64_t kFireAlarmEvent = 0x03010001;

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double percentile(std::vector<double> samples, double share)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const auto at = static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(at, samples.size() - 1)];
}

// A client that takes replies of up to 1 GiB, so that --whole can be measured at all.
class Client
{
public:
    explicit Client(int port, int level = 1)
        : config_(std::make_shared<apache::thrift::TConfiguration>(1 << 30, 1 << 30)),
          socket_(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port, config_)),
          transport_(
              std::make_shared<apache::thrift::transport::TFramedTransport>(socket_, config_))
    {
        rpc_ = std::make_unique<rpc::PanelServiceClient>(
            std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport_));
        socket_->setRecvTimeout(120000);
        transport_->open();
        if (level == 2)
        {
            rpc::SessionInfo session;
            rpc_->login(session, 2, "2222");
        }
    }
    ~Client() { transport_->close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    rpc::PanelServiceClient* operator->() { return rpc_.get(); }

private:
    std::shared_ptr<apache::thrift::TConfiguration> config_;
    std::shared_ptr<apache::thrift::transport::TSocket> socket_;
    std::shared_ptr<apache::thrift::transport::TTransport> transport_;
    std::unique_ptr<rpc::PanelServiceClient> rpc_;
};

std::vector<rpc::Uuid> collectAll(Client& client, std::int64_t type)
{
    std::vector<rpc::Uuid> all;
    rpc::UuidPage page;
    do
    {
        client->collectSubtree(page, 0, type, page.nextAfter, 0);
        all.insert(all.end(), page.uuids.begin(), page.uuids.end());
    } while (page.nextAfter != 0);
    return all;
}

// egwd's server in this process on the panel file, with the page bounds given.
class Service
{
public:
    Service(const std::string& panelFile, const egwservice::PageBounds& pages)
    {
        egwservice::ServiceSettings settings;
        egwservice::preparePanel({"", panelFile}, settings);
        settings.database = ":memory:";
        settings.pages = pages;
        events_ = egwservice::makeEventSource();
        core_ = std::make_unique<egwservice::ServiceCore>(settings, *events_);
        egwservice::ServerSettings server;
        server.address = "127.0.0.1";
        server.port = 0;
        server_ = std::make_unique<egwservice::PanelServer>(*core_, server);
        std::promise<int> bound;
        auto port = bound.get_future();
        thread_ = std::thread([&] { server_->serve([&](int p) { bound.set_value(p); }); });
        port_ = port.get();
    }
    ~Service()
    {
        server_->stop();
        thread_.join();
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    int port() const { return port_; }

private:
    std::unique_ptr<egwservice::EventSource> events_;
    std::unique_ptr<egwservice::ServiceCore> core_;
    std::unique_ptr<egwservice::PanelServer> server_;
    std::thread thread_;
    int port_ = 0;
};

struct Figures
{
    std::vector<double> setState;  // the operator's setState returned, ms
    std::vector<double> delivered; // the event reached the subscribed session, ms
    std::vector<double> smallRead; // getInteger, ms
    std::vector<double> page;      // one snapshot page (quiet only), ms
    long readerCalls = 0;
};

// Four level-1 clients looping the heaviest reads until stopped.
class Readers
{
public:
    Readers(int port, const std::vector<rpc::Uuid>& detectors)
    {
        for (int r = 0; r < 4; ++r)
        {
            threads_.emplace_back([this, port, &detectors, r] {
                try
                {
                    read(port, detectors, r);
                }
                catch (const std::exception& e)
                {
                    std::fprintf(stderr, "a reader stopped: %s\n", e.what());
                }
            });
        }
    }
    ~Readers()
    {
        stop_ = true;
        for (std::thread& t : threads_)
            t.join();
    }
    long calls() const { return calls_; }

private:
    void read(int port, const std::vector<rpc::Uuid>& detectors, int first)
    {
        Client c(port);
        std::vector<rpc::PropertyRef> refs(std::min<std::size_t>(10000, detectors.size()));
        for (std::size_t i = 0; i < refs.size(); ++i)
        {
            refs[i].uuid = detectors[i];
            refs[i].propertyId = kAddress;
        }
        for (int round = first; !stop_; ++round)
        {
            if (round % 3 == 0)
            {
                rpc::SnapshotRequest whole;
                whole.propertyIds = {kLabel, kAddress};
                whole.withStates = true;
                rpc::SnapshotPage page;
                do
                {
                    c->snapshot(page, whole);
                    whole.after = page.nextAfter;
                    ++calls_;
                } while (page.nextAfter != 0 && !stop_);
            }
            else if (round % 3 == 1)
            {
                rpc::UuidPage page;
                do
                {
                    c->collectSubtree(page, 0, 0, page.nextAfter, 0);
                    ++calls_;
                } while (page.nextAfter != 0 && !stop_);
            }
            else
            {
                std::vector<rpc::PropertyResult> results;
                c->readProperties(results, refs);
                ++calls_;
            }
        }
    }

    std::atomic<bool> stop_{false};
    std::atomic<long> calls_{0};
    std::vector<std::thread> threads_;
};

// `alarms` fire alarms on as many detectors, each reset again before the next; a small read
// loops on its own client meanwhile.
void measure(int port, const std::vector<rpc::Uuid>& detectors, int alarms, Figures& out)
{
    Client operatorClient(port, 2);
    Client watcher(port);
    Client reader(port);
    for (int a = 0; a < alarms; ++a)
    {
        rpc::Subscription s;
        s.kind = rpc::SubscriptionKind::BY_ELEMENT;
        s.target = detectors[static_cast<std::size_t>(a) * detectors.size() / alarms];
        s.eventId = kFireAlarmEvent;
        watcher->subscribe(s);
    }
    std::atomic<bool> reading{true};
    std::thread small([&] {
        while (reading)
        {
            const auto start = Clock::now();
            reader->getInteger(detectors.front(), kAddress);
            out.smallRead.push_back(msSince(start));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    for (int a = 0; a < alarms; ++a)
    {
        const rpc::Uuid detector =
            detectors[static_cast<std::size_t>(a) * detectors.size() / alarms];
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + (a * 37) % 60));
        std::vector<rpc::Event> events;
        const auto start = Clock::now();
        operatorClient->setState(detector, kFireAlarmGroup, kFireAlarm);
        out.setState.push_back(msSince(start));
        while (events.empty())
            watcher->nextEvents(events, 10, 10000);
        out.delivered.push_back(msSince(start));
        operatorClient->setState(detector, kFireAlarmGroup, kNormal);
        do
            watcher->nextEvents(events, 10, 10000);
        while (events.empty());
    }
    reading = false;
    small.join();
}

void pageTimes(int port, Figures& out)
{
    Client c(port);
    rpc::SnapshotRequest whole;
    whole.propertyIds = {kLabel, kAddress};
    whole.withStates = true;
    rpc::SnapshotPage page;
    do
    {
        const auto start = Clock::now();
        c->snapshot(page, whole);
        out.page.push_back(msSince(start));
        whole.after = page.nextAfter;
    } while (page.nextAfter != 0 && out.page.size() < 200);
}

void line(const char* name, const std::vector<double>& quiet, const std::vector<double>& loaded,
          double share, const char* goal)
{
    std::printf("  %-44s %10.2f %12.2f   %s\n", name, percentile(quiet, share),
                percentile(loaded, share), goal);
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Alarm delivery and small reads of egwd, quiet and under four heavy readers."};
    unsigned loops = 100;
    unsigned devices = 1000;
    int alarms = 50;
    egwservice::PageBounds pages;
    bool whole = false;
    app.add_option("--loops", loops, "loop cards of the generated panel")->capture_default_str();
    app.add_option("--devices", devices, "devices per loop card")->capture_default_str();
    app.add_option("--alarms", alarms, "alarms measured in each phase")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    app.add_option("--page-elements", pages.elements, "the service's page bound")
        ->capture_default_str();
    app.add_flag("--whole", whole, "serve each long read as one page (the reads before pages)");
    CLI11_PARSE(app, argc, argv);
    if (whole)
        pages = {100000000, std::size_t{1} << 31};
    std::signal(SIGPIPE, SIG_IGN);

    char name[] = "/tmp/egwAlarmBenchXXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0)
        throw std::runtime_error("no temporary file for the generated panel");
    close(fd);
    {
        std::ofstream out(name);
        panelconfig::generatePanel(out, loops, devices);
    }
    const auto loading = Clock::now();
    Service service(name, pages);
    std::remove(name);
    Client setup(service.port());
    rpc::ServiceInfo info;
    setup->getServiceInfo(info);
    const std::vector<rpc::Uuid> detectors = collectAll(setup, kDetectorType);
    std::printf("egw_alarm_bench: %lld elements (%u loop cards x %u devices), loaded in %.1f s; "
                "pages of %zu elements%s\n",
                static_cast<long long>(info.elementCount), loops, devices, msSince(loading) / 1000,
                pages.elements, whole ? " (--whole: one page per read)" : "");
    if (detectors.size() < static_cast<std::size_t>(alarms))
    {
        std::fprintf(stderr, "the panel has fewer detectors than alarms\n");
        return 1;
    }
    Figures quiet;
    pageTimes(service.port(), quiet);
    measure(service.port(), detectors, alarms, quiet);
    Figures loaded;
    {
        const Readers readers(service.port(), detectors);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        measure(service.port(), detectors, alarms, loaded);
        loaded.readerCalls = readers.calls();
    }
    std::printf("  %-44s %10s %12s   %s\n", "ms", "quiet", "4 readers", "goal (under load)");
    std::printf("  %-44s %10.2f\n", "snapshot page round trip (quiet), p50",
                percentile(quiet.page, 0.5));
    std::printf("  %-44s %10.2f\n", "snapshot page round trip (quiet), p99",
                percentile(quiet.page, 0.99));
    line("alarm setState returned, p50", quiet.setState, loaded.setState, 0.5, "");
    line("alarm setState returned, p99", quiet.setState, loaded.setState, 0.99, "");
    line("alarm event at the subscriber, p50", quiet.delivered, loaded.delivered, 0.5, "");
    line("alarm event at the subscriber, p99", quiet.delivered, loaded.delivered, 0.99, "<= 200");
    line("alarm event at the subscriber, worst", quiet.delivered, loaded.delivered, 1.0, "<= 500");
    line("getInteger from another client, p50", quiet.smallRead, loaded.smallRead, 0.5, "");
    line("getInteger from another client, p99", quiet.smallRead, loaded.smallRead, 0.99, "<= 100");
    std::printf("  %zu alarms each; %zu / %zu small reads; %ld calls of the readers\n",
                loaded.delivered.size(), quiet.smallRead.size(), loaded.smallRead.size(),
                loaded.readerCalls);
    return 0;
}
