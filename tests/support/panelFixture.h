// The fixture of every gateway test: a fresh simulator with the sample type library, the debug log
// and precondition reports captured, and a check that no host object outlives the test.
#ifndef TESTS_PANEL_FIXTURE_H
#define TESTS_PANEL_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "elementGateway.h"
#include "panelsim/panelsim.h"

struct LogLine
{
    int level;
    std::string module;
    std::string text;
};

struct AssertReport
{
    std::string expression;
    std::string function;
};

class PanelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        panelsim::loadSampleTypeLibrary();
        panelsim::reset();
        logLines().clear();
        assertReports().clear();
        panelsim::setLogSink([](int level, const std::string& module, const std::string& text) {
            logLines().push_back({level, module, text});
        });
        previousHandler_ = EGW_SetAssertHandler(&PanelTest::recordAssertion);
    }

    void TearDown() override
    {
        EGW_SetAssertHandler(previousHandler_);
        EXPECT_EQ(panelsim::liveElements(), 0) << "an Element outlived the operation";
        EXPECT_EQ(panelsim::liveProperties(), 0) << "a Property outlived the operation";
        panelsim::reset();
    }

    static std::vector<LogLine>& logLines()
    {
        static std::vector<LogLine> lines;
        return lines;
    }

    static std::vector<AssertReport>& assertReports()
    {
        static std::vector<AssertReport> reports;
        return reports;
    }

private:
    static void recordAssertion(const char* expression, const char* function, const char*, int)
    {
        assertReports().push_back({expression, function});
    }

    EGW_AssertHandler previousHandler_ = nullptr;
};

#endif
