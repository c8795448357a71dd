// Large panels for benchmarks: a card rack of loop cards, each driving one loop of addressable
// devices, with one input zone and one evacuation zone per loop. The element types are those of
// the sample type library.
#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/panelConfig.h"

namespace panelconfig
{
namespace
{

using Json = nlohmann::ordered_json;

constexpr const char* kProxy = "0x20002";
constexpr const char* kZoneMember = "0x20001";
// The card rack has eight loop-card slot types; larger panels use them again in turn.
constexpr unsigned kLoopCardSlots = 8;

std::string loopCardType(unsigned loop)
{
    return "LoopCard" + std::to_string((loop - 1) % kLoopCardSlots + 1);
}

Json element(const std::string& key, const char* type, unsigned address)
{
    Json j;
    if (!key.empty())
    {
        j["key"] = key;
    }
    j["type"] = type;
    j["properties"] = {{"Address", address}};
    return j;
}

// Device n of a loop: every tenth an input/output module with two channels, every fifth a sounder,
// the others detectors, with a manual call point among every ten.
Json device(unsigned loop, unsigned n)
{
    static const char* const kDetectors[] = {"OpticalSmokeDetector", "HeatDetector",
                                             "MultiSensorDetector", "ManualCallPoint"};
    const std::string zone = "zone-" + std::to_string(loop);
    const std::string evacuation = "evac-" + std::to_string(loop);
    const char* type = n % 10 == 0  ? "InputOutputModule"
                       : n % 5 == 0 ? "LoopSounder"
                                    : kDetectors[n % 4];
    Json j = element(std::string(), type, n);
    j["properties"]["DeviceId"] = loop * 0x10000u + n;
    if (n % 10 == 0)
    {
        Json input = element(std::string(), "InputChannel", 1);
        input["relations"] = Json::array({{{"type", kProxy}, {"to", evacuation}}});
        Json output = element(std::string(), "OutputChannel", 2);
        j["children"] = Json::array({input, output});
    }
    else if (n % 5 == 0)
    {
        j["relations"] = Json::array({{{"type", kProxy}, {"to", evacuation}}});
    }
    else
    {
        j["relations"] = Json::array(
            {{{"type", kZoneMember}, {"to", zone}}, {{"type", kProxy}, {"to", evacuation}}});
    }
    return j;
}

} // namespace

std::string generatePanelText(unsigned loops, unsigned devicesPerLoop)
{
    Json cards = Json::array();
    Json zones = Json::array();
    Json evacuationZones = Json::array();
    for (unsigned loop = 1; loop <= loops; ++loop)
    {
        Json devices = Json::array();
        for (unsigned n = 1; n <= devicesPerLoop; ++n)
        {
            devices.push_back(device(loop, n));
        }
        Json loopElement = element(std::string(), "Loop", 1);
        loopElement["children"] = std::move(devices);
        Json card = element(std::string(), loopCardType(loop).c_str(), loop);
        card["children"] = Json::array({std::move(loopElement)});
        cards.push_back(std::move(card));

        const std::string suffix = std::to_string(loop);
        Json zone = element("zone-" + suffix, "InputZone", loop);
        zone["properties"]["ZoneText"] = "Loop " + suffix;
        zones.push_back(std::move(zone));
        Json evacuation = element("evac-" + suffix, "EvacuationZone", loop);
        evacuation["properties"]["ZoneText"] = "Evacuation zone " + suffix;
        evacuationZones.push_back(std::move(evacuation));
    }

    Json rack = element(std::string(), "CardRack", 1);
    rack["children"] = std::move(cards);
    Json hardware = {{"type", "HardwareRoot"}, {"children", Json::array({std::move(rack)})}};

    Json zoneArea = element(std::string(), "InputZoneArea", 1);
    zoneArea["children"] = std::move(zones);
    Json zoneSection = element(std::string(), "InputZoneSection", 1);
    zoneSection["children"] = Json::array({std::move(zoneArea)});
    Json evacuationArea = element(std::string(), "EvacuationArea", 1);
    evacuationArea["children"] = std::move(evacuationZones);
    Json evacuationSection = element(std::string(), "EvacuationSection", 1);
    evacuationSection["children"] = Json::array({std::move(evacuationArea)});
    Json detection = {
        {"type", "DetectionRoot"},
        {"children", Json::array({std::move(zoneSection), std::move(evacuationSection)})}};

    Json root = element("panel", "Panel", 1);
    root["children"] = Json::array({std::move(hardware), std::move(detection)});

    Json file;
    file["version"] = 1;
    file["name"] = "Generated panel, " + std::to_string(loops) + " loops of " +
                   std::to_string(devicesPerLoop) + " devices";
    file["root"] = std::move(root);
    return file.dump(1) + "\n";
}

} // namespace panelconfig
