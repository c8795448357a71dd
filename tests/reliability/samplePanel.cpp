#include "samplePanel.h"

#include <stdexcept>
#include <string>

namespace
{

UINT32 add(UINT32 parent, UINT32 type)
{
    const UINT32 uuid = EGW_ELementServerAddElementByType(parent, type, false, nullptr);
    if (uuid == 0)
        throw std::runtime_error("sample panel: cannot add type " + std::to_string(type));
    return uuid;
}

void setInteger(UINT32 uuid, UINT32 propertyId, UINT32 value)
{
    if (!EGW_ElementServerSetPropertyIntDataById(uuid, propertyId, value, nullptr))
        throw std::runtime_error("sample panel: cannot set property " + std::to_string(propertyId));
}

void relate(UINT32 holder, UINT32 target)
{
    if (!EGW_ELementServerAddReferenceRelation(static_cast<int>(holder), static_cast<int>(target),
                                               kProxyRelation, nullptr))
        throw std::runtime_error("sample panel: cannot relate");
}

} // namespace

SamplePanel buildSamplePanel()
{
    constexpr UINT32 kAddress = 0x30004;
    constexpr UINT32 kDeviceId = 0x30005;
    SamplePanel p{};
    p.root = add(0, 0x70169);
    p.hardware = add(p.root, 0x70170);
    p.p2 = add(p.hardware, 0x70171);
    p.point = add(p.p2, 0x70172);
    p.subUnit = add(p.point, 0x70189);
    p.section = add(p.hardware, 0x70204);
    p.board = add(p.section, 0x70013);
    p.boardInput = add(p.board, 0x70040);
    p.loop = add(add(p.section, 0x70205), 0x70046);
    p.detector = add(p.loop, 0x70048);
    p.sounder = add(p.loop, 0x70081);
    p.detection = add(p.root, 0x70292);
    p.zone = add(add(add(p.detection, 0x70293), 0x70296), 0x70156);
    p.indicator = add(p.zone, 0x70188);
    p.evacZone = add(add(add(p.detection, 0x70297), 0x70298), 0x70167);
    p.control = add(p.root, 0x70328);
    p.spare = add(p.hardware, 0x70204);
    add(p.spare, 0x70205);

    setInteger(p.root, kAddress, 1);
    setInteger(p.p2, kAddress, 7);
    setInteger(p.point, kDeviceId, 0x00A1B2C3);
    setInteger(p.subUnit, kAddress, 3);
    setInteger(p.section, kAddress, 4);
    setInteger(p.detector, kAddress, 5);
    setInteger(p.detector, kDeviceId, 0x00D00D01);
    setInteger(p.sounder, kAddress, 6);
    setInteger(p.zone, kAddress, 12);
    setInteger(p.evacZone, kAddress, 2);
    if (!EGW_ElementServerSetStringProperty("Repeater east", 13, p.point, 0x30002, nullptr))
        throw std::runtime_error("sample panel: cannot set a label");
    relate(p.detector, p.zone);
    relate(p.sounder, p.evacZone);
    if (EGW_ElementServerSubscribeByType(kSamplePid, 0x70048, 0x03010002, nullptr) != 0)
        throw std::runtime_error("sample panel: cannot subscribe");
    return p;
}
