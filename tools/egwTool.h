// The panel tool's own parts: the panel it works on, the descriptions of elements and events it
// prints, and its commands. Every command returns its answer as JSON; the text form is made from
// that JSON, so both forms always say the same.
#ifndef TOOLS_EGW_TOOL_H
#define TOOLS_EGW_TOOL_H

#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "elementGateway.h"
#include "tools/panelConfig.h"

namespace egwtool
{

using Json = nlohmann::ordered_json;

// A refusal of the command line or of the panel: printed as one message, exit status 1.
class ToolError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct Options
{
    std::string typesFile; // empty: the simulator's sample type library
    std::string panelFile; // empty: the sample panel compiled into the tool
    bool json = false;
};

// The module that the tool subscribes for: the panel's display manager.
constexpr UINT32 kDisplayModule = 5;

// The type library put in force and the panel loaded into the simulator's element tree.
class Panel
{
public:
    explicit Panel(const Options& options);

    const panelconfig::Vocabulary& names() const { return names_; }
    const panelconfig::LoadedPanel& loaded() const { return loaded_; }

    // An element named by its uuid or by its key in the panel file.
    UINT32 element(const std::string& uuidOrKey) const;
    // An id named by its type library name or number; refused when neither.
    UINT32 id(panelconfig::IdKind kind, const std::string& text) const;
    std::string keyOf(UINT32 uuid) const;
    // "0x70048 OpticalSmokeDetector", or the number alone when it has no name.
    std::string idText(panelconfig::IdKind kind, UINT32 id) const;

private:
    panelconfig::Vocabulary names_;
    panelconfig::LoadedPanel loaded_;
};

// ---- Descriptions -------------------------------------------------------------------------------

// uuid, key, type, ID string, address and label of an element.
Json elementSummary(const Panel& panel, UINT32 uuid);
// The event category of the element and the event detail record the panel would show.
Json eventDetail(const Panel& panel, UINT32 uuid);
// One state change delivered to a module, decoded: the record, the pattern it matched and the
// event detail.
Json decodeStateChange(const Panel& panel, const std::string& data);

// "0x1A", or with `digits` at least that many hexadecimal digits.
std::string hexText(UINT32 value, int digits = 0);

// ---- Commands -----------------------------------------------------------------------------------

Json treeCommand(const Panel& panel);
Json showCommand(const Panel& panel, UINT32 uuid);
Json getCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId);
Json setCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId, const std::string& value);
Json stateCommand(const Panel& panel, UINT32 uuid, UINT32 groupId, const std::string* value);
Json commandCommand(UINT32 uuid, UINT32 commandId);
Json demoCommand(const Panel& panel);
Json eventsCommand(const Panel& panel);

// The text form of each command's answer.
void printTree(const Json& answer, std::ostream& out);
void printShow(const Json& answer, std::ostream& out);
void printValue(const Json& answer, std::ostream& out);
void printDemo(const Json& answer, std::ostream& out);
void printEvents(const Json& answer, std::ostream& out);
// The lines of an event detail, each after the indent.
void printEventDetail(const Json& event, std::ostream& out, const std::string& indent);

} // namespace egwtool

#endif
