// Loading type libraries, and the shipped sample.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "simFixture.h"

namespace
{

using TypeLibraryTest = SimTest;

const char* const kSmallLibrary = R"({
  "stateValues": [{"id": "0x60001", "level1": 1, "level2": 2}, {"id": "0x60002", "level1": 3}],
  "stateGroups": [{"id": "0x80001", "values": ["0x60001", "0x60002"], "default": "0x60002"}],
  "types": [
    {"id": "0x70001", "name": "Top", "visibility": "0x90301",
     "properties": [{"id": "0x30004", "storage": 6, "default": "5",
                     "attributes": [1, 2, 3, 4, 5, 6, 7]}],
     "relations": [{"type": "0x70002", "kind": 0, "attributes": [1, 65535, 3]}],
     "commands": ["0x14286"], "stateGroups": ["0x80001"]},
    {"id": "0x70002", "properties": [{"id": "0x30004", "storage": 6}]}
  ]
})";

TEST_F(TypeLibraryTest, ALoadedLibraryAnswersEveryQuery)
{
    std::string error;
    ASSERT_TRUE(panelsim::loadTypeLibraryText(kSmallLibrary, "small.json", error)) << error;
    EXPECT_EQ(GetPropertyTypeByID(0x30004), 6u);
    EXPECT_EQ(GetPropertyTypeByID(0x0004), 0u) << "looked up by the tagged id";
    const auto properties = GetPropertyList(0x70001);
    ASSERT_EQ(properties.size(), 1u);
    EXPECT_EQ(properties[0].Attr7, 7);
    const auto defaults = GetPropertyDefaultList(0x70001);
    ASSERT_EQ(defaults.size(), 1u);
    EXPECT_EQ(defaults[0].DefaultValue, "5");
    const auto relations = GetRelationList(0x70001);
    ASSERT_EQ(relations.size(), 1u);
    EXPECT_EQ(relations[0].RelatedTypeID, 0x70002u);
    EXPECT_EQ(relations[0].Attr2, 65535);
    EXPECT_EQ(GetCommandList(0x70001), std::vector<unsigned>{0x14286});
    EXPECT_EQ(GetStateList(0x70001), std::vector<unsigned>{0x80001});
    EXPECT_EQ(GetAllStatusInGroup(0x80001), (std::vector<unsigned>{0x60001, 0x60002}));
    EXPECT_EQ(GetDefaultStatusOfGroup(0x80001), 0x60002u);
    EXPECT_EQ(GetVisibleByType(0x70001), 0x90301u);
    EXPECT_EQ(CIDDefine::GetStatusL1TypebyID(0x60001), 1u);
    EXPECT_EQ(CIDDefine::GetStatusL2TypebyID(0x60001), 2u);
    EXPECT_EQ(CIDDefine::GetStatusL2TypebyID(0x60002), 0u);
    EXPECT_TRUE(GetPropertyList(0x70003).empty());
    EXPECT_EQ(GetVisibleByType(0x0001), 0u) << "untagged type number";
    const unsigned top = add(0, 0x0001);
    EXPECT_NE(add(top, 0x0002, true), 0u);
    EXPECT_EQ(add(top, 0x0169), 0u) << "the sample is no longer in force";
    // An id's category is its upper half.
    EXPECT_EQ(CIDDefine::GetTypebyID(0x80001), 8u);
    EXPECT_EQ(CIDDefine::GetTypebyID(0x6000D), 6u);
    EXPECT_EQ(CIDDefine::GetTypebyID(0x0169), 0u);
}

// What a panel's own definitions can hold: a relation to type 0, and a property listed twice.
TEST_F(TypeLibraryTest, RelationsToTypeZeroAndRepeatedPropertiesAreKept)
{
    std::string error;
    ASSERT_TRUE(panelsim::loadTypeLibraryText(R"({"types": [
        {"id": "0x70001", "relations": [{"type": 0, "kind": 0}, {"type": "0x70001", "kind": 0}],
         "properties": [{"id": "0x30004", "storage": 6, "default": "5"},
                        {"id": "0x30004", "storage": 6, "default": "9"}]}]})",
                                              "repeats.json", error))
        << error;
    const auto relations = GetRelationList(0x70001);
    ASSERT_EQ(relations.size(), 2u);
    EXPECT_EQ(relations[0].RelatedTypeID, 0u);
    const auto defaults = GetPropertyDefaultList(0x70001);
    ASSERT_EQ(defaults.size(), 2u);
    EXPECT_EQ(defaults[1].DefaultValue, "9");
    // The first record gives the element its value; the relation to 0 makes no child type.
    const unsigned top = add(0, 0x0001);
    EXPECT_NE(add(top, 0x0001, true), 0u);
    Property address = Element(top).GetPropertyByPropertyID(0x4);
    unsigned short size = 0;
    const void* data = address.GetData(&size);
    ASSERT_EQ(size, 4u);
    EXPECT_EQ(std::memcmp(data, "\x05\0\0\0", 4), 0);
}

struct BadLibrary
{
    const char* text;
    const char* place;
    const char* problem;
};

const BadLibrary kBadLibraries[] = {
    {R"({"types": [)", "line 1, column 12", "syntax error"},
    {"{\"types\": [\n  {\"id\": 0x70001}]}", "line 2, column 11", "syntax error"},
    {R"({"typez": []})", ": /typez:", "unknown member"},
    {R"({"stateGroups": []})", ": /types:", "missing member"},
    {R"({"types": [{"id": "0x30001"}]})", ": /types/0/id:", "tag 0x7"},
    {R"({"types": [{"id": "0x70001"}, {"id": 458753}]})", ": /types/1/id:", "defined twice"},
    {R"({"types": [{"id": "0x70001", "properties": [{"id": "0x30004", "storage": "six"}]}]})",
     ": /types/0/properties/0/storage:", "hexadecimal"},
    {R"({"types": [{"id": "0x70001", "properties": [{"id": "0x30004", "storage": 0}]}]})",
     ": /types/0/properties/0/storage:", "unknown property"},
    {R"({"types": [{"id": "0x70001", "properties": [{"id": "0x30004", "storage": 6},
                                                    {"id": "0x40004", "storage": 6}]}]})",
     ": /types/0/properties/1/id:", "tag 0x3"},
    {R"({"types": [{"id": "0x70001", "properties": [{"id": "0x30004", "storage": 6},
                                                    {"id": "0x30004", "storage": 4}]}]})",
     ": /types/0/properties/1/storage:", "storage type 6 in an earlier definition"},
    {R"({"types": [{"id": "0x70001", "properties": [{"id": "0x30004", "storage": 6}]},
                  {"id": "0x70002", "properties": [{"id": "0x30004", "storage": 4}]}]})",
     ": /types/1/properties/0/storage:", "storage type 6 in an earlier definition"},
    {R"({"types": [{"id": "0x70001",
                    "properties": [{"id": "0x30004", "storage": 6, "attributes": [1, 2]}]}]})",
     ": /types/0/properties/0/attributes:", "7 numbers"},
    {R"({"types": [{"id": "0x70001", "properties": [{"id": "0x30004", "storage": 6,
                                                     "attributes": [256, 0, 0, 0, 0, 0, 0]}]}]})",
     ": /types/0/properties/0/attributes/0:", "out of range"},
    {R"({"types": [{"id": "0x70001", "relations": [{"type": "0x70002", "kind": 0}]}]})",
     ": /types/0/relations/0/type:", "not defined"},
    {R"({"types": [{"id": "0x70001", "relations": [{"type": "0x70001", "kind": 300}]}]})",
     ": /types/0/relations/0/kind:", "-128 to 127"},
    {R"({"types": [{"id": "0x70001", "stateGroups": ["0x80009"]}]})",
     ": /types/0/stateGroups/0:", "not defined"},
    {R"({"stateValues": [{"id": "0x60001"}],
        "stateGroups": [{"id": "0x80001", "values": ["0x60001"], "default": "0x60002"}],
        "types": []})",
     ": /stateGroups/0/default:", "not one of the group's values"},
    {R"({"stateGroups": [{"id": "0x80001", "values": ["0x60001"]}], "types": []})",
     ": /stateGroups/0/values/0:", "not defined"},
    {R"({"types": [{"id": "0x70001", "commands": ["0x14286", "0x14286"]}]})",
     ": /types/0/commands/1:", "twice"},
};

TEST_F(TypeLibraryTest, BadLibrariesAreRefusedWithPlaceAndProblemAndTheOldOneStays)
{
    for (const BadLibrary& bad : kBadLibraries)
    {
        std::string error;
        EXPECT_FALSE(panelsim::loadTypeLibraryText(bad.text, "bad.json", error)) << bad.text;
        EXPECT_EQ(error.rfind("bad.json: ", 0), 0u) << error;
        EXPECT_NE(error.find(bad.place), std::string::npos) << error;
        EXPECT_NE(error.find(bad.problem), std::string::npos) << error;
        EXPECT_EQ(GetVisibleByType(0x70169), 0x90302u)
            << "the sample stays in force after " << error;
    }
}

TEST_F(TypeLibraryTest, FilesAreLoadedAndNamedInMessages)
{
    const std::string path = ::testing::TempDir() + "panelsimTypes.json";
    std::ofstream(path) << "{\"types\": [{\"id\": \"0x70001\", \"visibility\": 3}]}";
    std::string error;
    ASSERT_TRUE(panelsim::loadTypeLibraryFile(path, error)) << error;
    EXPECT_EQ(GetVisibleByType(0x70001), 3u);
    std::ofstream(path) << "{\"types\": 5}";
    EXPECT_FALSE(panelsim::loadTypeLibraryFile(path, error));
    EXPECT_EQ(error, path + ": /types: expected an array");
    EXPECT_FALSE(panelsim::loadTypeLibraryFile(path + ".missing", error));
    EXPECT_EQ(error, path + ".missing: cannot be opened");
    EXPECT_EQ(GetVisibleByType(0x70001), 3u);
    std::remove(path.c_str());
    panelsim::loadSampleTypeLibrary();
    EXPECT_EQ(GetVisibleByType(0x70001), 0u);
}

// Every type number the gateway names: the tree roots and sub-tree roots, the five identity
// lists, the types of the type chains, the event categories, and a few more.
const unsigned short kNamedTypes[] = {
    0x0169, 0x0007, 0x0008, 0x0044, 0x0154, 0x0170, 0x0171, 0x0292, 0x0328, 0x0242, 0x0290, 0x0265,
    0x0250, 0x0246, 0x0248, 0x0204, 0x0293, 0x0297, 0x0299, 0x0172, 0x0173, 0x0174, 0x0175, 0x0176,
    0x0177, 0x0178, 0x017A, 0x017B, 0x0179, 0x0180, 0x0181, 0x0182, 0x0183, 0x0184, 0x0185, 0x0186,
    0x6237, 0x6239, 0x0187, 0x0189, 0x0190, 0x0191, 0x0192, 0x0193, 0x0195, 0x0352, 0x0353, 0x0196,
    0x0197, 0x0198, 0x0199, 0x0200, 0x0201, 0x0202, 0x0203, 0x0243, 0x0245, 0x0244, 0x0288, 0x0291,
    0x0278, 0x0273, 0x0274, 0x0266, 0x0279, 0x0267, 0x0268, 0x0269, 0x0276, 0x0275, 0x0277, 0x0251,
    0x0252, 0x0253, 0x0254, 0x0257, 0x0255, 0x0256, 0x0247, 0x0249, 0x0271, 0x0261, 0x0270, 0x0194,
    0x623A, 0x6238, 0x0296, 0x0298, 0x0300, 0x0294, 0x0205, 0x0206, 0x0207, 0x0208, 0x0209, 0x0210,
    0x0211, 0x0212, 0x0213, 0x0214, 0x0215, 0x0216, 0x0217, 0x0218, 0x0219, 0x0220, 0x0221, 0x0222,
    0x0223, 0x0224, 0x0225, 0x0226, 0x0227, 0x0228, 0x0229, 0x0230, 0x0231, 0x0232, 0x0233, 0x0234,
    0x0235, 0x0236, 0x0237, 0x0238, 0x0239, 0x0241, 0x0354, 0x0329, 0x0330, 0x0002, 0x0045, 0x0103,
    0x0104, 0x6101, 0x6102, 0x6103, 0x0156, 0x015A, 0x0166, 0x0167, 0x6104, 0x0085, 0x0013, 0x0039,
    0x0061, 0x0062, 0x0063, 0x0064, 0x0065, 0x0066, 0x0067, 0x0073, 0x0074, 0x0401, 0x0100, 0x0101,
    0x0102, 0x0105, 0x0048, 0x0049, 0x0050, 0x0051, 0x0052, 0x0053, 0x0054, 0x0055, 0x0075, 0x0076,
    0x0077, 0x0078, 0x0079, 0x0069, 0x0070, 0x007A, 0x0081, 0x0083, 0x0188,
};

TEST_F(TypeLibraryTest, SampleCoversEveryNamedTypeConsistently)
{
    std::string error;
    ASSERT_TRUE(panelsim::loadTypeLibraryText(panelsim::sampleTypeLibraryText(), "sample", error))
        << error;
    for (unsigned short number : kNamedTypes)
    {
        const unsigned type = 0x70000u | number;
        const auto commands = GetCommandList(type);
        EXPECT_NE(std::find(commands.begin(), commands.end(), 0x14286u), commands.end())
            << std::hex << number << " is missing";
        const auto properties = GetPropertyList(type);
        EXPECT_TRUE(std::any_of(properties.begin(), properties.end(),
                                [](const PropertyDef& p) { return p.PropertyID == 0x301A4; }))
            << std::hex << number << " has no GUID";
        for (unsigned group : GetStateList(type))
            EXPECT_FALSE(GetAllStatusInGroup(group).empty()) << std::hex << group;
    }
    EXPECT_EQ(GetPropertyTypeByID(0x30004), 6u);
    EXPECT_EQ(GetPropertyTypeByID(0x30005), 19u);
    EXPECT_EQ(GetPropertyTypeByID(0x301A6), 4u);
    EXPECT_EQ(GetPropertyTypeByID(0x30010), 12u);
    // Each type chain step being a child type is checked by the unique-element tests.
    const auto relations = GetRelationList(0x70048);
    EXPECT_TRUE(std::any_of(relations.begin(), relations.end(), [](const RelationDef& r) {
        return r.RelationKind == 2 && r.RelatedTypeID == 0x70167;
    })) << "detectors act through an evacuation zone";
    EXPECT_EQ(GetStateList(0x70048)[0], 0x80001u) << "detectors have the fire-alarm group";
    EXPECT_EQ(GetVisibleByType(0x76101), 0x90301u);
}

} // namespace
