// Fixture of the simulator's own tests: the panel fixture with the host reached directly.
#ifndef TESTS_SIM_FIXTURE_H
#define TESTS_SIM_FIXTURE_H

#include <list>
#include <vector>

#include "host/idDefine.h"
#include "host/typeLibrary.h"
#include "support/panelFixture.h"

class SimTest : public PanelTest
{
protected:
    SimTest() { checkReleaseOrder_ = false; }

    static ElementServer& server() { return *ElementServer::GetElementServer(); }

    static unsigned add(unsigned parent, unsigned short type, bool checkChildType = false)
    {
        return addElement(parent, type, checkChildType);
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
