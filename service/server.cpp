#include "service/server.h"

#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TCompactProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

namespace egwservice
{
namespace
{

using apache::thrift::TConnectionInfo;
using apache::thrift::server::TServerEventHandler;
using apache::thrift::transport::TServerSocket;
using apache::thrift::transport::TSocket;

// A string or list longer than this in a request is refused by the protocol before it is read.
constexpr int kLongestString = 16 * 1024 * 1024;
constexpr int kLongestList = 1000000;

class HandlerFactory : public rpc::PanelServiceIfFactory
{
public:
    explicit HandlerFactory(ServiceCore& core) : core_(core) {}

    rpc::PanelServiceIf* getHandler(const TConnectionInfo& connection) override
    {
        std::string peer = "unknown";
        if (const auto socket = std::dynamic_pointer_cast<TSocket>(connection.transport))
        {
            peer = socket->getPeerAddress() + ":" + std::to_string(socket->getPeerPort());
        }
        return new PanelHandler(core_, peer);
    }

    void releaseHandler(rpc::PanelServiceIf* handler) override { delete handler; }

private:
    ServiceCore& core_;
};

} // namespace

// Tells the bound port once the server listens.
struct PanelServer::Listening : TServerEventHandler
{
    std::shared_ptr<TServerSocket> socket;
    std::function<void(int)> callback;

    void preServe() override
    {
        if (callback)
        {
            callback(socket->getPort());
        }
    }
};

PanelServer::PanelServer(ServiceCore& core, const ServerSettings& settings)
    : core_(core), listening_(std::make_shared<Listening>())
{
    listening_->socket = std::make_shared<TServerSocket>(settings.address, settings.port);
    std::shared_ptr<apache::thrift::protocol::TProtocolFactory> protocol;
    if (settings.compact)
    {
        protocol = std::make_shared<apache::thrift::protocol::TCompactProtocolFactory>(
            kLongestString, kLongestList);
    }
    else
    {
        protocol = std::make_shared<apache::thrift::protocol::TBinaryProtocolFactory>(
            kLongestString, kLongestList, false, true);
    }
    server_ = std::make_unique<apache::thrift::server::TThreadedServer>(
        std::make_shared<rpc::PanelServiceProcessorFactory>(std::make_shared<HandlerFactory>(core)),
        listening_->socket,
        std::make_shared<apache::thrift::transport::TFramedTransportFactory>(), protocol);
    server_->setConcurrentClientLimit(settings.maxConnections);
    server_->setServerEventHandler(listening_);
}

PanelServer::~PanelServer() = default;

void PanelServer::serve(const std::function<void(int port)>& listening)
{
    listening_->callback = listening;
    server_->serve();
}

void PanelServer::stop()
{
    core_.events().stop();
    server_->stop();
}

} // namespace egwservice
