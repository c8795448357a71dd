// The tool's answers from a panel service over the network: one session with egwd, each question
// one request. The service's refusals come back as GatewayError with the service's own words.
#include <csignal>
#include <map>

#include <nlohmann/json.hpp>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TCompactProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSSLSocket.h>
#include <thrift/transport/TSocket.h>

#include "PanelService.h"
#include "tools/panelGateway.h"
#include "tools/serviceRecords.h"

namespace egwtool
{
namespace
{

namespace rpc = ::egw::rpc;
using Json = nlohmann::ordered_json;
using apache::thrift::transport::TSocket;
using apache::thrift::transport::TSSLSocketFactory;

constexpr int kReplyWaitMs = 70000; // longer than the longest poll the service allows
constexpr UINT32 kTruthStorage = 1;
constexpr UINT32 kDateTimeStorage = 2;

template <typename From>
std::vector<UINT32> words(const std::vector<From>& list)
{
    std::vector<UINT32> out;
    for (const From value : list)
    {
        out.push_back(static_cast<UINT32>(value));
    }
    return out;
}

// "HOST:PORT" or "[IPv6]:PORT".
void splitHostPort(const std::string& text, std::string& host, int& port)
{
    const std::size_t colon = text.rfind(':');
    std::size_t used = 0;
    try
    {
        port = colon == std::string::npos ? -1 : std::stoi(text.substr(colon + 1), &used);
    }
    catch (const std::logic_error&)
    {
        port = -1;
    }
    if (port <= 0 || port > 65535 || used != text.size() - colon - 1 || colon == 0)
    {
        throw GatewayError("--connect " + text + ": expected HOST:PORT, such as 127.0.0.1:9190");
    }
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    {
        host = host.substr(1, host.size() - 2);
    }
}

// A plain socket, or with --tls-ca a TLS one: the service's certificate must be signed by that CA
// and name the host as given (an IP address or a DNS name in its subjectAltName); with
// --tls-cert/--tls-key the client shows its own certificate.
std::shared_ptr<TSocket> openSocket(const Connection& connection, const std::string& host, int port,
                                    std::shared_ptr<TSSLSocketFactory>& tls)
{
    if (connection.tlsCa.empty())
    {
        if (!connection.tlsCert.empty() || !connection.tlsKey.empty())
        {
            throw GatewayError("--tls-cert and --tls-key need --tls-ca");
        }
        return std::make_shared<TSocket>(host, port);
    }
    if (connection.tlsCert.empty() != connection.tlsKey.empty())
    {
        throw GatewayError(connection.tlsCert.empty() ? "--tls-key needs --tls-cert"
                                                      : "--tls-cert needs --tls-key");
    }
    // The factory holds OpenSSL's state; it is kept as long as the socket.
    tls = std::make_shared<TSSLSocketFactory>();
    try
    {
        tls->loadTrustedCertificates(connection.tlsCa.c_str());
        tls->authenticate(true);
        if (!connection.tlsCert.empty())
        {
            tls->loadCertificate(connection.tlsCert.c_str());
            tls->loadPrivateKey(connection.tlsKey.c_str());
        }
    }
    catch (const apache::thrift::TException& e)
    {
        throw GatewayError("TLS files: " + std::string(e.what()));
    }
    return tls->createSocket(host, port);
}

class RemoteGateway : public PanelGateway, public RecordSource
{
public:
    explicit RemoteGateway(const Connection& connection) : where_(connection.hostPort)
    {
        // A service that closes the connection (a refused certificate, all connections in use)
        // is reported as an error, not ended by SIGPIPE.
        std::signal(SIGPIPE, SIG_IGN);
        std::string host;
        int port = 0;
        splitHostPort(connection.hostPort, host, port);
        const std::shared_ptr<TSocket> socket = openSocket(connection, host, port, tls_);
        socket->setRecvTimeout(kReplyWaitMs);
        transport_ = std::make_shared<apache::thrift::transport::TFramedTransport>(socket);
        std::shared_ptr<apache::thrift::protocol::TProtocol> protocol;
        if (connection.compact)
        {
            protocol = std::make_shared<apache::thrift::protocol::TCompactProtocol>(transport_);
        }
        else
        {
            protocol = std::make_shared<apache::thrift::protocol::TBinaryProtocol>(transport_);
        }
        client_ = std::make_unique<rpc::PanelServiceClient>(protocol);
        ask([&] {
            transport_->open();
            if (connection.level > 1)
            {
                rpc::SessionInfo session;
                client_->login(session, connection.level, connection.password);
            }
            // One round trip per page of keys.
            rpc::KeyPage page;
            do
            {
                client_->getElementKeys(page, page.nextAfter, 0);
                keys_.insert(page.keys.begin(), page.keys.end());
            } while (page.nextAfter != 0);
        });
        for (const auto& key : keys_)
        {
            uuids_.emplace(key.second, static_cast<UINT32>(key.first));
        }
    }
    ~RemoteGateway() override
    {
        try
        {
            transport_->close();
        }
        catch (const std::exception&)
        {
        }
    }

    RecordSource* records() override { return this; }
    std::vector<AuditLine> audit(const RecordQuery& query) override
    {
        rpc::AuditQuery asked;
        asked.fromMs = query.fromMs;
        asked.toMs = query.toMs;
        asked.uuid = query.uuid;
        asked.operation = query.operation;
        asked.beforeId = query.beforeId;
        asked.max = query.max;
        std::vector<rpc::AuditEntry> entries;
        ask([&] { client_->queryAudit(entries, asked); });
        std::vector<AuditLine> lines;
        for (const rpc::AuditEntry& entry : entries)
        {
            AuditLine line;
            line.id = entry.id;
            line.timeMs = entry.timeMs;
            line.sessionId = entry.sessionId;
            line.peer = entry.peer;
            line.level = entry.accessLevel;
            line.operation = entry.operation;
            line.uuid = word(entry.uuid);
            line.idString = entry.idString;
            if (entry.__isset.before)
            {
                line.before = entry.before;
            }
            if (entry.__isset.after)
            {
                line.after = entry.after;
            }
            line.result = entry.result;
            lines.push_back(std::move(line));
        }
        return lines;
    }
    std::vector<StoredEvent> history(const RecordQuery& query) override
    {
        rpc::EventQuery asked;
        asked.fromMs = query.fromMs;
        asked.toMs = query.toMs;
        asked.categories.assign(query.categories.begin(), query.categories.end());
        asked.subtree = query.uuid;
        asked.beforeId = query.beforeId;
        asked.max = query.max;
        std::vector<rpc::Event> events;
        ask([&] { client_->queryEvents(events, asked); });
        std::vector<StoredEvent> stored;
        for (const rpc::Event& event : events)
        {
            stored.push_back(storedEventOf(event));
        }
        return stored;
    }

    std::string panelName() override
    {
        rpc::ServiceInfo info;
        ask([&] { client_->getServiceInfo(info); });
        return info.panelDescription;
    }
    UINT32 root() override
    {
        return ask([&] { return word(client_->getRoot()); });
    }
    std::vector<UINT32> allElements() override
    {
        // The whole tree one page at a time, so that the service never holds it for long.
        std::vector<rpc::Uuid> list;
        rpc::UuidPage page;
        do
        {
            ask([&] { client_->collectSubtree(page, 0, 0, page.nextAfter, 0); });
            list.insert(list.end(), page.uuids.begin(), page.uuids.end());
        } while (page.nextAfter != 0);
        return words(list);
    }
    UINT32 parent(UINT32 uuid) override
    {
        return ask([&] { return word(client_->getParent(uuid)); });
    }
    std::vector<UINT32> children(UINT32 uuid) override
    {
        std::vector<rpc::Uuid> list;
        ask([&] { client_->getChildren(list, uuid); });
        return words(list);
    }
    UINT32 type(UINT32 uuid) override
    {
        return orWhenRefused(UINT32{0}, rpc::ErrorCode::NO_SUCH_ELEMENT,
                             [&] { return word(client_->getElementType(uuid)); });
    }
    std::string idString(UINT32 uuid) override
    {
        std::string text;
        ask([&] { client_->getIdString(text, uuid); });
        return text;
    }
    bool addressRecord(UINT32 uuid, S_EGW_THRIFT_ADDRESS_STRUCT& record) override
    {
        return orWhenRefused(false, rpc::ErrorCode::NOT_DEFINED, [&] {
            rpc::AddressRecord answer;
            client_->getAddressRecord(answer, uuid);
            record.mData = word(answer.data);
            record.mDataType = word(answer.dataType);
            return true;
        });
    }
    bool integer(UINT32 uuid, UINT32 propertyId, UINT32& value) override
    {
        return orWhenRefused(false, rpc::ErrorCode::NOT_DEFINED, [&] {
            value = static_cast<UINT32>(client_->getInteger(uuid, propertyId));
            return true;
        });
    }
    std::string propertyJson(UINT32 uuid, UINT32 propertyId) override
    {
        rpc::PropertyValue value;
        const bool read = orWhenRefused(false, rpc::ErrorCode::NOT_DEFINED, [&] {
            client_->readProperty(value, uuid, propertyId);
            return true;
        });
        Json json;
        if (read && value.present)
        {
            if (value.__isset.truth)
            {
                json = value.truth;
            }
            else if (value.__isset.integer)
            {
                json = value.integer;
            }
            else if (value.__isset.dateTime)
            {
                const rpc::DateTime& d = value.dateTime;
                json = {{"year", d.year},
                        {"month", d.month},
                        {"day", d.day},
                        {"weekDay", d.weekDay},
                        {"secondOfDay", d.secondOfDay},
                        {"microsecond", d.microsecond}};
            }
            else if (value.storageType != kDateTimeStorage)
            {
                json = value.bytes;
            }
        }
        return json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    bool writeProperty(UINT32 uuid, UINT32 propertyId, const std::string& valueText,
                       std::string& error) override
    {
        const Json value = Json::parse(valueText, nullptr, false);
        try
        {
            const auto storage = static_cast<UINT32>(
                ask([&] { return client_->getPropertyStorageType(propertyId); }));
            if (storage == kTruthStorage && value.is_boolean())
            {
                ask([&] { client_->setBool(uuid, propertyId, value.get<bool>()); });
            }
            else if (value.is_number_integer())
            {
                ask([&] { client_->setInteger(uuid, propertyId, value.get<std::int64_t>()); });
            }
            else if (storage == kDateTimeStorage && value.is_object())
            {
                rpc::DateTime d;
                d.year = value.value("year", 0);
                d.month = value.value("month", 0);
                d.day = value.value("day", 0);
                d.weekDay = value.value("weekDay", 0);
                d.secondOfDay = value.value("secondOfDay", std::int64_t{0});
                d.microsecond = value.value("microsecond", std::int64_t{0});
                ask([&] { client_->setDateTime(uuid, propertyId, d); });
            }
            else
            {
                // A byte-string property also takes the bare text.
                const std::string bytes = value.is_string() ? value.get<std::string>() : valueText;
                ask([&] { client_->setBytes(uuid, propertyId, bytes); });
            }
            return true;
        }
        catch (const GatewayError& e)
        {
            error = e.what();
            return false;
        }
    }
    std::vector<UINT32> related(UINT32 uuid, UINT32 relationType, bool forward) override
    {
        std::vector<rpc::Uuid> list;
        ask([&] { client_->getRelations(list, uuid, relationType, forward); });
        return words(list);
    }
    int eventDetail(UINT32 uuid, ENENT_FIELD& field) override
    {
        rpc::EventDetail d;
        ask([&] { client_->getEventDetail(d, uuid); });
        field.SelfID = word(d.selfId);
        field.SelfAddress = word(d.selfAddress);
        field.ParentID = word(d.parentId);
        field.ParentAddress = word(d.parentAddress);
        field.DeviceID = word(d.deviceId);
        field.HasProxy = d.hasProxy;
        field.ProxyID = word(d.proxyId);
        field.ProxyAddress = word(d.proxyAddress);
        return d.category;
    }

    std::vector<PropertyInfo> properties(UINT32 type) override
    {
        std::vector<PropertyInfo> out;
        for (const rpc::PropertyDefinition& p : typeInfo(type).properties)
        {
            out.push_back({word(p.propertyId), word(p.storageType)});
        }
        return out;
    }
    std::vector<UINT32> stateGroups(UINT32 type) override
    {
        return words(typeInfo(type).stateGroups);
    }
    std::vector<UINT32> stateValues(UINT32 group) override
    {
        std::vector<rpc::Id> list;
        ask([&] { client_->getStateValues(list, group); });
        return words(list);
    }
    std::vector<UINT32> commands(UINT32 type) override { return words(typeInfo(type).commands); }

    UINT32 state(UINT32 uuid, UINT32 group) override
    {
        return ask([&] { return word(client_->getState(uuid, group)); });
    }
    void setState(UINT32 uuid, UINT32 group, UINT32 value) override
    {
        ask([&] { client_->setState(uuid, group, value); });
    }
    void execute(UINT32 uuid, UINT32 command) override
    {
        ask([&] { client_->executeCommand(uuid, command, 0, std::string()); });
    }
    bool followStateChanges(UINT32 type) override
    {
        rpc::Subscription subscription;
        subscription.kind = rpc::SubscriptionKind::ALL_STATE_CHANGES;
        subscription.target = type;
        return orWhenRefused(false, rpc::ErrorCode::NOT_DEFINED, [&] {
            client_->subscribe(subscription);
            return true;
        });
    }
    bool nextEvent(DeliveredEvent& event, std::chrono::milliseconds timeout) override
    {
        const auto until = std::chrono::steady_clock::now() + timeout;
        while (pending_.empty())
        {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                until - std::chrono::steady_clock::now());
            if (left.count() <= 0)
            {
                return false;
            }
            std::vector<rpc::Event> events;
            ask([&] { client_->nextEvents(events, 100, static_cast<std::int32_t>(left.count())); });
            for (rpc::Event& e : events)
            {
                if (e.lost > 0)
                {
                    throw GatewayError(where_ + ": " + std::to_string(e.lost) +
                                       " events were lost before they could be shown");
                }
                pending_.push_back({word(e.eventId), word(e.uuid), std::move(e.data)});
            }
        }
        event = std::move(pending_.front());
        pending_.erase(pending_.begin());
        return true;
    }

    std::string keyOf(UINT32 uuid) override
    {
        const auto found = keys_.find(uuid);
        return found == keys_.end() ? std::string() : found->second;
    }
    UINT32 uuidOf(const std::string& key) override
    {
        const auto found = uuids_.find(key);
        return found == uuids_.end() ? 0 : found->second;
    }

private:
    static UINT32 word(std::int64_t value) { return static_cast<UINT32>(value); }

    // Runs one request; the service's refusal and a lost connection become GatewayError.
    template <typename Request>
    auto ask(Request&& request) -> decltype(request())
    {
        try
        {
            return request();
        }
        catch (const rpc::PanelError& e)
        {
            throw Refused(e.code, e.message);
        }
        catch (const apache::thrift::transport::TTransportException& e)
        {
            // The service closes a connection before answering when all its connections are in
            // use, or when it speaks TLS and this one does not.
            const bool closed =
                e.getType() == apache::thrift::transport::TTransportException::END_OF_FILE;
            throw GatewayError(where_ + ": " + e.what() +
                               (closed ? " (the service closed the connection: all its connections "
                                         "may be in use, or it serves TLS only: --tls-ca)"
                                       : ""));
        }
        catch (const apache::thrift::TException& e)
        {
            throw GatewayError(where_ + ": " + e.what());
        }
    }

    // The request's answer, or `fallback` when the service refuses it with that code.
    template <typename T, typename Request>
    T orWhenRefused(T fallback, rpc::ErrorCode::type code, Request&& request)
    {
        try
        {
            return ask(request);
        }
        catch (const Refused& e)
        {
            if (e.code != code)
            {
                throw;
            }
            return fallback;
        }
    }

    const rpc::TypeInfo& typeInfo(UINT32 type)
    {
        auto found = types_.find(type);
        if (found == types_.end())
        {
            // A type the type library does not define has no definitions.
            rpc::TypeInfo info;
            orWhenRefused(false, rpc::ErrorCode::NOT_DEFINED, [&] {
                client_->getTypeInfo(info, type);
                return true;
            });
            found = types_.emplace(type, std::move(info)).first;
        }
        return found->second;
    }

    struct Refused : GatewayError
    {
        Refused(rpc::ErrorCode::type c, const std::string& message) : GatewayError(message), code(c)
        {
        }
        rpc::ErrorCode::type code;
    };

    std::string where_;
    std::shared_ptr<TSSLSocketFactory> tls_;
    std::shared_ptr<apache::thrift::transport::TTransport> transport_;
    std::unique_ptr<rpc::PanelServiceClient> client_;
    std::map<rpc::Uuid, std::string> keys_;
    std::map<std::string, UINT32> uuids_;
    std::map<UINT32, rpc::TypeInfo> types_;
    std::vector<DeliveredEvent> pending_;
};

} // namespace

std::unique_ptr<PanelGateway> remoteGateway(const Connection& connection)
{
    return std::make_unique<RemoteGateway>(connection);
}

} // namespace egwtool
