// The latency of egwd as a client on this machine sees it, for several egwd processes at once (the
// build machine's egwd and the board's under qemu-user, docs/performance.md "On the board"): in
// each round every egwd in turn, the order turned each round, gets 500 echo calls and 500
// getInteger of a detector's address on one connection. Prints p50 and p99 per egwd and kind, and
// each egwd's p50 over the first one's.
//
//   egw_remote_latency NAME=PORT...          (egwd on 127.0.0.1, binary protocol)
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "PanelService.h"

namespace
{

namespace rpc = ::egw::rpc;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kAddress = 0x30004; // a detector's address, an integer
constexpr int kRounds = 21;
constexpr int kCalls = 500;

struct Target
{
    std::string name;
    std::shared_ptr<apache::thrift::transport::TTransport> transport;
    std::unique_ptr<rpc::PanelServiceClient> client;
    rpc::Uuid element = 0;
    std::vector<double> echo, read;
};

// The first element, breadth first from the root, that has an address.
rpc::Uuid addressedElement(rpc::PanelServiceClient& client)
{
    std::deque<rpc::Uuid> queue{client.getRoot()};
    for (int looked = 0; !queue.empty() && looked < 1000; ++looked)
    {
        const rpc::Uuid uuid = queue.front();
        queue.pop_front();
        try
        {
            client.getInteger(uuid, kAddress);
            return uuid;
        }
        catch (const rpc::PanelError&)
        {
        }
        std::vector<rpc::Uuid> children;
        client.getChildren(children, uuid);
        queue.insert(queue.end(), children.begin(), children.end());
    }
    throw std::runtime_error("no element with an address");
}

double percentile(std::vector<double> values, double p)
{
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(p * static_cast<double>(values.size() - 1))];
}

template <typename Call>
void time(std::vector<double>& into, Call call)
{
    for (int i = 0; i < kCalls; ++i)
    {
        const auto begin = Clock::now();
        call(i);
        into.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::unique_ptr<Target>> targets;
    try
    {
        for (int i = 1; i < argc; ++i)
        {
            const std::string word = argv[i];
            const auto equals = word.find('=');
            if (equals == std::string::npos)
                throw std::runtime_error("not NAME=PORT: " + word);
            auto target = std::make_unique<Target>();
            target->name = word.substr(0, equals);
            auto socket = std::make_shared<apache::thrift::transport::TSocket>(
                "127.0.0.1", std::stoi(word.substr(equals + 1)));
            socket->setRecvTimeout(20000);
            target->transport =
                std::make_shared<apache::thrift::transport::TFramedTransport>(socket);
            target->client = std::make_unique<rpc::PanelServiceClient>(
                std::make_shared<apache::thrift::protocol::TBinaryProtocol>(target->transport));
            target->transport->open();
            target->element = addressedElement(*target->client);
            targets.push_back(std::move(target));
        }
        if (targets.empty())
            throw std::runtime_error("usage: egw_remote_latency NAME=PORT...");
        for (int round = 0; round < kRounds; ++round)
        {
            for (std::size_t k = 0; k < targets.size(); ++k)
            {
                Target& t = *targets[(k + static_cast<std::size_t>(round)) % targets.size()];
                time(t.echo, [&](int i) { t.client->echo(i); });
                time(t.read, [&](int) { t.client->getInteger(t.element, kAddress); });
            }
        }
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "egw_remote_latency: %s\n", error.what());
        return 1;
    }
    const double echoBase = percentile(targets.front()->echo, 0.5);
    const double readBase = percentile(targets.front()->read, 0.5);
    std::printf("%-10s %22s %22s %14s\n", "egwd", "echo p50 / p99 (us)", "getInteger p50 / p99",
                "p50 ratio");
    for (const auto& t : targets)
    {
        const double echo = percentile(t->echo, 0.5), read = percentile(t->read, 0.5);
        std::printf("%-10s %10.1f / %9.1f %10.1f / %9.1f %6.2f / %5.2f\n", t->name.c_str(), echo,
                    percentile(t->echo, 0.99), read, percentile(t->read, 0.99), echo / echoBase,
                    read / readBase);
    }
    return 0;
}
