// Event subscriptions of the panel's modules, state values, commands and the ID string of an
// element by uuid.
#include <optional>

#include "api/callingFrame.h"
#include "api/gatewayApi.h"
#include "host/debugPrint.h"
#include "identity/gatewayIdentity.h"

namespace
{

// The element server's refusal of a subscription by element from a module that has not logged in
// to the event system yet.
constexpr int kEventLoginMissing = static_cast<int>(0x80070004u);

// The panel's modules by module id, for the log; row n holds module n, rows without a module are
// null.
struct ModuleName
{
    UINT32 id;
    const char* name;
};

constexpr ModuleName kModuleNames[] = {
    {0, "<SystemManager>"},
    {1, "<EventManager>"},
    {2, "<LoopDriver>"},
    {3, "<PrinterService>"},
    {4, "<ThriftService>"},
    {5, "<DisplayManager>"},
    {6, "<KeypadDriver>"},
    {7, "<NetworkManager>"},
    {8, "<ConfigLoader>"},
    {9, "<HistoryLog>"},
    {10, "<TimerService>"},
    {11, "<GatewayApiLib>"},
    {12, "<SounderControl>"},
    {13, "<RelayDriver>"},
    {14, "<PowerMonitor>"},
    {15, "<BatteryCharger>"},
    {16, "<CauseEffect>"},
    {17, "<ZoneLogic>"},
    {18, "<DelayManager>"},
    {19, "<EvacControl>"},
    {20, "<RemoteTerminal>"},
    {21, "<RepeaterLink>"},
    {22, "<SerialPort>"},
    {23, "<ModbusGateway>"},
    {24, nullptr},
    {25, "<FirmwareUpdate>"},
    {26, "<WatchdogService>"},
    {27, "<AccessControl>"},
    {28, "<DiagnosticService>"},
    {29, "<LedDriver>"},
    {30, "<BuzzerDriver>"},
    {31, "<ClockService>"},
    {32, nullptr},
    {33, "<ExtinguishControl>"},
    {34, "<GasDetection>"},
    {35, "<AspiratingDetector>"},
    {36, "<WirelessGateway>"},
    {37, "<PeerNetwork>"},
    {38, "<MimicPanel>"},
    {39, "<ReportService>"},
    {40, nullptr},
    {41, "<DeviceLearn>"},
    {42, "<AddressManager>"},
    {43, "<TestMode>"},
    {44, "<MaintenanceService>"},
    {45, nullptr},
    {46, "<WebService>"},
};

constexpr bool rowsHoldTheirIds()
{
    UINT32 row = 0;
    for (const ModuleName& module : kModuleNames)
    {
        if (module.id != row++)
        {
            return false;
        }
    }
    return row == 47;
}
static_assert(rowsHoldTheirIds(), "the module-name table has rows 0 to 46, indexed by module id");

// The module's name, or null when the id is outside the table or its row has no name.
const char* moduleName(UINT32 pid)
{
    return pid < sizeof kModuleNames / sizeof kModuleNames[0] ? kModuleNames[pid].name : nullptr;
}

} // namespace

INT32 EGW_ElementServerSubscribeByType(UINT32 pid, UINT32 elementTypeId, UINT32 eventId, void*)
{
    return egw::server().SubscribeByType(egw::low16(elementTypeId), eventId, false, pid);
}

INT32 EGW_ElementServerUnSubscribeByType(UINT32 pid, UINT32 elementTypeId, UINT32 eventId, void*)
{
    return egw::server().Un_SubscribeByType(egw::low16(elementTypeId), eventId, pid);
}

INT32 EGW_ElementServerSubscribeByElement(UINT32 pid, UINT32 uuid, UINT32 eventId, void*)
{
    Element element(uuid);
    const int status = element.SubscribeByElement(eventId, false, pid);
    if (status == 0)
    {
        return 0;
    }
    DebugPrint(3, egw::kModuleTag,
               "Fault:SubscribeByElement,pid=0x%x,            uuid=0x%x, event=0x%x, mError=0x%x\n",
               pid, uuid, eventId, static_cast<unsigned int>(status));
    if (status != kEventLoginMissing)
    {
        return status;
    }
    // A module that subscribes before its event-system login is a start-up ordering fault of that
    // module: it is named in the log, and its caller carries on as if subscribed.
    if (const char* name = moduleName(pid))
    {
        DebugPrint(4, egw::kModuleTag, "Error: EventLogin must before!! Module name:%s\n", name);
    }
    else
    {
        DebugPrint(4, egw::kModuleTag, "Error: EventLogin must before!! Module id:%d\n",
                   static_cast<int>(pid));
    }
    return 0;
}

INT32 EGW_ElementServerUnSubscribeByElement(UINT32 pid, UINT32 uuid, UINT32 eventId, void*)
{
    Element element(uuid);
    const int status = element.Un_SubscribeByElement(eventId, pid);
    if (status != 0)
    {
        DebugPrint(3, egw::kModuleTag,
                   "Fault:Un_SubscribeByElement,pid=0x%x,            uuid=0x%x, event=0x%x, "
                   "mError=0x%x\n",
                   pid, uuid, eventId, static_cast<unsigned int>(status));
    }
    return status;
}

BOOL EGW_ELementServerGetStateValueByUuid(UINT32& value, UINT32 uuid, UINT32 stateId, void*)
{
    value = 0;
    Element element(uuid);
    // A state value of 0 cannot be told apart from a failed read.
    value = element.GetState(egw::low16(stateId));
    return value != 0 ? TRUE : FALSE;
}

BOOL EGW_ELementServerSetStateValueByUuid(UINT32 value, UINT32 uuid, UINT32 stateId, void*)
{
    Element element(uuid);
    return egw::boolFromStatus(element.SetState(egw::low16(stateId), value, false));
}

INT32 EGW_ElementServerExecuteCommand(UINT32 uuid, UINT32 commandId, UINT32 sourceUuid,
                                      const void* pParameters, UINT16 mParameterSize, void*)
{
    Element target(uuid);
    std::optional<Element> source;
    if (sourceUuid != 0)
    {
        source.emplace(sourceUuid);
    }
    // The host only reads the parameters; its interface is not const-correct.
    return target.ExecuteCommand(egw::low16(commandId), source ? &*source : nullptr,
                                 const_cast<void*>(pParameters), mParameterSize, false);
}

void EGW_ElementServerGetIDStringOfElement(std::string& text, UINT32 uuid, void*)
{
    // GetIDString walks its element up to the root, so it gets a temporary of its own.
    Element element(uuid);
    text = GetIDString(element);
}
