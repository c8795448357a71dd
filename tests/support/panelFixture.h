// The fixture of every gateway and simulator test: a fresh simulator with the sample type library,
// the debug log and precondition reports captured, and a check that no host object outlives it
// and that every Property went before its Element.
#ifndef TESTS_PANEL_FIXTURE_H
#define TESTS_PANEL_FIXTURE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
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
        if (checkReleaseOrder_)
        {
            EXPECT_EQ(panelsim::propertiesOutlivingElements(), 0)
                << "a Property outlived the Element it was taken from or written through";
        }
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

    // Adds an element of `type` below `parent` (0: the root) through the host itself, not through
    // the operations under test; its uuid, 0 on refusal.
    static unsigned addElement(unsigned parent, unsigned short type, bool checkChildType = false)
    {
        int error = -1;
        Element parentElement(parent);
        const Element added = ElementServer::GetElementServer()->AddElement(
            parent != 0 ? &parentElement : nullptr, type, checkChildType, &error, false);
        return error == 0 ? added.GetUUID() : 0;
    }

    // A number as the simulator's trace writes it: "0x1a".
    static std::string hexText(unsigned value)
    {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", value);
        return text;
    }

    // The calls of a trace that contain `part`, in order.
    static std::vector<std::string> callsWith(const std::vector<std::string>& trace,
                                              const std::string& part)
    {
        std::vector<std::string> picked;
        std::copy_if(trace.begin(), trace.end(), std::back_inserter(picked),
                     [&](const std::string& call) { return call.find(part) != std::string::npos; });
        return picked;
    }

    // The simulator's own tests hold host objects in whatever order a test needs.
    bool checkReleaseOrder_ = true;

private:
    static void recordAssertion(const char* expression, const char* function, const char*, int)
    {
        assertReports().push_back({expression, function});
    }

    EGW_AssertHandler previousHandler_ = nullptr;
};

#endif
