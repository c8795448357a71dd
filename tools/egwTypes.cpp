// The type reference: every element type of the type library in force with its properties (storage
// type and default), state groups (values and default), commands and the types that may stand below
// it, read through the gateway's type-library queries. Its text form is the Markdown page
// docs/types.md, so that the page is made from the library and cannot drift from it.
#include <algorithm>
#include <cstdint>
#include <ostream>

#include "host/elementServer.h"
#include "identity/gatewayIdentity.h"

#include "tools/egwTool.h"

namespace egwtool
{
namespace
{

using panelconfig::IdKind;

constexpr signed char kChildTypeRelation = 0;

std::string storageName(UINT32 storage)
{
    switch (storage)
    {
    case 1:
        return "truth value";
    case 2:
        return "date-time record";
    case 3:
        return "enumeration, 4 bytes";
    case 4:
    case 6:
    case 19:
        return "integer, 4 bytes";
    case 5:
    case 15:
        return "integer, 2 bytes, signed";
    case 7:
    case 16:
        return "integer, 1 byte";
    case 12:
        return "string";
    default:
        return "bytes";
    }
}

// A default text as the panel keeps it, without a leading byte-order mark.
std::string defaultText(const std::string& text)
{
    static const std::string kByteOrderMark = "\xEF\xBB\xBF";
    return text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0
               ? text.substr(kByteOrderMark.size())
               : text;
}

Json idList(const Panel& panel, IdKind kind, const std::vector<unsigned int>& ids)
{
    Json list = Json::array();
    for (UINT32 id : ids)
    {
        list.push_back(panel.idText(kind, id));
    }
    return list;
}

// The ID string's list that the type is in, asked of the gateway itself: an element of the type
// standing alone, with address and device ID 1, gives whoami the one number of its list. The
// types command runs on its own empty tree, so the probe is the tree's only element while it
// lives.
std::string identityList(UINT32 type)
{
    static const char* const kLists[] = {"root: its address", "section: its address",
                                         "point: its device ID", "sub-unit: its address",
                                         "four-digit: its address"};
    ElementServer* server = ElementServer::GetElementServer();
    int error = 0;
    Element probe = server->AddElement(nullptr, static_cast<unsigned short>(type & 0xFFFF), false,
                                       &error, false);
    if (error != 0)
    {
        return "not known";
    }
    for (const unsigned short property : {0x0004, 0x0005})
    {
        std::uint32_t one = 1;
        Property value(property);
        value.SetData(&one, sizeof one);
        probe.SetProperty(value, true);
    }
    unsigned int numbers[5] = {};
    whoami(probe, numbers[0], numbers[1], numbers[2], numbers[3], numbers[4]);
    server->DeleteElement(probe, false);
    for (int list = 0; list < 5; ++list)
    {
        if (numbers[list] != 0)
        {
            return kLists[list];
        }
    }
    return "none";
}

Json describeType(const Panel& panel, UINT32 type)
{
    Json j;
    j["type"] = panel.idText(IdKind::ElementType, type);
    j["identityList"] = identityList(type);
    j["visibility"] = hexText(EGW_BASIC_GetVisibleByElementType(type));

    std::vector<EGW_PropertyDef_Thrift> properties;
    EGW_ELementServerGetPropertyInformationList(type, properties);
    std::vector<PropertyDefaultDef> defaults;
    EGW_ELementServerGetPropertyDefaultDataList(type, defaults);
    j["properties"] = Json::array();
    for (const EGW_PropertyDef_Thrift& p : properties)
    {
        const UINT32 storage = EGW_ElementServerGetPropertyTypeById(p.PropertyID);
        const auto given =
            std::find_if(defaults.begin(), defaults.end(),
                         [&](const PropertyDefaultDef& d) { return d.PropertyID == p.PropertyID; });
        j["properties"].push_back(
            {{"property", panel.idText(IdKind::Property, p.PropertyID)},
             {"storage", storage},
             {"storageName", storageName(storage)},
             {"default",
              given == defaults.end() ? Json(nullptr) : Json(defaultText(given->DefaultValue))}});
    }

    std::vector<unsigned int> groups;
    EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, type);
    j["stateGroups"] = Json::array();
    for (UINT32 group : groups)
    {
        std::vector<unsigned int> values;
        EGW_GetAllStatusInGroup(group, values);
        const UINT32 initial = EGW_GetDefaultStatusOfGroup(group);
        j["stateGroups"].push_back(
            {{"group", panel.idText(IdKind::StateGroup, group)},
             {"values", idList(panel, IdKind::StateValue, values)},
             {"default",
              initial != 0 ? Json(panel.idText(IdKind::StateValue, initial)) : Json(nullptr)}});
    }

    std::vector<unsigned int> commands;
    EGW_ELementServerGetCommandListByElementTypeId(commands, type);
    j["commands"] = Json::array();
    for (UINT32 command : commands)
    {
        j["commands"].push_back(hexText(command));
    }

    std::vector<EGW_RelationDef_Thrift> relations;
    EGW_ELementServerGetRelationList(type, relations);
    std::vector<unsigned int> children;
    for (const EGW_RelationDef_Thrift& relation : relations)
    {
        if (relation.RelationKind == kChildTypeRelation)
        {
            children.push_back(relation.RelatedTypeID);
        }
    }
    j["childTypes"] = idList(panel, IdKind::ElementType, children);
    return j;
}

// A table cell: "|" would end it, a line break would end the table.
std::string cell(const std::string& text)
{
    std::string out;
    for (const char c : text)
    {
        out += c == '|' ? std::string("\\|") : c == '\n' ? std::string(" ") : std::string(1, c);
    }
    return out;
}

std::string joined(const Json& list)
{
    std::string text;
    for (const Json& item : list)
    {
        text += (text.empty() ? "" : ", ") + item.get<std::string>();
    }
    return text.empty() ? std::string("none") : text;
}

} // namespace

Json typesCommand(const Panel& panel)
{
    Json answer;
    answer["source"] = panel.typesSource();
    answer["types"] = Json::array();
    for (UINT32 type : panel.names().ids(IdKind::ElementType))
    {
        answer["types"].push_back(describeType(panel, type));
    }
    return answer;
}

void printTypes(const Json& answer, std::ostream& out)
{
    out << "# Element types\n\n"
        << "The element types of the type library `" << answer["source"].get<std::string>()
        << "`, as a panel file names them (see [panel-config.md](panel-config.md)): their "
           "properties with storage type and default value, their state groups with the values "
           "they take, their commands, the element types that may stand below them and which of "
           "the ID string's type lists the type is in, with the number that an element of the "
           "type adds to its own ID string and its descendants' (none: the element shows its "
           "ancestors' numbers only).\n\n"
        << "This page is written by `egw types`; regenerate it with `cmake --build <build> "
           "--target egw_types_page`. "
        << answer["types"].size() << " element types.\n";
    for (const Json& type : answer["types"])
    {
        out << "\n## " << type["type"].get<std::string>() << "\n\n"
            << "Visibility " << type["visibility"].get<std::string>()
            << ". Commands: " << joined(type["commands"]) << ".\n\n"
            << "ID string list: " << type["identityList"].get<std::string>() << ".\n\n"
            << "Child types: " << joined(type["childTypes"]) << ".\n";
        if (!type["properties"].empty())
        {
            out << "\n| Property | Storage | Default |\n|---|---|---|\n";
            for (const Json& p : type["properties"])
            {
                out << "| " << p["property"].get<std::string>() << " | "
                    << p["storage"].get<UINT32>() << " (" << p["storageName"].get<std::string>()
                    << ") | "
                    << (p["default"].is_null() ? std::string("none")
                        : p["default"].get<std::string>().empty()
                            ? std::string("empty")
                            : "`" + cell(p["default"].get<std::string>()) + "`")
                    << " |\n";
            }
        }
        if (!type["stateGroups"].empty())
        {
            out << "\n| State group | Values | Default |\n|---|---|---|\n";
            for (const Json& g : type["stateGroups"])
            {
                out << "| " << g["group"].get<std::string>() << " | " << joined(g["values"])
                    << " | "
                    << (g["default"].is_null() ? std::string("none")
                                               : g["default"].get<std::string>())
                    << " |\n";
            }
        }
    }
}

} // namespace egwtool
