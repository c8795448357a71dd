// The tool's answers from the gateway in this process: each question is one or two of the
// library's exported operations on the simulator's tree.
#include "panelsim/panelsim.h"
#include "tools/panelGateway.h"

namespace egwtool
{
namespace
{

template <typename From>
std::vector<UINT32> words(const std::vector<From>& list)
{
    return std::vector<UINT32>(list.begin(), list.end());
}

class LocalGateway : public PanelGateway
{
public:
    explicit LocalGateway(const panelconfig::LoadedPanel& panel) : panel_(panel) {}

    std::string panelName() override { return panel_.name; }
    UINT32 root() override { return EGW_ELementServerGetTreeRoot(nullptr); }
    std::vector<UINT32> allElements() override
    {
        std::vector<unsigned int> list;
        const UINT32 top = root();
        if (top != 0)
        {
            EGW_BASIC_THRIFT_GetAllElementUuidByElementType(top, 0, list, nullptr);
        }
        return words(list);
    }
    UINT32 parent(UINT32 uuid) override { return EGW_ELementServerGetParentUuid(uuid, nullptr); }
    std::vector<UINT32> children(UINT32 uuid) override
    {
        std::vector<int> list;
        EGW_ELementServerGetChildrenUuidList(list, uuid, nullptr);
        return words(list);
    }
    UINT32 type(UINT32 uuid) override
    {
        return EGW_ElementServerGetElementTypeByUuid(uuid, nullptr);
    }
    std::string idString(UINT32 uuid) override
    {
        std::string text;
        EGW_ElementServerGetIDStringOfElement(text, uuid, nullptr);
        return text;
    }
    bool addressRecord(UINT32 uuid, S_EGW_THRIFT_ADDRESS_STRUCT& record) override
    {
        return EGW_GetThriftAddressStructByUuid(record, uuid, nullptr) == TRUE;
    }
    bool integer(UINT32 uuid, UINT32 propertyId, UINT32& value) override
    {
        return EGW_ElementServerGetPropertyIntDataById(uuid, propertyId, value, nullptr) == TRUE;
    }
    std::string propertyJson(UINT32 uuid, UINT32 propertyId) override
    {
        return panelconfig::readPropertyValue(uuid, propertyId);
    }
    bool writeProperty(UINT32 uuid, UINT32 propertyId, const std::string& valueText,
                       std::string& error) override
    {
        return panelconfig::writePropertyValue(uuid, propertyId, valueText, error);
    }
    std::vector<UINT32> related(UINT32 uuid, UINT32 relationType, bool forward) override
    {
        std::vector<int> list;
        EGW_ElementServerGetReferenceRelations(list, uuid, relationType, forward ? 1 : 0, nullptr);
        return words(list);
    }
    int eventDetail(UINT32 uuid, ENENT_FIELD& field) override
    {
        ENEventFormat format;
        return format.GetEventDetails(uuid, field);
    }

    std::vector<PropertyInfo> properties(UINT32 type) override
    {
        std::vector<EGW_PropertyDef_Thrift> list;
        EGW_ELementServerGetPropertyInformationList(type, list);
        std::vector<PropertyInfo> out;
        for (const EGW_PropertyDef_Thrift& p : list)
        {
            out.push_back({p.PropertyID, EGW_ElementServerGetPropertyTypeById(p.PropertyID)});
        }
        return out;
    }
    std::vector<UINT32> stateGroups(UINT32 type) override
    {
        std::vector<unsigned int> list;
        EGW_ElementServerGetStateGroupIdListByElementTypeId(list, type);
        return words(list);
    }
    std::vector<UINT32> stateValues(UINT32 group) override
    {
        std::vector<unsigned int> list;
        EGW_GetAllStatusInGroup(group, list);
        return words(list);
    }
    std::vector<UINT32> commands(UINT32 type) override
    {
        std::vector<unsigned int> list;
        EGW_ELementServerGetCommandListByElementTypeId(list, type);
        return words(list);
    }

    UINT32 state(UINT32 uuid, UINT32 group) override
    {
        UINT32 value = 0;
        EGW_ELementServerGetStateValueByUuid(value, uuid, group, nullptr);
        return value;
    }
    void setState(UINT32 uuid, UINT32 group, UINT32 value) override
    {
        if (EGW_ELementServerSetStateValueByUuid(value, uuid, group, nullptr) != TRUE)
        {
            throw GatewayError("the element server refused the state value");
        }
    }
    void execute(UINT32 uuid, UINT32 command) override
    {
        const INT32 status = EGW_ElementServerExecuteCommand(uuid, command, 0, nullptr, 0, nullptr);
        if (status != 0)
        {
            throw GatewayError("the element server refused the command (status " +
                               std::to_string(status) + ")");
        }
    }
    bool followStateChanges(UINT32 type) override
    {
        if (!panelsim::isDispatcherOpen())
        {
            EGW_ELementServerOpenEventDispatcher(nullptr);
        }
        return EGW_BASIC_THRIFT_SubscribeAllStateChange(kDisplayModule, type, nullptr) == TRUE;
    }
    bool nextEvent(DeliveredEvent& event, std::chrono::milliseconds timeout) override
    {
        panelsim::Event delivered;
        if (!panelsim::waitEvent(kDisplayModule, delivered, timeout))
        {
            return false;
        }
        event.eventId = delivered.eventId;
        event.uuid = delivered.uuid;
        event.data = std::move(delivered.data);
        return true;
    }

    std::string keyOf(UINT32 uuid) override { return panel_.keyOf(uuid); }
    UINT32 uuidOf(const std::string& key) override { return panel_.uuidOf(key); }

private:
    const panelconfig::LoadedPanel& panel_;
};

} // namespace

std::unique_ptr<PanelGateway> localGateway(const panelconfig::LoadedPanel& panel)
{
    return std::make_unique<LocalGateway>(panel);
}

} // namespace egwtool
