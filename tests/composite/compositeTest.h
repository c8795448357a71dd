// The fixture of the composite tests: a panel test whose type library is the test's own, so that
// each test has exactly the types, state groups, defaults and relations it needs.
#ifndef TESTS_COMPOSITE_TEST_H
#define TESTS_COMPOSITE_TEST_H

#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "support/panelFixture.h"

class CompositeTest : public PanelTest
{
public:
    static std::size_t reportCount() { return assertReports().size(); }

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

    static std::string hex(UINT32 value)
    {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", value);
        return text;
    }

    // The host calls that `action` makes, in order.
    template <typename Action>
    static std::vector<std::string> traceOf(Action action)
    {
        panelsim::startTrace();
        action();
        return panelsim::stopTrace();
    }

    // The calls of a trace that contain `part`, in order.
    static std::vector<std::string> only(const std::vector<std::string>& trace,
                                         const std::string& part)
    {
        std::vector<std::string> picked;
        std::copy_if(trace.begin(), trace.end(), std::back_inserter(picked),
                     [&](const std::string& call) { return call.find(part) != std::string::npos; });
        return picked;
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
