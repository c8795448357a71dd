// A small panel over the sample type library, built through the gateway: enough of every kind of
// element that each exported function finds something to do. Used by the fault loop, the stress
// test and the fuzz harnesses.
#ifndef TESTS_RELIABILITY_SAMPLE_PANEL_H
#define TESTS_RELIABILITY_SAMPLE_PANEL_H

#include <vector>

#include "elementGateway.h"

struct SamplePanel
{
    UINT32 root;        // 0x0169 panel, address 1, GUID counter
    UINT32 hardware;    // 0x0170 hardware root
    UINT32 p2;          // 0x0171 peripheral bus root, address 7
    UINT32 point;       // 0x0172 repeater panel, device ID 0x00A1B2C3
    UINT32 subUnit;     // 0x0189 unit input, address 3
    UINT32 section;     // 0x0204 card rack, address 4
    UINT32 board;       // 0x0013 conventional board under the card rack
    UINT32 boardInput;  // 0x0040 under the board
    UINT32 loop;        // 0x0046 loop under a 0x0205 loop card of the card rack
    UINT32 detector;    // 0x0048 on the loop, address 5, proxy relation to the input zone
    UINT32 sounder;     // 0x0081 on the loop, address 6, proxy relation to the evacuation zone
    UINT32 detection;   // 0x0292 detection root
    UINT32 zone;        // 0x0156 input zone (under 0x0293, 0x0296), address 12
    UINT32 indicator;   // 0x0188 zone indicator under the input zone
    UINT32 evacZone;    // 0x0167 evacuation zone (under 0x0297, 0x0298), address 2
    UINT32 control;     // 0x0328 control root
    UINT32 spare;       // 0x0204 card rack with one 0x0205 child: deleted by some rows

    // Every element named above, root first.
    std::vector<UINT32> all() const
    {
        return {root,   hardware, p2,       point,    subUnit,   section, board,   boardInput, loop,
                detector, sounder, detection, zone, indicator, evacZone, control, spare};
    }
};

// Module id of the panel module that the sample panel logs in and subscribes for.
constexpr UINT32 kSamplePid = 11;
// The proxy relation type.
constexpr UINT32 kProxyRelation = 0x20002;

// Builds the panel into an empty tree (after panelsim::reset) and returns its uuids. Any failed
// call is a broken test setup and throws std::runtime_error.
SamplePanel buildSamplePanel();

#endif
