// What the tool says about elements: summaries, the tree, one element in full, single values,
// and the event detail that the panel's display shows for an element.
#include <algorithm>
#include <cstdio>
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
std::string addressPath(UINT32 uuid)
{
    std::vector<S_EGW_THRIFT_ADDRESS_STRUCT> records;
    for (UINT32 at = uuid; at != 0; at = EGW_ELementServerGetParentUuid(at, nullptr))
    {
        EGW_THRIFT_ADDRESS_STRUCT record{};
        // Only the number types that the text form accepts (5, 6, 7, 15, 16, 19) are shown.
        if (EGW_GetThriftAddressStructByUuid(record, at, nullptr) == TRUE &&
            record.mDataType <= 19 && ((0x980E0u >> record.mDataType) & 1u) != 0)
        {
            records.push_back(record);
        }
    }
    std::string text;
    EGW_BASIC_FormatAddressStructDataList(text, records);
    return text.substr(0, text.size() - 1); // without the closing zero byte
}

Json tree(const Panel& panel, UINT32 uuid)
{
    Json node = elementSummary(panel, uuid);
    std::vector<int> children;
    EGW_ELementServerGetChildrenUuidList(children, uuid, nullptr);
    if (!children.empty())
    {
        node["children"] = Json::array();
        for (int child : children)
        {
            node["children"].push_back(tree(panel, static_cast<UINT32>(child)));
        }
    }
    return node;
}

void printTreeNode(const Json& node, std::ostream& out, std::size_t depth)
{
    out << std::string(2 * depth, ' ') << summaryLine(node) << '\n';
    if (node.contains("children"))
    {
        for (const Json& child : node["children"])
        {
            printTreeNode(child, out, depth + 1);
        }
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
    const UINT32 type = EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
    std::string idString;
    EGW_ElementServerGetIDStringOfElement(idString, uuid, nullptr);
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
        EGW_ElementServerGetPropertyIntDataById(uuid, kAddressProperty, address, nullptr) == TRUE
            ? Json(address)
            : Json(nullptr);
    UINT32 labelProperty = 0;
    if (panel.names().idOf(IdKind::Property, "Label", labelProperty))
    {
        const Json label = Json::parse(panelconfig::readPropertyValue(uuid, labelProperty));
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
    ENEventFormat format;
    const int category = format.GetEventDetails(uuid, field);
    return {{"category", category},
            {"categoryName", kCategoryNames[category]},
            {"element", party(panel, field.SelfID, field.SelfAddress)},
            {"parent", party(panel, field.ParentID, field.ParentAddress)},
            {"deviceId", field.DeviceID != 0 ? Json(hexText(field.DeviceID, 8)) : Json(nullptr)},
            {"proxy",
             field.HasProxy ? party(panel, field.ProxyID, field.ProxyAddress) : Json(nullptr)}};
}

Json treeCommand(const Panel& panel)
{
    return tree(panel, EGW_ELementServerGetTreeRoot(nullptr));
}

void printTree(const Json& answer, std::ostream& out)
{
    printTreeNode(answer, out, 0);
}

Json showCommand(const Panel& panel, UINT32 uuid)
{
    const UINT32 type = EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
    Json j = elementSummary(panel, uuid);
    j["parent"] = EGW_ELementServerGetParentUuid(uuid, nullptr);
    j["addressText"] = addressPath(uuid);

    std::vector<EGW_PropertyDef_Thrift> properties;
    EGW_ELementServerGetPropertyInformationList(type, properties);
    j["properties"] = Json::array();
    for (const EGW_PropertyDef_Thrift& definition : properties)
    {
        j["properties"].push_back(
            {{"id", hexText(definition.PropertyID)},
             {"name", panel.names().nameOf(IdKind::Property, definition.PropertyID)},
             {"storage", EGW_ElementServerGetPropertyTypeById(definition.PropertyID)},
             {"value", Json::parse(panelconfig::readPropertyValue(uuid, definition.PropertyID))}});
    }

    std::vector<unsigned int> groups;
    EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, type);
    j["states"] = Json::array();
    for (unsigned int group : groups)
    {
        UINT32 value = 0;
        EGW_ELementServerGetStateValueByUuid(value, uuid, group, nullptr);
        j["states"].push_back({{"group", panel.idText(IdKind::StateGroup, group)},
                               {"value", value != 0 ? Json(panel.idText(IdKind::StateValue, value))
                                                    : Json(nullptr)}});
    }

    j["relations"] = Json::array();
    for (UINT32 relation : kShownRelations)
    {
        for (const int forward : {1, 0})
        {
            std::vector<int> related;
            EGW_ElementServerGetReferenceRelations(related, uuid, relation, forward, nullptr);
            for (int other : related)
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

Json getCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId)
{
    return {{"uuid", uuid},
            {"property", panel.idText(IdKind::Property, propertyId)},
            {"value", Json::parse(panelconfig::readPropertyValue(uuid, propertyId))}};
}

Json setCommand(const Panel& panel, UINT32 uuid, UINT32 propertyId, const std::string& value)
{
    std::string error;
    if (!panelconfig::writePropertyValue(uuid, propertyId, value, error))
    {
        throw ToolError(error);
    }
    return getCommand(panel, uuid, propertyId);
}

Json stateCommand(const Panel& panel, UINT32 uuid, UINT32 groupId, const std::string* value)
{
    std::vector<unsigned int> groups;
    EGW_ElementServerGetStateGroupIdListByElementTypeId(
        groups, EGW_ElementServerGetElementTypeByUuid(uuid, nullptr));
    if (std::find(groups.begin(), groups.end(), groupId) == groups.end())
    {
        throw ToolError("the element has no state group " +
                        panel.idText(IdKind::StateGroup, groupId));
    }
    if (value != nullptr)
    {
        const UINT32 wanted = panel.id(IdKind::StateValue, *value);
        std::vector<unsigned int> values;
        EGW_GetAllStatusInGroup(groupId, values);
        if (std::find(values.begin(), values.end(), wanted) == values.end())
        {
            throw ToolError("state group " + panel.idText(IdKind::StateGroup, groupId) +
                            " cannot take " + panel.idText(IdKind::StateValue, wanted));
        }
        if (EGW_ELementServerSetStateValueByUuid(wanted, uuid, groupId, nullptr) != TRUE)
        {
            throw ToolError("the element server refused the state value");
        }
    }
    UINT32 current = 0;
    EGW_ELementServerGetStateValueByUuid(current, uuid, groupId, nullptr);
    return {
        {"uuid", uuid},
        {"group", panel.idText(IdKind::StateGroup, groupId)},
        {"value", current != 0 ? Json(panel.idText(IdKind::StateValue, current)) : Json(nullptr)}};
}

Json commandCommand(UINT32 uuid, UINT32 commandId)
{
    std::vector<unsigned int> commands;
    EGW_ELementServerGetCommandListByElementTypeId(
        commands, EGW_ElementServerGetElementTypeByUuid(uuid, nullptr));
    const UINT32 tagged = (commandId & 0xFFFF0000u) != 0 ? commandId : (0x10000u | commandId);
    if (std::find(commands.begin(), commands.end(), tagged) == commands.end())
    {
        throw ToolError("the element's type has no command " + hexText(tagged));
    }
    const INT32 status = EGW_ElementServerExecuteCommand(uuid, tagged, 0, nullptr, 0, nullptr);
    if (status != 0)
    {
        throw ToolError("the element server refused the command (status " + std::to_string(status) +
                        ")");
    }
    return {{"uuid", uuid}, {"command", hexText(tagged)}, {"status", status}};
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
