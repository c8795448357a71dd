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
#include <optional>
#include <string>

#include "PanelService.h"
#include "service/auditTrail.h"
#include "service/conditions.h"
#include "service/eventHub.h"
#include "service/eventMemory.h"
#include "service/loginGuard.h"
#include "service/refusalLog.h"
#include "service/requestChecks.h"
#include "service/treePages.h"

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
    std::size_t batchLimit = 10000;      // pairs per batched read
    PageBounds pages;                    // elements and reply bytes of one page of a long read
    // The service's database (audit trail and event memory) and how much of it is kept.
    std::string database = ":memory:";
    AuditRetention auditRetention;
    RefusalLimits refusals;
    std::int64_t eventRows = 100000;
    std::size_t eventQueue = 10000; // events waiting to be stored; beyond, a gap row
    // The service itself follows every state change and command of the panel, so that the event
    // memory holds the panel's history whether or not a session is watching.
    bool followPanel = false;
    ConditionLimits conditions; // the view of the panel's conditions kept while following it
    // Sessions: the login guard (loginGuard.h), a login that lapses after so
    // long without a request, and how many sessions may be open at once.
    LoginLimits logins;
    std::chrono::seconds sessionIdle{300};
    long maxSessions = 64;
    // The time that sessions and the login guard go by; a test gives a clock of its own.
    SessionClock clock = std::chrono::steady_clock::now;
};

class ServiceCore
{
public:
    // Opens the database of the settings; throws DatabaseError when it cannot be opened at all.
    // A test gives an audit trail of its own.
    ServiceCore(ServiceSettings settings, EventSource& source,
                std::unique_ptr<AuditTrail> audit = nullptr);
    ~ServiceCore();
    ServiceCore(const ServiceCore&) = delete;
    ServiceCore& operator=(const ServiceCore&) = delete;

    const ServiceSettings& settings() const { return settings_; }
    EventHub& events() { return events_; }
    AuditTrail& audit() { return *audit_; }
    RefusalLog& refusals() { return refusals_; }
    EventMemory& eventMemory() { return memory_; }
    // The panel's present conditions; kept only while the service follows the panel.
    PanelConditions& conditions() { return conditions_; }
    std::int64_t newSessionId() { return ++lastSessionId_; }
    // Sessions open now.
    std::atomic<long> openSessions{0};
    LoginGuard& logins() { return logins_; }

private:
    ServiceSettings settings_;
    std::unique_ptr<AuditTrail> audit_;
    RefusalLog refusals_; // after the trail, which it writes to until its end
    EventMemory memory_; // before the events, whose pump stores into it
    PanelConditions conditions_; // likewise
    EventHub events_;
    std::atomic<std::int64_t> lastSessionId_{0};
    LoginGuard logins_;
    std::shared_ptr<SessionQueue> follower_; // the service's own subscriptions, never read
};

class AuditedChange;

// What a session counts against: the service's bound of sessions (Thrift connections, the panel
// tool), or the operator page's own bound of browsers, which the page keeps itself.
enum class SessionBound
{
    service,
    page
};

class PanelHandler : public ::egw::rpc::PanelServiceIf
{
public:
    // A session at access level 1. A session opened in-process for the panel tool may start at a
    // higher level. `certified`: the connection showed a client certificate the service verified
    // (its logins are guarded apart from those of peers without one).
    PanelHandler(ServiceCore& core, std::string peer, int level = 1, bool certified = false,
                 SessionBound bound = SessionBound::service);
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
    void collectSubtree(rpc::UuidPage& _return, Uuid root, Id typeId, Uuid after,
                        std::int32_t max) override;
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
    void snapshot(rpc::SnapshotPage& _return, const rpc::SnapshotRequest& request) override;

    void subscribe(const rpc::Subscription& subscription) override;
    void unsubscribe(const rpc::Subscription& subscription) override;
    void nextEvents(std::vector<rpc::Event>& _return, std::int32_t max,
                    std::int32_t timeoutMs) override;
    // Ends this session's nextEvents wait under way at once (not a remote call: the page's
    // listener uses it so that an operator's action does not queue behind the page's long poll).
    void hurryEvents();
    void getConditions(rpc::ConditionList& _return) override;

    void getElementKeys(rpc::KeyPage& _return, Uuid after, std::int32_t max) override;

    void queryAudit(std::vector<rpc::AuditEntry>& _return, const rpc::AuditQuery& query) override;
    void queryEvents(std::vector<rpc::Event>& _return, const rpc::EventQuery& query) override;

private:
    // Serves one request: the session kept, its level checked in the one table, failures turned
    // into PanelErrors. `uuid` names the element the request is about, for its audit row.
    template <typename Body>
    auto run(const char* operation, Body&& body, std::int64_t uuid = 0);
    // A request that changes the panel: run() with its audit row around the change. The body
    // makes its checks, then calls AuditedChange::begin() just before the change.
    template <typename Body>
    auto change(const char* operation, std::int64_t uuid, Body&& body);
    // Refuses (and records the refusal of) a request the session's level does not allow.
    void requireLevel(int level, const std::string& what, std::uint32_t uuid = 0) const;
    // Deleting a subtree that holds the element of the passwords needs that element's level.
    void requireHolderLevel(UINT32 subtreeRoot) const;
    AuditRecord auditRow(const char* operation, std::uint32_t uuid) const;
    // Property-change data of passwords is emptied for sessions below their level.
    void hideSecrets(std::vector<rpc::Event>& events) const;
    // The property, checked against the element's type and the session's level.
    UINT32 allowedProperty(TypeFacts& facts, const Subject& subject, Id propertyId) const;
    rpc::PropertyValue read(const Subject& subject, UINT32 propertyId);
    // Checks the property's storage against what is written (and the value with `check`, given
    // the property), records the value before, stores, and records the value after.
    void write(AuditedChange& change, Uuid uuid, Id propertyId, Storage wanted, const char* what,
               const std::function<BOOL(UINT32, UINT32)>& store,
               const std::function<void(UINT32)>& check = nullptr);
    rpc::SessionInfo sessionInfo() const;
    // Before every request: a session beyond the bound is refused, and a login that has lapsed
    // drops the session to level 1.
    void keepSession();
    // A login, failed or refused login, logout or lapsed login in the audit trail. Only a granted
    // login waits on its row: the others lower or keep the level and happen all the same.
    void recordSession(const char* operation, const std::optional<std::string>& after,
                       const std::string& result, bool needed);
    void* client() const { return client_; }

    ServiceCore& core_;
    const std::int64_t id_;
    const std::string peer_;
    const bool certified_;
    int level_;
    SteadyTime lastRequest_;
    bool beyondBound_ = false;
    ElementServerThriftClient* client_;
    std::shared_ptr<SessionQueue> events_;
    const bool counted_; // in openSessions
    // The request being served, for the row of a refusal; one row per refused request.
    const char* operation_ = "";
    std::uint32_t requestUuid_ = 0;
    mutable bool refusalRecorded_ = false;
};

} // namespace egwservice

#endif
