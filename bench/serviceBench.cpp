// What the panel service costs over its transport, measured side by side in one run: egwd's own
// server (threaded, framed, binary) on a free loopback port in this process, on a generated panel
// of about 100,000 elements, and Thrift clients of this process against it. Each property-read
// figure has a twin made of the bare echo call on the same server and connection, taken in
// alternating rounds; the program prints the figures with their goals. The memory per idle
// session and what the audit trail costs a change are read from egwd child processes. Command and
// figures: docs/performance.md.
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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
constexpr std::int64_t kAddress = 0x30004; // the detector's address, an integer
constexpr std::int64_t kFireAlarmGroup = 0x80001;
constexpr UINT32 kNormal = 0x60001;
constexpr UINT32 kPreAlarm = 0x60002;
constexpr unsigned kLoops = 330; // 330 loop cards of 250 devices: 100,328 elements
constexpr unsigned kDevicesPerLoop = 250;

// Every loop below stops at its count or at this time, whichever comes first; each call also
// gives up after the socket's 20 s receive timeout.
const Clock::time_point kGiveUp = Clock::now() + std::chrono::minutes(5);

bool late()
{
    return Clock::now() >= kGiveUp;
}

double nowNs()
{
    return static_cast<double>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
            .count());
}

// CPU time of this whole process: the clients' threads and the server's.
double processCpuNs()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double median(std::vector<double> samples)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

// The value below which the given share of the samples lie (0.5: the median, 0.99: p99).
double percentile(std::vector<double> samples, double share)
{
    if (samples.empty())
        return 0;
    std::sort(samples.begin(), samples.end());
    const auto at = static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1) + 0.5);
    return samples[std::min(at, samples.size() - 1)];
}

struct Figure
{
    std::string name;
    double value;
    std::string unit;
    std::string goal; // empty: for the record
    bool met;
};

std::vector<Figure>& figures()
{
    static std::vector<Figure> all;
    return all;
}

void record(const std::string& name, double value, const std::string& unit,
            const std::string& goal = "", bool met = true)
{
    figures().push_back({name, value, unit, goal, met});
    std::printf("  %-58s %12.2f %-8s %s%s\n", name.c_str(), value, unit.c_str(), goal.c_str(),
                goal.empty() || met ? "" : "  MISSED");
    std::fflush(stdout);
}

// One client connection: the framed transport and the binary protocol over a loopback socket.
class Client
{
public:
    explicit Client(int port)
        : socket_(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port)),
          transport_(std::make_shared<apache::thrift::transport::TFramedTransport>(socket_))
    {
        rpc_ = std::make_unique<rpc::PanelServiceClient>(
            std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport_));
        socket_->setRecvTimeout(20000);
        transport_->open();
    }
    ~Client() { transport_->close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    rpc::PanelServiceClient* operator->() { return rpc_.get(); }

private:
    std::shared_ptr<apache::thrift::transport::TSocket> socket_;
    std::shared_ptr<apache::thrift::transport::TTransport> transport_;
    std::unique_ptr<rpc::PanelServiceClient> rpc_;
};

// Every element of the type, one page of collectSubtree after another.
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

// egwd's server in this process, on the generated panel.
class Service
{
public:
    explicit Service(const std::string& panelFile)
    {
        egwservice::ServiceSettings settings;
        egwservice::preparePanel({"", panelFile}, settings);
        // The benchmark reads; the records (audit rows of changes, stored events) stay in memory.
        settings.database = ":memory:";
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

// The generated panel written to a file for egwd's loader; removed again when the run ends.
class PanelFile
{
public:
    PanelFile()
    {
        char name[] = "/tmp/egwServiceBenchXXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0)
            throw std::runtime_error("no temporary file for the generated panel");
        close(fd);
        path_ = name;
        std::ofstream out(path_);
        panelconfig::generatePanel(out, kLoops, kDevicesPerLoop);
    }
    ~PanelFile() { std::remove(path_.c_str()); }
    PanelFile(const PanelFile&) = delete;
    PanelFile& operator=(const PanelFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// TCP_NODELAY on the connected TCP sockets of this process (clients and the server's side).
void checkNoDelay()
{
    int on = 0;
    int off = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return;
    while (const dirent* entry = readdir(dir))
    {
        const int fd = std::atoi(entry->d_name);
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        int domain = 0;
        socklen_t domainLength = sizeof domain;
        if (fd <= 2 || getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &domainLength) != 0 ||
            (domain != AF_INET && domain != AF_INET6) ||
            getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0)
            continue;
        int flag = 0;
        socklen_t flagLength = sizeof flag;
        if (getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &flag, &flagLength) == 0)
            ++(flag != 0 ? on : off);
    }
    closedir(dir);
    std::printf("  connected TCP sockets with TCP_NODELAY: %d on, %d off\n", on, off);
}

// ---- Latency of one client: the property read against the echo ----------------------------------

void singleLatency(int port, const std::vector<rpc::Uuid>& detectors)
{
    std::printf("\nOne client, one call at a time (wall time per call)\n");
    Client client(port);
    std::size_t next = 0;
    const auto detector = [&] { return detectors[(next++ * 7919) % detectors.size()]; };
    const std::vector<std::pair<const char*, std::function<void()>>> kinds = {
        {"echo", [&] { client->echo(42); }},
        {"getInteger", [&] { client->getInteger(detector(), kAddress); }},
        {"readProperty",
         [&] {
             rpc::PropertyValue value;
             client->readProperty(value, detector(), kAddress);
         }},
    };
    for (const auto& kind : kinds) // warm-up
        for (int i = 0; i < 2000 && !late(); ++i)
            kind.second();
    checkNoDelay(); // both ends of this connection are in this process
    constexpr int kRounds = 21;
    constexpr int kCalls = 1000;
    std::vector<std::vector<double>> all(kinds.size());
    std::vector<std::vector<double>> roundMedians(kinds.size());
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    for (int round = 0; round < kRounds && Clock::now() < deadline && !late(); ++round)
    {
        for (std::size_t k = 0; k < kinds.size(); ++k)
        {
            const std::size_t kind = (k + static_cast<std::size_t>(round)) % kinds.size();
            std::vector<double> samples;
            samples.reserve(kCalls);
            for (int i = 0; i < kCalls; ++i)
            {
                const double start = nowNs();
                kinds[kind].second();
                samples.push_back(nowNs() - start);
            }
            roundMedians[kind].push_back(median(samples));
            all[kind].insert(all[kind].end(), samples.begin(), samples.end());
        }
    }
    for (std::size_t k = 0; k < kinds.size(); ++k)
    {
        record(std::string(kinds[k].first) + " p50", percentile(all[k], 0.5) / 1000, "us");
        record(std::string(kinds[k].first) + " p99", percentile(all[k], 0.99) / 1000, "us");
    }
    for (std::size_t k = 1; k < kinds.size(); ++k)
    {
        std::vector<double> ratios;
        for (std::size_t r = 0; r < roundMedians[k].size(); ++r)
            ratios.push_back(roundMedians[k][r] / roundMedians[0][r]);
        const double ratio = median(ratios);
        record(std::string(kinds[k].first) + " / echo, median latency (median of rounds)", ratio,
               "x", "<= 1.3", ratio <= 1.3);
    }
}

// ---- Batched read against single reads ----------------------------------------------------------

void batchedReads(int port, const std::vector<rpc::Uuid>& detectors)
{
    std::printf("\nBatched read of 10,000 pairs on one connection against single reads\n");
    Client client(port);
    std::vector<rpc::PropertyRef> addresses(10000);
    for (std::size_t i = 0; i < addresses.size(); ++i)
    {
        addresses[i].uuid = detectors[i % detectors.size()];
        addresses[i].propertyId = kAddress;
    }
    // A device read whole: every property its type defines, for 10,000 / (its properties) devices.
    rpc::TypeInfo type;
    client->getTypeInfo(type, kDetectorType);
    std::vector<rpc::PropertyRef> whole(10000);
    for (std::size_t i = 0; i < whole.size(); ++i)
    {
        whole[i].uuid = detectors[(i / type.properties.size()) % detectors.size()];
        whole[i].propertyId = type.properties[i % type.properties.size()].propertyId;
    }
    std::size_t refused = 0;
    const auto batch = [&](const std::vector<rpc::PropertyRef>& refs) {
        std::vector<rpc::PropertyResult> results;
        client->readProperties(results, refs);
        for (const rpc::PropertyResult& r : results)
            refused += r.__isset.error ? 1 : 0;
        if (results.size() != refs.size())
            refused += refs.size();
    };
    std::size_t next = 0;
    constexpr int kSingles = 1000;
    const auto singles = [&] {
        for (int i = 0; i < kSingles && !late(); ++i)
            client->getInteger(detectors[(next++ * 7919) % detectors.size()], kAddress);
    };
    batch(addresses);
    batch(whole);
    singles();
    refused = 0;
    constexpr int kRounds = 11;
    std::vector<double> addressRates;
    std::vector<double> wholeRates;
    std::vector<double> singleRates;
    std::vector<double> addressCpuRates;
    std::vector<double> ratios;
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    for (int round = 0; round < kRounds && Clock::now() < deadline && !late(); ++round)
    {
        double t[3] = {};
        double cpu[3] = {};
        for (int k = 0; k < 3; ++k)
        {
            const int kind = (k + round) % 3;
            const double start = nowNs();
            const double cpuStart = processCpuNs();
            if (kind == 0)
                batch(addresses);
            else if (kind == 1)
                batch(whole);
            else
                singles();
            t[kind] = nowNs() - start;
            cpu[kind] = processCpuNs() - cpuStart;
        }
        addressRates.push_back(10000 / t[0] * 1e9);
        addressCpuRates.push_back(10000 / cpu[0] * 1e9);
        wholeRates.push_back(10000 / t[1] * 1e9);
        singleRates.push_back(kSingles / t[2] * 1e9);
        ratios.push_back(addressRates.back() / singleRates.back());
    }
    std::printf("  (%zu properties of the detector type per device; pairs refused: %zu)\n",
                type.properties.size(), refused);
    const double rate = median(addressRates);
    record("readProperties, 10,000 devices' address, values/s", rate, "1/s", ">= 1,000,000",
           rate >= 1e6 && refused == 0);
    record("readProperties, 10,000 devices' address, values per CPU second of client + server",
           median(addressCpuRates), "1/s");
    const double wholeRate = median(wholeRates);
    record("readProperties, devices read whole (10,000 pairs), values/s", wholeRate, "1/s",
           ">= 1,000,000", wholeRate >= 1e6 && refused == 0);
    record("getInteger one at a time, values/s", median(singleRates), "1/s");
    const double ratio = median(ratios);
    record("batched / single reads (median of rounds)", ratio, "x", ">= 20", ratio >= 20);
}

// ---- 16 concurrent clients: property reads against echo ----------------------------------------

void concurrentClients(int port, const std::vector<rpc::Uuid>& detectors)
{
    constexpr int kClients = 16;
    std::printf("\n%d clients at once, each on its own connection and thread\n", kClients);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<Client>(port));
    // All clients call for the same span; the throughput is the calls completed in it. For the
    // record: the process's CPU time (clients and server) and its voluntary context switches per
    // call, which tell work from waiting.
    std::vector<double> cpuPerCall[2];
    std::vector<double> switchesPerCall[2];
    const auto phase = [&](bool reads, std::chrono::milliseconds span) {
        rusage before{};
        getrusage(RUSAGE_SELF, &before);
        const double cpuStart = processCpuNs();
        std::atomic<long> calls{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        Clock::time_point end;
        for (int i = 0; i < kClients; ++i)
        {
            threads.emplace_back([&, i] {
                while (!go)
                    std::this_thread::yield();
                long done = 0;
                std::size_t next = static_cast<std::size_t>(i) * 997;
                while (Clock::now() < end && done < 10000000 && !late())
                {
                    if (reads)
                        (*clients[static_cast<std::size_t>(i)])
                            ->getInteger(detectors[(next++ * 7919) % detectors.size()], kAddress);
                    else
                        (*clients[static_cast<std::size_t>(i)])->echo(42);
                    ++done;
                }
                calls += done;
            });
        }
        const auto start = Clock::now();
        end = start + span;
        go = true;
        for (auto& t : threads)
            t.join();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        rusage after{};
        getrusage(RUSAGE_SELF, &after);
        const double n = std::max(1.0, static_cast<double>(calls));
        cpuPerCall[reads ? 1 : 0].push_back((processCpuNs() - cpuStart) / n);
        switchesPerCall[reads ? 1 : 0].push_back(
            static_cast<double>(after.ru_nvcsw - before.ru_nvcsw) / n);
        return static_cast<double>(calls) / seconds;
    };
    phase(false, std::chrono::milliseconds(200));
    phase(true, std::chrono::milliseconds(200));
    for (auto& samples : cpuPerCall)
        samples.clear();
    for (auto& samples : switchesPerCall)
        samples.clear();
    constexpr int kRounds = 15;
    std::vector<double> echoRates;
    std::vector<double> readRates;
    std::vector<double> ratios;
    std::vector<double> cpuRatios;
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    for (int round = 0; round < kRounds && Clock::now() < deadline && !late(); ++round)
    {
        const bool readsFirst = round % 2 == 1;
        const double first = phase(readsFirst, std::chrono::milliseconds(300));
        const double second = phase(!readsFirst, std::chrono::milliseconds(300));
        echoRates.push_back(readsFirst ? second : first);
        readRates.push_back(readsFirst ? first : second);
        ratios.push_back(readRates.back() / echoRates.back());
        cpuRatios.push_back(cpuPerCall[0].back() / cpuPerCall[1].back());
    }
    record("echo, 16 clients, calls/s", median(echoRates), "1/s");
    record("getInteger, 16 clients, calls/s", median(readRates), "1/s");
    const double ratio = median(ratios);
    record("reads / echo throughput, 16 clients (median of rounds)", ratio, "x", ">= 0.7",
           ratio >= 0.7);
    record("reads / echo, by CPU time per call, 16 clients (median of rounds)", median(cpuRatios),
           "x");
    record("echo, 16 clients, CPU time of the process per call", median(cpuPerCall[0]) / 1000,
           "us");
    record("getInteger, 16 clients, CPU time of the process per call", median(cpuPerCall[1]) / 1000,
           "us");
    record("echo, 16 clients, voluntary context switches per call", median(switchesPerCall[0]), "");
    record("getInteger, 16 clients, voluntary context switches per call",
           median(switchesPerCall[1]), "");
}

// ---- State changes to long-polling clients -----------------------------------------------------

void eventLatency(int port, const std::vector<rpc::Uuid>& detectors)
{
    constexpr int kClients = 16;
    constexpr int kRate = 1000;   // state changes per second
    constexpr int kEvents = 2000; // per run
    constexpr int kRuns = 5;
    const std::size_t span = std::min<std::size_t>(500, detectors.size());
    std::printf("\nState changes at %d/s to %d long-polling clients (%d runs of %d changes)\n",
                kRate, kClients, kRuns, kEvents);
    rpc::Subscription subscription;
    subscription.kind = rpc::SubscriptionKind::ALL_STATE_CHANGES;
    subscription.target = kDetectorType;
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < kClients; ++i)
    {
        clients.push_back(std::make_unique<Client>(port));
        (*clients.back())->subscribe(subscription);
    }
    std::vector<double> pooled;
    std::vector<double> runP99;
    double worstClientP99 = 0;
    long lost = 0;
    long unmatched = 0;
    long missing = 0;
    long refusedChanges = 0;
    std::size_t ordinal = 0; // state changes made so far, over all runs
    for (int run = 0; run < kRuns; ++run)
    {
        // Event k of this run: detector k % span, the fire-alarm group set to pre-alarm on even
        // passes over the detectors and back to normal on odd ones.
        const std::size_t first = ordinal;
        const auto uuidOf = [&](std::size_t k) { return detectors[k % span]; };
        const auto valueOf = [&](std::size_t k) {
            return (k / span) % 2 == 0 ? kPreAlarm : kNormal;
        };
        std::unique_ptr<std::atomic<double>[]> sent(new std::atomic<double>[kEvents]);
        for (int k = 0; k < kEvents; ++k)
            sent[k] = 0;
        std::vector<std::vector<double>> latencies(kClients);
        std::vector<std::thread> pollers;
        std::atomic<long> runLost{0};
        std::atomic<long> runUnmatched{0};
        std::atomic<long> runMissing{0};
        for (int c = 0; c < kClients; ++c)
        {
            pollers.emplace_back([&, c] {
                std::size_t expected = first;
                const std::size_t last = first + kEvents;
                const auto giveUp = Clock::now() + std::chrono::seconds(kEvents / kRate + 5);
                while (expected < last && Clock::now() < giveUp)
                {
                    std::vector<rpc::Event> events;
                    (*clients[static_cast<std::size_t>(c)])->nextEvents(events, 1000, 100);
                    const double received = nowNs();
                    for (const rpc::Event& e : events)
                    {
                        if (e.lost > 0)
                        {
                            runLost += e.lost;
                            continue;
                        }
                        std::size_t k = expected;
                        while (k < last && (uuidOf(k) != e.uuid ||
                                            static_cast<UINT32>(e.stateChange.value) != valueOf(k)))
                            ++k;
                        if (k == last)
                        {
                            ++runUnmatched;
                            continue;
                        }
                        latencies[static_cast<std::size_t>(c)].push_back(received -
                                                                         sent[k - first]);
                        expected = k + 1;
                    }
                }
                runMissing += static_cast<long>(last - expected);
            });
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // every poller waiting
        // How late the driver's own thread wakes for each change: the machine's scheduling delay,
        // which the clients' threads meet as well.
        std::vector<double> wakeLate;
        const auto start = Clock::now();
        for (int k = 0; k < kEvents && !late(); ++k)
        {
            const auto due = start + std::chrono::microseconds(1000000 / kRate) * k;
            std::this_thread::sleep_until(due);
            const std::size_t at = first + static_cast<std::size_t>(k);
            sent[k] = nowNs();
            wakeLate.push_back(
                std::chrono::duration<double, std::nano>(Clock::now() - due).count());
            if (EGW_ELementServerSetStateValueByUuid(valueOf(at), static_cast<UINT32>(uuidOf(at)),
                                                     kFireAlarmGroup, nullptr) != TRUE)
                ++refusedChanges;
        }
        const double driven = std::chrono::duration<double>(Clock::now() - start).count();
        for (auto& t : pollers)
            t.join();
        ordinal += kEvents;
        std::vector<double> all;
        for (const auto& own : latencies)
        {
            all.insert(all.end(), own.begin(), own.end());
            worstClientP99 = std::max(worstClientP99, percentile(own, 0.99));
        }
        runP99.push_back(percentile(all, 0.99));
        pooled.insert(pooled.end(), all.begin(), all.end());
        lost += runLost;
        unmatched += runUnmatched;
        missing += runMissing;
        std::printf("  run %d: %d changes in %.2f s, %zu deliveries, p50 %.3f ms, p99 %.3f ms; "
                    "driver woke late by p99 %.3f ms, max %.3f ms\n",
                    run + 1, kEvents, driven, all.size(), percentile(all, 0.5) / 1e6,
                    runP99.back() / 1e6, percentile(wakeLate, 0.99) / 1e6,
                    percentile(wakeLate, 1.0) / 1e6);
    }
    std::printf("  lost (gap markers): %ld, unmatched: %ld, never received: %ld, changes refused: "
                "%ld\n",
                lost, unmatched, missing, refusedChanges);
    record("state change to client, p50 (all runs)", percentile(pooled, 0.5) / 1e6, "ms");
    const double p99 = median(runP99);
    record("state change to client, p99 (median of runs)", p99 / 1e6, "ms", "<= 5",
           p99 <= 5e6 && lost == 0 && missing == 0);
    record("state change to client, p99 (all runs pooled)", percentile(pooled, 0.99) / 1e6, "ms",
           "<= 5", percentile(pooled, 0.99) <= 5e6 && lost == 0 && missing == 0);
    record("state change to client, p99 of the worst client", worstClientP99 / 1e6, "ms");
    record("state change to client, max", pooled.empty() ? 0 : percentile(pooled, 1.0) / 1e6, "ms");
}

// ---- Memory per idle session of an egwd process -----------------------------------------------

long residentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

// egwd as a child process on the sample panel with the given options; its port read from the line
// it prints.
class Egwd
{
public:
    explicit Egwd(std::vector<std::string> options)
    {
        options.insert(options.begin(), {EGW_EGWD, "--port", "0"});
        std::vector<char*> argv;
        for (std::string& option : options)
            argv.push_back(option.data());
        argv.push_back(nullptr);
        int out[2];
        if (pipe(out) != 0)
            throw std::runtime_error("no pipe for egwd");
        pid_ = fork();
        if (pid_ == 0)
        {
            dup2(out[1], 1);
            close(out[0]);
            close(out[1]);
            execv(EGW_EGWD, argv.data());
            _exit(127);
        }
        close(out[1]);
        std::string line;
        char c = 0;
        while (read(out[0], &c, 1) == 1 && c != '\n')
            line += c;
        close(out[0]);
        const auto colon = line.rfind(':');
        port_ = colon == std::string::npos ? 0 : std::atoi(line.c_str() + colon + 1);
        if (port_ <= 0)
            throw std::runtime_error("egwd did not say its port: " + line);
    }
    ~Egwd()
    {
        kill(pid_, SIGTERM);
        for (int i = 0; i < 100; ++i)
        {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Egwd(const Egwd&) = delete;
    Egwd& operator=(const Egwd&) = delete;

    pid_t pid() const { return pid_; }
    int port() const { return port_; }

private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// Resident memory once it has settled: the smallest of a few readings 100 ms apart.
long settledKiB(pid_t pid)
{
    long least = residentKiB(pid);
    for (int i = 0; i < 4; ++i)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        least = std::min(least, residentKiB(pid));
    }
    return least;
}

void sessionMemory()
{
    constexpr int kSessions = 200;
    constexpr int kRuns = 3;
    std::printf("\nResident memory of an egwd process (sample panel) per idle session, %d runs\n",
                kRuns);
    std::vector<double> first;
    std::vector<double> second;
    for (int run = 0; run < kRuns; ++run)
    {
        const std::string bound = std::to_string(2 * kSessions + 8);
        Egwd egwd({"--max-connections", bound, "--max-sessions", bound, "--database", ":memory:"});
        const long idle = settledKiB(egwd.pid());
        std::vector<std::unique_ptr<Client>> clients;
        const auto open = [&] {
            for (int i = 0; i < kSessions && !late(); ++i)
            {
                clients.push_back(std::make_unique<Client>(egwd.port()));
                (*clients.back())->getRoot();
            }
        };
        open();
        const long withFirst = settledKiB(egwd.pid());
        open();
        const long withSecond = settledKiB(egwd.pid());
        first.push_back(static_cast<double>(withFirst - idle) / kSessions);
        second.push_back(static_cast<double>(withSecond - withFirst) / kSessions);
        std::printf("  run %d: VmRSS %ld KiB idle, %ld KiB with %d sessions, %ld KiB with %d\n",
                    run + 1, idle, withFirst, kSessions, withSecond, 2 * kSessions);
    }
    const double perSession = median(first);
    record("KiB per idle session, first 200 (median of runs)", perSession, "KiB", "<= 64",
           perSession <= 64);
    record("KiB per idle session, next 200 (median of runs)", median(second), "KiB");
}

// ---- What the audit trail costs a change -------------------------------------------------------

// A folder in the current directory (the build tree, on the disk the database would use) for
// egwd's database file; removed with what SQLite left in it when the run ends.
class DatabaseFolder
{
public:
    DatabaseFolder()
    {
        char name[] = "egwServiceBenchXXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no folder for the benchmark's database");
        path_ = name;
    }
    ~DatabaseFolder()
    {
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            std::remove((file() + suffix).c_str());
        rmdir(path_.c_str());
    }
    DatabaseFolder(const DatabaseFolder&) = delete;
    DatabaseFolder& operator=(const DatabaseFolder&) = delete;
    std::string file() const { return path_ + "/egwd.db"; }

private:
    std::string path_;
};

// Operators' state changes through two egwd processes on the sample panel, side by side: one
// keeping its audit trail and event memory in a database file (every row synced before the reply),
// one keeping them in memory. Both record the same rows; the ratio is what the syncs cost.
void auditCost()
{
    std::printf("\nAn audited state change: database file against a database in memory\n");
    const DatabaseFolder folder;
    Egwd onDisk({"--database", folder.file()});
    Egwd inMemory({"--database", ":memory:"});
    Client disk(onDisk.port());
    Client memory(inMemory.port());
    std::vector<rpc::Uuid> detectors;
    for (Client* client : {&disk, &memory})
    {
        rpc::SessionInfo session;
        (*client)->login(session, 2, "2222");
        detectors = collectAll(*client, kDetectorType);
    }
    const rpc::Uuid detector = detectors.at(0);
    bool alarm = false;
    const auto change = [&](Client& client) {
        alarm = !alarm;
        client->setState(detector, kFireAlarmGroup, alarm ? kPreAlarm : kNormal);
    };
    const auto read = [&] { disk->getInteger(detector, kAddress); };
    for (int i = 0; i < 50; ++i) // warm-up
    {
        change(disk);
        change(memory);
        read();
    }
    constexpr int kRounds = 11;
    constexpr int kCalls = 100;
    std::vector<double> samples[3]; // file, memory, read
    std::vector<double> ratios;
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    for (int round = 0; round < kRounds && Clock::now() < deadline && !late(); ++round)
    {
        double roundMedian[3] = {};
        for (int k = 0; k < 3; ++k)
        {
            const int kind = (k + round) % 3;
            std::vector<double> own;
            for (int i = 0; i < kCalls; ++i)
            {
                const double start = nowNs();
                if (kind == 2)
                    read();
                else
                    change(kind == 0 ? disk : memory);
                own.push_back(nowNs() - start);
            }
            roundMedian[kind] = median(own);
            samples[kind].insert(samples[kind].end(), own.begin(), own.end());
        }
        ratios.push_back(roundMedian[0] / roundMedian[1]);
    }
    record("setState audited, database file, p50", percentile(samples[0], 0.5) / 1000, "us");
    record("setState audited, database file, p99", percentile(samples[0], 0.99) / 1000, "us");
    record("setState audited, database in memory, p50", percentile(samples[1], 0.5) / 1000, "us");
    record("getInteger on the same egwd, p50", percentile(samples[2], 0.5) / 1000, "us");
    record("audited change, file / memory (median of rounds)", median(ratios), "x");
}

} // namespace

// With arguments, only the parts named: latency, batch, clients, events, memory, audit (for
// profiling one).
int main(int argc, char** argv)
{
    const auto wanted = [&](const char* part) {
        if (argc < 2)
            return true;
        for (int i = 1; i < argc; ++i)
            if (std::strcmp(argv[i], part) == 0)
                return true;
        return false;
    };
    std::signal(SIGPIPE, SIG_IGN);
    const auto begin = Clock::now();
    std::printf("egw_service_bench: egwd's server in this process on a generated panel of %u loop "
                "cards x %u devices\n",
                kLoops, kDevicesPerLoop);
    std::fflush(stdout);
    {
        const PanelFile panel;
        const auto loadStart = Clock::now();
        Service service(panel.path());
        std::printf("  panel loaded and served in %.2f s\n",
                    std::chrono::duration<double>(Clock::now() - loadStart).count());
        std::vector<rpc::Uuid> detectors;
        {
            Client client(service.port());
            rpc::ServiceInfo info;
            client->getServiceInfo(info);
            detectors = collectAll(client, kDetectorType);
            std::printf("  %lld elements, %zu optical smoke detectors\n",
                        static_cast<long long>(info.elementCount), detectors.size());
        }
        if (detectors.size() < 10000)
        {
            std::fprintf(stderr, "the generated panel has too few detectors\n");
            return 1;
        }
        if (wanted("latency"))
            singleLatency(service.port(), detectors);
        if (wanted("batch"))
            batchedReads(service.port(), detectors);
        if (wanted("clients"))
            concurrentClients(service.port(), detectors);
        if (wanted("events"))
            eventLatency(service.port(), detectors);
    }
    if (wanted("memory"))
        sessionMemory();
    if (wanted("audit"))
        auditCost();
    int missed = 0;
    std::printf("\n%-60s %12s %-8s %s\n", "figure", "measured", "", "goal");
    for (const Figure& f : figures())
        if (!f.goal.empty())
        {
            std::printf("%-60s %12.2f %-8s %s%s\n", f.name.c_str(), f.value, f.unit.c_str(),
                        f.goal.c_str(), f.met ? "" : "  MISSED");
            missed += f.met ? 0 : 1;
        }
    std::printf("\n%d goals missed; %.0f s in all\n", missed,
                std::chrono::duration<double>(Clock::now() - begin).count());
    return 0;
}
