// What the tool says about elements: summaries, the tree, one element in full, single values,
// and the event detail that the panel's display shows for an element.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <ostream>

#include "tools/egwTool.h"

namespace egwtool
{
namespace
{

using panelconfig::IdKind;

constexpr UINT32 kAddressProperty = 0x30004;
// The relation types a panel file uses: zone membership and proxy.
constexpr UINT32 kShownRelations[] = {0x20001, 0x20002};

// The tool's own words for the event categories, as the display groups them.
const char* const kCategoryNames[] = {
    "no element",
    "panel or network node",
    "mains supervision",
    "member of an input zone",
    "circuit of a board",
    "input/output module",
    "channel of a module",
    "detector",
    "addressable sounder",
    "sounder or door channel",
    "control group",
    "zone",
    "detector base sounder",
    "",
    "element",
};

Json party(const Panel& panel, UINT32 uuid, UINT32 address)
{
    if (uuid == 0)
    {
        return nullptr;
    }
    Json j = elementSummary(panel, uuid);
    j["reportedAddress"] = address;
    return j;
}

std::string labelOf(const Json& element)
{
    return element.contains("label") ? "  \"" + element["label"].get<std::string>() + "\"" : "";
}

// "OpticalSmokeDetector #12  ID 01.001  address 1  "Reception"  [det-1-001]"
std::string summaryLine(const Json& e)
{
    std::string line =
        e["typeName"].get<std::string>() + " #" + std::to_string(e["uuid"].get<UINT32>());
    line += "  ID " + (e["idString"].get<std::string>().empty() ? std::string("-")
                                                                : e["idString"].get<std::string>());
    if (!e["address"].is_null())
    {
        line += "  address " + e["address"].dump();
    }
    line += labelOf(e);
    if (e.contains("key"))
    {
        line += "  [" + e["key"].get<std::string>() + "]";
    }
    return line;
}

// The address records of the element and its ancestors as one dotted text, the root's first.
std::string addressPath(const Panel& panel, UINT32 uuid)
{
    std::vector<S_EGW_THRIFT_ADDRESS_STRUCT> records;
    for (UINT32 at = uuid; at != 0; at = panel.gateway().parent(at))
    {
        EGW_THRIFT_ADDRESS_STRUCT record{};
        // Only the number types that the text form accepts (5, 6, 7, 15, 16, 19) are shown.
        if (panel.gateway().addressRecord(at, record) &&
            record.mDataType <= 19 && ((0x980E0u >> record.mDataType) & 1u) != 0)
        {
            records.push_back(record);
        }
    }
    std::string text;
    EGW_BASIC_FormatAddressStructDataList(text, records);
    return text.substr(0, text.size() - 1); // without the closing zero byte
}

void walk(const Panel& panel, UINT32 uuid, std::size_t depth, const TreeVisitor& visit)
{
    const std::vector<UINT32> children = panel.gateway().children(uuid);
    const Json summary = elementSummary(panel, uuid);
    visit(&summary, depth, !children.empty());
    for (UINT32 child : children)
    {
        walk(panel, child, depth + 1, visit);
    }
    if (!children.empty())
    {
        visit(nullptr, depth, false);
    }
}

} // namespace

std::string hexText(UINT32 value, int digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

Json elementSummary(const Panel& panel, UINT32 uuid)
{
    PanelGateway& gateway = panel.gateway();
    const UINT32 type = gateway.type(uuid);
    const std::string idString = gateway.idString(uuid);
    UINT32 address = 0;
    Json j;
    j["uuid"] = uuid;
    const std::string key = panel.keyOf(uuid);
    if (!key.empty())
    {
        j["key"] = key;
    }
    j["type"] = hexText(type);
    j["typeName"] = panel.names().nameOf(IdKind::ElementType, type);
    j["idString"] = idString;
    j["address"] =
        gateway.integer(uuid, kAddressProperty, address) ? Json(address) : Json(nullptr);
    UINT32 labelProperty = 0;
    if (panel.names().idOf(IdKind::Property, "Label", labelProperty))
    {
        const Json label = Json::parse(gateway.propertyJson(uuid, labelProperty));
        if (label.is_string() && !label.get<std::string>().empty())
        {
            j["label"] = label;
        }
    }
    return j;
}

Json eventDetail(const Panel& panel, UINT32 uuid)
{
    ENENT_FIELD field{};
    const int category = panel.gateway().eventDetail(uuid, field);
    return {{"category", category},
            {"categoryName", kCategoryNames[category]},
            {"element", party(panel, field.SelfID, field.SelfAddress)},
            {"parent", party(panel, field.ParentID, field.ParentAddress)},
            {"deviceId", field.DeviceID != 0 ? Json(hexText(field.DeviceID, 8)) : Json(nullptr)},
            {"proxy",
             field.HasProxy ? party(panel, field.ProxyID, field.ProxyAddress) : Json(nullptr)}};
}

void treeCommand(const Panel& panel, const TreeVisitor& visit)
{
    walk(panel, panel.gateway().root(), 0, visit);
}

Json treeAnswer(const Panel& panel)
{
    Json root;
    std::vector<Json*> open; // the elements whose children are being added
    treeCommand(panel, [&](const Json* summary, std::size_t, bool hasChildren) {
        if (summary == nullptr)
        {
            open.pop_back();
            return;
        }
        Json* node = &root;
        if (!open.empty())
        {
            open.back()->at("children").push_back(*summary);
            node = &open.back()->at("children").back();
        }
        else
        {
            root = *summary;
        }
        if (hasChildren)
        {
            (*node)["children"] = Json::array();
            open.push_back(node);
        }
    });
    return root;
}

void printTree(const Json& answer, std::ostream& out)
{
    std::vector<std::pair<const Json*, std::size_t>> pending{{&answer, 0}};
    while (!pending.empty())
    {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        out << std::string(2 * depth, ' ') << summaryLine(*node) << '\n';
        if (node->contains("children"))
        {
            const Json& children = node->at("children");
            for (auto child = children.rbegin(); child != children.rend(); ++child)
            {
                pending.emplace_back(&*child, depth + 1);
            }
        }
    }
}

TreeVisitor treeText(std::ostream& out)
{
    return [&out](const Json* summary, std::size_t depth, bool) {
        if (summary != nullptr)
        {
            out << std::string(2 * depth, ' ') << summaryLine(*summary) << '\n';
        }
    };
}

TreeVisitor treeJson(std::ostream& out)
{
    // Each element's members, then its children: {..., "children": [...]}, one element a line.
    auto first = std::make_shared<bool>(true);
    return [&out, first](const Json* summary, std::size_t, bool hasChildren) {
        if (summary == nullptr)
        {
            out << "]}";
            *first = false;
            return;
        }
        std::string text = summary->dump(-1, ' ', false, Json::error_handler_t::replace);
        out << (*first ? "" : ",\n");
        if (hasChildren)
        {
            text.pop_back();
            out << text << ", \"children\": [\n";
            *first = true;
        }
        else
        {
            out << text;
            *first = false;
        }
    };
}

Json showCommand(const Panel& panel, UINT32 uuid)
{
    PanelGateway& gateway = panel.gateway();
    const UINT32 type = gateway.type(uuid);
    Json j = elementSummary(panel, uuid);
    j["parent"] = gateway.parent(uuid);
    j["addressText"] = addressPath(panel, uuid);

    j["properties"] = Json::array();
    for (const PropertyInfo& definition : gateway.properties(type))
    {
        j["properties"].push_back(
            {{"id", hexText(definition.id)},
             {"name", panel.names().nameOf(IdKind::Property, definition.id)},
             {"storage", definition.storage},
             {"value", Json::parse(gateway.propertyJson(uuid, definition.id))}});
    }

    j["states"] = Json::array();
    for (const UINT32 group : gateway.stateGroups(type))
    {
        const UINT32 value = gateway.state(uuid, group);
        j["states"].push_back({{"group", panel.idText(IdKind::StateGroup, group)},
                               {"value", value != 0 ? Json(panel.idText(IdKind::StateValue, value))
                                                    : Json(nullptr)}});
    }

    j["relations"] = Json::array();
    for (UINT32 relation : kShownRelations)
    {
        for (const bool forward : {true, false})
        {
            for (const UINT32 other : gateway.related(uuid, relation, forward))
            {
                j["relations"].push_back({{"type", hexText(relation)},
                                          {"direction", forward ? "to" : "from"},
                                          {"element", elementSummary(panel, other)}});
            }
        }
    }
    j["event"] = eventDetail(panel, uuid);
    return j;
}

void printEventDetail(const Json& event, std::ostream& out, const std::string& indent)
{
    out << indent << "category " << event["category"].get<int>() << " ("
        << event["categoryName"].get<std::string>() << ")\n";
    for (const char* role : {"element", "parent", "proxy"})
    {
        const Json& p = event[role];
        if (!p.is_null())
        {
            out << indent << role << std::string(8 - std::string(role).size(), ' ') << "#"
                << p["uuid"].get<UINT32>() << "  address " << p["reportedAddress"].get<UINT32>()
                << "  ID " << p["idString"].get<std::string>() << "  "
                << p["typeName"].get<std::string>() << labelOf(p) << '\n';
        }
    }
    if (!event["deviceId"].is_null())
    {
        out << indent << "device  " << event["deviceId"].get<std::string>() << '\n';
    }
}

void printShow(const Json& answer, std::ostream& out)
{
    out << summaryLine(answer) << '\n'
        << "  parent #" << answer["parent"].get<UINT32>() << "  address path "
        << answer["addressText"].get<std::string>() << '\n'
        << "properties\n";
    for (const Json& p : answer["properties"])
    {
        out << "  " << p["id"].get<std::string>() << ' ' << p["name"].get<std::string>()
            << " (storage " << p["storage"].get<UINT32>() << "): " << p["value"].dump() << '\n';
    }
    out << "states\n";
    for (const Json& s : answer["states"])
    {
        out << "  " << s["group"].get<std::string>() << ": "
            << (s["value"].is_null() ? std::string("none") : s["value"].get<std::string>()) << '\n';
    }
    out << "relations\n";
    for (const Json& r : answer["relations"])
    {
        out << "  " << r["type"].get<std::string>() << ' ' << r["direction"].get<std::string>()
            << ' ' << summaryLine(r["element"]) << '\n';
    }
    out << "event detail\n";
    printEventDetail(answer["event"], out, "  ");
}

namespace
{

void requireProperty(const Panel& panel, UINT32 uuid, UINT32 propertyId)
{
    const UINT32 type = panel.gateway().type(uuid);
    const std::vector<PropertyInfo> properties = panel.gateway().properties(type);
    if (std::none_of(properties.begin(), properties.end(),
                     [&](const PropertyInfo& p) { return p.id == propertyId; }))
    {
        throw ToolError("element type " + panel.idText(IdKind::ElementType, type) +
                        " has no property " + panel.idText(IdKind::Property, propertyId));
    }
}

} // namespace

Json getCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId)
{
    requireProperty(panel, uuid, propertyId);
    return {{"uuid", uuid},
            {"property", panel.idText(IdKind::Property, propertyId)},
            {"value", Json::parse(panel.gateway().propertyJson(uuid, propertyId))}};
}

Json setCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId, const std::string& value)
{
    requireProperty(panel, uuid, propertyId);
    std::string error;
    if (!panel.gateway().writeProperty(uuid, propertyId, value, error))
    {
        throw ToolError(error);
    }
    return getCommand(panel, uuid, propertyId);
}

Json stateCommand(const Panel& panel, UINT32 uuid, UINT32 groupId, const std::string* value)
{
    PanelGateway& gateway = panel.gateway();
    const std::vector<UINT32> groups = gateway.stateGroups(gateway.type(uuid));
    if (std::find(groups.begin(), groups.end(), groupId) == groups.end())
    {
        throw ToolError("the element has no state group " +
                        panel.idText(IdKind::StateGroup, groupId));
    }
    if (value != nullptr)
    {
        const UINT32 wanted = panel.id(IdKind::StateValue, *value);
        const std::vector<UINT32> values = gateway.stateValues(groupId);
        if (std::find(values.begin(), values.end(), wanted) == values.end())
        {
            throw ToolError("state group " + panel.idText(IdKind::StateGroup, groupId) +
                            " cannot take " + panel.idText(IdKind::StateValue, wanted));
        }
        gateway.setState(uuid, groupId, wanted);
    }
    const UINT32 current = gateway.state(uuid, groupId);
    return {
        {"uuid", uuid},
        {"group", panel.idText(IdKind::StateGroup, groupId)},
        {"value", current != 0 ? Json(panel.idText(IdKind::StateValue, current)) : Json(nullptr)}};
}

Json commandCommand(const Panel& panel, UINT32 uuid, UINT32 commandId)
{
    PanelGateway& gateway = panel.gateway();
    const std::vector<UINT32> commands = gateway.commands(gateway.type(uuid));
    const UINT32 tagged = (commandId & 0xFFFF0000u) != 0 ? commandId : (0x10000u | commandId);
    if (std::find(commands.begin(), commands.end(), tagged) == commands.end())
    {
        throw ToolError("the element's type has no command " + hexText(tagged));
    }
    gateway.execute(uuid, tagged);
    return {{"uuid", uuid}, {"command", hexText(tagged)}, {"status", 0}};
}

void printValue(const Json& answer, std::ostream& out)
{
    for (const auto& item : answer.items())
    {
        out << item.key() << ": "
            << (item.value().is_string() ? item.value().get<std::string>() : item.value().dump())
            << '\n';
    }
}

} // namespace egwtool
