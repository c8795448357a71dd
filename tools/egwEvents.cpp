// Events as a panel module sees them: subscribed in bulk, delivered by the event dispatcher,
// decoded from their state-change record, matched against the display's patterns and filled with
// the event detail.
#include <chrono>
#include <ostream>
#include <set>

#include "tools/egwTool.h"

namespace egwtool
{
namespace
{

using panelconfig::IdKind;

// What the display makes of a state change: the first pattern that matches gives the title.
// Names the type library does not know drop their pattern.
struct Pattern
{
    const char* group; // null: any group
    const char* value; // the new value; null: any value
    const char* title;
};

const Pattern kPatterns[] = {
    {"FireAlarmState", "FireAlarm", "FIRE ALARM"},
    {"FireAlarmState", "PreAlarm", "PRE-ALARM"},
    {"FireAlarmState", "Normal", "ALARM RESET"},
    {"FaultState", "Normal", "FAULT CLEARED"},
    {"FaultState", nullptr, "FAULT"},
    {"DisablementState", "Disabled", "DISABLED"},
    {"DisablementState", "Enabled", "ENABLED"},
    {"TestState", "TestActive", "TEST"},
    {"OutputState", "Activated", "OUTPUT ACTIVATED"},
    {"OutputState", "Silenced", "OUTPUT SILENCED"},
    {"OutputState", "Normal", "OUTPUT RESET"},
    {"EvacuationState", nullptr, "EVACUATION"},
    {nullptr, nullptr, "STATE CHANGE"},
};

std::string matchPattern(const Panel& panel, const std::string& data)
{
    for (const Pattern& pattern : kPatterns)
    {
        EGW_GROUP_STATE_STRUCT row{0, 0, 0, 0};
        if ((pattern.group &&
             !panel.names().idOf(IdKind::StateGroup, pattern.group, row.mGroupId)) ||
            (pattern.value &&
             !panel.names().idOf(IdKind::StateValue, pattern.value, row.mFirstStateValue)))
        {
            continue;
        }
        if (EGW_BASIC_CompareTableData(data.data(), static_cast<UINT32>(data.size()), &row, 1) ==
            TRUE)
        {
            return pattern.title;
        }
    }
    return std::string();
}

std::string valueText(const Panel& panel, UINT32 value)
{
    return value != 0 ? panel.names().nameOf(IdKind::StateValue, value) : std::string("none");
}

// The elements of the panel, in pre-order (a panel file's order), whose type passes the test.
template <typename Test>
std::vector<UINT32> elementsWhere(const Panel& panel, Test test)
{
    std::vector<UINT32> found;
    for (const UINT32 uuid : panel.gateway().allElements())
    {
        if (test(panel.gateway().type(uuid)))
        {
            found.push_back(uuid);
        }
    }
    return found;
}

// Follows the state changes of each type once; the followed types.
Json followTypes(const Panel& panel, const std::vector<UINT32>& elements)
{
    std::set<UINT32> done;
    Json types = Json::array();
    for (UINT32 uuid : elements)
    {
        const UINT32 type = panel.gateway().type(uuid);
        if (done.insert(type).second && panel.gateway().followStateChanges(type))
        {
            types.push_back(panel.idText(IdKind::ElementType, type));
        }
    }
    return types;
}

Json setState(const Panel& panel, UINT32 uuid, const char* group, const char* value)
{
    const UINT32 groupId = panel.id(IdKind::StateGroup, group);
    const UINT32 valueId = panel.id(IdKind::StateValue, value);
    try
    {
        panel.gateway().setState(uuid, groupId, valueId);
    }
    catch (const GatewayError& e)
    {
        throw ToolError(std::string("the panel refused ") + group + " " + value + " on element " +
                        std::to_string(uuid) + ": " + e.what());
    }
    return {{"element", elementSummary(panel, uuid)}, {"group", group}, {"value", value}};
}

Json delivered(const Panel& panel, const DeliveredEvent& event)
{
    return {{"eventId", hexText(event.eventId, 8)},
            {"uuid", event.uuid},
            {"decoded", decodeStateChange(panel, event.data)}};
}

// The events that one change brought: the first is waited for, the rest are those already there.
Json eventsOf(const Panel& panel, const char* what)
{
    Json events = Json::array();
    DeliveredEvent event;
    if (!panel.gateway().nextEvent(event, std::chrono::seconds(2)))
    {
        throw ToolError(std::string("the ") + what + " was not delivered to the tool");
    }
    do
    {
        events.push_back(delivered(panel, event));
    } while (panel.gateway().nextEvent(event, std::chrono::milliseconds(0)));
    return events;
}

// The display's lines for one decoded state change.
void printDisplay(const Json& decoded, std::ostream& out)
{
    const Json& element = decoded["detail"]["element"];
    out << "  " << decoded["pattern"].get<std::string>() << "  "
        << (element.is_null() ? std::string("(no element)")
                              : element["typeName"].get<std::string>() +
                                    (element.contains("label")
                                         ? " \"" + element["label"].get<std::string>() + "\""
                                         : std::string()))
        << '\n'
        << "    ID string " << decoded["idString"].get<std::string>() << "; "
        << decoded["group"].get<std::string>() << ": " << decoded["previous"].get<std::string>()
        << " -> " << decoded["value"].get<std::string>() << '\n';
    printEventDetail(decoded["detail"], out, "    ");
}

} // namespace

Json decodeStateChange(const Panel& panel, const std::string& data)
{
    EGW_CONTROLPARA record{};
    const BOOL valid =
        EGW_BASIC_UnpackStateChangeInforData(record, data.data(), static_cast<UINT32>(data.size()));
    const std::string idString = panel.gateway().idString(record.mUuid);
    // The element server puts the new value first and the one it replaced second.
    return {{"valid", valid == TRUE},
            {"uuid", record.mUuid},
            {"group", panel.names().nameOf(IdKind::StateGroup, record.mGroupId)},
            {"value", valueText(panel, record.mFirstStateValue)},
            {"previous", valueText(panel, record.mSecondStateValue)},
            {"pattern", matchPattern(panel, data)},
            {"idString", idString},
            {"detail", eventDetail(panel, record.mUuid)}};
}

Json demoCommand(const Panel& panel)
{
    ENEventFormat format;
    const std::vector<UINT32> detectors =
        elementsWhere(panel, [&](UINT32 type) { return format.IsDetector(type); });
    const std::vector<UINT32> sounders =
        elementsWhere(panel, [&](UINT32 type) { return format.IsAddresSounder(type); });
    if (detectors.empty() || sounders.empty())
    {
        throw ToolError("the demo needs a detector to raise an alarm on and a sounder to silence");
    }
    Json answer;
    answer["panel"] = panel.gateway().panelName();
    answer["tree"] = treeAnswer(panel);
    std::vector<UINT32> followed = {detectors.front(), sounders.front()};
    answer["subscribedTypes"] = followTypes(panel, followed);
    // The fire alarm, the sounder that the panel's cause and effect sounds, and the operator's
    // silencing of it; then the panel is put back to normal.
    answer["raised"] = setState(panel, detectors.front(), "FireAlarmState", "FireAlarm");
    answer["event"] = eventsOf(panel, "fire alarm").at(0);
    setState(panel, sounders.front(), "OutputState", "Activated");
    eventsOf(panel, "sounder's activation");
    answer["silenced"] = setState(panel, sounders.front(), "OutputState", "Silenced");
    answer["silenceEvent"] = eventsOf(panel, "silencing").at(0);
    setState(panel, sounders.front(), "OutputState", "Normal");
    setState(panel, detectors.front(), "FireAlarmState", "Normal");
    eventsOf(panel, "reset");
    return answer;
}

void printDemo(const Json& answer, std::ostream& out)
{
    out << "Panel: " << answer["panel"].get<std::string>() << "\n\n";
    printTree(answer["tree"], out);
    out << "\nSubscribed to the state changes of:";
    for (const Json& type : answer["subscribedTypes"])
    {
        out << "\n  " << type.get<std::string>();
    }
    for (const auto& [action, event] : {std::pair<const char*, const char*>{"raised", "event"},
                                        {"silenced", "silenceEvent"}})
    {
        const Json& done = answer[action];
        out << "\n\n"
            << (std::string(action) == "raised" ? "Raised " : "Silenced: ")
            << done["group"].get<std::string>() << " " << done["value"].get<std::string>()
            << " on #" << done["element"]["uuid"].get<UINT32>() << "\n"
            << "Delivered event " << answer[event]["eventId"].get<std::string>() << "\n\n"
            << "Panel display:\n";
        printDisplay(answer[event]["decoded"], out);
    }
}

Json eventsCommand(const Panel& panel)
{
    ENEventFormat format;
    const std::vector<UINT32> detectors =
        elementsWhere(panel, [&](UINT32 type) { return format.IsDetector(type); });
    const std::vector<UINT32> sounders =
        elementsWhere(panel, [&](UINT32 type) { return format.IsAddresSounder(type); });
    if (detectors.size() < 2 || sounders.empty())
    {
        throw ToolError("the scripted sequence needs two detectors and a sounder in the panel");
    }
    struct Step
    {
        UINT32 uuid;
        const char* group;
        const char* value;
    };
    const Step script[] = {
        {detectors[0], "FireAlarmState", "PreAlarm"},
        {detectors[0], "FireAlarmState", "FireAlarm"},
        {sounders[0], "OutputState", "Activated"},
        {detectors[1], "FaultState", "FaultOpenCircuit"},
        {sounders[0], "OutputState", "Normal"},
        {detectors[0], "FireAlarmState", "Normal"},
        {detectors[1], "FaultState", "Normal"},
    };
    Json answer;
    answer["subscribedTypes"] = followTypes(panel, panel.gateway().allElements());
    answer["steps"] = Json::array();
    for (const Step& step : script)
    {
        Json done = setState(panel, step.uuid, step.group, step.value);
        done["events"] = eventsOf(panel, "state change");
        answer["steps"].push_back(std::move(done));
    }
    return answer;
}

void printEvents(const Json& answer, std::ostream& out)
{
    out << "Subscribed to the state changes of " << answer["subscribedTypes"].size()
        << " element types\n";
    for (const Json& step : answer["steps"])
    {
        out << "\n"
            << step["group"].get<std::string>() << " " << step["value"].get<std::string>()
            << " on #" << step["element"]["uuid"].get<UINT32>() << " "
            << step["element"]["typeName"].get<std::string>() << ": " << step["events"].size()
            << " event(s)\n";
        for (const Json& event : step["events"])
        {
            out << "  event " << event["eventId"].get<std::string>() << '\n';
            printDisplay(event["decoded"], out);
        }
    }
}

} // namespace egwtool
