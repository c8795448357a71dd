// Where the panel tool's answers come from: the gateway in this process, over the simulator's tree
// loaded from files, or a panel service over the network (egw --connect). The commands ask both
// the same questions through this interface, so that both give the same output.
#ifndef TOOLS_PANEL_GATEWAY_H
#define TOOLS_PANEL_GATEWAY_H

#include <chrono>
#include <memory>
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
};
// A session with the panel service; throws GatewayError when it cannot be opened.
std::unique_ptr<PanelGateway> remoteGateway(const Connection& connection);

} // namespace egwtool

#endif
