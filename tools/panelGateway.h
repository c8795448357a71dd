// Where the panel tool's answers come from: the gateway in this process, over the simulator's tree
// loaded from files, or a panel service over the network (egw --connect). The commands ask both
// the same questions through this interface, so that both give the same output.
#ifndef TOOLS_PANEL_GATEWAY_H
#define TOOLS_PANEL_GATEWAY_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "elementGateway.h"
#include "tools/panelConfig.h"

namespace egwtool
{

struct PropertyInfo
{
    UINT32 id;
    UINT32 storage;
};

// One event delivered to the tool: its id, element and data (the 16-byte state-change record).
struct DeliveredEvent
{
    UINT32 eventId = 0;
    UINT32 uuid = 0;
    std::string data;
};

// The panel refused what was asked (a remote panel's words), or could not be reached.
class GatewayError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// ---- The panel service's records: its audit trail and its event memory ----

// Which records are wanted, newest first; 0 (or empty) means no bound.
struct RecordQuery
{
    std::int64_t fromMs = 0;     // UTC milliseconds
    std::int64_t toMs = 0;       // UTC milliseconds
    UINT32 uuid = 0;             // audit: this element's rows; history: it and every one below it
    std::string operation;       // audit only
    std::vector<int> categories; // history only: event categories of the detail record
    std::int64_t beforeId = 0;   // paging: the last id of the previous page
    int max = 50;                // 1 to 1000
};

// One row of the audit trail.
struct AuditLine
{
    std::int64_t id = 0;
    std::int64_t timeMs = 0;
    std::int64_t sessionId = 0;
    std::string peer;
    int level = 1;
    std::string operation;
    UINT32 uuid = 0;
    std::string idString;
    std::optional<std::string> before;
    std::optional<std::string> after;
    std::string result;
};

// One stored event.
struct StoredEvent
{
    std::int64_t id = 0;
    std::int64_t timeMs = 0;
    UINT32 eventId = 0;
    UINT32 uuid = 0;
    std::string idString;
    bool stateChange = false; // group, value and previous hold the change
    UINT32 group = 0;
    UINT32 value = 0;
    UINT32 previous = 0;
    int category = -1; // -1: no detail record
    UINT32 source = 0;
    std::int64_t lost = 0; // > 0: a gap row, standing for that many events never stored
};

class RecordSource
{
public:
    virtual ~RecordSource() = default;
    // Throws GatewayError when the records cannot be read or the service refuses.
    virtual std::vector<AuditLine> audit(const RecordQuery& query) = 0;
    virtual std::vector<StoredEvent> history(const RecordQuery& query) = 0;
};

// The records in the service's database file, opened read-only; throws GatewayError.
std::unique_ptr<RecordSource> databaseRecords(const std::string& file);

class PanelGateway
{
public:
    virtual ~PanelGateway() = default;

    // The panel's name.
    virtual std::string panelName() = 0;

    // ---- The tree: uuids, 0 for none ----
    virtual UINT32 root() = 0;
    // Every element, the root first, in pre-order.
    virtual std::vector<UINT32> allElements() = 0;
    virtual UINT32 parent(UINT32 uuid) = 0;
    virtual std::vector<UINT32> children(UINT32 uuid) = 0;
    // The tagged type id; 0 when the uuid names no element.
    virtual UINT32 type(UINT32 uuid) = 0;
    virtual std::string idString(UINT32 uuid) = 0;
    // The element's address record; false when it has none.
    virtual bool addressRecord(UINT32 uuid, S_EGW_THRIFT_ADDRESS_STRUCT& record) = 0;
    // An integer property; false when the element holds none.
    virtual bool integer(UINT32 uuid, UINT32 propertyId, UINT32& value) = 0;
    // One property's value as a panel file writes it (JSON text); "null" when the element holds
    // none.
    virtual std::string propertyJson(UINT32 uuid, UINT32 propertyId) = 0;
    // Writes a value written as in a panel file; false with the problem in `error`.
    virtual bool writeProperty(UINT32 uuid, UINT32 propertyId, const std::string& valueText,
                               std::string& error) = 0;
    virtual std::vector<UINT32> related(UINT32 uuid, UINT32 relationType, bool forward) = 0;
    // The event category of the element, its detail record filled.
    virtual int eventDetail(UINT32 uuid, ENENT_FIELD& field) = 0;

    // ---- The type library ----
    virtual std::vector<PropertyInfo> properties(UINT32 type) = 0;
    virtual std::vector<UINT32> stateGroups(UINT32 type) = 0;
    virtual std::vector<UINT32> stateValues(UINT32 group) = 0;
    virtual std::vector<UINT32> commands(UINT32 type) = 0;

    // ---- States, commands, events ----
    // 0: none.
    virtual UINT32 state(UINT32 uuid, UINT32 group) = 0;
    // Throws GatewayError when the panel refuses.
    virtual void setState(UINT32 uuid, UINT32 group, UINT32 value) = 0;
    virtual void execute(UINT32 uuid, UINT32 command) = 0;
    // Follows every state change of the elements of the type; false when it has none to follow.
    virtual bool followStateChanges(UINT32 type) = 0;
    virtual bool nextEvent(DeliveredEvent& event, std::chrono::milliseconds timeout) = 0;

    // The element's key in the panel file, empty when it has none.
    virtual std::string keyOf(UINT32 uuid) = 0;
    // The uuid of a key, 0 when no element has it.
    virtual UINT32 uuidOf(const std::string& key) = 0;

    // The records of the panel service; none (null) for the panel in this process.
    virtual RecordSource* records() { return nullptr; }
};

// The panel tool's module in this process: the panel's display manager.
constexpr UINT32 kDisplayModule = 5;

// The gateway of this process; the keys are those of the loaded panel file.
std::unique_ptr<PanelGateway> localGateway(const panelconfig::LoadedPanel& panel);

struct Connection
{
    std::string hostPort;   // HOST:PORT
    bool compact = false;   // the compact protocol
    int level = 1;          // the access level to log in at
    std::string password;
    // TLS, when tlsCa is given: the CA file that signed the service's certificate, and the
    // client certificate and key for a service that requires one (PEM files).
    std::string tlsCa;
    std::string tlsCert;
    std::string tlsKey;
};
// Splits "HOST:PORT" (the host may be "[v6]"); false when it is not of that form or the port is
// not 1 to 65535. hostPortRule() is the refusal's text.
bool splitHostPort(const std::string& text, std::string& host, int& port);
std::string hostPortRule(const std::string& text);

// A session with the panel service; throws GatewayError when it cannot be opened.
std::unique_ptr<PanelGateway> remoteGateway(const Connection& connection);

} // namespace egwtool

#endif
