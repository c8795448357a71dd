// The panel tool's own parts: the panel it works on, the descriptions of elements and events it
// prints, and its commands. Every command returns its answer as JSON; the text form is made from
// that JSON, so both forms always say the same.
#ifndef TOOLS_EGW_TOOL_H
#define TOOLS_EGW_TOOL_H

#include <functional>
#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "elementGateway.h"
#include "tools/panelConfig.h"
#include "tools/panelGateway.h"

namespace egwtool
{

using Json = nlohmann::ordered_json;

// A refusal of the panel or of what a command asks: printed as one message, exit status 1.
class ToolError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A command line that cannot be used: printed as one message, exit status 2.
class UsageError : public ToolError
{
public:
    using ToolError::ToolError;
};

// The reader of standard output has gone (a closed pipe): the run ends quietly.
class ReaderGone : public std::exception
{
};

struct Options
{
    std::string typesFile; // empty: the simulator's sample type library
    std::string panelFile; // empty: the sample panel compiled into the tool
    bool json = false;
    Connection connection; // a remote panel when its hostPort is given
};

// Shows how far long work has come: a bar on standard error when it is a terminal, nothing
// otherwise. Each call of `step` gives the share done, 0 to 1; the bar is wiped when done.
class ProgressBar
{
public:
    explicit ProgressBar(const char* label);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void step(double done);
    panelconfig::Progress callback()
    {
        return [this](double done) { step(done); };
    }

private:
    const char* label_;
    bool shown_;
    int drawn_ = -1;
};

// The type library put in force and, unless left out, the panel: loaded into the simulator's
// element tree, or a remote panel service's (--connect). The commands ask it through gateway().
class Panel
{
public:
    explicit Panel(const Options& options, bool withPanel = true);

    PanelGateway& gateway() const { return *gateway_; }
    bool remote() const { return remote_; }

    const panelconfig::Vocabulary& names() const { return names_; }
    const panelconfig::LoadedPanel& loaded() const { return loaded_; }

    // An element named by its uuid or by its key in the panel file.
    UINT32 element(const std::string& uuidOrKey) const;
    // An id named by its type library name or number; refused when neither.
    UINT32 id(panelconfig::IdKind kind, const std::string& text) const;
    std::string keyOf(UINT32 uuid) const { return gateway_->keyOf(uuid); }
    // "0x70048 OpticalSmokeDetector", or the number alone when it has no name.
    std::string idText(panelconfig::IdKind kind, UINT32 id) const;
    // Where the type library came from: its file, or the sample's name.
    const std::string& typesSource() const { return typesSource_; }

private:
    std::string typesSource_;
    panelconfig::Vocabulary names_;
    panelconfig::LoadedPanel loaded_;
    bool remote_ = false;
    std::unique_ptr<PanelGateway> gateway_;
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

// The tree, element by element in depth-first order, handed to `visit` as it is walked, so that a
// panel of any size is printed without being held: each element's summary, its depth, whether
// children follow, and after an element's last child a call with a null summary.
using TreeVisitor = std::function<void(const Json* summary, std::size_t depth, bool hasChildren)>;
void treeCommand(const Panel& panel, const TreeVisitor& visit);
// The whole tree as one answer, each element's children in its "children"; for small panels.
Json treeAnswer(const Panel& panel);
// The element types of the type library in force, each with its properties, state groups,
// commands and child types.
Json typesCommand(const Panel& panel);
Json showCommand(const Panel& panel, UINT32 uuid);
Json getCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId);
Json setCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId, const std::string& value);
Json stateCommand(const Panel& panel, UINT32 uuid, UINT32 groupId, const std::string* value);
Json commandCommand(const Panel& panel, UINT32 uuid, UINT32 commandId);
Json demoCommand(const Panel& panel);
Json eventsCommand(const Panel& panel);
// The audit trail and the stored events of the panel service, newest first: {"rows": [...],
// "next": the id to page on from, null on the last page}.
Json auditCommand(RecordSource& source, const RecordQuery& query);
Json historyCommand(const Panel& panel, RecordSource& source, const RecordQuery& query);
// UTC milliseconds as "2026-11-23T14:05:00.000Z".
std::string timeText(std::int64_t ms);
// "2026-11-23T14:05:00Z", "2026-11-23 14:05" or "2026-11-23" (UTC) in milliseconds; refused
// with the option's name.
std::int64_t parseTime(const std::string& text, const std::string& option);

// The text form of each command's answer.
// The tree's printers: one line an element, indented; or one JSON document of nested elements.
TreeVisitor treeText(std::ostream& out);
TreeVisitor treeJson(std::ostream& out);
void printTree(const Json& answer, std::ostream& out);
// The type reference as a Markdown page.
void printTypes(const Json& answer, std::ostream& out);
void printShow(const Json& answer, std::ostream& out);
void printValue(const Json& answer, std::ostream& out);
void printDemo(const Json& answer, std::ostream& out);
void printEvents(const Json& answer, std::ostream& out);
void printAudit(const Json& answer, std::ostream& out);
void printHistory(const Json& answer, std::ostream& out);
// The lines of an event detail, each after the indent.
void printEventDetail(const Json& event, std::ostream& out, const std::string& indent);

} // namespace egwtool

#endif
