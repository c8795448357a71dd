#include "service/panelHandler.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <string_view>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "panelService_constants.h"
#include "service/accessLevels.h"
#include "service/auditTrail.h"
#include "service/database.h"
#include "service/passwords.h"
#include "tools/valueRules.h"

namespace egwservice
{
namespace
{

using rpc::ErrorCode;

constexpr UINT32 kGuidProperty = 0x301A4;
constexpr UINT32 kGuidCounterProperty = 0x301A6;
// The event id of a property's change: this base with the property's number.
constexpr UINT32 kPropertyChangeEvent = 0x03020000;
// The number types that an address text may hold.
constexpr UINT32 kAddressTextTypes = 0x980E0;
constexpr std::int32_t kMostEvents = 10000;
constexpr std::int32_t kLongestPollMs = 60000;
constexpr int kUnlockAttempts = 100;

std::string elementText(const Subject& subject)
{
    return "element " + std::to_string(subject.uuid) + " (type " + hex(subject.type) + ")";
}

template <typename From>
std::vector<std::int64_t> widened(const std::vector<From>& list)
{
    std::vector<std::int64_t> out;
    out.reserve(list.size());
    for (const From value : list)
    {
        out.push_back(static_cast<UINT32>(value));
    }
    return out;
}

// The element server's lock around operations that need one consistent tree.
class TreeLock
{
public:
    explicit TreeLock(void* client) : client_(client)
    {
        if (EGW_ElementServerLock(1, client_) != 0)
        {
            refuse(ErrorCode::REFUSED, "the element server's lock could not be taken");
        }
    }
    // The tree stays held for every module of the panel until the unlock goes through, so a
    // failed or throwing unlock is tried again; a destructor must not throw either.
    ~TreeLock()
    {
        for (int attempt = 0; attempt < kUnlockAttempts; ++attempt)
        {
            try
            {
                if (EGW_ElementServerUnlock(client_) == 0)
                {
                    return;
                }
            }
            catch (const std::exception&)
            {
            }
        }
    }
    TreeLock(const TreeLock&) = delete;
    TreeLock& operator=(const TreeLock&) = delete;

private:
    void* client_;
};

void refused(bool accepted, const std::string& what)
{
    if (!accepted)
    {
        refuse(ErrorCode::REFUSED, "the element server refused " + what);
    }
}

// An element given as a start or root: 0 stands for the tree root.
Subject elementOrRoot(TypeFacts& facts, std::int64_t uuid, const char* argument, void* client)
{
    if (uuid != 0)
    {
        return facts.element(uuid, argument);
    }
    const UINT32 root = EGW_ELementServerGetTreeRoot(client);
    if (root == 0)
    {
        refuse(ErrorCode::NO_SUCH_ELEMENT, "the element tree has no root");
    }
    return facts.element(root, argument);
}

// A source element of a command: 0 for none, else an element.
UINT32 sourceElement(TypeFacts& facts, std::int64_t source)
{
    return source == 0 ? 0 : facts.element(source, "source").uuid;
}

rpc::PropertyDefinition definitionOf(const EGW_PropertyDef_Thrift& p)
{
    rpc::PropertyDefinition d;
    d.propertyId = p.PropertyID;
    d.attr1 = p.Attr1;
    d.attr2 = p.Attr2;
    d.attr3 = p.Attr3;
    d.attr4 = p.Attr4;
    d.attr5 = p.Attr5;
    d.attr6 = p.Attr6;
    d.attr7 = p.Attr7;
    d.storageType = EGW_ElementServerGetPropertyTypeById(p.PropertyID);
    return d;
}

// Every state group of the element's type with the element's value (0: none).
std::vector<rpc::StateValue> statesOf(TypeFacts& facts, const Subject& subject, void* client)
{
    std::vector<rpc::StateValue> states;
    for (const unsigned int group : facts.stateGroups(subject.type))
    {
        UINT32 value = 0;
        EGW_ELementServerGetStateValueByUuid(value, subject.uuid, group, client);
        rpc::StateValue state;
        state.groupId = group;
        state.value = value;
        states.push_back(state);
    }
    return states;
}

// The GUID operations read the counter on the tree root and the GUID of the element; the library
// reports a missing counter as a broken invariant, so both are checked first.
void requireGuidProperties(TypeFacts& facts, const Subject& subject, void* client)
{
    if (!facts.defines(subject.type, kGuidProperty))
    {
        return; // the element takes no GUID; the library leaves it alone
    }
    const Subject root = elementOrRoot(facts, 0, "root", client);
    if (!facts.defines(root.type, kGuidCounterProperty))
    {
        refuse(ErrorCode::NOT_DEFINED, "the tree root, " + elementText(root) +
                                           ", has no GUID counter (property " +
                                           hex(kGuidCounterProperty) + ")");
    }
}

// ---- Values in the audit trail, in the panel tool's words ------------------------------------

std::string twoDigits(std::int64_t n)
{
    return (n < 10 ? "0" : "") + std::to_string(n);
}

// Text as it is when it is valid UTF-8 without control characters (a label in the operator's
// language stays readable); anything else as "hex:" and two digits per byte.
std::string bytesText(const std::string& bytes)
{
    const bool noControls = std::none_of(bytes.begin(), bytes.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    });
    bool utf8 = false;
    if (noControls)
    {
        try
        {
            // The JSON library refuses to write a string that is not valid UTF-8.
            static_cast<void>(nlohmann::json(bytes).dump());
            utf8 = true;
        }
        catch (const nlohmann::json::type_error&)
        {
        }
    }
    if (utf8)
    {
        return bytes;
    }
    static const char kDigits[] = "0123456789abcdef";
    std::string text = "hex:";
    for (const char c : bytes)
    {
        text += kDigits[static_cast<unsigned char>(c) >> 4];
        text += kDigits[static_cast<unsigned char>(c) & 0xF];
    }
    return text;
}

// "2024-03-05 11:00:00.000000"
std::string dateTimeText(const rpc::DateTime& d)
{
    std::string micro = std::to_string(d.microsecond);
    micro.insert(0, micro.size() < 6 ? 6 - micro.size() : 0, '0');
    return std::to_string(d.year) + "-" + twoDigits(d.month) + "-" + twoDigits(d.day) + " " +
           twoDigits(d.secondOfDay / 3600) + ":" + twoDigits(d.secondOfDay / 60 % 60) + ":" +
           twoDigits(d.secondOfDay % 60) + "." + micro;
}

// A property's value; absent when the element holds none.
std::optional<std::string> valueText(const rpc::PropertyValue& v)
{
    if (!v.present)
    {
        return std::nullopt;
    }
    if (v.__isset.truth)
    {
        return v.truth ? "true" : "false";
    }
    if (v.__isset.integer)
    {
        return std::to_string(v.integer);
    }
    if (v.__isset.dateTime)
    {
        return dateTimeText(v.dateTime);
    }
    return bytesText(v.bytes);
}

// "0x80001=0x60001 0x80002=0x60005"
std::string statesText(const std::vector<rpc::StateValue>& states)
{
    std::string text;
    for (const rpc::StateValue& state : states)
    {
        text += (text.empty() ? "" : " ") + hex(static_cast<std::uint64_t>(state.groupId)) + "=" +
                hex(static_cast<std::uint64_t>(state.value));
    }
    return text;
}

std::optional<std::string> guidText(TypeFacts& facts, const Subject& subject, void* client)
{
    UINT32 guid = 0;
    if (!facts.defines(subject.type, kGuidProperty) ||
        EGW_ElementServerGetPropertyIntDataById(subject.uuid, kGuidProperty, guid, client) != TRUE)
    {
        return std::nullopt;
    }
    return std::to_string(guid);
}

// Password values never reach the audit trail.
constexpr const char* kHiddenValue = "(password, not recorded)";

} // namespace

// ---- Audited changes ----------------------------------------------------------------------------

// The audit row of one change: committed as "pending" before the change is made (or the change
// is refused), finished with its outcome after it.
class AuditedChange
{
public:
    AuditedChange(AuditTrail& trail, AuditRecord row, void* client)
        : trail_(trail), row_(std::move(row)), client_(client)
    {
    }

    // The checks are done and the change is about to be made on the element.
    void begin(UINT32 uuid, std::optional<std::string> before,
               std::optional<std::string> after = std::nullopt)
    {
        row_.uuid = uuid;
        if (uuid != 0)
        {
            try
            {
                EGW_ElementServerGetIDStringOfElement(row_.idString, uuid, client_);
            }
            catch (const std::exception&)
            {
                // The row goes without it; the uuid names the element.
            }
        }
        row_.before = std::move(before);
        row_.after = std::move(after);
        try
        {
            id_ = trail_.begin(row_);
        }
        catch (const AuditUnavailable& e)
        {
            refuse(ErrorCode::REFUSED, std::string("the audit trail cannot record the change (") +
                                           e.what() + "); nothing was changed");
        }
    }
    // The value after the change, where there is one.
    void after(std::optional<std::string> value) { row_.after = std::move(value); }

    // The outcome. The change is made (or failed) by now: a row that cannot be finished stays
    // "pending", which still shows the attempt, and the client gets the change's real result.
    void finish(const std::string& result)
    {
        if (id_ == 0)
        {
            return;
        }
        try
        {
            trail_.finish(id_, result, row_.after);
        }
        catch (const AuditUnavailable& e)
        {
            std::cerr << "egwd: audit row " << id_ << " (" << row_.operation
                      << ") stays pending, its outcome \"" << result
                      << "\" could not be recorded: " << e.what() << std::endl;
        }
        id_ = 0;
    }

private:
    AuditTrail& trail_;
    AuditRecord row_;
    void* client_;
    std::int64_t id_ = 0;
};

// ---- ServiceCore --------------------------------------------------------------------------------

ServiceCore::ServiceCore(ServiceSettings settings, EventSource& source,
                         std::unique_ptr<AuditTrail> audit)
    : settings_(std::move(settings)),
      audit_(audit ? std::move(audit)
                   : std::make_unique<SqliteAuditTrail>(settings_.database,
                                                        settings_.auditRetention)),
      refusals_(*audit_, settings_.refusals, settings_.clock),
      memory_(settings_.database, {settings_.eventRows, settings_.eventQueue}),
      conditions_(settings_.conditions),
      events_(source, 4, settings_.queueLimit, settings_.filterLimit, &memory_,
              settings_.followPanel ? &conditions_ : nullptr),
      logins_(settings_.logins, settings_.clock)
{
    if (!settings_.followPanel)
    {
        return;
    }
    // Every type that can stand in the tree, each with all its state groups and commands. The
    // queue is closed at once: the events are stored by the pump, nobody takes them from here.
    follower_ = events_.attach();
    follower_->close();
    const std::unique_ptr<ElementServerThriftClient, void (*)(ElementServerThriftClient*)>
        client(NewThriftClientInstance(), [](ElementServerThriftClient* c) { ThriftClient_Close(c); });
    std::vector<unsigned int> types;
    const UINT32 rootType = EGW_ElementServerGetElementTypeByUuid(
        EGW_ELementServerGetTreeRoot(client.get()), client.get());
    EGW_BASIC_THRIFT_GetAllChildrenElementType(types, rootType);
    types.push_back(rootType);
    for (const unsigned int type : types)
    {
        for (const auto kind : {rpc::SubscriptionKind::ALL_STATE_CHANGES,
                                rpc::SubscriptionKind::ALL_COMMANDS})
        {
            rpc::Subscription all;
            all.kind = kind;
            all.target = type;
            try
            {
                events_.subscribe(follower_, all, client.get());
            }
            catch (const rpc::PanelError&)
            {
                // A type without state groups or commands: nothing to follow.
            }
        }
    }
    conditions_.start(); // after the subscriptions: no change falls between its reading and them
}

ServiceCore::~ServiceCore()
{
    if (follower_)
    {
        events_.detach(follower_);
    }
}

// ---- Session ------------------------------------------------------------------------------------

PanelHandler::PanelHandler(ServiceCore& core, std::string peer, int level, bool certified,
                           SessionBound bound)
    : core_(core),
      id_(core.newSessionId()),
      peer_(std::move(peer)),
      certified_(certified),
      level_(level),
      lastRequest_(core.settings().clock()),
      client_(NewThriftClientInstance()),
      events_(core.events().attach()), counted_(bound == SessionBound::service)
{
    beyondBound_ = counted_ && ++core_.openSessions > core_.settings().maxSessions;
}

PanelHandler::~PanelHandler()
{
    core_.events().detach(events_);
    ThriftClient_Close(client_);
    if (counted_)
    {
        --core_.openSessions;
    }
}

template <typename Body>
auto PanelHandler::run(const char* operation, Body&& body, std::int64_t uuid)
{
    operation_ = operation;
    requestUuid_ = uuid > 0 && uuid <= 0xFFFFFFFF ? static_cast<std::uint32_t>(uuid) : 0;
    refusalRecorded_ = false;
    keepSession();
    requireLevel(egwservice::requiredLevel(operation), operation);
    try
    {
        return body();
    }
    catch (const rpc::PanelError&)
    {
        throw;
    }
    catch (const std::exception& e)
    {
        refuse(ErrorCode::REFUSED, std::string(operation) + ": the element server failed (" +
                                       e.what() + ")");
    }
}

template <typename Body>
auto PanelHandler::change(const char* operation, std::int64_t uuid, Body&& body)
{
    return run(
        operation,
        [&] {
            const UrgentWork urgent; // no page of a long read begins until the change is made
            AuditedChange audited(core_.audit(), auditRow(operation, requestUuid_), client());
            try
            {
                if constexpr (std::is_void_v<decltype(body(audited))>)
                {
                    body(audited);
                    audited.finish("ok");
                }
                else
                {
                    auto result = body(audited);
                    audited.finish("ok");
                    return result;
                }
            }
            catch (const rpc::PanelError& error)
            {
                audited.finish(error.message);
                throw;
            }
            catch (const std::exception& e)
            {
                audited.finish(std::string("the element server failed (") + e.what() + ")");
                throw;
            }
        },
        uuid);
}

AuditRecord PanelHandler::auditRow(const char* operation, std::uint32_t uuid) const
{
    AuditRecord row;
    row.sessionId = id_;
    row.peer = peer_;
    row.level = level_;
    row.operation = operation;
    row.uuid = uuid;
    return row;
}

void PanelHandler::requireLevel(int level, const std::string& what, std::uint32_t uuid) const
{
    if (level == 0 || level_ < level)
    {
        // One row per refused request (a batched read may refuse many of its pairs); a level-1
        // session's refusals are counted together (refusalLog.h). The refusal is given whether
        // or not its row could be written.
        if (!refusalRecorded_)
        {
            refusalRecorded_ = true;
            AuditRecord row = auditRow(operation_, uuid != 0 ? uuid : requestUuid_);
            row.result = "denied: level " + std::to_string(level) + " needed";
            core_.refusals().record(std::move(row));
        }
        rpc::PanelError error;
        error.code = ErrorCode::ACCESS_DENIED;
        error.requiredLevel = level;
        error.message = what + " needs access level " + std::to_string(level) +
                        "; the session is at level " + std::to_string(level_);
        throw error;
    }
}

rpc::SessionInfo PanelHandler::sessionInfo() const
{
    rpc::SessionInfo info;
    info.sessionId = id_;
    info.accessLevel = level_;
    info.peer = peer_;
    return info;
}

void PanelHandler::getServiceInfo(rpc::ServiceInfo& _return)
{
    run("getServiceInfo", [&] {
        const ServiceSettings& settings = core_.settings();
        _return.interfaceVersion = rpc::g_panelService_constants.INTERFACE_VERSION;
        _return.serviceVersion = settings.serviceVersion;
        _return.panelDescription = settings.panelDescription;
        _return.host = settings.host;
        _return.moduleId = static_cast<std::int32_t>(core_.events().module());
        const UINT32 root = EGW_ELementServerGetTreeRoot(client());
        std::vector<unsigned int> all;
        _return.elementCount =
            root == 0 ? 0 : EGW_BASIC_THRIFT_GetAllElementUuidByElementType(root, 0, all, client());
    });
}

std::int64_t PanelHandler::echo(std::int64_t value)
{
    return run("echo", [&] { return value; });
}

void PanelHandler::getAccessLevels(std::map<std::string, std::int32_t>& _return)
{
    run("getAccessLevels", [&] {
        for (const auto& rule : accessTable())
        {
            _return.emplace(rule.first, rule.second);
        }
    });
}

void PanelHandler::getSession(rpc::SessionInfo& _return)
{
    run("getSession", [&] { _return = sessionInfo(); });
}

void PanelHandler::keepSession()
{
    if (beyondBound_)
    {
        refuse(ErrorCode::LIMIT,
               "the service serves at most " + std::to_string(core_.settings().maxSessions) +
                   " sessions at once; this connection has none (close it and try again later)");
    }
    const SteadyTime now = core_.settings().clock();
    const std::chrono::seconds idle = core_.settings().sessionIdle;
    if (level_ > kLowestLevel && now - lastRequest_ >= idle)
    {
        recordSession("sessionExpired", std::to_string(kLowestLevel),
                      "no request for " + std::to_string(idle.count()) + " s", false);
        level_ = kLowestLevel;
    }
    lastRequest_ = now;
}

void PanelHandler::recordSession(const char* operation, const std::optional<std::string>& after,
                                 const std::string& result, bool needed)
{
    AuditRecord row;
    row.sessionId = id_;
    row.peer = peer_;
    row.level = level_;
    row.operation = operation;
    row.before = std::to_string(level_);
    row.after = after;
    row.result = result;
    // Failed and refused logins are refusals, removed before the rows of changes and logins. A
    // refused login of a level-1 session is counted with its like (refusalLog.h); every failed
    // password is a row of its own (the login guard bounds them per address).
    row.refusal = std::string_view(operation) == "loginFailed";
    if (std::string_view(operation) == "loginBlocked")
    {
        core_.refusals().record(std::move(row));
        return;
    }
    try
    {
        core_.audit().record(row);
    }
    catch (const AuditUnavailable& e)
    {
        if (needed)
        {
            throw;
        }
        std::cerr << "egwd: " << operation << " of session " << id_ << " from " << peer_
                  << " not recorded: " << e.what() << std::endl;
    }
}

void PanelHandler::login(rpc::SessionInfo& _return, std::int32_t level, const std::string& password)
{
    run("login", [&] {
        if (level <= kLowestLevel || level > kHighestLevel)
        {
            refuse(ErrorCode::BAD_ARGUMENT,
                   "level " + std::to_string(level) + ": a login raises the session to level 2, 3 "
                                                      "or 4 (logout returns to level 1)");
        }
        const std::string asked = "level " + std::to_string(level);
        LoginGuard& guard = core_.logins();
        const LoginAttempt attempt{LoginGuard::addressOf(peer_), level, certified_};
        const LoginGuard::Admission admission = guard.admit(attempt);
        if (admission.refusal != LoginGuard::Refusal::None)
        {
            recordSession("loginBlocked", std::nullopt,
                          asked + ": refused for " + std::to_string(admission.wait.count()) +
                              " s more",
                          false);
            refuse(ErrorCode::LIMIT, guard.refusalText(admission, attempt));
        }
        bool accepted = false;
        for (const std::string& expected : levelPasswords(level))
        {
            accepted = samePassword(password, expected) || accepted;
        }
        if (!accepted)
        {
            const std::chrono::seconds block = guard.failed(attempt);
            recordSession("loginFailed", std::nullopt, asked + ": wrong password", false);
            refuse(ErrorCode::BAD_PASSWORD,
                   "the password for access level " + std::to_string(level) + " is not right" +
                       (block.count() > 0 ? "; logins at that level from " + attempt.address +
                                                " are now refused for " +
                                                std::to_string(block.count()) + " s"
                                          : std::string()));
        }
        guard.succeeded(attempt);
        try
        {
            recordSession("login", std::to_string(level), "ok", true);
        }
        catch (const AuditUnavailable& e)
        {
            refuse(ErrorCode::REFUSED,
                   std::string("the login is not granted: the audit trail cannot record it (") +
                       e.what() + ")");
        }
        level_ = level;
        _return = sessionInfo();
    });
}

void PanelHandler::logout(rpc::SessionInfo& _return)
{
    run("logout", [&] {
        recordSession("logout", std::to_string(kLowestLevel), "ok", false);
        level_ = kLowestLevel;
        _return = sessionInfo();
    });
}

// ---- Tree navigation ----------------------------------------------------------------------------

PanelHandler::Uuid PanelHandler::getRoot()
{
    return run("getRoot", [&] { return Uuid{EGW_ELementServerGetTreeRoot(client())}; });
}

PanelHandler::Uuid PanelHandler::getParent(Uuid uuid)
{
    return run("getParent", [&] {
        TypeFacts facts;
        return Uuid{EGW_ELementServerGetParentUuid(facts.element(uuid).uuid, client())};
    });
}

void PanelHandler::getChildren(std::vector<Uuid>& _return, Uuid uuid)
{
    run("getChildren", [&] {
        TypeFacts facts;
        std::vector<int> children;
        EGW_ELementServerGetChildrenUuidList(children, facts.element(uuid).uuid, client());
        _return = widened(children);
    });
}

PanelHandler::Id PanelHandler::getElementType(Uuid uuid)
{
    return run("getElementType", [&] {
        TypeFacts facts;
        return Id{facts.element(uuid).type};
    });
}

PanelHandler::Uuid PanelHandler::findElementByType(Uuid start, Id typeId, bool childrenOnly)
{
    return run("findElementByType", [&] {
        TypeFacts facts;
        const UINT32 from = start == 0 ? 0 : facts.element(start, "start").uuid;
        const UINT32 type = idOf(IdKind::ElementType, typeId, "typeId");
        return Uuid{EGW_ELementServerGetElementByElementTypeId(from, type, childrenOnly, client())};
    });
}

PanelHandler::Uuid PanelHandler::findElementByProperty(Uuid start, Id propertyId,
                                                       const std::string& value, bool childrenOnly)
{
    return run("findElementByProperty", [&] {
        TypeFacts facts;
        const Subject from = elementOrRoot(facts, start, "start", client());
        const UINT32 property = idOf(IdKind::Property, propertyId, "propertyId");
        // Searching by a password's value would reveal it.
        requireLevel(propertyLevel(property), "searching by property " + hex(property));
        const UINT16 size = byteCount(value, "value", false);
        return Uuid{EGW_ELementServerGetElementByProperty(from.uuid, property, value.data(), size,
                                                          childrenOnly, client())};
    });
}

void PanelHandler::collectSubtree(rpc::UuidPage& _return, Uuid root, Id typeId, Uuid after,
                                  std::int32_t max)
{
    run("collectSubtree", [&] {
        const PageBounds& bounds = core_.settings().pages;
        const std::size_t limit = pageSize(max, bounds);
        const UINT32 type = typeId == 0 ? 0 : idOf(IdKind::ElementType, typeId, "typeId");
        const UINT32 resumeAfter = word(after, "after");
        UrgentWork::letPass(kLongestCourtesy);
        const TreeLock lock(client());
        TypeFacts facts;
        TreeWalk walk(client(), elementOrRoot(facts, root, "root", client()).uuid, resumeAfter, 0);
        _return.nextAfter = fillPage(walk, limit, bounds.replyBytes, _return.uuids,
                                [&](UINT32 uuid, UINT32, std::vector<Uuid>& out) -> std::size_t {
            if (type != 0 && EGW_ElementServerGetElementTypeByUuid(uuid, client()) != type)
            {
                return 0;
            }
            out.push_back(uuid);
            return kUuidReplyBytes;
        });
    });
}

PanelHandler::Uuid PanelHandler::getUniqueElement(std::int32_t typeNumber)
{
    return run("getUniqueElement", [&] {
        if (typeNumber <= 0 || typeNumber > 0xFFFF)
        {
            refuse(ErrorCode::BAD_ARGUMENT, "typeNumber " + std::to_string(typeNumber) +
                                                " is not a type number (1 to 0xFFFF)");
        }
        int error = 0;
        Element element = GetUniqueElement(static_cast<unsigned short>(typeNumber), &error);
        if (error == 5)
        {
            refuse(ErrorCode::NOT_DEFINED,
                   "type number " + hex(static_cast<UINT32>(typeNumber)) +
                       " has no fixed type chain to find its element by");
        }
        return Uuid{element.GetUUID()};
    });
}

void PanelHandler::getSubtreeRoots(rpc::SubtreeRoots& _return)
{
    run("getSubtreeRoots", [&] {
        _return.hardware = EGW_ELementServerGetHardwareTreeRoot(client());
        _return.p2 = EGW_ELementServerGetP2TreeRoot(client());
        _return.detection = EGW_ELementServerGetDetectionTreeRoot(client());
        _return.control = EGW_ELementServerGetControlTreeRoot(client());
    });
}

// ---- Identity and addresses ---------------------------------------------------------------------

void PanelHandler::getIdString(std::string& _return, Uuid uuid)
{
    run("getIdString", [&] {
        TypeFacts facts;
        EGW_ElementServerGetIDStringOfElement(_return, facts.element(uuid).uuid, client());
    });
}

void PanelHandler::getAddressRecord(rpc::AddressRecord& _return, Uuid uuid)
{
    run("getAddressRecord", [&] {
        TypeFacts facts;
        const Subject subject = facts.element(uuid);
        EGW_THRIFT_ADDRESS_STRUCT record{};
        if (EGW_GetThriftAddressStructByUuid(record, subject.uuid, client()) != TRUE)
        {
            refuse(ErrorCode::NOT_DEFINED, elementText(subject) + " has no address");
        }
        _return.data = record.mData;
        _return.dataType = record.mDataType;
    });
}

void PanelHandler::getAddressTexts(rpc::AddressTexts& _return, Uuid uuid)
{
    run("getAddressTexts", [&] {
        TypeFacts facts;
        const UINT32 element = facts.element(uuid).uuid;
        EGW_BASIC_THRIFT_GetPhysicalAddress(element, _return.physical, client());
        EGW_BASIC_THRIFT_GetLogicAddress(element, _return.logical, client());
    });
}

void PanelHandler::formatAddressList(std::string& _return,
                                     const std::vector<rpc::AddressRecord>& records)
{
    run("formatAddressList", [&] {
        notEmpty(records.size(), "records");
        std::vector<S_EGW_THRIFT_ADDRESS_STRUCT> list;
        for (const rpc::AddressRecord& record : records)
        {
            const UINT32 type = word(record.dataType, "dataType");
            if (type > 19 || ((kAddressTextTypes >> type) & 1u) == 0)
            {
                refuse(ErrorCode::BAD_ARGUMENT,
                       "dataType " + std::to_string(type) +
                           " is not a number type of an address (5, 6, 7, 15, 16 or 19)");
            }
            list.push_back({word(record.data, "data"), type});
        }
        EGW_BASIC_FormatAddressStructDataList(_return, list);
        if (!_return.empty() && _return.back() == '\0')
        {
            _return.pop_back();
        }
    });
}

// ---- Properties ---------------------------------------------------------------------------------

UINT32 PanelHandler::allowedProperty(TypeFacts& facts, const Subject& subject,
                                     Id propertyId) const
{
    const UINT32 property = facts.property(subject, propertyId);
    // The refusal's text is made only for a refusal: a batched read checks every pair here.
    const int level = propertyLevel(property);
    if (level == 0 || level_ < level)
    {
        requireLevel(level, "property " + hex(property), subject.uuid);
    }
    return property;
}

rpc::PropertyValue PanelHandler::read(const Subject& subject, UINT32 propertyId)
{
    rpc::PropertyValue value;
    value.storageType = EGW_ElementServerGetPropertyTypeById(propertyId);
    switch (storageOf(static_cast<UINT32>(value.storageType)))
    {
    case Storage::Truth:
    {
        int truth = 0;
        value.present = EGW_ElementServerGetPropertyBoolDataById(subject.uuid, propertyId, truth,
                                                                 client()) == TRUE;
        value.__set_truth(truth != 0);
        break;
    }
    case Storage::Integer8:
    case Storage::Integer16:
    case Storage::Integer32:
    {
        UINT32 number = 0;
        value.present = EGW_ElementServerGetPropertyIntDataById(subject.uuid, propertyId, number,
                                                                client()) == TRUE;
        // 16-bit values come sign-extended; they are shown as the signed numbers they are.
        value.__set_integer(storageOf(static_cast<UINT32>(value.storageType)) == Storage::Integer16
                                ? std::int64_t{static_cast<std::int32_t>(number)}
                                : std::int64_t{number});
        break;
    }
    case Storage::DateTime:
    {
        tagBSC_DATETIME record{};
        value.present = EGW_ElementServerGetPropertyDatetimeDataById(subject.uuid, propertyId,
                                                                     record, client()) == TRUE;
        if (value.present)
        {
            rpc::DateTime& d = value.dateTime;
            d.year = record.mYear;
            d.month = record.mMonth;
            d.day = record.mDay;
            d.weekDay = record.mWeekDay;
            std::uint32_t second = 0;
            std::uint32_t micro = 0;
            std::memcpy(&second, reinterpret_cast<const unsigned char*>(&record) + 5, 4);
            std::memcpy(&micro, reinterpret_cast<const unsigned char*>(&record) + 9, 4);
            d.secondOfDay = second;
            d.microsecond = micro;
            value.__isset.dateTime = true;
            break;
        }
        // A date-time property holding something else is handed over as its bytes.
        [[fallthrough]];
    }
    case Storage::Bytes:
    case Storage::None:
    {
        std::string bytes;
        value.present = EGW_ElementServerGetPropertyDataByPropertyID(subject.uuid, propertyId,
                                                                     bytes, client()) == TRUE;
        value.__set_bytes(bytes);
        break;
    }
    }
    return value;
}

void PanelHandler::readProperty(rpc::PropertyValue& _return, Uuid uuid, Id propertyId)
{
    run("readProperty", [&] {
        TypeFacts facts;
        const Subject subject = facts.element(uuid);
        _return = read(subject, allowedProperty(facts, subject, propertyId));
    });
}

namespace
{

// A typed read's value. Refused when the property is of another storage type (as the setters
// refuse it), and when the element holds no value of the kind asked for: a date-time property
// whose element holds nothing, or bytes that are no date-time record, has no date-time to give.
const rpc::PropertyValue& typed(const rpc::PropertyValue& value,
                                std::initializer_list<Storage> storages, bool isset,
                                const char* wanted, UINT32 propertyId, UINT32 uuid)
{
    const Storage storage = storageOf(static_cast<UINT32>(value.storageType));
    if (std::find(storages.begin(), storages.end(), storage) == storages.end())
    {
        refuse(ErrorCode::BAD_ARGUMENT, "property " + hex(propertyId) + " has storage type " +
                                            std::to_string(value.storageType) + ", not " + wanted);
    }
    if (!value.present || !isset)
    {
        refuse(ErrorCode::NOT_DEFINED, "element " + std::to_string(uuid) +
                                           " holds no value of property " + hex(propertyId));
    }
    return value;
}

} // namespace

bool PanelHandler::getBool(Uuid uuid, Id propertyId)
{
    return run("getBool", [&] {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 p = allowedProperty(facts, s, propertyId);
        const rpc::PropertyValue v = read(s, p);
        return typed(v, {Storage::Truth}, v.__isset.truth, "a truth value", p, s.uuid).truth;
    });
}

std::int64_t PanelHandler::getInteger(Uuid uuid, Id propertyId)
{
    return run("getInteger", [&] {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 p = allowedProperty(facts, s, propertyId);
        const rpc::PropertyValue v = read(s, p);
        return typed(v, {Storage::Integer8, Storage::Integer16, Storage::Integer32},
                     v.__isset.integer, "an integer", p, s.uuid)
            .integer;
    });
}

void PanelHandler::getDateTime(rpc::DateTime& _return, Uuid uuid, Id propertyId)
{
    run("getDateTime", [&] {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 p = allowedProperty(facts, s, propertyId);
        const rpc::PropertyValue v = read(s, p);
        _return = typed(v, {Storage::DateTime}, v.__isset.dateTime, "a date-time record", p,
                        s.uuid)
                      .dateTime;
    });
}

void PanelHandler::getBytes(std::string& _return, Uuid uuid, Id propertyId)
{
    run("getBytes", [&] {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 p = allowedProperty(facts, s, propertyId);
        // A byte string, or a property the type library does not know (held as its bytes).
        const rpc::PropertyValue v = read(s, p);
        _return = typed(v, {Storage::Bytes, Storage::None}, v.__isset.bytes, "a byte string", p,
                        s.uuid)
                      .bytes;
    });
}

void PanelHandler::write(AuditedChange& change, Uuid uuid, Id propertyId, Storage wanted,
                         const char* what, const std::function<BOOL(UINT32, UINT32)>& store,
                         const std::function<void(UINT32)>& check)
{
    TypeFacts facts;
    const Subject s = facts.element(uuid);
    const UINT32 p = allowedProperty(facts, s, propertyId);
    const UINT32 storageType = EGW_ElementServerGetPropertyTypeById(p);
    const Storage storage = storageOf(storageType);
    const bool fits = storage == wanted ||
                      (wanted == Storage::Integer32 &&
                       (storage == Storage::Integer8 || storage == Storage::Integer16)) ||
                      (wanted == Storage::Bytes && storage == Storage::None);
    if (!fits)
    {
        refuse(ErrorCode::BAD_ARGUMENT, "property " + hex(p) + " has storage type " +
                                            std::to_string(storageType) + "; it takes no " + what);
    }
    if (check)
    {
        check(p);
    }
    const bool secret = propertyLevel(p) >= kHighestLevel;
    // The values before and after are this session's: no other session writes in between.
    const TreeLock lock(client());
    change.begin(s.uuid, secret ? kHiddenValue : valueText(read(s, p)));
    refused(store(s.uuid, p) == TRUE, "the value of property " + hex(p) + " for " + elementText(s));
    change.after(secret ? kHiddenValue : valueText(read(s, p)));
}

void PanelHandler::setBool(Uuid uuid, Id propertyId, bool value)
{
    change("setBool", uuid, [&](AuditedChange& audited) {
        write(audited, uuid, propertyId, Storage::Truth, "truth value", [&](UINT32 u, UINT32 p) {
            return EGW_ElementServerSetPropertyBoolDataById(u, p, value ? 1 : 0, client());
        });
    });
}

void PanelHandler::setInteger(Uuid uuid, Id propertyId, std::int64_t value)
{
    change("setInteger", uuid, [&](AuditedChange& audited) {
        const auto store = [&](UINT32 u, UINT32 p) {
            return EGW_ElementServerSetPropertyIntDataById(u, p, static_cast<UINT32>(value),
                                                           client());
        };
        write(audited, uuid, propertyId, Storage::Integer32, "integer", store, [&](UINT32 p) {
            std::int64_t low = -2147483648ll;
            std::int64_t high = 4294967295ll;
            switch (storageOf(EGW_ElementServerGetPropertyTypeById(p)))
            {
            case Storage::Integer8:
                low = 0;
                high = 255;
                break;
            case Storage::Integer16:
                low = -32768;
                high = 32767;
                break;
            default:
                break;
            }
            if (value < low || value > high)
            {
                refuse(ErrorCode::VALUE_OUT_OF_RANGE, egwvalues::outOfRange(p, low, high, value));
            }
        });
    });
}

void PanelHandler::setDateTime(Uuid uuid, Id propertyId, const rpc::DateTime& value)
{
    change("setDateTime", uuid, [&](AuditedChange& audited) {
        const auto in = [](std::int64_t v, std::int64_t high, const char* member) {
            if (v < 0 || v > high)
            {
                refuse(ErrorCode::VALUE_OUT_OF_RANGE, std::string("value.") + member + " " +
                                                          std::to_string(v) + " is not 0 to " +
                                                          std::to_string(high));
            }
        };
        in(value.year, 0xFFFF, "year");
        in(value.month, 0xFF, "month");
        in(value.day, 0xFF, "day");
        in(value.weekDay, 0xFF, "weekDay");
        in(value.secondOfDay, 0xFFFFFFFFll, "secondOfDay");
        in(value.microsecond, 0xFFFFFFFFll, "microsecond");
        write(audited, uuid, propertyId, Storage::DateTime, "date-time record",
              [&](UINT32 u, UINT32 p) {
            tagBSC_DATETIME record{};
            record.mYear = static_cast<unsigned short>(value.year);
            record.mMonth = static_cast<unsigned char>(value.month);
            record.mDay = static_cast<unsigned char>(value.day);
            record.mWeekDay = static_cast<unsigned char>(value.weekDay);
            const auto second = static_cast<std::uint32_t>(value.secondOfDay);
            const auto micro = static_cast<std::uint32_t>(value.microsecond);
            std::memcpy(reinterpret_cast<unsigned char*>(&record) + 5, &second, 4);
            std::memcpy(reinterpret_cast<unsigned char*>(&record) + 9, &micro, 4);
            return EGW_ElementServerSetPropertyDatetimeDataById(u, p, record, client());
        });
    });
}

void PanelHandler::setBytes(Uuid uuid, Id propertyId, const std::string& value)
{
    change("setBytes", uuid, [&](AuditedChange& audited) {
        const UINT16 size = byteCount(value, "value", false);
        const auto store = [&](UINT32 u, UINT32 p) {
            return EGW_ElementServerSetStringProperty(value.data(), size, u, p, client());
        };
        write(audited, uuid, propertyId, Storage::Bytes, "byte string", store, [&](UINT32 p) {
            // An empty password opens nothing: its level would be shut for good.
            if (propertyLevel(p) >= kHighestLevel && passwordText(value).empty())
            {
                refuse(ErrorCode::BAD_ARGUMENT, "property " + hex(p) +
                                                    " is a password: it needs a byte other than "
                                                    "the zero bytes that end a text");
            }
        });
    });
}

void PanelHandler::readProperties(std::vector<rpc::PropertyResult>& _return,
                                  const std::vector<rpc::PropertyRef>& refs)
{
    run("readProperties", [&] {
        notEmpty(refs.size(), "refs");
        const ServiceSettings& settings = core_.settings();
        if (refs.size() > settings.batchLimit)
        {
            refuse(ErrorCode::LIMIT, "refs holds " + std::to_string(refs.size()) +
                                         " pairs; one request reads at most " +
                                         std::to_string(settings.batchLimit));
        }
        refuseRepeatedPairs(refs);
        TypeFacts facts;
        _return.resize(refs.size());
        std::size_t bytes = 0;
        for (std::size_t i = 0; i < refs.size(); ++i)
        {
            rpc::PropertyResult& result = _return[i];
            result.uuid = refs[i].uuid;
            result.propertyId = refs[i].propertyId;
            try
            {
                const Subject s = facts.element(refs[i].uuid);
                rpc::PropertyValue value = read(s, allowedProperty(facts, s, refs[i].propertyId));
                const std::size_t size = kResultReplyBytes + replyBytesOf(value);
                if (bytes + size > settings.pages.replyBytes)
                {
                    refuse(ErrorCode::LIMIT, "the reply holds at most " +
                                                 std::to_string(settings.pages.replyBytes) +
                                                 " bytes: read this pair in another request");
                }
                bytes += size;
                result.__set_value(std::move(value));
            }
            catch (const rpc::PanelError& error)
            {
                result.__set_error(error);
                bytes += kResultReplyBytes + error.message.size() + 20;
            }
        }
    });
}

// ---- Type library -------------------------------------------------------------------------------

void PanelHandler::getTypeInfo(rpc::TypeInfo& _return, Id typeId)
{
    run("getTypeInfo", [&] {
        TypeFacts facts;
        const UINT32 type = facts.elementType(typeId);
        _return.typeId = type;
        for (const EGW_PropertyDef_Thrift& p : facts.properties(type))
        {
            _return.properties.push_back(definitionOf(p));
        }
        std::vector<EGW_RelationDef_Thrift> relations;
        EGW_ELementServerGetRelationList(type, relations);
        for (const EGW_RelationDef_Thrift& r : relations)
        {
            rpc::RelationDefinition d;
            d.relatedTypeId = r.RelatedTypeID;
            d.relationKind = r.RelationKind;
            d.attr1 = r.Attr1;
            d.attr2 = r.Attr2;
            d.attr3 = r.Attr3;
            _return.relations.push_back(d);
        }
        std::vector<unsigned int> commands;
        EGW_ELementServerGetCommandListByElementTypeId(commands, type);
        _return.commands = widened(commands);
        _return.stateGroups = widened(facts.stateGroups(type));
        _return.visibility = EGW_BASIC_GetVisibleByElementType(type);
    });
}

void PanelHandler::getPropertyDefaults(std::vector<rpc::PropertyDefault>& _return, Id typeId)
{
    run("getPropertyDefaults", [&] {
        TypeFacts facts;
        std::vector<PropertyDefaultDef> defaults;
        EGW_ELementServerGetPropertyDefaultDataList(facts.elementType(typeId), defaults);
        for (const PropertyDefaultDef& d : defaults)
        {
            rpc::PropertyDefault out;
            EGW_PropertyDef_Thrift definition{d.PropertyID, d.Attr1, d.Attr2, d.Attr3,
                                              d.Attr4,      d.Attr5, d.Attr6, d.Attr7};
            out.definition = definitionOf(definition);
            // The default passwords are shown only to level 4.
            if (propertyLevel(d.PropertyID) <= level_)
            {
                out.defaultText = d.DefaultValue;
            }
            _return.push_back(out);
        }
    });
}

std::int64_t PanelHandler::getDefaultInteger(Id typeId, Id propertyId)
{
    return run("getDefaultInteger", [&] {
        TypeFacts facts;
        const UINT32 type = facts.elementType(typeId);
        const UINT32 property = idOf(IdKind::Property, propertyId, "propertyId");
        requireLevel(propertyLevel(property), "property " + hex(property));
        UINT32 value = 0;
        if (EGW_BASIC_GetDefaultIntegerTypeProperty(type, property, value) != TRUE)
        {
            refuse(ErrorCode::NOT_DEFINED, "type " + hex(type) + " has no default for property " +
                                               hex(property));
        }
        // Shown as getInteger shows a stored value of the property's width.
        return storageOf(EGW_ElementServerGetPropertyTypeById(property)) == Storage::Integer16
                   ? std::int64_t{static_cast<std::int16_t>(value)}
                   : std::int64_t{value};
    });
}

std::int64_t PanelHandler::getPropertyStorageType(Id propertyId)
{
    return run("getPropertyStorageType", [&] {
        return std::int64_t{EGW_ElementServerGetPropertyTypeById(
            idOf(IdKind::Property, propertyId, "propertyId"))};
    });
}

void PanelHandler::getStateValues(std::vector<Id>& _return, Id groupId)
{
    run("getStateValues", [&] {
        std::vector<unsigned int> values;
        EGW_GetAllStatusInGroup(idOf(IdKind::StateGroup, groupId, "groupId"), values);
        _return = widened(values);
    });
}

PanelHandler::Id PanelHandler::getDefaultStateOfGroup(Id groupId)
{
    return run("getDefaultStateOfGroup", [&] {
        return Id{EGW_GetDefaultStatusOfGroup(idOf(IdKind::StateGroup, groupId, "groupId"))};
    });
}

void PanelHandler::getDefaultStates(std::vector<rpc::StateValue>& _return, Id typeId)
{
    run("getDefaultStates", [&] {
        TypeFacts facts;
        std::vector<S_EGW_GET_DEFAULT_STATUS> defaults;
        // The list stops at the first group without a default state.
        EGW_BASIC_GetDefaultStatus(facts.elementType(typeId), defaults);
        for (const S_EGW_GET_DEFAULT_STATUS& d : defaults)
        {
            rpc::StateValue state;
            state.groupId = d.mGroupId;
            state.value = d.mDefaultStateValue;
            _return.push_back(state);
        }
    });
}

void PanelHandler::getDescendantTypes(std::vector<Id>& _return, Id typeId)
{
    run("getDescendantTypes", [&] {
        TypeFacts facts;
        std::vector<unsigned int> types;
        EGW_BASIC_THRIFT_GetAllChildrenElementType(types, facts.elementType(typeId));
        _return = widened(types);
    });
}

// ---- States -------------------------------------------------------------------------------------

PanelHandler::Id PanelHandler::getState(Uuid uuid, Id groupId)
{
    return run("getState", [&] {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        UINT32 value = 0;
        EGW_ELementServerGetStateValueByUuid(value, s.uuid, facts.stateGroup(s, groupId), client());
        return Id{value};
    });
}

void PanelHandler::getStates(std::vector<rpc::StateValue>& _return, Uuid uuid)
{
    run("getStates", [&] {
        TypeFacts facts;
        _return = statesOf(facts, facts.element(uuid), client());
    });
}

void PanelHandler::setState(Uuid uuid, Id groupId, Id value)
{
    change("setState", uuid, [&](AuditedChange& audited) {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 group = facts.stateGroup(s, groupId);
        const UINT32 state = facts.stateValue(group, value);
        const TreeLock lock(client());
        UINT32 before = 0;
        EGW_ELementServerGetStateValueByUuid(before, s.uuid, group, client());
        audited.begin(s.uuid, hex(before) + " (group " + hex(group) + ")",
                      hex(state) + " (group " + hex(group) + ")");
        refused(EGW_ELementServerSetStateValueByUuid(state, s.uuid, group, client()) == TRUE,
                "state " + hex(state) + " of group " + hex(group) + " for " + elementText(s));
    });
}

void PanelHandler::resetToDefaultStates(Uuid uuid)
{
    change("resetToDefaultStates", uuid, [&](AuditedChange& audited) {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const TreeLock lock(client());
        audited.begin(s.uuid, statesText(statesOf(facts, s, client())));
        EGW_SetOneElementToDefaultStates(s.uuid);
        audited.after(statesText(statesOf(facts, s, client())));
    });
}

// ---- Relations ----------------------------------------------------------------------------------

void PanelHandler::getRelations(std::vector<Uuid>& _return, Uuid uuid, Id relationType,
                                bool forward)
{
    run("getRelations", [&] {
        TypeFacts facts;
        const UINT32 element = facts.element(uuid).uuid;
        std::vector<int> related;
        EGW_ElementServerGetReferenceRelations(
            related, element, idOf(IdKind::Relation, relationType, "relationType"), forward ? 1 : 0,
            client());
        _return = widened(related);
    });
}

void PanelHandler::getVisibleRelations(std::vector<Uuid>& _return, Uuid uuid, Id relationType,
                                       bool forward)
{
    run("getVisibleRelations", [&] {
        TypeFacts facts;
        const UINT32 element = facts.element(uuid).uuid;
        std::vector<int> related;
        EGW_BASIC_THRIFT_GetVisibleRelationElementList(
            element, idOf(IdKind::Relation, relationType, "relationType"), forward ? 1 : 0, related,
            client());
        _return = widened(related);
    });
}

namespace
{

// Adds or removes one reference relation between two elements.
void changeRelation(AuditedChange& audited, BOOL (*change)(int, int, UINT32, void*),
                    const char* what, PanelHandler::Uuid holder, PanelHandler::Uuid target,
                    PanelHandler::Id relationType, void* client)
{
    TypeFacts facts;
    const Subject from = facts.element(holder, "holder");
    const Subject to = facts.element(target, "target");
    const UINT32 type = idOf(IdKind::Relation, relationType, "relationType");
    const std::string relation = "relation " + hex(type) + " to element " + std::to_string(to.uuid);
    const bool adding = change == EGW_ELementServerAddReferenceRelation;
    audited.begin(from.uuid, adding ? std::nullopt : std::optional<std::string>(relation),
                  adding ? std::optional<std::string>(relation) : std::nullopt);
    refused(change(static_cast<int>(from.uuid), static_cast<int>(to.uuid), type, client) == TRUE,
            std::string(what) + " of relation " + hex(type) + " from element " +
                std::to_string(from.uuid) + " to element " + std::to_string(to.uuid));
}

} // namespace

void PanelHandler::addRelation(Uuid holder, Uuid target, Id relationType)
{
    change("addRelation", holder, [&](AuditedChange& audited) {
        changeRelation(audited, EGW_ELementServerAddReferenceRelation, "the addition", holder,
                       target, relationType, client());
    });
}

void PanelHandler::deleteRelation(Uuid holder, Uuid target, Id relationType)
{
    change("deleteRelation", holder, [&](AuditedChange& audited) {
        changeRelation(audited, EGW_ELementServerDelReferenceRelation, "the removal", holder,
                       target, relationType, client());
    });
}

// ---- Commands -----------------------------------------------------------------------------------

void PanelHandler::executeCommand(Uuid uuid, Id commandId, Uuid source,
                                  const std::string& parameters)
{
    change("executeCommand", uuid, [&](AuditedChange& audited) {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 command = facts.command(s, commandId);
        const UINT32 from = sourceElement(facts, source);
        const UINT16 size = byteCount(parameters, "parameters", true);
        audited.begin(s.uuid, std::nullopt,
                      "command " + hex(command) +
                          (size == 0 ? "" : " parameters " + bytesText(parameters)) +
                          (from == 0 ? "" : " source " + std::to_string(from)));
        const INT32 status = EGW_ElementServerExecuteCommand(
            s.uuid, command, from, size == 0 ? nullptr : parameters.data(), size, client());
        refused(status == 0, "command " + hex(command) + " for " + elementText(s) + " (status " +
                                 std::to_string(status) + ")");
    });
}

void PanelHandler::broadcastCommand(Uuid uuid, Id commandId, Uuid source, Id relationType,
                                    bool forward, bool includeSelf)
{
    change("broadcastCommand", uuid, [&](AuditedChange& audited) {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        const UINT32 command = idOf(IdKind::Command, commandId, "commandId");
        const UINT32 type = idOf(IdKind::Relation, relationType, "relationType");
        const UINT32 from = sourceElement(facts, source);
        // The library reports an element that refuses the command as a broken invariant, so every
        // element the broadcast reaches is checked first, under the lock that keeps them there.
        const TreeLock lock(client());
        std::vector<int> related;
        EGW_ElementServerGetReferenceRelations(related, s.uuid, type, forward ? 1 : 0, client());
        if (includeSelf)
        {
            related.push_back(static_cast<int>(s.uuid));
        }
        for (const int other : related)
        {
            facts.command(facts.element(static_cast<UINT32>(other), "related element"), command);
        }
        audited.begin(s.uuid, std::nullopt,
                      "command " + hex(command) + " over relation " + hex(type) +
                          (forward ? " forward" : " backward") +
                          (includeSelf ? " with the element" : "") +
                          (from == 0 ? "" : " source " + std::to_string(from)));
        refused(EGW_BroadcastCommandToRelationship(s.uuid, command, from, type, forward ? 1 : 0,
                                                   includeSelf ? 1 : 0, client()) == TRUE,
                "the broadcast of command " + hex(command) + " from " + elementText(s));
    });
}

// ---- Element lifecycle --------------------------------------------------------------------------

PanelHandler::Uuid PanelHandler::addElement(Uuid parent, Id typeId, bool validate)
{
    return change("addElement", parent, [&](AuditedChange& audited) {
        TypeFacts facts;
        const UINT32 type = facts.elementType(typeId);
        if (level_ < elementLevel(type))
        {
            requireLevel(elementLevel(type), "adding an element of type " + hex(type) +
                                                 ", which holds access-level passwords,");
        }
        if (parent == 0)
        {
            if (EGW_ELementServerGetTreeRoot(client()) != 0)
            {
                refuse(ErrorCode::BAD_ARGUMENT, "parent 0 adds the tree root, and the tree has one");
            }
        }
        else
        {
            const Subject p = facts.element(parent, "parent");
            std::vector<EGW_RelationDef_Thrift> relations;
            EGW_ELementServerGetRelationList(p.type, relations);
            const bool allowed = std::any_of(
                relations.begin(), relations.end(), [&](const EGW_RelationDef_Thrift& r) {
                    return r.RelationKind == 0 && (r.RelatedTypeID & 0xFFFFu) == (type & 0xFFFFu);
                });
            if (!allowed)
            {
                refuse(ErrorCode::NOT_DEFINED, "type " + hex(type) + " may not be placed below " +
                                                   elementText(p));
            }
        }
        audited.begin(static_cast<UINT32>(parent), std::nullopt, "type " + hex(type));
        const UINT32 added = EGW_ELementServerAddElementByType(static_cast<UINT32>(parent), type,
                                                               validate, client());
        refused(added != 0, "a new element of type " + hex(type));
        audited.after(std::to_string(added));
        return Uuid{added};
    });
}

void PanelHandler::deleteElement(Uuid uuid)
{
    change("deleteElement", uuid, [&](AuditedChange& audited) {
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        requireHolderLevel(s.uuid);
        audited.begin(s.uuid, "type " + hex(s.type));
        const INT32 status = EGW_ELementServerDeleteElementByUuid(s.uuid, client());
        refused(status == 0, "the deletion of " + elementText(s) + " (status " +
                                 std::to_string(status) + ")");
    });
}

void PanelHandler::requireHolderLevel(UINT32 subtreeRoot) const
{
    const int needed = elementLevel(kPasswordHolderType);
    const UINT32 holder = level_ < needed ? passwordHolderIn(subtreeRoot, client()) : 0;
    if (holder != 0)
    {
        requireLevel(needed,
                     "deleting element " + std::to_string(subtreeRoot) +
                         " (its subtree holds the access-level passwords, in element " +
                         std::to_string(holder) + ")",
                     subtreeRoot);
    }
}

std::int64_t PanelHandler::deleteElementWaited(Uuid root,
                                               const std::vector<rpc::StateChange>& changes,
                                               std::int32_t mode)
{
    return change("deleteElementWaited", root, [&](AuditedChange& audited) {
        if (mode < 0 || mode > 2)
        {
            refuse(ErrorCode::BAD_ARGUMENT,
                   "mode " + std::to_string(mode) +
                       ": 0 applies the changes, 1 resets the root's states, 2 every element's");
        }
        const TreeLock lock(client());
        TypeFacts facts;
        const Subject s = facts.element(root, "root");
        requireHolderLevel(s.uuid);
        std::vector<S_EGW_DELETE_ELEMENT_CHANGE_STATE_LIST> list;
        for (const rpc::StateChange& change : changes)
        {
            const Subject target = facts.element(change.uuid, "changes.uuid");
            const UINT32 group = facts.stateGroup(target, change.groupId);
            list.push_back({target.uuid, group, facts.stateValue(group, change.value)});
        }
        audited.begin(s.uuid, "type " + hex(s.type),
                      "mode " + std::to_string(mode) + ", " + std::to_string(list.size()) +
                          " state changes");
        return std::int64_t{EGW_ELementServerDeleteElementWaitNotifyByUuid(
            s.uuid, list, static_cast<UINT32>(mode))};
    });
}

std::int64_t PanelHandler::assignGuid(Uuid uuid)
{
    return change("assignGuid", uuid, [&](AuditedChange& audited) {
        // The counter is read and written back in separate steps: one session at a time.
        const TreeLock lock(client());
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        requireGuidProperties(facts, s, client());
        audited.begin(s.uuid, guidText(facts, s, client()));
        EGW_ELementServerManagerElementGUID(s.uuid, client());
        UINT32 guid = 0;
        EGW_ElementServerGetPropertyIntDataById(s.uuid, kGuidProperty, guid, client());
        audited.after(guidText(facts, s, client()));
        return std::int64_t{guid};
    });
}

std::int64_t PanelHandler::validateElement(Uuid uuid)
{
    // Validation may give the element its GUID: it is recorded as a change.
    return change("validateElement", uuid, [&](AuditedChange& audited) {
        const TreeLock lock(client());
        TypeFacts facts;
        const Subject s = facts.element(uuid);
        requireGuidProperties(facts, s, client());
        audited.begin(s.uuid, guidText(facts, s, client()));
        const std::int64_t status = EGW_ELementServerValidateElementByUuid(s.uuid, client());
        audited.after(guidText(facts, s, client()));
        return status;
    });
}

// ---- Event detail, snapshot ---------------------------------------------------------------------

void PanelHandler::getEventDetail(rpc::EventDetail& _return, Uuid uuid)
{
    run("getEventDetail", [&] {
        TypeFacts facts;
        _return = eventDetailOf(facts.element(uuid).uuid);
    });
}

void PanelHandler::snapshot(rpc::SnapshotPage& _return, const rpc::SnapshotRequest& request)
{
    run("snapshot", [&] {
        const PageBounds& bounds = core_.settings().pages;
        const std::size_t limit = pageSize(request.max, bounds);
        const std::vector<UINT32> properties = snapshotProperties(request.propertyIds);
        for (const UINT32 property : properties)
        {
            requireLevel(propertyLevel(property), "property " + hex(property));
        }
        const UINT32 after = word(request.after, "after");
        UrgentWork::letPass(kLongestCourtesy);
        const TreeLock lock(client());
        TypeFacts facts;
        const Subject top = elementOrRoot(facts, request.root, "root", client());
        TreeWalk walk(client(), top.uuid, after, request.depth);
        const auto take = [&](UINT32 uuid, UINT32 parent,
                              std::vector<rpc::ElementSnapshot>& out) -> std::size_t {
            const Subject s = facts.element(uuid);
            rpc::ElementSnapshot& snap = out.emplace_back();
            snap.uuid = uuid;
            snap.parent = parent;
            snap.typeId = s.type;
            EGW_ElementServerGetIDStringOfElement(snap.idString, uuid, client());
            for (const UINT32 property : properties)
            {
                if (facts.defines(s.type, property))
                {
                    rpc::PropertyResult& result = snap.properties.emplace_back();
                    result.uuid = uuid;
                    result.propertyId = property;
                    result.__set_value(read(s, property));
                }
            }
            if (request.withStates)
            {
                snap.states = statesOf(facts, s, client());
            }
            return replyBytesOf(snap);
        };
        _return.nextAfter = fillPage(walk, limit, bounds.replyBytes, _return.elements, take);
    });
}

// ---- Events -------------------------------------------------------------------------------------

void PanelHandler::subscribe(const rpc::Subscription& subscription)
{
    run("subscribe", [&] { core_.events().subscribe(events_, subscription, client()); });
}

void PanelHandler::unsubscribe(const rpc::Subscription& subscription)
{
    run("unsubscribe", [&] { core_.events().unsubscribe(events_, subscription, client()); });
}

void PanelHandler::nextEvents(std::vector<rpc::Event>& _return, std::int32_t max,
                              std::int32_t timeoutMs)
{
    run("nextEvents", [&] {
        if (max < 1 || max > kMostEvents)
        {
            refuse(ErrorCode::BAD_ARGUMENT, "max " + std::to_string(max) + " is not 1 to " +
                                                std::to_string(kMostEvents));
        }
        if (timeoutMs < 0 || timeoutMs > kLongestPollMs)
        {
            refuse(ErrorCode::BAD_ARGUMENT, "timeoutMs " + std::to_string(timeoutMs) +
                                                " is not 0 to " + std::to_string(kLongestPollMs));
        }
        _return = events_->take(static_cast<std::size_t>(max),
                                std::chrono::milliseconds(timeoutMs),
                                core_.settings().pages.replyBytes);
        hideSecrets(_return);
    });
}

void PanelHandler::hurryEvents()
{
    events_->hurry();
}

void PanelHandler::getConditions(rpc::ConditionList& _return)
{
    run("getConditions", [&] {
        if (!core_.settings().followPanel)
        {
            refuse(ErrorCode::REFUSED, "this service does not follow the panel's events");
        }
        _return = core_.conditions().list(client());
    });
}

void PanelHandler::hideSecrets(std::vector<rpc::Event>& events) const
{
    // A property-change event carries the new value: a password's goes to level 4 only.
    for (rpc::Event& event : events)
    {
        const auto id = static_cast<UINT32>(event.eventId);
        if ((id & 0xFFFF0000u) == kPropertyChangeEvent && propertyLevel(id) > level_)
        {
            event.data.clear();
        }
    }
}

void PanelHandler::getElementKeys(rpc::KeyPage& _return, Uuid after, std::int32_t max)
{
    run("getElementKeys", [&] {
        const PageBounds& bounds = core_.settings().pages;
        _return = keyPage(core_.settings().elementKeys, word(after, "after"),
                          pageSize(max, bounds), bounds.replyBytes);
    });
}

// ---- Records ------------------------------------------------------------------------------------

namespace
{

constexpr std::int32_t kMostRecords = 1000;

void checkPage(std::int64_t fromMs, std::int64_t toMs, std::int64_t beforeId, std::int32_t max)
{
    if (max < 1 || max > kMostRecords)
    {
        refuse(ErrorCode::BAD_ARGUMENT,
               "max " + std::to_string(max) + " is not 1 to " + std::to_string(kMostRecords));
    }
    if (fromMs < 0 || toMs < 0 || beforeId < 0)
    {
        refuse(ErrorCode::BAD_ARGUMENT, "fromMs, toMs and beforeId are 0 (no bound) or more");
    }
}

} // namespace

void PanelHandler::queryAudit(std::vector<rpc::AuditEntry>& _return, const rpc::AuditQuery& query)
{
    run("queryAudit", [&] {
        checkPage(query.fromMs, query.toMs, query.beforeId, query.max);
        AuditSelection selection;
        selection.fromMs = query.fromMs;
        selection.toMs = query.toMs;
        selection.uuid = word(query.uuid, "uuid");
        selection.operation = query.operation;
        selection.beforeId = query.beforeId;
        selection.max = query.max;
        std::vector<AuditRow> rows;
        try
        {
            rows = core_.audit().query(selection);
        }
        catch (const AuditUnavailable& e)
        {
            refuse(ErrorCode::REFUSED, std::string("the audit trail cannot be read (") + e.what() +
                                           ")");
        }
        for (const AuditRow& row : rows)
        {
            rpc::AuditEntry entry;
            entry.id = row.id;
            entry.timeMs = row.timeMs;
            entry.sessionId = row.record.sessionId;
            entry.peer = row.record.peer;
            entry.accessLevel = row.record.level;
            entry.operation = row.record.operation;
            entry.uuid = row.record.uuid;
            entry.idString = row.record.idString;
            if (row.record.before)
            {
                entry.__set_before(*row.record.before);
            }
            if (row.record.after)
            {
                entry.__set_after(*row.record.after);
            }
            entry.result = row.record.result;
            _return.push_back(std::move(entry));
        }
    });
}

void PanelHandler::queryEvents(std::vector<rpc::Event>& _return, const rpc::EventQuery& query)
{
    run(
        "queryEvents",
        [&] {
            checkPage(query.fromMs, query.toMs, query.beforeId, query.max);
            EventSelection selection;
            selection.fromMs = query.fromMs;
            selection.toMs = query.toMs;
            for (const std::int32_t category : query.categories)
            {
                if (category < 0 || category > 14)
                {
                    refuse(ErrorCode::BAD_ARGUMENT, "categories: " + std::to_string(category) +
                                                        " is no event category (0 to 14)");
                }
                selection.categories.push_back(category);
            }
            selection.subtree = word(query.subtree, "subtree");
            selection.beforeId = query.beforeId;
            selection.max = query.max;
            try
            {
                _return = core_.eventMemory().query(selection);
            }
            catch (const DatabaseError& e)
            {
                refuse(ErrorCode::REFUSED,
                       std::string("the event memory cannot be read (") + e.what() + ")");
            }
            hideSecrets(_return);
        },
        query.subtree);
}

} // namespace egwservice
