// The fixture of the composite tests: a panel test whose type library is the test's own, so that
// each test has exactly the types, state groups, defaults and relations it needs.
#ifndef TESTS_COMPOSITE_TEST_H
#define TESTS_COMPOSITE_TEST_H

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "support/panelFixture.h"

class CompositeTest : public PanelTest
{
protected:
    static void load(const std::string& json)
    {
        std::string error;
        ASSERT_TRUE(panelsim::loadTypeLibraryText(json, "test types", error)) << error;
    }

    static UINT32 add(UINT32 parent, UINT32 type)
    {
        const UINT32 uuid = EGW_ELementServerAddElementByType(parent, type, false, nullptr);
        EXPECT_NE(uuid, 0u);
        return uuid;
    }

    // The host calls that `action` makes, in order.
    template <typename Action>
    static std::vector<std::string> traceOf(Action action)
    {
        panelsim::startTrace();
        action();
        return panelsim::stopTrace();
    }

    static std::vector<std::string> reportedExpressions()
    {
        std::vector<std::string> expressions;
        for (const AssertReport& report : assertReports())
            expressions.push_back(report.expression);
        return expressions;
    }
};

#endif
