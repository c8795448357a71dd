// Singleton elements found through their type chains.
#include <map>
#include <string>
#include <vector>

#include "support/panelFixture.h"

namespace
{

using Chain = std::vector<unsigned short>;

// The singleton types grouped by the path of types above them, written out independently of the
// library's own table.
const std::vector<std::pair<Chain, Chain>> kChainGroups = {
    {{}, {0x0169}},
    {{0x0169}, {0x0170, 0x0328}},
    {{0x0169, 0x0170}, {0x0171, 0x0204, 0x0242, 0x0250, 0x0265, 0x0290}},
    {{0x0169, 0x0170, 0x0204},
     {0x0205, 0x0206, 0x0207, 0x0208, 0x0209, 0x0210, 0x0211, 0x0212, 0x0213,
      0x0214, 0x0215, 0x0216, 0x0217, 0x0218, 0x0219, 0x0220, 0x0221, 0x0222,
      0x0223, 0x0224, 0x0225, 0x0226, 0x0227, 0x0228, 0x0229, 0x0230, 0x0231,
      0x0232, 0x0233, 0x0234, 0x0235, 0x0236, 0x0237, 0x0238, 0x0239, 0x0241}},
    {{0x0169, 0x0170, 0x0242}, {0x0243, 0x0244, 0x0245, 0x0288}},
    {{0x0169, 0x0170, 0x0246}, {0x0247}},
    {{0x0169, 0x0170, 0x0265}, {0x0274}},
    {{0x0169, 0x0170, 0x0290}, {0x0291}},
    {{0x0169, 0x0292}, {0x0293, 0x0297, 0x0299, 0x0354}},
    {{0x0169, 0x0292, 0x0299}, {0x0294}},
    {{0x0169, 0x0328}, {0x0329, 0x0330}},
};

// Every singleton type's path from the root, the type itself last.
std::vector<Chain> everyChain()
{
    std::vector<Chain> chains;
    for (const auto& [parentPath, types] : kChainGroups)
    {
        for (unsigned short type : types)
        {
            chains.push_back(parentPath);
            chains.back().push_back(type);
        }
    }
    return chains;
}

class UniqueElementTest : public PanelTest
{
protected:
    // The element at the end of a path of types from the root, created on first use. The sample
    // type library must allow each type below the one before it.
    UINT32 elementAt(const Chain& path)
    {
        UINT32& uuid = elements_[path];
        if (uuid == 0)
        {
            const UINT32 parent =
                path.size() > 1 ? elementAt(Chain(path.begin(), path.end() - 1)) : 0;
            uuid = addElement(parent, path.back(), true);
            EXPECT_NE(uuid, 0u) << "could not add type " << hexText(path.back());
        }
        return uuid;
    }

    // The uuid found and the host calls made on the way.
    static std::pair<UINT32, std::vector<std::string>> find(unsigned short type, int* error)
    {
        panelsim::startTrace();
        const Element element = GetUniqueElement(type, error);
        const std::vector<std::string> trace = panelsim::stopTrace();
        return {element.GetUUID(), trace};
    }

    std::map<Chain, UINT32> elements_;
};

TEST_F(UniqueElementTest, EverySingletonTypeIsResolvedThroughItsPathFromTheRoot)
{
    const std::vector<Chain> chains = everyChain();
    ASSERT_EQ(chains.size(), 59u);
    for (const Chain& chain : chains)
        elementAt(chain);
    for (const Chain& chain : chains)
    {
        SCOPED_TRACE("type " + hexText(chain.back()));
        std::string list;
        for (unsigned short type : chain)
            list += (list.empty() ? "" : ", ") + hexText(type);
        const std::vector<std::string> expectedTrace = {
            "ElementServer::GetElementServer()",
            "ElementServer::FindElementWithTypeChain({" + list + "})"};
        int error = -1;
        EXPECT_EQ(find(chain.back(), &error), std::pair(elements_[chain], expectedTrace));
        EXPECT_EQ(error, 0);
        EXPECT_EQ(find(chain.back(), nullptr), std::pair(elements_[chain], expectedTrace));
    }
}

TEST_F(UniqueElementTest, UnsupportedTypesReportFiveAndPrintOneLine)
{
    for (const Chain& chain : everyChain())
        elementAt(chain);
    // Types inside chains without a chain of their own, numbers with hexadecimal letters, gaps
    // between the listed numbers, a type that occurs many times in a panel, and 0.
    for (unsigned short type : {0x0292, 0x0246, 0x0248, 0x020A, 0x0240, 0x0000, 0x0048, 0x0001})
    {
        SCOPED_TRACE("type " + hexText(type));
        int error = -1;
        testing::internal::CaptureStdout();
        const auto [found, trace] = find(type, &error);
        const auto [foundWithoutError, traceWithoutError] = find(type, nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "[Element Server] Not supported yet!\n[Element Server] Not supported yet!\n");
        EXPECT_EQ(error, 5);
        EXPECT_EQ(found + foundWithoutError, 0u);
        EXPECT_TRUE(callsWith(trace, "FindElementWithTypeChain").empty());
        EXPECT_TRUE(callsWith(traceWithoutError, "FindElementWithTypeChain").empty());
    }
}

TEST_F(UniqueElementTest, UnresolvedChainPassesTheHostErrorThroughSilently)
{
    // Only the root and the hardware root exist: the card rack's chain leads nowhere.
    elementAt({0x0169, 0x0170});
    int error = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(find(0x0204, &error).first, 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_NE(error, 0);
    EXPECT_NE(error, 5);
}

} // namespace
