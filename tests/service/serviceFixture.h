// An egwd service in the test process: the sample panel in the simulator, the service's threaded
// server on a free loopback port, and Thrift clients connected to it. Every precondition report of
// the library is counted, so that a test can show that no remote request reached one.
#ifndef TESTS_SERVICE_FIXTURE_H
#define TESTS_SERVICE_FIXTURE_H

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TCompactProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "PanelService.h"
#include "service/hostPanel.h"
#include "service/server.h"

namespace servicetest
{

namespace rpc = ::egw::rpc;

inline std::atomic<int>& reports()
{
    static std::atomic<int> count{0};
    return count;
}

inline void countReport(const char*, const char*, const char*, int)
{
    ++reports();
}

// One client connection: the framed transport over a loopback socket.
class Client
{
public:
    Client(int port, bool compact = false)
        : socket_(std::make_shared<apache::thrift::transport::TSocket>("127.0.0.1", port)),
          transport_(std::make_shared<apache::thrift::transport::TFramedTransport>(socket_))
    {
        std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
        if (compact)
        {
            protocol = std::make_shared<apache::thrift::protocol::TCompactProtocol>(transport_);
        }
        else
        {
            protocol = std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport_);
        }
        rpc_ = std::make_unique<rpc::PanelServiceClient>(protocol);
        socket_->setRecvTimeout(20000);
        transport_->open();
    }
    ~Client() { transport_->close(); }

    rpc::PanelServiceClient* operator->() { return rpc_.get(); }
    apache::thrift::transport::TSocket& socket() { return *socket_; }

private:
    std::shared_ptr<apache::thrift::transport::TSocket> socket_;
    std::shared_ptr<apache::thrift::transport::TTransport> transport_;
    std::unique_ptr<rpc::PanelServiceClient> rpc_;
};

// Every element of the type (0: any) below the root, one page of collectSubtree after another.
inline std::vector<rpc::Uuid> collectAll(Client& client, rpc::Uuid root, rpc::Id type)
{
    std::vector<rpc::Uuid> all;
    rpc::UuidPage page;
    do
    {
        client->collectSubtree(page, root, type, page.nextAfter, 0);
        all.insert(all.end(), page.uuids.begin(), page.uuids.end());
    } while (page.nextAfter != 0);
    return all;
}

// egwd on the sample panel (or on the given files), serving on a free loopback port. Its database
// is a file in a temporary directory of the test's own, unless the settings name one.
class ServiceFixture : public ::testing::Test
{
protected:
    void startService(const egwservice::PanelFiles& files = {},
                      egwservice::ServiceSettings settings = {},
                      egwservice::ServerSettings server = {},
                      std::unique_ptr<egwservice::AuditTrail> audit = nullptr)
    {
        egwservice::preparePanel(files, settings);
        EGW_SetAssertHandler(countReport);
        reports() = 0;
        if (settings.database == egwservice::ServiceSettings().database)
        {
            std::string pattern =
                (std::filesystem::temp_directory_path() / "egwd-test-XXXXXX").string();
            if (mkdtemp(pattern.data()) == nullptr)
            {
                throw std::runtime_error("no temporary directory for the service's database");
            }
            directory_ = pattern;
            settings.database = directory_ + "/egwd.db";
        }
        events_ = egwservice::makeEventSource();
        core_ = std::make_unique<egwservice::ServiceCore>(settings, *events_, std::move(audit));
        server.address = "127.0.0.1";
        server.port = 0;
        // A test's clients all come from 127.0.0.1: the bound per address is the whole bound,
        // unless the test is about it.
        if (server.maxConnectionsPerAddress ==
            egwservice::ServerSettings().maxConnectionsPerAddress)
        {
            server.maxConnectionsPerAddress = server.maxConnections;
        }
        server_ = std::make_unique<egwservice::PanelServer>(*core_, server);
        std::promise<int> bound;
        auto port = bound.get_future();
        thread_ = std::thread([&] { server_->serve([&](int p) { bound.set_value(p); }); });
        port_ = port.get();
    }

    void SetUp() override { startService(); }

    void TearDown() override
    {
        server_->stop();
        thread_.join();
        server_.reset();
        core_.reset();
        EGW_SetAssertHandler(nullptr);
        if (!directory_.empty())
        {
            std::error_code ignored;
            std::filesystem::remove_all(directory_, ignored);
        }
    }

    std::unique_ptr<Client> connect(bool compact = false)
    {
        return std::make_unique<Client>(port_, compact);
    }

    // A client logged in at the level with the sample type library's default password.
    std::unique_ptr<Client> connectAt(int level)
    {
        static const char* const kPasswords[] = {"", "", "2222", "3333", "4444"};
        auto client = connect();
        if (level > 1)
        {
            rpc::SessionInfo session;
            (*client)->login(session, level, kPasswords[level]);
        }
        return client;
    }

    egwservice::ServiceCore& core() { return *core_; }
    int port() const { return port_; }
    // The service's database file.
    std::string database() const { return core_->settings().database; }

private:
    std::unique_ptr<egwservice::EventSource> events_;
    std::unique_ptr<egwservice::ServiceCore> core_;
    std::unique_ptr<egwservice::PanelServer> server_;
    std::thread thread_;
    int port_ = 0;
    std::string directory_;
};

} // namespace servicetest

#endif
