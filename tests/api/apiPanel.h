// A small panel for the element-access tests: a type library with exactly the storage types the
// tests need, and a tree built through the host itself, not through the operations under test.
#ifndef TESTS_API_PANEL_H
#define TESTS_API_PANEL_H

#include <string>

#include "support/panelFixture.h"

// The probe's property 0x30100 + T has storage type T (0x301FF: 255); integers start as 0, truth
// values as 1, the others as "ab". 0x30300 holds a string of no bytes, 0x30301 nothing. The ID
// string's types hold an address and a device ID, the latter as bytes so that any size fits.
inline unsigned storageProperty(unsigned storage)
{
    return 0x30100u + (storage == 255 ? 0xFFu : storage);
}

// clang-format off
inline const char* const kApiTypeLibrary = R"({
  "stateValues": [{"id": "0x60001"}, {"id": "0x60007"}],
  "stateGroups": [{"id": "0x80010", "values": ["0x60001", "0x60007"]}],
  "types": [
    {"id": "0x70001"}, {"id": "0x70170"}, {"id": "0x70292"}, {"id": "0x70328"}, {"id": "0x77000"},
    {"id": "0x70169", "properties": [{"id": "0x30004", "storage": 4, "default": "1"}]},
    {"id": "0x70171", "properties": [{"id":"0x30004","storage":4}, {"id":"0x30005","storage":12}]},
    {"id": "0x70296", "properties": [{"id":"0x30004","storage":4}, {"id":"0x30005","storage":12}]},
    {"id": "0x70188", "properties": [{"id":"0x30004","storage":4}, {"id":"0x30005","storage":12}]},
    {"id": "0x76239", "properties": [{"id":"0x30004","storage":4}, {"id":"0x30005","storage":12}]},
    {"id": "0x70189", "properties": [{"id":"0x30004","storage":4}, {"id":"0x30005","storage":12}]},
    {"id": "0x70400", "commands": ["0x10021"], "stateGroups": ["0x80010"], "properties": [
      {"id":"0x30101", "storage":1, "default":"1"}, {"id":"0x30102", "storage":2, "default":"ab"},
      {"id":"0x30103", "storage":3, "default":"0"}, {"id":"0x30104", "storage":4, "default":"0"},
      {"id":"0x30105", "storage":5, "default":"0"}, {"id":"0x30106", "storage":6, "default":"0"},
      {"id":"0x30107", "storage":7, "default":"0"}, {"id":"0x30108", "storage":8, "default":"ab"},
      {"id":"0x30109", "storage":9, "default":"ab"}, {"id":"0x3010C", "storage":12, "default":"ab"},
      {"id":"0x3010E", "storage":14, "default":"ab"}, {"id":"0x3010F", "storage":15, "default":"0"},
      {"id":"0x30110", "storage":16, "default":"0"}, {"id":"0x30111", "storage":17, "default":"ab"},
      {"id":"0x30112", "storage":18, "default":"ab"}, {"id":"0x30113", "storage":19, "default":"0"},
      {"id":"0x30114", "storage":20, "default":"ab"}, {"id":"0x301FF", "storage":255,"default":"b"},
      {"id":"0x30300", "storage":12, "default":""}, {"id":"0x30301", "storage":12}]}]})";
// clang-format on

// The test tree: site (root) > panel > {hardware > p2, detection > control, probe, probe2}.
struct ApiTree
{
    unsigned site, panel, hardware, p2, detection, control, probe, probe2;
};

class ApiPanelTest : public PanelTest
{
protected:
    void SetUp() override
    {
        PanelTest::SetUp();
        std::string error;
        ASSERT_TRUE(panelsim::loadTypeLibraryText(kApiTypeLibrary, "apiTypes", error)) << error;
    }

public:
    static ApiTree buildTree()
    {
        ApiTree t{};
        t.site = addElement(0, 0x0001);
        t.panel = addElement(t.site, 0x0169);
        t.hardware = addElement(t.panel, 0x0170);
        t.p2 = addElement(t.hardware, 0x0171);
        t.detection = addElement(t.panel, 0x0292);
        t.control = addElement(t.detection, 0x0328);
        t.probe = addElement(t.panel, 0x0400);
        t.probe2 = addElement(t.panel, 0x0400);
        return t;
    }

    // Raw bytes of a property, through the byte-string operations.
    static std::string bytesOf(unsigned uuid, unsigned propertyId)
    {
        std::string bytes;
        EGW_ElementServerGetPropertyDataByPropertyID(uuid, propertyId, bytes, {});
        return bytes;
    }

    static void setBytes(unsigned uuid, unsigned propertyId, const std::string& bytes)
    {
        ASSERT_TRUE(EGW_ElementServerSetStringProperty(bytes.data(), UINT16(bytes.size()), uuid,
                                                       propertyId, {}));
    }
};

#endif
