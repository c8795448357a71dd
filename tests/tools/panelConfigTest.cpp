// Panel configuration files: the sample panel, refused files, host faults while building, the
// generator and single property values.
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/panelFixture.h"
#include "tools/panelConfig.h"

namespace
{

using Json = nlohmann::ordered_json;
using panelconfig::IdKind;

// The detector of the small panel below.
const std::string kDetector = "/root/children/0/children/0/children/0/children/0/children/0";

Json smallPanel()
{
    return Json::parse(R"({
      "version": 1,
      "root": {"key": "panel", "type": "Panel", "properties": {"Address": 1}, "children": [
        {"key": "hw", "type": "HardwareRoot", "children": [
          {"type": "CardRack", "properties": {"Address": 1}, "children": [
            {"type": "LoopCard1", "children": [
              {"key": "loop", "type": "Loop", "properties": {"Address": 1}, "children": [
                {"key": "det", "type": "OpticalSmokeDetector",
                 "properties": {"Address": 1, "DeviceId": "0x00100001"},
                 "states": {"DisablementState": "Disabled"},
                 "relations": [{"type": "0x20002", "to": "evac"}]}]}]}]}]},
        {"type": "DetectionRoot", "children": [
          {"type": "EvacuationSection", "children": [
            {"type": "EvacuationArea", "children": [
              {"key": "evac", "type": "EvacuationZone", "properties": {"Address": 1}}]}]}]}]}
    })");
}

Json& detector(Json& file)
{
    return file["root"]["children"][0]["children"][0]["children"][0]["children"][0]["children"][0];
}

class PanelConfigTest : public PanelTest
{
protected:
    void SetUp() override
    {
        PanelTest::SetUp();
        std::string error;
        ASSERT_TRUE(panelconfig::Vocabulary::fromTypeLibraryText(panelsim::sampleTypeLibraryText(),
                                                                 "sampleTypes.json", names_, error))
            << error;
    }

    bool load(const std::string& text, std::string& error)
    {
        return panelconfig::loadPanelText(text, "site.json", names_, panel_, error);
    }

    void loadSmallPanel()
    {
        std::string error;
        ASSERT_TRUE(load(smallPanel().dump(), error)) << error;
    }

    UINT32 id(IdKind kind, const char* name) const
    {
        UINT32 value = 0;
        EXPECT_TRUE(names_.idOf(kind, name, value)) << name;
        return value;
    }

    UINT32 intProperty(UINT32 uuid, const char* name) const
    {
        UINT32 value = 0;
        EXPECT_EQ(EGW_ElementServerGetPropertyIntDataById(uuid, id(IdKind::Property, name), value,
                                                          nullptr),
                  1)
            << name;
        return value;
    }

    panelconfig::Vocabulary names_;
    panelconfig::LoadedPanel panel_;
};

// ---- The sample panel ---------------------------------------------------------------------------

TEST_F(PanelConfigTest, SamplePanelBuildsWithItsValuesGuidsEveryCategoryAndIdStringShape)
{
    std::string error;
    ASSERT_TRUE(panelconfig::loadPanelFile(EGW_SAMPLE_PANEL_FILE, names_, panel_, error)) << error;
    ASSERT_EQ(panel_.elements.size(), panelsim::elementCount());
    EXPECT_EQ(panel_.elements.front().uuid, EGW_ELementServerGetTreeRoot(nullptr));
    EXPECT_EQ(panel_.keyOf(panel_.uuidOf("det-1-001")), "det-1-001");
    EXPECT_EQ(panel_.keyOf(panel_.uuidOf("det-1-001") + 1000), "");
    EXPECT_EQ(panel_.relationTypes, (std::vector<UINT32>{0x20001, 0x20002}));

    // Validation numbered the elements in file order, and the root's counter holds the last.
    for (std::size_t i = 0; i < panel_.elements.size(); ++i)
    {
        EXPECT_EQ(intProperty(panel_.elements[i].uuid, "Guid"), i + 1) << "element " << i;
    }
    EXPECT_EQ(intProperty(panel_.uuidOf("panel"), "AvailableGuid"), panel_.elements.size());

    const UINT32 detector = panel_.uuidOf("det-1-001");
    EXPECT_EQ(intProperty(detector, "DeviceId"), 0x00100001u);
    EXPECT_EQ(intProperty(panel_.uuidOf("loop-1"), "CableLengthMetres"), 850u);
    tagBSC_DATETIME date{};
    ASSERT_EQ(EGW_ElementServerGetPropertyDatetimeDataById(
                  panel_.uuidOf("panel"), id(IdKind::Property, "CommissioningDate"), date, nullptr),
              1);
    EXPECT_EQ(date.mYear, 2023);
    EXPECT_EQ(UINT32{date.mSecondOfDay}, 36000u);
    UINT32 state = 0;
    EGW_ELementServerGetStateValueByUuid(state, panel_.uuidOf("det-1-002"),
                                         id(IdKind::StateGroup, "DisablementState"), nullptr);
    EXPECT_EQ(state, id(IdKind::StateValue, "Disabled"));

    std::vector<int> proxies;
    EGW_ElementServerGetReferenceRelations(proxies, panel_.uuidOf("snd-1-005"), 0x20002, 1,
                                           nullptr);
    EXPECT_EQ(proxies, (std::vector<int>{static_cast<int>(panel_.uuidOf("evac-group-building")),
                                         static_cast<int>(panel_.uuidOf("evac-ground"))}));
    // The sample shows every event category and every shape of ID string.
    const std::vector<std::pair<const char*, std::regex>> shapes = {
        {"R", std::regex("\\d{2}")},
        {"R.F", std::regex("\\d{2}\\.\\d{4}")},
        {"R.S", std::regex("\\d{2}\\.\\d{3}")},
        {"R.S.D", std::regex("\\d{2}\\.\\d{3}\\.[0-9A-F]{8}")},
        {"R.S.D.U", std::regex("\\d{2}\\.\\d{3}\\.[0-9A-F]{8}\\.\\d{2}")},
        {"R.S.U", std::regex("\\d{2}\\.\\d{3}\\.\\d{2}")},
    };
    std::set<int> categories;
    std::set<std::string> seen;
    ENEventFormat format;
    for (const panelconfig::LoadedElement& element : panel_.elements)
    {
        categories.insert(format.CheckCategoryByType(element.uuid));
        std::string idString;
        EGW_ElementServerGetIDStringOfElement(idString, element.uuid, nullptr);
        for (const auto& shape : shapes)
        {
            if (std::regex_match(idString, shape.second))
            {
                seen.insert(shape.first);
            }
        }
    }
    EXPECT_EQ(categories, (std::set<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14}));
    EXPECT_EQ(seen, (std::set<std::string>{"R", "R.F", "R.S", "R.S.D", "R.S.D.U", "R.S.U"}));
}

TEST_F(PanelConfigTest, TypesMayBeNamedOrNumberedWithOrWithoutTheirTag)
{
    for (const Json& type : {Json("OpticalSmokeDetector"), Json("0x70048"), Json("0x48"), Json(72)})
    {
        SCOPED_TRACE(type.dump());
        Json file = smallPanel();
        detector(file)["type"] = type;
        std::string error;
        ASSERT_TRUE(load(file.dump(), error)) << error;
        EXPECT_EQ(EGW_ElementServerGetElementTypeByUuid(panel_.uuidOf("det"), nullptr), 0x70048u);
        panelsim::reset();
    }
}

// ---- Refused files ------------------------------------------------------------------------------

struct BadFile
{
    const char* what;
    std::function<void(Json&)> change;
    std::string message; // after "site.json: "
};

TEST_F(PanelConfigTest, BadFilesAreRefusedWithPlaceAndProblemAndLeaveNoElement)
{
    const std::vector<BadFile> cases = {
        {"version", [](Json& f) { f["version"] = 2; }, "/version: expected the format version 1"},
        {"no root", [](Json& f) { f.erase("root"); }, "/root: missing member"},
        {"misspelt member", [](Json& f) { detector(f)["colour"] = "red"; },
         kDetector + "/colour: unknown member \"colour\""},
        {"misspelt type", [](Json& f) { detector(f)["type"] = "OpticalSmokeDetectr"; },
         kDetector + "/type: \"OpticalSmokeDetectr\" names no element type (give its name, or its "
                     "id: 0x71234 or 0x1234)"},
        {"type not in the library", [](Json& f) { detector(f)["type"] = "0x70999"; },
         kDetector + "/type: element type 0x70999 is not in the type library"},
        {"property of another type", [](Json& f) { f["root"]["properties"]["DeviceId"] = 5; },
         "/root/properties/DeviceId: element type 0x70169 has no property 0x30005"},
        {"property id of another kind", [](Json& f) { detector(f)["properties"]["0x50004"] = 1; },
         kDetector + "/properties/0x50004: \"0x50004\" names no property (give its name, or its "
                     "id: 0x31234 or 0x1234)"},
        {"1-byte value too large",
         [](Json& f) { detector(f)["properties"]["AlarmThreshold"] = 256; },
         kDetector +
             "/properties/AlarmThreshold: property 0x30031 holds 0 to 255; 256 does not fit"},
        {"2-byte value too small",
         [](Json& f) {
             f["root"]["children"][0]["children"][0]["children"][0]["children"][0]["properties"]
              ["CableLengthMetres"] = -32769;
         },
         "/root/children/0/children/0/children/0/children/0/properties/CableLengthMetres: property "
         "0x30035 holds -32768 to 65535; -32769 does not fit"},
        {"number for a truth value", [](Json& f) { f["root"]["properties"]["BuzzerEnabled"] = 1; },
         "/root/properties/BuzzerEnabled: property 0x30006 holds a truth value: expected true or "
         "false"},
        {"empty text", [](Json& f) { detector(f)["properties"]["Label"] = ""; },
         kDetector +
             "/properties/Label: property 0x30002 holds a byte string: expected a text of 1 "
             "to 65535 bytes"},
        {"month 13",
         [](Json& f) {
             detector(f)["properties"]["LastServiceDate"] = {{"month", 13}};
         },
         kDetector + "/properties/LastServiceDate/month: property 0x30038 member month: expected "
                     "0 to 12"},
        {"date-time member not a number",
         [](Json& f) {
             detector(f)["properties"]["LastServiceDate"] = {{"day", "soon"}};
         },
         kDetector + "/properties/LastServiceDate/day: property 0x30038 member day: expected a "
                     "whole number, got \"soon\""},
        {"integer not a number", [](Json& f) { detector(f)["properties"]["Address"] = "one"; },
         kDetector + "/properties/Address: property 0x30004 holds 4 bytes: expected a whole "
                     "number, got \"one\""},
        {"property by name and by id", [](Json& f) { detector(f)["properties"]["0x30004"] = 2; },
         kDetector + "/properties/0x30004: property 0x30004 Address is given twice (by its name "
                     "and by its id)"},
        {"state group by name and by id",
         [](Json& f) { detector(f)["states"]["0x80003"] = "Enabled"; },
         kDetector + "/states/0x80003: state group 0x80003 DisablementState is given twice (by "
                     "its name and by its id)"},
        {"empty key", [](Json& f) { detector(f)["key"] = ""; },
         kDetector + "/key: an empty key names nothing (leave \"key\" out instead)"},
        {"key that reads as a uuid", [](Json& f) { detector(f)["key"] = "0x1F"; },
         kDetector + "/key: the key \"0x1F\" is a number, which names an element by its uuid "
                     "(give a key with a letter in it)"},
        {"child type not allowed below its parent",
         [](Json& f) { f["root"]["children"][0]["type"] = "Loop"; },
         "/root/children/0/type: element type 0x70046 Loop may not stand below element type "
         "0x70169 Panel (the type library does not make it one of its child types)"},
        {"root that is not a panel element",
         [](Json& f) {
             Json lone = detector(f);
             lone.erase("relations");
             f["root"] = lone;
         },
         "/root/type: element type 0x70048 OpticalSmokeDetector cannot be the root: the root of a "
         "panel keeps the counter from which its elements' GUIDs are numbered, property 0x301A6 "
         "(AvailableGuid), and this type has no such property"},
        {"element without type", [](Json& f) { detector(f).erase("type"); },
         kDetector + "/type: missing member"},
        {"child not an object", [](Json& f) { f["root"]["children"].push_back(3); },
         "/root/children/2: expected an object"},
        {"root not an object", [](Json& f) { f["root"] = Json::array(); },
         "/root: expected an object"},
        {"state group of another type",
         [](Json& f) { detector(f)["states"]["PowerState"] = "Normal"; },
         kDetector + "/states/PowerState: element type 0x70048 has no state group 0x80007"},
        {"value the group cannot take",
         [](Json& f) { detector(f)["states"]["DisablementState"] = "FireAlarm"; },
         kDetector + "/states/DisablementState: state group 0x80003 cannot take the value 0x60002"},
        {"relation to an unknown key",
         [](Json& f) { detector(f)["relations"][0]["to"] = "nowhere"; },
         kDetector + "/relations/0/to: no element has the key \"nowhere\""},
        {"relation given twice",
         [](Json& f) { detector(f)["relations"].push_back(detector(f)["relations"][0]); },
         kDetector + "/relations/1: the relation to \"evac\" is given twice"},
        {"relation without target", [](Json& f) { detector(f)["relations"][0].erase("to"); },
         kDetector + "/relations/0: a relation needs a \"type\" and a \"to\""},
        {"key given twice", [](Json& f) { f["root"]["children"][0]["key"] = "panel"; },
         "/root/children/0/key: the key \"panel\" is given twice"},
        {"children not a list", [](Json& f) { f["root"]["children"] = Json::object(); },
         "/root/children: expected an array"},
    };
    for (const BadFile& bad : cases)
    {
        SCOPED_TRACE(bad.what);
        Json file = smallPanel();
        bad.change(file);
        std::string error;
        EXPECT_FALSE(load(file.dump(), error));
        EXPECT_EQ(error, "site.json: " + bad.message);
        EXPECT_EQ(panelsim::elementCount(), 0u);
    }
}

TEST_F(PanelConfigTest, SyntaxErrorsAreReportedByLineAndColumn)
{
    std::string error;
    EXPECT_FALSE(load("{\n  \"version\": 1,\n  \"root\": }\n", error));
    EXPECT_EQ(error.rfind("site.json: line 3, column 11: syntax error", 0), 0u) << error;
    EXPECT_EQ(panelsim::elementCount(), 0u);
}

// A JSON object may repeat a name; the file may not, since one of the two would be lost.
TEST_F(PanelConfigTest, ANameGivenTwiceInOneObjectIsRefused)
{
    const std::string text = smallPanel().dump();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"\"key\":\"det\",", "\"key\":\"det\",\"key\":\"det2\","},
        {"\"Address\":1,\"DeviceId\"", "\"Address\":1,\"Address\":2,\"DeviceId\""},
    };
    const std::vector<std::string> messages = {
        "site.json: " + kDetector + "/key: \"key\" is given twice",
        "site.json: " + kDetector + "/properties/Address: \"Address\" is given twice",
    };
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        std::string changed = text;
        const std::size_t at = changed.find(cases[i].first);
        ASSERT_NE(at, std::string::npos) << cases[i].first;
        changed.replace(at, cases[i].first.size(), cases[i].second);
        std::string error;
        EXPECT_FALSE(load(changed, error));
        EXPECT_EQ(error, messages[i]);
        EXPECT_EQ(panelsim::elementCount(), 0u);
    }
}

// Members may come in any order: an element's type after its properties and its children.
TEST_F(PanelConfigTest, MembersMayComeInAnyOrder)
{
    const std::string text = R"({"root": {"children": [
        {"children": [{"children": [], "properties": {"Address": 2}, "type": "CardRack"}],
         "type": "HardwareRoot"}],
      "properties": {"Address": 7}, "key": "panel", "type": "Panel"}, "version": 1})";
    std::string error;
    ASSERT_TRUE(load(text, error)) << error;
    ASSERT_EQ(panel_.elements.size(), 3u);
    EXPECT_EQ(intProperty(panel_.uuidOf("panel"), "Address"), 7u);
    EXPECT_EQ(intProperty(panel_.elements[2].uuid, "Address"), 2u);
    EXPECT_EQ(EGW_ELementServerGetParentUuid(panel_.elements[2].uuid, nullptr),
              panel_.elements[1].uuid);
}

TEST_F(PanelConfigTest, APanelIsOnlyLoadedIntoAnEmptyTree)
{
    loadSmallPanel();
    const std::size_t count = panelsim::elementCount();
    std::string error;
    EXPECT_FALSE(load(smallPanel().dump(), error));
    EXPECT_EQ(error, "site.json: /: the element tree already holds a panel");
    EXPECT_EQ(panelsim::elementCount(), count);
}

// ---- Host faults while building -----------------------------------------------------------------

struct HostFault
{
    const char* operation;
    unsigned skip;
    std::string message;
};

TEST_F(PanelConfigTest, AFailingHostCallRemovesEverythingAddedSoFar)
{
    const std::vector<HostFault> faults = {
        {"ElementServer::AddElement", 5,
         kDetector + ": the element server refused to add the element"},
        {"Element::SetState", 0,
         kDetector + "/states/DisablementState: the element server refused the state value"},
        {"Element::SetProperty", 4,
         kDetector + "/properties/DeviceId: the element server refused the value"},
        {"ElementServer::AddReferenceRelation", 0,
         kDetector + "/relations/0: the element server refused the relation"},
        {"Element::Validate", 3,
         "/root/children/0/children/0/children/0: the element server refused to validate the "
         "element (status 1)"},
    };
    for (const HostFault& fault : faults)
    {
        SCOPED_TRACE(fault.operation);
        panelsim::injectFault(fault.operation, panelsim::FaultKind::Fail, fault.skip);
        std::string error;
        EXPECT_FALSE(load(smallPanel().dump(), error));
        EXPECT_EQ(error, "site.json: " + fault.message);
        EXPECT_EQ(panelsim::elementCount(), 0u);
        EXPECT_EQ(EGW_ELementServerGetTreeRoot(nullptr), 0u);
        panelsim::clearFaults();
    }
}

TEST_F(PanelConfigTest, AThrowingHostCallRemovesEverythingAndPassesTheExceptionOn)
{
    panelsim::injectFault("ElementServer::AddReferenceRelation", panelsim::FaultKind::Throw);
    std::string error;
    EXPECT_THROW(load(smallPanel().dump(), error), panelsim::InjectedFault);
    EXPECT_EQ(panelsim::elementCount(), 0u);
}

// ---- Generated panels ---------------------------------------------------------------------------

TEST_F(PanelConfigTest, GeneratedPanelHasItsLoopsDevicesZonesAndProxies)
{
    std::string error;
    ASSERT_TRUE(load(panelconfig::generatePanelText(3, 20), error)) << error;
    // 6 fixed elements; per loop a card, the loop, 20 devices, 2 modules' 4 channels, 2 zones in
    // their areas.
    EXPECT_EQ(panelsim::elementCount(), 6u + 3u * (6u + 20u + 4u));
    std::vector<int> proxied;
    EGW_ElementServerGetReferenceRelations(proxied, panel_.uuidOf("evac-2"), 0x20002, 0, nullptr);
    EXPECT_EQ(proxied.size(), 20u); // 16 detectors, 2 sounders, 2 input channels
    std::vector<int> members;
    EGW_ElementServerGetReferenceRelations(members, panel_.uuidOf("zone-2"), 0x20001, 0, nullptr);
    EXPECT_EQ(members.size(), 16u);
    // Zone 2 holds the detectors of the second loop, which hangs on the second loop card.
    for (int member : members)
    {
        const UINT32 loop = EGW_ELementServerGetParentUuid(static_cast<UINT32>(member), nullptr);
        EXPECT_EQ(EGW_ElementServerGetElementTypeByUuid(
                      EGW_ELementServerGetParentUuid(loop, nullptr), nullptr),
                  0x70206u);
    }
}

// Zones are told apart by the four-digit number of their area, devices of the point list and
// their sub-units by the device ID: no two of them show the same ID string.
TEST_F(PanelConfigTest, ZonesAndPointDevicesHaveIdStringsOfTheirOwn)
{
    const std::set<UINT32> zoneTypes = {
        id(IdKind::ElementType, "InputZone"), id(IdKind::ElementType, "ConventionalInputZone"),
        id(IdKind::ElementType, "EvacuationZone"), id(IdKind::ElementType, "EvacuationZoneGroup")};
    const auto isPoint = [](UINT32 uuid) {
        return IsPoints(EGW_ElementServerGetElementTypeByUuid(uuid, nullptr) & 0xFFFF) == TRUE;
    };
    const std::pair<std::string, std::size_t> cases[] = {
        {"", 14}, // the sample
        {panelconfig::generatePanelText(3, 20), 6}};
    for (const auto& [text, identified] : cases)
    {
        SCOPED_TRACE(text.empty() ? "sample panel" : "generated panel");
        panelsim::reset();
        panel_ = {};
        std::string error;
        ASSERT_TRUE(text.empty()
                        ? panelconfig::loadPanelFile(EGW_SAMPLE_PANEL_FILE, names_, panel_, error)
                        : load(text, error))
            << error;
        std::map<std::string, UINT32> holders;
        for (const panelconfig::LoadedElement& element : panel_.elements)
        {
            const UINT32 uuid = element.uuid;
            if (zoneTypes.count(EGW_ElementServerGetElementTypeByUuid(uuid, nullptr)) != 0 ||
                isPoint(uuid) || isPoint(EGW_ELementServerGetParentUuid(uuid, nullptr)))
            {
                std::string idString;
                EGW_ElementServerGetIDStringOfElement(idString, uuid, nullptr);
                const auto [held, fresh] = holders.emplace(idString, uuid);
                EXPECT_TRUE(fresh) << idString << " of #" << uuid << " and #" << held->second;
            }
        }
        EXPECT_EQ(holders.size(), identified);
    }
}

// ---- Single values ------------------------------------------------------------------------------

struct ValueCase
{
    const char* element;
    const char* property;
    const char* written;
    const char* readBack; // null: refused
    const char* problem;
};

TEST_F(PanelConfigTest, ValuesAreWrittenAndReadAsInAPanelFile)
{
    loadSmallPanel();
    const std::vector<ValueCase> cases = {
        {"det", "Address", "7", "7", ""},
        {"det", "DeviceId", "\"0x00A1B2C3\"", "10597059", ""},
        {"loop", "CableLengthMetres", "-5", "-5", ""},
        {"loop", "CableLengthMetres", "65535", "-1", ""},
        {"det", "AlarmThreshold", "255", "255", ""},
        {"det", "AlarmThreshold", "256", nullptr, "property 0x30031 holds 0 to 255; 256 does not fit"},
        {"det", "AlarmThreshold", "high", nullptr,
         "property 0x30031 holds 1 bytes: expected a whole number, got \"high\""},
        {"det", "Label", "Hall 2", "\"Hall 2\"", ""},
        {"det", "Label", "42", "\"42\"", ""},
        {"det", "Label", "\"quoted\"", "\"quoted\"", ""},
        {"panel", "BuzzerEnabled", "false", "false", ""},
        {"panel", "BuzzerEnabled", "yes", nullptr,
         "property 0x30006 holds a truth value: expected true or false"},
        {"det", "LastServiceDate", "{\"year\": 2024, \"day\": 5}",
         "{\"year\":2024,\"month\":0,\"day\":5,\"weekDay\":0,\"secondOfDay\":0,\"microsecond\":0}",
         ""},
        {"panel", "DeviceId", "5", nullptr, "element type 0x70169 has no property 0x30005"},
    };
    for (const ValueCase& c : cases)
    {
        SCOPED_TRACE(std::string(c.property) + " = " + c.written);
        const UINT32 uuid = panel_.uuidOf(c.element);
        const UINT32 property = id(IdKind::Property, c.property);
        const std::string before = panelconfig::readPropertyValue(uuid, property);
        std::string error;
        EXPECT_EQ(panelconfig::writePropertyValue(uuid, property, c.written, error),
                  c.readBack != nullptr);
        EXPECT_EQ(error, c.problem);
        EXPECT_EQ(panelconfig::readPropertyValue(uuid, property), c.readBack ? c.readBack : before);
    }
}

TEST_F(PanelConfigTest, MissingValuesAndElementsReadAsNullAndRefuseWrites)
{
    loadSmallPanel();
    const UINT32 commissioning = id(IdKind::Property, "CommissioningDate");
    EXPECT_EQ(panelconfig::readPropertyValue(panel_.uuidOf("panel"), commissioning), "null");
    std::string error;
    EXPECT_FALSE(panelconfig::writePropertyValue(0x7FFFFFF0, commissioning, "1", error));
    EXPECT_EQ(error, "no element has the uuid 2147483632");
}

} // namespace
