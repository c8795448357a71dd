// Singleton elements found through their type chains.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "support/panelFixture.h"

namespace
{

using Chain = std::vector<unsigned short>;

// The singleton types grouped by the path of types above them, written out independently of the
// library's own table.
struct ChainGroup
{
    Chain parentPath;
    std::vector<unsigned short> types;
};

const std::vector<ChainGroup>& chainGroups()
{
    static const std::vector<ChainGroup> groups = {
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
    return groups;
}

std::string hex(unsigned value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

std::string chainTrace(const Chain& chain)
{
    std::string list;
    for (unsigned short type : chain)
    {
        list += (list.empty() ? "" : ", ") + hex(type);
    }
    return "ElementServer::FindElementWithTypeChain({" + list + "})";
}

class UniqueElementTest : public PanelTest
{
protected:
    // The element at the end of a path of types from the root, created on first use.
    UINT32 elementAt(const Chain& path)
    {
        const auto known = elements_.find(path);
        if (known != elements_.end())
        {
            return known->second;
        }
        const UINT32 parent = path.size() > 1 ? elementAt(Chain(path.begin(), path.end() - 1)) : 0;
        const UINT32 uuid = EGW_ELementServerAddElementByType(parent, path.back(), false, nullptr);
        EXPECT_NE(uuid, 0u) << "could not add type " << hex(path.back());
        elements_[path] = uuid;
        return uuid;
    }

    void buildEveryChain()
    {
        for (const ChainGroup& group : chainGroups())
        {
            for (unsigned short type : group.types)
            {
                Chain path = group.parentPath;
                path.push_back(type);
                elementAt(path);
            }
        }
    }

    std::map<Chain, UINT32> elements_;
};

TEST_F(UniqueElementTest, EverySingletonTypeIsResolvedThroughItsPathFromTheRoot)
{
    buildEveryChain();
    std::size_t supported = 0;
    for (const ChainGroup& group : chainGroups())
    {
        for (unsigned short type : group.types)
        {
            Chain chain = group.parentPath;
            chain.push_back(type);
            SCOPED_TRACE("type " + hex(type));
            int error = -1;
            panelsim::startTrace();
            UINT32 found = 0;
            {
                Element element = GetUniqueElement(type, &error);
                const std::vector<std::string> trace = panelsim::stopTrace();
                EXPECT_EQ(trace, (std::vector<std::string>{"ElementServer::GetElementServer()",
                                                           chainTrace(chain)}));
                found = element.GetUUID();
            }
            EXPECT_EQ(error, 0);
            EXPECT_EQ(found, elements_[chain]);
            ++supported;
        }
    }
    EXPECT_EQ(supported, 59u);
}

TEST_F(UniqueElementTest, NullErrorPointerStillResolvesTheChain)
{
    const UINT32 routingArea = elementAt({0x0169, 0x0292, 0x0299, 0x0294});
    panelsim::startTrace();
    UINT32 found = 0;
    {
        Element element = GetUniqueElement(0x0294, nullptr);
        found = element.GetUUID();
    }
    const std::vector<std::string> trace = panelsim::stopTrace();
    EXPECT_EQ(found, routingArea);
    ASSERT_GE(trace.size(), 2u);
    EXPECT_EQ(trace[1], chainTrace({0x0169, 0x0292, 0x0299, 0x0294}));
}

TEST_F(UniqueElementTest, UnsupportedTypesReportFiveAndPrintOneLine)
{
    buildEveryChain();
    // Types inside chains without a chain of their own, numbers with hexadecimal letters, gaps
    // between the listed numbers, a type that occurs many times in a panel, and 0.
    for (unsigned short type : {0x0292, 0x0246, 0x0248, 0x020A, 0x0240, 0x0000, 0x0048, 0x0001})
    {
        SCOPED_TRACE("type " + hex(type));
        int error = -1;
        testing::internal::CaptureStdout();
        panelsim::startTrace();
        UINT32 found = 1;
        {
            Element element = GetUniqueElement(type, &error);
            found = element.GetUUID();
        }
        const std::vector<std::string> trace = panelsim::stopTrace();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Element Server] Not supported yet!\n");
        EXPECT_EQ(error, 5);
        EXPECT_EQ(found, 0u);
        for (const std::string& call : trace)
        {
            EXPECT_EQ(call.find("FindElementWithTypeChain"), std::string::npos) << call;
        }
    }
}

TEST_F(UniqueElementTest, UnsupportedTypeWithNullErrorPointerOnlyPrints)
{
    testing::internal::CaptureStdout();
    {
        Element element = GetUniqueElement(0x0292, nullptr);
        EXPECT_EQ(element.GetUUID(), 0u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Element Server] Not supported yet!\n");
}

TEST_F(UniqueElementTest, UnresolvedChainPassesTheHostErrorThroughSilently)
{
    // Only the root and the hardware root exist: the card rack's chain leads nowhere.
    elementAt({0x0169, 0x0170});
    int error = 0;
    testing::internal::CaptureStdout();
    {
        Element element = GetUniqueElement(0x0204, &error);
        EXPECT_EQ(element.GetUUID(), 0u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_NE(error, 0);
    EXPECT_NE(error, 5);
}

} // namespace
