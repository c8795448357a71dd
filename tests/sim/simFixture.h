// Fixture of the simulator's own tests: the sample type library, an empty tree, the debug log
// captured, and a check that no Element or Property outlives a test.
#ifndef TESTS_SIM_FIXTURE_H
#define TESTS_SIM_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/elementServer.h"
#include "host/idDefine.h"
#include "host/typeLibrary.h"
#include "panelsim/panelsim.h"

struct SimLogLine
{
    int level;
    std::string module;
    std::string text;
};

class SimTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        panelsim::loadSampleTypeLibrary();
        panelsim::reset();
        panelsim::setLogSink([this](int level, const std::string& module, const std::string& text) {
            log.push_back({level, module, text});
        });
    }

    void TearDown() override
    {
        panelsim::reset();
        EXPECT_EQ(panelsim::liveElements(), 0);
        EXPECT_EQ(panelsim::liveProperties(), 0);
    }

    static ElementServer& server() { return *ElementServer::GetElementServer(); }

    // Adds an element of `type` below `parent` (0: the root) and returns its uuid, 0 on refusal.
    static unsigned add(unsigned parent, unsigned short type, bool checkChildType = false)
    {
        int error = -1;
        Element parentElement(parent);
        Element added = server().AddElement(parent ? &parentElement : nullptr, type, checkChildType,
                                            &error, false);
        return error == 0 ? added.GetUUID() : 0;
    }

    static std::vector<unsigned> uuids(const std::list<Element>& elements)
    {
        std::vector<unsigned> list;
        for (const Element& e : elements)
            list.push_back(e.GetUUID());
        return list;
    }

    static std::vector<unsigned> children(unsigned uuid)
    {
        return uuids(Element(uuid).GetChildrenList());
    }

    std::vector<SimLogLine> log;
};

// A small panel:
//   root(0x0169)
//     hardware(0x0170)
//       rack(0x0204)
//         card(0x0205)
//     detection(0x0292)
//       rack2(0x0204)
//     control(0x0328)
class SmallTree : public SimTest
{
protected:
    void SetUp() override
    {
        SimTest::SetUp();
        root = add(0, 0x0169);
        hardware = add(root, 0x0170);
        rack = add(hardware, 0x0204);
        card = add(rack, 0x0205);
        detection = add(root, 0x0292);
        rack2 = add(detection, 0x0204);
        control = add(root, 0x0328);
    }

    unsigned root = 0, hardware = 0, rack = 0, card = 0, detection = 0, rack2 = 0, control = 0;
};

#endif
