// What the gateway costs over the host calls it makes, measured side by side in one run on a
// generated large panel: each gateway benchmark "gw/<name>" has a twin "host/<name>" that makes the
// same host calls directly, and the program prints the ratio of each pair with its goal. Further
// figures: bulk subscription, type-library queries, panel loading and the simulator's own
// lookup time and memory per element. Command and figures: docs/performance.md.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "elementGateway.h"
#include "host/typeLibrary.h"
#include "panelsim/panelsim.h"
#include "tools/panelConfig.h"

namespace
{

constexpr UINT32 kAddress = 0x30004;
constexpr UINT32 kLabel = 0x30002;
constexpr UINT32 kBuzzer = 0x30006;
constexpr UINT32 kDetectorType = 0x70048;

// ---- Panels ---------------------------------------------------------------------------------------

struct Panel
{
    unsigned loops = 0;
    UINT32 root = 0;
    UINT32 device = 0;  // an addressable device: integer, string and state reads and writes
    UINT32 deepest = 0; // the element farthest from the root
    std::size_t elements = 0;
};

const panelconfig::Vocabulary& vocabulary()
{
    static const panelconfig::Vocabulary names = [] {
        panelconfig::Vocabulary v;
        std::string error;
        if (!panelconfig::Vocabulary::fromTypeLibraryText(panelsim::sampleTypeLibraryText(), "sample",
                                                          v, error))
            std::fprintf(stderr, "vocabulary: %s\n", error.c_str());
        return v;
    }();
    return names;
}

// Loads a generated panel of `loops` loop cards of 250 devices into an empty tree.
bool loadGeneratedPanel(unsigned loops, panelconfig::LoadedPanel& loaded)
{
    panelsim::reset();
    panelsim::setLogSink([](int, const std::string&, const std::string&) {});
    std::string error;
    if (!panelconfig::loadPanelText(panelconfig::generatePanelText(loops, 250), "generated",
                                    vocabulary(), loaded, error))
    {
        std::fprintf(stderr, "generated panel refused: %s\n", error.c_str());
        return false;
    }
    return true;
}

// Depth of an element: parents up to the root.
unsigned depthOf(UINT32 uuid)
{
    unsigned depth = 0;
    while ((uuid = EGW_ELementServerGetParentUuid(uuid, nullptr)) != 0)
        ++depth;
    return depth;
}

// The panel in force, rebuilt only when a benchmark asks for another size.
const Panel& panelOf(unsigned loops)
{
    static Panel current;
    if (current.loops == loops)
        return current;
    panelconfig::LoadedPanel loaded;
    current = Panel{};
    if (!loadGeneratedPanel(loops, loaded))
        return current;
    current.loops = loops;
    current.root = loaded.elements.front().uuid;
    current.elements = loaded.elements.size();
    unsigned deepest = 0;
    for (const auto& element : loaded.elements)
    {
        if (current.device == 0 &&
            EGW_ElementServerGetElementTypeByUuid(element.uuid, nullptr) == kDetectorType)
            current.device = element.uuid;
        const unsigned depth = depthOf(element.uuid);
        if (depth > deepest)
        {
            deepest = depth;
            current.deepest = element.uuid;
        }
    }
    return current;
}

// The single-element benchmarks run on a panel of about 100,000 elements: 330 loops of 250
// devices, 304 elements per loop with its card, channels and zones.
constexpr unsigned kLoops = 330;

// ---- Single-element operations: the gateway and the same host calls made directly -----------------

// The host's integer read as the gateway makes it: property, emptiness, bytes, storage width.
UINT32 hostReadInteger(UINT32 uuid, UINT32 propertyId)
{
    Element element(uuid);
    Property property = element.GetPropertyByPropertyID(propertyId & 0xFFFF);
    UINT32 value = 0;
    if (property.IsEmpty())
        return value;
    unsigned short size = 0;
    const void* data = property.GetData(&size);
    const unsigned type = GetPropertyTypeByID(propertyId);
    if (data != nullptr && (type == 4 || type == 6 || type == 19 || type == 3))
        std::memcpy(&value, data, sizeof value);
    return value;
}

int hostWrite(UINT32 uuid, UINT32 propertyId, const void* bytes, unsigned short size)
{
    Element element(uuid);
    Property property(propertyId & 0xFFFF);
    property.SetData(const_cast<void*>(bytes), size);
    return element.SetProperty(property, false);
}

// The truth-value read as the gateway makes it: no emptiness test, one byte or nothing.
int hostReadTruth(UINT32 uuid, UINT32 propertyId)
{
    Element element(uuid);
    Property property = element.GetPropertyByPropertyID(propertyId & 0xFFFF);
    unsigned short size = 0;
    const auto* data = static_cast<const unsigned char*>(property.GetData(&size));
    return data != nullptr && size == 1 ? data[0] : -1;
}

std::string hostReadBytes(UINT32 uuid, UINT32 propertyId)
{
    std::string text;
    Element element(uuid);
    Property property = element.GetPropertyByPropertyID(propertyId & 0xFFFF);
    if (property.IsEmpty())
        return text;
    unsigned short size = 0;
    const void* data = property.GetData(&size);
    if (data != nullptr)
        text.assign(static_cast<const char*>(data), size);
    return text;
}

// A gateway operation and the same host calls made directly, on a panel of `loops` loops.
struct Pair
{
    std::string name;
    std::function<void(const Panel&)> gateway;
    std::function<void(const Panel&)> host;
    unsigned loops;
    double goal; // of the ratio gateway / host
};

std::vector<Pair>& pairs()
{
    static std::vector<Pair> all;
    return all;
}

// Registers a gateway benchmark "gw/<name>" and its direct twin "host/<name>", and keeps the pair
// for the ratios.
void pair(const std::string& name, std::function<void(const Panel&)> gateway,
          std::function<void(const Panel&)> host, double goal = 1.10, unsigned loops = kLoops)
{
    const auto add = [loops](const std::string& full, const std::function<void(const Panel&)>& body) {
        benchmark::RegisterBenchmark(full.c_str(), [loops, body](benchmark::State& state) {
            const Panel& panel = panelOf(loops);
            for (auto _ : state)
                body(panel);
        });
    };
    add("gw/" + name, gateway);
    add("host/" + name, host);
    pairs().push_back({name, std::move(gateway), std::move(host), loops, goal});
}

void registerSingleElement()
{
    pair("IntRead",
         [](const Panel& p) { UINT32 v = 0; benchmark::DoNotOptimize(EGW_ElementServerGetPropertyIntDataById(p.device, kAddress, v, nullptr)); },
         [](const Panel& p) { benchmark::DoNotOptimize(hostReadInteger(p.device, kAddress)); });
    pair("IntWrite",
         [](const Panel& p) { benchmark::DoNotOptimize(EGW_ElementServerSetPropertyIntDataById(p.device, kAddress, 9, nullptr)); },
         [](const Panel& p) { const UINT32 v = 9; benchmark::DoNotOptimize(GetPropertyTypeByID(kAddress) != 0 && hostWrite(p.device, kAddress, &v, 4) == 0); });
    // The panel's buzzer switch is the truth-value property; the label the string.
    pair("BoolRead",
         [](const Panel& p) { int v = 0; benchmark::DoNotOptimize(EGW_ElementServerGetPropertyBoolDataById(p.root, kBuzzer, v, nullptr)); },
         [](const Panel& p) { benchmark::DoNotOptimize(hostReadTruth(p.root, kBuzzer)); });
    pair("BoolWrite",
         [](const Panel& p) { benchmark::DoNotOptimize(EGW_ElementServerSetPropertyBoolDataById(p.root, kBuzzer, 1, nullptr)); },
         [](const Panel& p) { const unsigned char v = 1; benchmark::DoNotOptimize(hostWrite(p.root, kBuzzer, &v, 1)); });
    pair("StringRead",
         [](const Panel& p) { std::string s; benchmark::DoNotOptimize(EGW_ElementServerGetPropertyDataByPropertyID(p.device, kLabel, s, nullptr)); },
         [](const Panel& p) { benchmark::DoNotOptimize(hostReadBytes(p.device, kLabel)); });
    pair("StringWrite",
         [](const Panel& p) { benchmark::DoNotOptimize(EGW_ElementServerSetStringProperty("Zone 7 east", 11, p.device, kLabel, nullptr)); },
         [](const Panel& p) { benchmark::DoNotOptimize(hostWrite(p.device, kLabel, "Zone 7 east", 11)); });
    pair("TypeId",
         [](const Panel& p) { benchmark::DoNotOptimize(EGW_ElementServerGetElementTypeByUuid(p.device, nullptr)); },
         [](const Panel& p) { Element e(p.device); const unsigned t = e.GetType(); benchmark::DoNotOptimize(t != 0 ? t | 0x70000u : 0); });
    pair("Parent",
         [](const Panel& p) { benchmark::DoNotOptimize(EGW_ELementServerGetParentUuid(p.device, nullptr)); },
         [](const Panel& p) { Element e(p.device); int error = 0; Element parent = e.GetParent(&error); benchmark::DoNotOptimize(error == 0 ? parent.GetUUID() : 0); });
    pair("StateRead",
         [](const Panel& p) { UINT32 v = 0; benchmark::DoNotOptimize(EGW_ELementServerGetStateValueByUuid(v, p.device, 0x80001, nullptr)); },
         [](const Panel& p) { Element e(p.device); benchmark::DoNotOptimize(e.GetState(0x0001)); });
    pair("StateWrite",
         [](const Panel& p) { benchmark::DoNotOptimize(EGW_ELementServerSetStateValueByUuid(0x60001, p.device, 0x80001, nullptr)); },
         [](const Panel& p) { Element e(p.device); benchmark::DoNotOptimize(e.SetState(0x0001, 0x60001, false)); });
}

// ---- ID string of the deepest element against a direct walk ------------------------------------

// The walk that GetIDString makes, written directly: the type and the parent of every element up
// to the root, and the address of the two that carry a number in this panel (the root and the card
// rack); the text from them.
std::string hostIdWalk(UINT32 uuid)
{
    Element cursor(uuid);
    unsigned numbers[2] = {};
    int error = 0;
    do
    {
        const unsigned short type = cursor.GetType();
        if (type == 0x0169 || type == 0x0204)
        {
            Property property = cursor.GetPropertyByPropertyID(kAddress & 0xFFFF);
            unsigned short size = 0;
            const void* data = property.GetData(&size);
            if (data != nullptr && size == 4)
                std::memcpy(&numbers[type == 0x0169 ? 0 : 1], data, 4);
        }
        Element parent = cursor.GetParent(&error);
        cursor = parent;
    } while (error == 0);
    char text[64];
    std::snprintf(text, sizeof text, "%02d.%03d", numbers[0], numbers[1]);
    return text;
}

void registerIdString()
{
    pair("IDString",
         [](const Panel& p) { Element e(p.deepest); benchmark::DoNotOptimize(GetIDString(e)); },
         [](const Panel& p) { benchmark::DoNotOptimize(hostIdWalk(p.deepest)); }, 1.5);
}

// ---- Subtree collection by type against a direct depth-first walk -------------------------------

void hostCollect(Element& element, unsigned short type, std::vector<unsigned>& out)
{
    for (Element& child : element.GetChildrenList())
    {
        if (child.GetType() == type)
            out.push_back(child.GetUUID());
        hostCollect(child, type, out);
    }
}

void registerSubtree()
{
    for (const unsigned loops : {kLoops, 2 * kLoops})
    {
        const std::string size = "/" + std::to_string(loops);
        pair("Subtree" + size,
             [](const Panel& p) { std::vector<unsigned> out; benchmark::DoNotOptimize(EGW_BASIC_THRIFT_GetAllElementUuidByElementType(p.root, kDetectorType, out, nullptr)); },
             [](const Panel& p) {
                 std::vector<unsigned> out;
                 Element root(p.root);
                 if ((root.GetType() | 0x70000u) == kDetectorType)
                     out.push_back(p.root);
                 hostCollect(root, kDetectorType & 0xFFFF, out);
                 benchmark::DoNotOptimize(out.size());
             },
             3.0, loops);
    }
}

// ---- Further figures ----------------------------------------------------------------------------

// A type library of the state groups 1 to `groups` (two values each) and the element types of
// `types`, each (type id, n) with the groups 1 to n: the sample library's types have at most four.
std::string libraryWithStateGroups(unsigned groups,
                                   const std::vector<std::pair<UINT32, unsigned>>& types)
{
    const auto groupId = [](unsigned g) {
        return "\"0x8" + std::to_string(10000 + g).substr(1) + "\"";
    };
    std::string text = R"({"stateValues": [{"id": "0x60001"}, {"id": "0x60002"}], "stateGroups": [)";
    for (unsigned g = 1; g <= groups; ++g)
        text += std::string(g > 1 ? ", " : "") + R"({"id": )" + groupId(g) +
                R"(, "values": ["0x60001", "0x60002"]})";
    text += R"(], "types": [)";
    for (std::size_t t = 0; t < types.size(); ++t)
    {
        text += std::string(t > 0 ? ", " : "") + R"({"id": )" + std::to_string(types[t].first) +
                R"(, "stateGroups": [)";
        for (unsigned g = 1; g <= types[t].second; ++g)
            text += std::string(g > 1 ? ", " : "") + groupId(g);
        text += "]}";
    }
    return text + "]}";
}

void BulkSubscription(benchmark::State& state)
{
    const auto groups = static_cast<unsigned>(state.range(0));
    std::string error;
    if (!panelsim::loadTypeLibraryText(libraryWithStateGroups(groups, {{0x70500, groups}}), "bench",
                                      error))
    {
        state.SkipWithError(error.c_str());
        return;
    }
    std::vector<unsigned> ids;
    EGW_ElementServerGetStateGroupIdListByElementTypeId(ids, 0x70500);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(EGW_BASIC_THRIFT_SubscribeAllStateChange(21, 0x70500, nullptr));
        state.PauseTiming();
        for (unsigned group : ids)
            EGW_ElementServerUnSubscribeByType(21, 0x70500, 0x03010000u | (group & 0xFFFF), nullptr);
        state.ResumeTiming();
    }
    state.counters["stateGroups"] = static_cast<double>(ids.size());
    panelsim::loadSampleTypeLibrary();
}

void TypeLibraryQueries(benchmark::State& state)
{
    for (auto _ : state)
    {
        std::vector<EGW_PropertyDef_Thrift> properties;
        std::vector<unsigned> groups;
        std::vector<PropertyDefaultDef> defaults;
        UINT32 type = 0;
        benchmark::DoNotOptimize(EGW_ELementServerGetPropertyInformationList(kDetectorType, properties));
        benchmark::DoNotOptimize(EGW_ElementServerGetStateGroupIdListByElementTypeId(groups, kDetectorType));
        benchmark::DoNotOptimize(EGW_ELementServerGetPropertyDefaultDataList(kDetectorType, defaults));
        benchmark::DoNotOptimize(IsNumberTypeByPropertyID(kAddress, &type));
    }
}

void PanelLoading(benchmark::State& state)
{
    const std::string text = panelconfig::generatePanelText(40, 250);
    std::size_t elements = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        panelsim::reset();
        state.ResumeTiming();
        panelconfig::LoadedPanel loaded;
        std::string error;
        panelconfig::loadPanelText(text, "generated", vocabulary(), loaded, error);
        elements = loaded.elements.size();
    }
    state.counters["elements/s"] =
        benchmark::Counter(static_cast<double>(elements), benchmark::Counter::kIsIterationInvariantRate);
    panelOf(0); // the panel in force is gone
}

// The simulator alone: a tree of `count` elements (16 children per element), built once per size,
// with the heap the simulator holds per element.
const std::vector<UINT32>& lookupTree(std::size_t count, double& bytesPerElement)
{
    static std::vector<UINT32> uuids;
    static double perElement = 0;
    if (uuids.size() != count)
    {
        panelsim::reset();
        panelOf(0); // the generated panel is gone
        uuids.clear();
        const std::size_t heapBefore = mallinfo2().uordblks;
        uuids.push_back(EGW_ELementServerAddElementByType(0, 0x70169, false, nullptr));
        while (uuids.size() < count)
            uuids.push_back(EGW_ELementServerAddElementByType(uuids[uuids.size() / 16], 0x70048, false, nullptr));
        perElement = static_cast<double>(mallinfo2().uordblks - heapBefore) / static_cast<double>(count);
    }
    bytesPerElement = perElement;
    return uuids;
}

// The type of a uuid looked up among 64 uuids spread over the whole tree (Arg 1 = 0: the lookup
// itself, its data warm in the cache) or stepping through every uuid in a scattered order (1: on a
// large tree each lookup is a cache miss).
void SimulatorLookup(benchmark::State& state)
{
    double bytesPerElement = 0;
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::vector<UINT32>& uuids = lookupTree(count, bytesPerElement);
    const bool scattered = state.range(1) != 0;
    const std::size_t span = scattered ? count : 64;
    const std::size_t spacing = scattered ? 1 : count / 64;
    std::size_t step = 0;
    for (auto _ : state)
    {
        step = (step + 7919) % span;
        Element element(uuids[step * spacing]);
        benchmark::DoNotOptimize(element.GetType());
    }
    state.counters["bytes/element"] = bytesPerElement;
}

// ---- Ratios -------------------------------------------------------------------------------------
// Each ratio is measured apart from Google Benchmark's runs, in alternating rounds of the two
// sides on the thread's CPU clock, and the median round is taken: on a machine busy with other
// work, drift then falls on both sides alike.

double threadNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double timeOf(const std::function<void()>& body, unsigned times)
{
    const double start = threadNanoseconds();
    for (unsigned i = 0; i < times; ++i)
        body();
    return threadNanoseconds() - start;
}

double median(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

// CPU time of one run of the body: the median of rounds of about 2 ms each.
double perRun(const std::function<void()>& body)
{
    unsigned times = 1;
    while (timeOf(body, times) < 2e6 && times < (1u << 20))
        times *= 2;
    std::vector<double> rounds;
    for (int round = 0; round < 31; ++round)
        rounds.push_back(timeOf(body, times) / times);
    return median(rounds);
}

// The median over alternating rounds of (time of a) / (time of b).
double pairedRatio(const std::function<void()>& a, const std::function<void()>& b)
{
    unsigned times = 1;
    while (timeOf(a, times) < 2e6 && times < (1u << 20))
        times *= 2;
    std::vector<double> ratios;
    for (int round = 0; round < 21; ++round)
    {
        const bool aFirst = round % 2 == 0;
        const double first = timeOf(aFirst ? a : b, times);
        const double second = timeOf(aFirst ? b : a, times);
        ratios.push_back(aFirst ? first / second : second / first);
    }
    return median(ratios);
}

// Time per state group of a bulk subscription of 512 groups against one of 64, measured in
// alternating rounds on a library that holds both types (0x70500: groups 1 to 512, 0x70564: 1 to
// 64); only the subscriptions are timed, ending them is not.
double bulkSubscriptionGrowth()
{
    const std::string text = libraryWithStateGroups(512, {{0x70500, 512}, {0x70564, 64}});
    std::string error;
    if (!panelsim::loadTypeLibraryText(text, "bench", error))
    {
        std::fprintf(stderr, "bulk subscription library: %s\n", error.c_str());
        return 0;
    }
    panelsim::reset();
    std::vector<double> ratios;
    for (int round = 0; round < 101; ++round)
    {
        double time[2] = {0, 0};
        for (int side = 0; side < 2; ++side)
        {
            const UINT32 type = side == 0 ? 0x70564 : 0x70500;
            for (int repeat = 0; repeat < 4; ++repeat)
            {
                const double start = threadNanoseconds();
                EGW_BASIC_THRIFT_SubscribeAllStateChange(21, type, nullptr);
                time[side] += threadNanoseconds() - start;
                panelsim::reset();
            }
        }
        ratios.push_back((time[1] / 512) / (time[0] / 64));
    }
    panelsim::loadSampleTypeLibrary();
    return median(ratios);
}

void printFigure(const std::string& figure, double value, double goal)
{
    if (goal == 0)
        std::printf("%-42s %9.3f %7s\n", figure.c_str(), value, "-");
    else
        std::printf("%-42s %9.3f %7.2f %s\n", figure.c_str(), value, goal,
                    value <= goal ? "" : "ABOVE GOAL");
}

void printRatios()
{
    std::printf("\n%-42s %9s %7s\n", "figure (CPU time, median of rounds)", "ratio", "goal");
    for (const Pair& p : pairs())
    {
        const Panel& panel = panelOf(p.loops);
        printFigure("gateway/host " + p.name, pairedRatio([&] { p.gateway(panel); }, [&] { p.host(panel); }),
                    p.goal);
    }
    // Linear growth: the same collection on a panel of twice the elements.
    const auto growth = [](bool gateway) {
        double times[2];
        for (int i = 0; i < 2; ++i)
        {
            const Pair& p = pairs()[pairs().size() - 2 + i]; // the two subtree pairs
            const Panel& panel = panelOf(p.loops);
            times[i] = perRun([&] { (gateway ? p.gateway : p.host)(panel); });
        }
        return times[1] / times[0];
    };
    printFigure("subtree collection, twice the elements", growth(true), 2.2);
    printFigure("direct walk, twice the elements", growth(false), 0);
    // The simulator's lookup of a uuid among 64 spread over trees of 1,000 and 1,000,000 elements.
    const auto lookup = [](std::size_t count) {
        double bytesPerElement = 0;
        const std::vector<UINT32>& uuids = lookupTree(count, bytesPerElement);
        std::size_t step = 0;
        return perRun([&] {
            step = (step + 7919) % 64;
            Element element(uuids[step * (count / 64)]);
            benchmark::DoNotOptimize(element.GetType());
        });
    };
    const double small = lookup(1000);
    printFigure("uuid lookup, 1,000,000 / 1,000 elements", lookup(1000000) / small, 1.2);
    double bytesPerElement = 0;
    lookupTree(1000000, bytesPerElement);
    printFigure("simulator heap bytes per element, 1,000,000", bytesPerElement, 0);
    printFigure("bulk subscription per group, 512 / 64 groups", bulkSubscriptionGrowth(), 1.5);
}

} // namespace

int main(int argc, char** argv)
{
    registerSingleElement();
    registerIdString();
    registerSubtree();
    benchmark::RegisterBenchmark("BulkSubscription", BulkSubscription)->Arg(4)->Arg(64)->Arg(512);
    benchmark::RegisterBenchmark("TypeLibraryQueries", TypeLibraryQueries);
    benchmark::RegisterBenchmark("PanelLoading", PanelLoading)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("SimulatorLookup", SimulatorLookup)
        ->ArgsProduct({{1000, 10000, 100000, 1000000}, {0, 1}});
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    printRatios();
    benchmark::Shutdown();
    return 0;
}
