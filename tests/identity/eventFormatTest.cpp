// Event categories and the event detail record.
#include <functional>
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

void expectRecord(const ENENT_FIELD& actual, const ENENT_FIELD& expected)
{
    EXPECT_EQ(describe(actual), describe(expected));
}

class EventFormatTest : public PanelTest
{
protected:
    void SetUp() override
    {
        PanelTest::SetUp();
        root_ = add(0, 0x0169, 1);
        const UINT32 detection = add(root_, 0x0292);
        const UINT32 section = add(detection, 0x0297, 2);
        evacuationArea_ = add(section, 0x0298, 20);
        evacuationZone_ = add(evacuationArea_, 0x0167, 21);
        evacuationGroup_ = add(evacuationArea_, 0x0166, 30);
        loop_ = add(add(root_, 0x0170), 0x0046, 7);
    }

    // Adds an element; an address or device ID of 0 is left at the type's default.
    UINT32 add(UINT32 parent, UINT32 type, UINT32 address = 0, UINT32 deviceId = 0)
    {
        const UINT32 uuid = EGW_ELementServerAddElementByType(parent, type, false, nullptr);
        EXPECT_NE(uuid, 0u);
        if (address != 0)
        {
            EXPECT_EQ(EGW_ElementServerSetPropertyIntDataById(uuid, kAddress, address, nullptr), 1);
        }
        if (deviceId != 0)
        {
            EXPECT_EQ(EGW_ElementServerSetPropertyIntDataById(uuid, kDeviceId, deviceId, nullptr),
                      1);
        }
        return uuid;
    }

    void proxy(UINT32 holder, UINT32 target)
    {
        EXPECT_EQ(EGW_ELementServerAddReferenceRelation(static_cast<int>(holder),
                                                        static_cast<int>(target), kProxy, nullptr),
                  1);
    }

    ENEventFormat format_;
    UINT32 root_ = 0;
    UINT32 evacuationArea_ = 0;
    UINT32 evacuationZone_ = 0;
    UINT32 evacuationGroup_ = 0;
    UINT32 loop_ = 0;
};

// ---- Classification -----------------------------------------------------------------------------

struct CategoryCase
{
    UINT32 type;
    UINT32 parentType; // 0: below the loop, which decides nothing
    int category;
};

TEST_F(EventFormatTest, CategoryComesFromTheTypeThenFromTheParent)
{
    const std::vector<CategoryCase> cases = {
        {0x0002, 0, 1},
        {0x0007, 0, 1},
        {0x0045, 0, 2},
        {0x0103, 0, 9},
        {0x0104, 0x0156, 9},
        {0x6101, 0, 10},
        {0x6102, 0, 10},
        {0x6103, 0, 10},
        {0x0156, 0, 11},
        {0x015A, 0, 11},
        {0x0166, 0, 11},
        {0x0167, 0x015A, 11},
        {0x6104, 0, 11},
        {0x0085, 0x0156, 12},
        // A detector in an input zone, or a circuit on a board, is classed by its parent first.
        {0x0048, 0x0156, 3},
        {0x0188, 0x015A, 3},
        {0x0040, 0x0013, 4},
        {0x0041, 0x0039, 4},
        {0x0061, 0, 5},
        {0x0067, 0, 5},
        {0x0073, 0, 5},
        {0x0074, 0, 5},
        {0x0401, 0, 5},
        {0x0100, 0, 6},
        {0x0105, 0, 6},
        {0x0048, 0, 7},
        {0x0055, 0, 7},
        {0x0075, 0, 7},
        {0x0079, 0, 7},
        {0x0069, 0, 8},
        {0x0070, 0, 8},
        {0x007A, 0, 8},
        {0x0081, 0, 8},
        {0x0083, 0, 8},
        {0x0046, 0, 14},
        {0x0013, 0, 14},
        {0x0169, 0, 14},
        {0x0188, 0x0013, 4},
    };
    for (const CategoryCase& c : cases)
    {
        SCOPED_TRACE("type " + std::to_string(c.type) + " parent " + std::to_string(c.parentType));
        const UINT32 parent = c.parentType == 0 ? loop_ : add(loop_, c.parentType);
        const UINT32 uuid = add(parent, c.type);
        EXPECT_EQ(format_.CheckCategoryByType(uuid), c.category);
    }
}

TEST_F(EventFormatTest, TheRootHasNoParentToTest)
{
    EXPECT_FALSE(format_.IsInputZone(root_));
    EXPECT_FALSE(format_.IsChildOfBoradOr4MCard(root_));
    EXPECT_EQ(format_.CheckCategoryByType(root_), 14);
}

// Every 16-bit type number against the four type sets, written here as plain lists.
TEST_F(EventFormatTest, TypePredicatesMatchExactlyTheirSetsAndOnlyTaggedIds)
{
    const auto range = [](unsigned first, unsigned last) {
        std::set<unsigned> s;
        for (unsigned t = first; t <= last; ++t)
        {
            s.insert(t);
        }
        return s;
    };
    std::set<unsigned> modules = range(0x61, 0x67);
    modules.insert({0x73, 0x74, 0x401});
    const std::set<unsigned> channels = {0x100, 0x101, 0x102, 0x105};
    std::set<unsigned> detectors = range(0x50, 0x55);
    const std::set<unsigned> moreDetectors = range(0x75, 0x79);
    detectors.insert(moreDetectors.begin(), moreDetectors.end());
    detectors.insert({0x48, 0x49});
    const std::set<unsigned> sounders = {0x69, 0x70, 0x7A, 0x81, 0x83};

    using Predicate = bool (ENEventFormat::*)(unsigned int);
    const std::vector<std::pair<Predicate, const std::set<unsigned>*>> predicates = {
        {&ENEventFormat::IsIO_Module_FD_FRD, &modules},
        {&ENEventFormat::IsChannelOfIOModule, &channels},
        {&ENEventFormat::IsDetector, &detectors},
        {&ENEventFormat::IsAddresSounder, &sounders},
    };
    for (std::size_t p = 0; p < predicates.size(); ++p)
    {
        const Predicate predicate = predicates[p].first;
        const std::set<unsigned>& members = *predicates[p].second;
        for (unsigned t = 0; t <= 0xFFFF; ++t)
        {
            const bool member = members.count(t) != 0;
            ASSERT_EQ((format_.*predicate)(0x70000 | t), member)
                << "predicate " << p << " 0x" << std::hex << t;
            ASSERT_FALSE((format_.*predicate)(t))
                << "bare id, predicate " << p << " 0x" << std::hex << t;
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
    proxy(detector, control);
    proxy(detector, hiddenSection);
    proxy(detector, evacuationGroup_);
    proxy(detector, evacuationZone_);
    proxy(detector, secondZone);

    EXPECT_EQ(format_.GetProxyElementID(detector, true), evacuationGroup_);
    EXPECT_EQ(format_.GetProxyEvacZoneID(detector, true), evacuationZone_);
    // The direction flag reaches the relation query: backwards, the zone's proxy is its holder.
    EXPECT_EQ(format_.GetProxyElementID(secondZone, false), detector);
    EXPECT_EQ(format_.GetProxyElementID(secondZone, true), 0u);
    EXPECT_EQ(format_.GetProxyEvacZoneID(evacuationGroup_, true), 0u);
}

TEST_F(EventFormatTest, ProxyFillsTheProxyAndItsParentOrNothing)
{
    const UINT32 sounder = add(loop_, 0x0081, 5);
    proxy(sounder, evacuationGroup_);

    ENENT_FIELD record = unsetRecord();
    format_.GetProxyIDAndAddress(sounder, record, true, true, true);
    expectRecord(record, unsetRecord());

    format_.GetProxyIDAndAddress(sounder, record, true, false, false);
    ENENT_FIELD expected = unsetRecord();
    expected.HasProxy = true;
    expected.ProxyID = evacuationGroup_;
    expected.ProxyAddress = 30;
    expectRecord(record, expected);
}

// ---- The detail record of each category ---------------------------------------------------------

class EventDetailTest : public EventFormatTest
{
public:
    using EventFormatTest::add;
    using EventFormatTest::proxy;
    UINT32 zone() const { return evacuationZone_; }
    UINT32 group() const { return evacuationGroup_; }
    UINT32 area() const { return evacuationArea_; }
    UINT32 loop() const { return loop_; }
};

struct DetailCase
{
    const char* name;
    int category;
    // Builds the element and says what the record must hold afterwards.
    std::function<UINT32(EventDetailTest&, ENENT_FIELD&)> build;
};

void self(ENENT_FIELD& r, UINT32 uuid, UINT32 address)
{
    r.SelfID = uuid;
    r.SelfAddress = address;
}

void proxied(ENENT_FIELD& r, UINT32 proxy, UINT32 proxyAddress, UINT32 parent, UINT32 parentAddress)
{
    r.HasProxy = true;
    r.ProxyID = proxy;
    r.ProxyAddress = proxyAddress;
    r.ParentID = parent;
    r.ParentAddress = parentAddress;
}

const std::vector<DetailCase>& detailCases()
{
    using T = EventDetailTest;
    static const std::vector<DetailCase> cases = {
        {"network node: its uuid only", 1,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0002, 5);
             r.SelfID = e;
             return e;
         }},
        {"mains supervision: itself", 2,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0045, 4);
             self(r, e, 4);
             return e;
         }},
        {"detector in an input zone: itself and the zone", 3,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 z = t.add(t.loop(), 0x0156, 2);
             const UINT32 e = t.add(z, 0x0048, 9, 0x100009);
             t.proxy(e, t.zone());
             self(r, e, 9);
             r.ParentID = z;
             r.ParentAddress = 2;
             return e;
         }},
        {"zone indicator without an address", 3,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 z = t.add(t.loop(), 0x015A, 3);
             const UINT32 e = t.add(z, 0x0188);
             r.SelfID = e;
             r.ParentID = z;
             r.ParentAddress = 3;
             return e;
         }},
        {"circuit on a board", 4,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 b = t.add(t.loop(), 0x0013, 6);
             const UINT32 e = t.add(b, 0x0040, 1);
             self(r, e, 1);
             r.ParentID = b;
             r.ParentAddress = 6;
             return e;
         }},
        {"module: itself, its loop and its device ID", 5,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0061, 6, 0x100006);
             self(r, e, 6);
             r.ParentID = t.loop();
             r.ParentAddress = 7;
             r.DeviceID = 0x100006;
             return e;
         }},
        {"channel with a proxy: the proxy's parent replaces the module", 6,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 m = t.add(t.loop(), 0x0061, 6, 0x100006);
             const UINT32 e = t.add(m, 0x0101, 2);
             t.proxy(e, t.zone());
             self(r, e, 2);
             proxied(r, t.zone(), 21, t.area(), 20);
             r.DeviceID = 0x100006;
             return e;
         }},
        {"channel without a proxy: the module's uuid, not its address", 6,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 m = t.add(t.loop(), 0x0061, 6, 0x100006);
             const UINT32 e = t.add(m, 0x0101, 2);
             self(r, e, 2);
             r.ParentID = m;
             r.DeviceID = 0x100006;
             return e;
         }},
        {"call point: the first proxy, of any type", 7,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0075, 4, 0x100004);
             t.proxy(e, t.group());
             t.proxy(e, t.zone());
             self(r, e, 4);
             proxied(r, t.group(), 30, t.area(), 20);
             r.DeviceID = 0x100004;
             return e;
         }},
        {"detector without a proxy: no parent either", 7,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0049, 8, 0x100008);
             self(r, e, 8);
             r.DeviceID = 0x100008;
             return e;
         }},
        {"sounder: the first evacuation zone among its proxies", 8,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0081, 5, 0x100005);
             t.proxy(e, t.group());
             t.proxy(e, t.zone());
             self(r, e, 5);
             proxied(r, t.zone(), 21, t.area(), 20);
             r.DeviceID = 0x100005;
             return e;
         }},
        {"sounder whose proxies hold no evacuation zone", 8,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x0081, 5, 0x100005);
             t.proxy(e, t.group());
             self(r, e, 5);
             r.DeviceID = 0x100005;
             return e;
         }},
        {"sounder output channel: parent, then the proxy's parent, and the module's device", 9,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 m = t.add(t.loop(), 0x0062, 6, 0x100006);
             const UINT32 e = t.add(m, 0x0103, 3);
             t.proxy(e, t.zone());
             self(r, e, 3);
             proxied(r, t.zone(), 21, t.area(), 20);
             r.DeviceID = 0x100006;
             return e;
         }},
        {"door control channel without a proxy", 9,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 m = t.add(t.loop(), 0x0073, 7, 0x100007);
             const UINT32 e = t.add(m, 0x0104, 1);
             self(r, e, 1);
             r.ParentID = m;
             r.ParentAddress = 7;
             r.DeviceID = 0x100007;
             return e;
         }},
        {"control group: itself and its proxy", 10,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 e = t.add(t.loop(), 0x6102, 2);
             t.proxy(e, t.zone());
             self(r, e, 2);
             proxied(r, t.zone(), 21, t.area(), 20);
             return e;
         }},
        {"evacuation zone: itself", 11,
         [](T& t, ENENT_FIELD& r) {
             self(r, t.zone(), 21);
             return t.zone();
         }},
        {"base sounder at 131 shows 1", 12,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 d = t.add(t.loop(), 0x0048, 1, 0x100001);
             const UINT32 e = t.add(d, 0x0085, 131);
             t.proxy(e, t.group());
             t.proxy(e, t.zone());
             self(r, e, 1);
             proxied(r, t.zone(), 21, t.area(), 20);
             r.DeviceID = 0x100001;
             return e;
         }},
        {"base sounder at 132 shows 3", 12,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 d = t.add(t.loop(), 0x0048, 1, 0x100001);
             const UINT32 e = t.add(d, 0x0085, 132);
             self(r, e, 3);
             r.DeviceID = 0x100001;
             return e;
         }},
        {"base sounder at 133 shows 133", 12,
         [](T& t, ENENT_FIELD& r) {
             const UINT32 d = t.add(t.loop(), 0x0048, 1, 0x100001);
             const UINT32 e = t.add(d, 0x0085, 133);
             self(r, e, 133);
             r.DeviceID = 0x100001;
             return e;
         }},
        {"loop: itself", 14,
         [](T& t, ENENT_FIELD& r) {
             self(r, t.loop(), 7);
             return t.loop();
         }},
        {"no element: nothing", 0, [](T&, ENENT_FIELD&) { return UINT32{0x7FFFFFF0}; }},
    };
    return cases;
}

class EventDetailCase : public EventDetailTest, public testing::WithParamInterface<DetailCase>
{
};

TEST_P(EventDetailCase, FillsWhatTheCategoryReports)
{
    SCOPED_TRACE(GetParam().name);
    ENENT_FIELD expected = unsetRecord();
    const UINT32 uuid = GetParam().build(*this, expected);
    ENENT_FIELD record = unsetRecord();
    EXPECT_EQ(format_.GetEventDetails(uuid, record), GetParam().category);
    expectRecord(record, expected);
}

std::string caseName(const testing::TestParamInfo<DetailCase>& param)
{
    return "case" + std::to_string(param.index) + "_category" +
           std::to_string(param.param.category);
}

INSTANTIATE_TEST_SUITE_P(EveryCategory, EventDetailCase, testing::ValuesIn(detailCases()),
                         caseName);

} // namespace
