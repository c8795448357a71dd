// Large panels for benchmarks: a card rack of loop cards, each driving one loop of addressable
// devices, with one input zone and one evacuation zone per loop. The element types are those of
// the sample type library. Every zone stands in its own area, whose four-digit number is the
// zone's identity: input zones 1 to L, evacuation zones L+1 to 2L. Every device and zone carries a
// label that names it. The file is written as it is made, one element a line, so that a panel
// of millions of elements never stands in memory.
#include <ostream>
#include <sstream>
#include <string>

#include "tools/panelConfig.h"

namespace panelconfig
{
namespace
{

constexpr const char* kProxy = "0x20002";
constexpr const char* kZoneMember = "0x20001";
// Section addresses, distinct across the panel.
constexpr unsigned kCardRackSection = 1;
constexpr unsigned kInputZoneSection = 2;
constexpr unsigned kEvacuationSection = 3;
// The card rack has eight loop-card slot types; larger panels use them again in turn.
constexpr unsigned kLoopCardSlots = 8;

class Writer
{
public:
    Writer(std::ostream& out, unsigned long long total, const Progress& progress)
        : out_(out), total_(total), progress_(progress)
    {
    }

    // Writes an element's members up to its children: `more` holds further properties after
    // the address, `relations` the relation list's items.
    void open(const std::string& key, const std::string& type, unsigned address,
              const std::string& more = std::string())
    {
        head(key, type, address, more, std::string());
        line_ += ",\"children\":[\n";
        first_ = true;
        flush();
    }
    void close()
    {
        line_ += "\n]}";
        first_ = false;
    }
    void leaf(const std::string& key, const std::string& type, unsigned address,
              const std::string& more = std::string(), const std::string& relations = std::string())
    {
        head(key, type, address, more, relations);
        line_ += "}";
        first_ = false;
    }
    void flush()
    {
        out_ << line_;
        line_.clear();
    }

private:
    void head(const std::string& key, const std::string& type, unsigned address,
              const std::string& more, const std::string& relations)
    {
        line_ += first_ ? "" : ",\n";
        line_ += "{";
        if (!key.empty())
        {
            line_ += "\"key\":\"" + key + "\",";
        }
        line_ += "\"type\":\"" + type + "\"";
        if (address != 0)
        {
            line_ += ",\"properties\":{\"Address\":" + std::to_string(address) + more + "}";
        }
        if (!relations.empty())
        {
            line_ += ",\"relations\":[" + relations + "]";
        }
        if (++written_ % 65536 == 0)
        {
            flush();
            if (progress_)
            {
                progress_(static_cast<double>(written_) / static_cast<double>(total_));
            }
        }
    }

    std::ostream& out_;
    unsigned long long total_;
    const Progress& progress_;
    std::string line_;
    bool first_ = true;
    unsigned long long written_ = 0;
};

std::string relation(const char* type, const std::string& to)
{
    return std::string("{\"type\":\"") + type + "\",\"to\":\"" + to + "\"}";
}

std::string label(const std::string& text)
{
    return ",\"Label\":\"" + text + "\"";
}

// Device n of a loop: every tenth an input/output module with two channels, every fifth a sounder,
// the others detectors, with a manual call point among every ten.
void device(Writer& w, unsigned loop, unsigned n)
{
    static const char* const kDetectors[] = {"OpticalSmokeDetector", "HeatDetector",
                                             "MultiSensorDetector", "ManualCallPoint"};
    const std::string evacuation = relation(kProxy, "evac-" + std::to_string(loop));
    const std::string name = "Loop " + std::to_string(loop) + ", device " + std::to_string(n);
    const std::string deviceId =
        ",\"DeviceId\":" + std::to_string(loop * 0x10000u + n) + label(name);
    if (n % 10 == 0)
    {
        w.open(std::string(), "InputOutputModule", n, deviceId);
        w.leaf(std::string(), "InputChannel", 1, label(name + ", input"), evacuation);
        w.leaf(std::string(), "OutputChannel", 2, label(name + ", output"));
        w.close();
    }
    else if (n % 5 == 0)
    {
        w.leaf(std::string(), "LoopSounder", n, deviceId, evacuation);
    }
    else
    {
        w.leaf(std::string(), kDetectors[n % 4], n, deviceId,
               relation(kZoneMember, "zone-" + std::to_string(loop)) + "," + evacuation);
    }
}

} // namespace

unsigned long long generatedElementCount(unsigned loops, unsigned devicesPerLoop)
{
    return 6ull + static_cast<unsigned long long>(loops) *
                      (6ull + devicesPerLoop + 2ull * (devicesPerLoop / 10));
}

void generatePanel(std::ostream& out, unsigned loops, unsigned devicesPerLoop,
                   const Progress& progress)
{
    Writer w(out, generatedElementCount(loops, devicesPerLoop), progress);
    out << "{\"version\": 1, \"name\": \"Generated panel, " << loops << " loops of "
        << devicesPerLoop << " devices\", \"root\":\n";
    w.open("panel", "Panel", 1);
    w.open(std::string(), "HardwareRoot", 0);
    w.open(std::string(), "CardRack", kCardRackSection);
    for (unsigned loop = 1; loop <= loops; ++loop)
    {
        w.open(std::string(), "LoopCard" + std::to_string((loop - 1) % kLoopCardSlots + 1), loop);
        w.open(std::string(), "Loop", 1);
        for (unsigned n = 1; n <= devicesPerLoop; ++n)
        {
            device(w, loop, n);
        }
        w.close();
        w.close();
    }
    w.close();
    w.close();
    w.open(std::string(), "DetectionRoot", 0);
    w.open(std::string(), "InputZoneSection", kInputZoneSection);
    for (unsigned loop = 1; loop <= loops; ++loop)
    {
        const std::string n = std::to_string(loop);
        w.open(std::string(), "InputZoneArea", loop, label("Zone " + n));
        w.leaf("zone-" + n, "InputZone", loop,
               label("Zone " + n) + ",\"ZoneText\":\"Loop " + n + "\"");
        w.close();
    }
    w.close();
    w.open(std::string(), "EvacuationSection", kEvacuationSection);
    for (unsigned loop = 1; loop <= loops; ++loop)
    {
        const std::string n = std::to_string(loop);
        w.open(std::string(), "EvacuationArea", loops + loop, label("Evacuation zone " + n));
        w.leaf("evac-" + n, "EvacuationZone", loop,
               label("Evacuation zone " + n) + ",\"ZoneText\":\"Evacuation zone " + n + "\"");
        w.close();
    }
    w.close();
    w.close();
    w.close();
    w.flush();
    out << "\n}\n";
}

std::string generatePanelText(unsigned loops, unsigned devicesPerLoop)
{
    std::ostringstream text;
    generatePanel(text, loops, devicesPerLoop);
    return text.str();
}

} // namespace panelconfig
