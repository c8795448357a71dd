// Event categories and the event detail record.
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "support/panelFixture.h"

namespace
{

constexpr UINT32 kAddress = 0x30004;
constexpr UINT32 kDeviceId = 0x30005;
constexpr UINT32 kProxy = 0x20002;
constexpr UINT32 kUnset = 0xEEEEEEEE;

ENENT_FIELD unsetRecord()
{
    return ENENT_FIELD{kUnset, kUnset, kUnset, kUnset, kUnset, false, kUnset, kUnset};
}

std::string describe(const ENENT_FIELD& f)
{
    return "SelfID=" + std::to_string(f.SelfID) + " SelfAddress=" + std::to_string(f.SelfAddress) +
           " ParentID=" + std::to_string(f.ParentID) +
           " ParentAddress=" + std::to_string(f.ParentAddress) +
           " DeviceID=" + std::to_string(f.DeviceID) + " HasProxy=" + std::to_string(f.HasProxy) +
           " ProxyID=" + std::to_string(f.ProxyID) +
           " ProxyAddress=" + std::to_string(f.ProxyAddress);
}

// A panel with an evacuation area (address 20) that holds a zone (21) and a group (30); a loop (7).
class EventFormatTest : public PanelTest
{
protected:
    void SetUp() override
    {
        PanelTest::SetUp();
        root_ = add(0, 0x0169, 1);
        const UINT32 section = add(add(root_, 0x0292), 0x0297, 2);
        evacuationArea_ = add(section, 0x0298, 20);
        evacuationZone_ = add(evacuationArea_, 0x0167, 21);
        evacuationGroup_ = add(evacuationArea_, 0x0166, 30);
        loop_ = add(add(root_, 0x0170), 0x0046, 7);
    }

    // Adds an element; an address or device ID of 0 is left at the type's default.
    static UINT32 add(UINT32 parent, UINT32 type, UINT32 address = 0, UINT32 deviceId = 0)
    {
        const UINT32 uuid = EGW_ELementServerAddElementByType(parent, type, false, nullptr);
        EXPECT_NE(uuid, 0u);
        const std::pair<UINT32, UINT32> values[] = {{kAddress, address}, {kDeviceId, deviceId}};
        for (const auto& [property, value] : values)
        {
            if (value != 0)
            {
                EXPECT_TRUE(EGW_ElementServerSetPropertyIntDataById(uuid, property, value, {}));
            }
        }
        return uuid;
    }

    static void proxy(UINT32 holder, UINT32 target)
    {
        EXPECT_EQ(EGW_ELementServerAddReferenceRelation(static_cast<int>(holder),
                                                        static_cast<int>(target), kProxy, nullptr),
                  1);
    }

    ENEventFormat format_;
    UINT32 root_ = 0, evacuationArea_ = 0, evacuationZone_ = 0, evacuationGroup_ = 0, loop_ = 0;
};

// ---- Classification -----------------------------------------------------------------------------

TEST_F(EventFormatTest, CategoryComesFromTheTypeThenFromTheParent)
{
    // Type, parent type (0: the loop, which decides nothing), category. Every type of the type
    // table, also below a parent that would decide otherwise; then the parent tests (a detector in
    // an input zone, a circuit on a board) before the four type sets, one member each.
    const std::tuple<UINT32, UINT32, int> cases[] = {
        {0x0002, 0, 1},      {0x0007, 0, 1},       {0x0045, 0, 2},      {0x0103, 0, 9},
        {0x0104, 0x0156, 9}, {0x6101, 0, 10},      {0x6102, 0, 10},     {0x6103, 0, 10},
        {0x0156, 0, 11},     {0x015A, 0, 11},      {0x0166, 0, 11},     {0x0167, 0x015A, 11},
        {0x6104, 0, 11},     {0x0085, 0x0156, 12}, {0x0048, 0x0156, 3}, {0x0188, 0x015A, 3},
        {0x0040, 0x0013, 4}, {0x0041, 0x0039, 4},  {0x0188, 0x0013, 4}, {0x0061, 0, 5},
        {0x0100, 0, 6},      {0x0048, 0, 7},       {0x0069, 0, 8},      {0x0046, 0, 14},
        {0x0013, 0, 14},     {0x0169, 0, 14}};
    for (const auto& [type, parentType, category] : cases)
    {
        SCOPED_TRACE("type " + hexText(type) + " parent " + hexText(parentType));
        const UINT32 parent = parentType == 0 ? loop_ : add(loop_, parentType);
        EXPECT_EQ(format_.CheckCategoryByType(add(parent, type)), category);
    }
    // The root has no parent to test.
    EXPECT_FALSE(format_.IsInputZone(root_) || format_.IsChildOfBoradOr4MCard(root_));
    EXPECT_EQ(format_.CheckCategoryByType(root_), 14);
}

// Every 16-bit type number against the four type sets, written here as plain lists.
TEST_F(EventFormatTest, TypePredicatesMatchExactlyTheirSetsAndOnlyTaggedIds)
{
    const std::set<unsigned> modules{0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x73, 0x74, 0x401};
    const std::set<unsigned> channels{0x100, 0x101, 0x102, 0x105};
    const std::set<unsigned> detectors{0x48, 0x49, 0x50, 0x51, 0x52, 0x53, 0x54,
                                       0x55, 0x75, 0x76, 0x77, 0x78, 0x79};
    const std::set<unsigned> sounders{0x69, 0x70, 0x7A, 0x81, 0x83};

    using Predicate = bool (ENEventFormat::*)(unsigned int);
    const std::pair<Predicate, const std::set<unsigned>*> predicates[] = {
        {&ENEventFormat::IsIO_Module_FD_FRD, &modules},
        {&ENEventFormat::IsChannelOfIOModule, &channels},
        {&ENEventFormat::IsDetector, &detectors},
        {&ENEventFormat::IsAddresSounder, &sounders},
    };
    for (const auto& [predicate, members] : predicates)
    {
        for (unsigned t = 0; t <= 0xFFFF; ++t)
        {
            ASSERT_EQ((format_.*predicate)(0x70000 | t), members->count(t) != 0)
                << "set of " << members->size() << ", 0x" << std::hex << t;
            ASSERT_FALSE((format_.*predicate)(t)) << "bare id 0x" << std::hex << t;
        }
    }
}

// ---- Proxies ------------------------------------------------------------------------------------

TEST_F(EventFormatTest, ProxySearchesSkipHiddenElementsAndFindTheFirstEvacuationZone)
{
    const UINT32 control = add(add(add(root_, 0x0328), 0x0329), 0x6101);
    const UINT32 secondZone = add(evacuationArea_, 0x0167, 22);
    const UINT32 hiddenSection = add(add(root_, 0x0170), 0x0246);
    const UINT32 detector = add(loop_, 0x0048, 3);
    // Control groups (0x6101) and elements of a type that is not shown are never proxies.
    for (UINT32 target : {control, hiddenSection, evacuationGroup_, evacuationZone_, secondZone})
        proxy(detector, target);

    EXPECT_EQ(format_.GetProxyElementID(detector, true), evacuationGroup_);
    EXPECT_EQ(format_.GetProxyEvacZoneID(detector, true), evacuationZone_);
    // The direction flag reaches the relation query: backwards, the zone's proxy is its holder.
    EXPECT_EQ(format_.GetProxyElementID(secondZone, false), detector);
    EXPECT_EQ(format_.GetProxyElementID(secondZone, true), 0u);
    EXPECT_EQ(format_.GetProxyEvacZoneID(evacuationGroup_, true), 0u);

    // Without the proxy's parent only the proxy is filled in; no evacuation zone, nothing at all.
    ENENT_FIELD record = unsetRecord(), expected = unsetRecord();
    format_.GetProxyIDAndAddress(evacuationZone_, record, false, true, true);
    EXPECT_EQ(describe(record), describe(expected));
    format_.GetProxyIDAndAddress(detector, record, true, false, false);
    expected.HasProxy = true;
    expected.ProxyID = evacuationGroup_;
    expected.ProxyAddress = 30;
    EXPECT_EQ(describe(record), describe(expected));
}

// ---- The detail record of each category ---------------------------------------------------------

// The elements a record names: the one a case builds, its parent, and the fixture's.
enum Ref
{
    kNone,
    kSelf,
    kParent,
    kLoop,
    kArea,
    kZone,
    kGroup
};

struct Built
{
    UINT32 type = 0, address = 0, deviceId = 0;
};

// What the record holds afterwards; kUnset where nothing is written.
struct Expected
{
    Ref self = kNone;
    UINT32 selfAddress = kUnset;
    Ref parent = kNone;
    UINT32 parentAddress = kUnset;
    UINT32 deviceId = kUnset;
    Ref proxy = kNone;
    UINT32 proxyAddress = kUnset;
};

struct DetailCase
{
    const char* name;
    int category;
    Built parent;  // type 0: the element goes below the loop
    Built element; // type 0: no element at all
    std::vector<Ref> proxies;
    Expected record;
};

// Named by its text when gtest shows a case: its raw bytes would include uninitialised padding.
void PrintTo(const DetailCase& c, std::ostream* out)
{
    *out << c.name;
}

// clang-format off
const DetailCase kDetailCases[] = {
    {"network node: its uuid only", 1, {}, {0x0002, 5}, {}, {kSelf}},
    {"mains supervision: itself", 2, {}, {0x0045, 4}, {}, {kSelf, 4}},
    {"detector in an input zone: itself and the zone", 3,
     {0x0156, 2}, {0x0048, 9, 0x100009}, {kZone}, {kSelf, 9, kParent, 2}},
    {"zone indicator without an address", 3,
     {0x015A, 3}, {0x0188}, {}, {kSelf, kUnset, kParent, 3}},
    {"circuit on a board", 4, {0x0013, 6}, {0x0040, 1}, {}, {kSelf, 1, kParent, 6}},
    {"module: itself, its loop and its device ID", 5,
     {}, {0x0061, 6, 0x100006}, {}, {kSelf, 6, kLoop, 7, 0x100006}},
    {"channel with a proxy: the proxy's parent replaces the module", 6,
     {0x0061, 6, 0x100006}, {0x0101, 2}, {kZone}, {kSelf, 2, kArea, 20, 0x100006, kZone, 21}},
    {"channel without a proxy: the module's uuid, not its address", 6,
     {0x0061, 6, 0x100006}, {0x0101, 2}, {}, {kSelf, 2, kParent, kUnset, 0x100006}},
    {"call point: the first proxy, of any type", 7,
     {}, {0x0075, 4, 0x100004}, {kGroup, kZone}, {kSelf, 4, kArea, 20, 0x100004, kGroup, 30}},
    {"detector without a proxy: no parent either", 7,
     {}, {0x0049, 8, 0x100008}, {}, {kSelf, 8, kNone, kUnset, 0x100008}},
    {"sounder: the first evacuation zone among its proxies", 8,
     {}, {0x0081, 5, 0x100005}, {kGroup, kZone}, {kSelf, 5, kArea, 20, 0x100005, kZone, 21}},
    {"sounder whose proxies hold no evacuation zone", 8,
     {}, {0x0081, 5, 0x100005}, {kGroup}, {kSelf, 5, kNone, kUnset, 0x100005}},
    {"sounder output channel: parent, then the proxy's parent, and the module's device", 9,
     {0x0062, 6, 0x100006}, {0x0103, 3}, {kZone}, {kSelf, 3, kArea, 20, 0x100006, kZone, 21}},
    {"door control channel without a proxy", 9,
     {0x0073, 7, 0x100007}, {0x0104, 1}, {}, {kSelf, 1, kParent, 7, 0x100007}},
    {"control group: itself and its proxy", 10,
     {}, {0x6102, 2}, {kZone}, {kSelf, 2, kArea, 20, kUnset, kZone, 21}},
    {"evacuation zone: itself", 11, {}, {0x0167, 21}, {}, {kSelf, 21}},
    {"base sounder at 131 shows 1", 12, {0x0048, 1, 0x100001}, {0x0085, 131},
     {kGroup, kZone}, {kSelf, 1, kArea, 20, 0x100001, kZone, 21}},
    {"base sounder at 132 shows 3", 12,
     {0x0048, 1, 0x100001}, {0x0085, 132}, {}, {kSelf, 3, kNone, kUnset, 0x100001}},
    {"base sounder at 133 shows 133", 12,
     {0x0048, 1, 0x100001}, {0x0085, 133}, {}, {kSelf, 133, kNone, kUnset, 0x100001}},
    {"loop: itself", 14, {}, {0x0046, 7}, {}, {kSelf, 7}},
    {"no element: nothing", 0, {}, {}, {}, {}},
};
// clang-format on

class EventDetailTest : public EventFormatTest, public testing::WithParamInterface<DetailCase>
{
};

TEST_P(EventDetailTest, FillsWhatTheCategoryReports)
{
    const DetailCase& c = GetParam();
    SCOPED_TRACE(c.name);
    const Built& p = c.parent;
    const Built& e = c.element;
    const UINT32 parent = p.type != 0 ? add(loop_, p.type, p.address, p.deviceId) : loop_;
    const UINT32 element = e.type != 0 ? add(parent, e.type, e.address, e.deviceId) : 0x7FFFFFF0;
    const UINT32 uuids[] = {kUnset,          element,         parent,          loop_,
                            evacuationArea_, evacuationZone_, evacuationGroup_};
    for (Ref target : c.proxies)
        proxy(element, uuids[target]);
    const Expected& r = c.record;
    const ENENT_FIELD expected{uuids[r.self], r.selfAddress,    uuids[r.parent], r.parentAddress,
                               r.deviceId,    r.proxy != kNone, uuids[r.proxy],  r.proxyAddress};
    ENENT_FIELD record = unsetRecord();
    EXPECT_EQ(format_.GetEventDetails(element, record), c.category);
    EXPECT_EQ(describe(record), describe(expected));
}

INSTANTIATE_TEST_SUITE_P(EveryCategory, EventDetailTest, testing::ValuesIn(kDetailCases),
                         [](const testing::TestParamInfo<DetailCase>& param) {
                             return "case" + std::to_string(param.index) + "_category" +
                                    std::to_string(param.param.category);
                         });

} // namespace
