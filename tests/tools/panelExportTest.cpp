// Export: a panel loaded, written back as a panel file and loaded again is the same tree, element
// by element: types, parents, property values, states and relations.
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/panelFixture.h"
#include "tools/panelConfig.h"

namespace
{

// The tree as the gateway shows it, with every element named by its place in depth-first order so
// that two loads (with different uuids) compare.
struct ElementSnapshot
{
    UINT32 type;
    std::size_t parent;
    std::vector<std::string> properties;                   // each property of the type, as JSON
    std::vector<UINT32> states;                            // each state group of the type
    std::vector<std::pair<UINT32, std::size_t>> relations; // type, target's place

    bool operator==(const ElementSnapshot& o) const
    {
        return type == o.type && parent == o.parent && properties == o.properties &&
               states == o.states && relations == o.relations;
    }
};

std::vector<ElementSnapshot> snapshot(const std::vector<UINT32>& relationTypes)
{
    std::vector<UINT32> order;
    std::vector<std::size_t> parents;
    std::vector<std::pair<UINT32, std::size_t>> pending{{EGW_ELementServerGetTreeRoot(nullptr), 0}};
    while (!pending.empty())
    {
        const auto [uuid, parent] = pending.back();
        pending.pop_back();
        const std::size_t place = order.size();
        order.push_back(uuid);
        parents.push_back(parent);
        std::vector<int> children;
        EGW_ELementServerGetChildrenUuidList(children, uuid, nullptr);
        for (auto child = children.rbegin(); child != children.rend(); ++child)
        {
            pending.emplace_back(static_cast<UINT32>(*child), place);
        }
    }
    std::map<UINT32, std::size_t> placeOf;
    for (std::size_t i = 0; i < order.size(); ++i)
    {
        placeOf[order[i]] = i;
    }
    std::vector<ElementSnapshot> tree;
    for (std::size_t i = 0; i < order.size(); ++i)
    {
        ElementSnapshot e{
            EGW_ElementServerGetElementTypeByUuid(order[i], nullptr), parents[i], {}, {}, {}};
        std::vector<EGW_PropertyDef_Thrift> properties;
        EGW_ELementServerGetPropertyInformationList(e.type, properties);
        for (const EGW_PropertyDef_Thrift& p : properties)
        {
            e.properties.push_back(panelconfig::readPropertyValue(order[i], p.PropertyID));
        }
        std::vector<unsigned int> groups;
        EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, e.type);
        for (unsigned int group : groups)
        {
            UINT32 value = 0;
            EGW_ELementServerGetStateValueByUuid(value, order[i], group, nullptr);
            e.states.push_back(value);
        }
        for (UINT32 type : relationTypes)
        {
            std::vector<int> targets;
            EGW_ElementServerGetReferenceRelations(targets, order[i], type, 1, nullptr);
            for (int target : targets)
            {
                e.relations.emplace_back(type, placeOf.at(static_cast<UINT32>(target)));
            }
        }
        tree.push_back(std::move(e));
    }
    return tree;
}

class PanelExportTest : public PanelTest
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

    void load(const std::string& text, const std::string& name)
    {
        std::string error;
        ASSERT_TRUE(panelconfig::loadPanelText(text, name, names_, panel_, error)) << error;
    }

    std::string exported(bool withKeys)
    {
        std::ostringstream out;
        panelconfig::writePanel(
            out, EGW_ELementServerGetTreeRoot(nullptr), names_, kRelations,
            withKeys ? panel_.keyByUuid : std::unordered_map<UINT32, std::string>(), panel_.name);
        return out.str();
    }

    // Exports the tree in force, loads the text into an empty tree and compares the two.
    void expectRoundTrip(bool withKeys)
    {
        const std::vector<ElementSnapshot> before = snapshot(kRelations);
        const std::string text = exported(withKeys);
        panelsim::reset();
        load(text, "exported.json");
        const std::vector<ElementSnapshot> after = snapshot(kRelations);
        ASSERT_EQ(after.size(), before.size());
        for (std::size_t i = 0; i < before.size(); ++i)
        {
            EXPECT_TRUE(after[i] == before[i]) << "element " << i << " of the depth-first order";
        }
    }

    const std::vector<UINT32> kRelations{0x20001, 0x20002};
    panelconfig::Vocabulary names_;
    panelconfig::LoadedPanel panel_;
};

TEST_F(PanelExportTest, TheSamplePanelWithChangedStatesAndValuesComesBackTheSame)
{
    std::ifstream file(EGW_SAMPLE_PANEL_FILE);
    std::stringstream text;
    text << file.rdbuf();
    load(text.str(), "samplePanel.json");
    // A commissioned panel differs from its file: a detector disabled, a value changed.
    UINT32 group = 0;
    UINT32 value = 0;
    ASSERT_TRUE(names_.idOf(panelconfig::IdKind::StateGroup, "DisablementState", group));
    ASSERT_TRUE(names_.idOf(panelconfig::IdKind::StateValue, "Disabled", value));
    ASSERT_EQ(
        EGW_ELementServerSetStateValueByUuid(value, panel_.uuidOf("det-1-001"), group, nullptr),
        TRUE);
    std::string error;
    ASSERT_TRUE(panelconfig::writePropertyValue(panel_.uuidOf("det-1-001"), 0x30002,
                                                "Reception, wall", error))
        << error;
    expectRoundTrip(true);
    EXPECT_NE(panel_.uuidOf("det-1-001"), 0u) << "the keys of the file are kept";
}

TEST_F(PanelExportTest, AGeneratedPanelComesBackTheSameAlsoWithMadeUpKeys)
{
    for (const bool withKeys : {true, false})
    {
        SCOPED_TRACE(withKeys ? "keys of the file" : "made-up keys");
        panelsim::reset();
        load(panelconfig::generatePanelText(3, 20), "generated.json");
        expectRoundTrip(withKeys);
        EXPECT_EQ(panel_.elements.size(), panelconfig::generatedElementCount(3, 20));
    }
}

} // namespace
