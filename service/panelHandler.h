// One session of the panel service: the handler of one connection. Each remote operation checks
// the session's access level in the one table, checks its arguments, calls the library's exported
// operations and turns every failure into a declared PanelError.
#ifndef SERVICE_PANEL_HANDLER_H
#define SERVICE_PANEL_HANDLER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "PanelService.h"
#include "service/eventHub.h"
#include "service/requestChecks.h"

namespace egwservice
{

// What the sessions share: the service's settings and its events.
struct ServiceSettings
{
    std::string serviceVersion;
    std::string panelDescription;
    std::string host; // "simulator" or "panel"
    std::map<std::int64_t, std::string> elementKeys;
    std::size_t queueLimit = 1000;       // events per session
    std::size_t filterLimit = 10000;     // event ids per session
    std::size_t batchLimit = 100000;     // pairs per batched read
};

class ServiceCore
{
public:
    ServiceCore(ServiceSettings settings, EventSource& source);

    const ServiceSettings& settings() const { return settings_; }
    EventHub& events() { return events_; }
    std::int64_t newSessionId() { return ++lastSessionId_; }
    // Sessions open now.
    std::atomic<long> openSessions{0};

private:
    ServiceSettings settings_;
    EventHub events_;
    std::atomic<std::int64_t> lastSessionId_{0};
};

class PanelHandler : public ::egw::rpc::PanelServiceIf
{
public:
    // A session at access level 1. A session opened in-process for the panel tool may start at a
    // higher level.
    PanelHandler(ServiceCore& core, std::string peer, int level = 1);
    ~PanelHandler() override;
    PanelHandler(const PanelHandler&) = delete;
    PanelHandler& operator=(const PanelHandler&) = delete;

    using Uuid = ::egw::rpc::Uuid;
    using Id = ::egw::rpc::Id;

    void getServiceInfo(rpc::ServiceInfo& _return) override;
    std::int64_t echo(std::int64_t value) override;
    void getAccessLevels(std::map<std::string, std::int32_t>& _return) override;
    void getSession(rpc::SessionInfo& _return) override;
    void login(rpc::SessionInfo& _return, std::int32_t level, const std::string& password) override;
    void logout(rpc::SessionInfo& _return) override;

    Uuid getRoot() override;
    Uuid getParent(Uuid uuid) override;
    void getChildren(std::vector<Uuid>& _return, Uuid uuid) override;
    Id getElementType(Uuid uuid) override;
    Uuid findElementByType(Uuid start, Id typeId, bool childrenOnly) override;
    Uuid findElementByProperty(Uuid start, Id propertyId, const std::string& value,
                               bool childrenOnly) override;
    void collectSubtree(std::vector<Uuid>& _return, Uuid root, Id typeId) override;
    Uuid getUniqueElement(std::int32_t typeNumber) override;
    void getSubtreeRoots(rpc::SubtreeRoots& _return) override;

    void getIdString(std::string& _return, Uuid uuid) override;
    void getAddressRecord(rpc::AddressRecord& _return, Uuid uuid) override;
    void getAddressTexts(rpc::AddressTexts& _return, Uuid uuid) override;
    void formatAddressList(std::string& _return,
                           const std::vector<rpc::AddressRecord>& records) override;

    void readProperty(rpc::PropertyValue& _return, Uuid uuid, Id propertyId) override;
    bool getBool(Uuid uuid, Id propertyId) override;
    std::int64_t getInteger(Uuid uuid, Id propertyId) override;
    void getDateTime(rpc::DateTime& _return, Uuid uuid, Id propertyId) override;
    void getBytes(std::string& _return, Uuid uuid, Id propertyId) override;
    void setBool(Uuid uuid, Id propertyId, bool value) override;
    void setInteger(Uuid uuid, Id propertyId, std::int64_t value) override;
    void setDateTime(Uuid uuid, Id propertyId, const rpc::DateTime& value) override;
    void setBytes(Uuid uuid, Id propertyId, const std::string& value) override;
    void readProperties(std::vector<rpc::PropertyResult>& _return,
                        const std::vector<rpc::PropertyRef>& refs) override;

    void getTypeInfo(rpc::TypeInfo& _return, Id typeId) override;
    void getPropertyDefaults(std::vector<rpc::PropertyDefault>& _return, Id typeId) override;
    std::int64_t getDefaultInteger(Id typeId, Id propertyId) override;
    std::int64_t getPropertyStorageType(Id propertyId) override;
    void getStateValues(std::vector<Id>& _return, Id groupId) override;
    Id getDefaultStateOfGroup(Id groupId) override;
    void getDefaultStates(std::vector<rpc::StateValue>& _return, Id typeId) override;
    void getDescendantTypes(std::vector<Id>& _return, Id typeId) override;

    Id getState(Uuid uuid, Id groupId) override;
    void getStates(std::vector<rpc::StateValue>& _return, Uuid uuid) override;
    void setState(Uuid uuid, Id groupId, Id value) override;
    void resetToDefaultStates(Uuid uuid) override;

    void getRelations(std::vector<Uuid>& _return, Uuid uuid, Id relationType,
                      bool forward) override;
    void getVisibleRelations(std::vector<Uuid>& _return, Uuid uuid, Id relationType,
                             bool forward) override;
    void addRelation(Uuid holder, Uuid target, Id relationType) override;
    void deleteRelation(Uuid holder, Uuid target, Id relationType) override;

    void executeCommand(Uuid uuid, Id commandId, Uuid source,
                        const std::string& parameters) override;
    void broadcastCommand(Uuid uuid, Id commandId, Uuid source, Id relationType, bool forward,
                          bool includeSelf) override;

    Uuid addElement(Uuid parent, Id typeId, bool validate) override;
    void deleteElement(Uuid uuid) override;
    std::int64_t deleteElementWaited(Uuid root, const std::vector<rpc::StateChange>& changes,
                                     std::int32_t mode) override;
    std::int64_t assignGuid(Uuid uuid) override;
    std::int64_t validateElement(Uuid uuid) override;

    void getEventDetail(rpc::EventDetail& _return, Uuid uuid) override;
    void snapshot(std::vector<rpc::ElementSnapshot>& _return, Uuid root,
                  const std::vector<Id>& propertyIds, bool withStates) override;

    void subscribe(const rpc::Subscription& subscription) override;
    void unsubscribe(const rpc::Subscription& subscription) override;
    void nextEvents(std::vector<rpc::Event>& _return, std::int32_t max,
                    std::int32_t timeoutMs) override;

    void getElementKeys(std::map<Uuid, std::string>& _return) override;

private:
    template <typename Body>
    auto run(const char* operation, Body&& body);
    void requireLevel(int level, const std::string& what) const;
    // The property, checked against the element's type and the session's level.
    UINT32 allowedProperty(TypeFacts& facts, const Subject& subject, Id propertyId) const;
    rpc::PropertyValue read(const Subject& subject, UINT32 propertyId);
    void write(Uuid uuid, Id propertyId, Storage wanted, const char* what,
               const std::function<BOOL(UINT32, UINT32)>& store);
    rpc::SessionInfo sessionInfo() const;
    void* client() const { return client_; }

    ServiceCore& core_;
    const std::int64_t id_;
    const std::string peer_;
    int level_;
    ElementServerThriftClient* client_;
    std::shared_ptr<SessionQueue> events_;
};

} // namespace egwservice

#endif
