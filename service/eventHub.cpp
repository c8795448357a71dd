#include "service/eventHub.h"

#include <algorithm>

#include "elementGateway.h"
#include "service/requestChecks.h"
#include "service/treePages.h"

namespace egwservice
{
namespace
{

constexpr UINT32 kCommandEvent = 0x00060000;
constexpr UINT32 kStateGroupChangeEvent = 0x03010000;
constexpr UINT32 kPropertyChangeEvent = 0x03020000;
constexpr UINT32 kDeletedFirstEvent = 0xF0010000;
constexpr UINT32 kDeletedSecondEvent = 0xF0020000;
constexpr auto kPumpWait = std::chrono::milliseconds(50);
// A host call whose failure would cost an event or leave a subscription behind is made up to this
// many times.
constexpr int kHostAttempts = 3;
// Bounds the walk up the tree, should the host ever report a parent cycle.
constexpr std::size_t kDeepestTree = 256;

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The filters a subscription request stands for, found with the same type-library queries that
// the library's subscriptions in bulk make; refused when the request is malformed or covers
// nothing.
std::vector<EventFilter> filtersOf(const rpc::Subscription& request, TypeFacts& facts)
{
    using Kind = rpc::SubscriptionKind;
    std::vector<EventFilter> filters;
    const auto eventOfEach = [&](UINT32 type, UINT32 base, const auto& ids) {
        for (const auto id : ids)
        {
            filters.push_back({true, type, base | (static_cast<UINT32>(id) & 0xFFFFu)});
        }
    };
    switch (request.kind)
    {
    case Kind::BY_TYPE:
    case Kind::BY_ELEMENT:
    {
        const bool byType = request.kind == Kind::BY_TYPE;
        const UINT32 target = byType ? facts.elementType(request.target, "target")
                                     : facts.element(request.target, "target").uuid;
        const UINT32 eventId = word(request.eventId, "eventId");
        if (eventId == 0)
        {
            refuse(rpc::ErrorCode::BAD_ARGUMENT, "eventId 0 names no event");
        }
        filters.push_back({byType, target, eventId});
        break;
    }
    case Kind::ALL_STATE_CHANGES:
    case Kind::STATE_CHANGES_BY_VALUE:
    case Kind::STATE_CHANGES_BY_CATEGORY:
    {
        const UINT32 type = facts.elementType(request.target, "target");
        std::vector<unsigned int> values;
        std::vector<S_EGWStateCategoryStruct> categories;
        if (request.kind == Kind::STATE_CHANGES_BY_VALUE)
        {
            notEmpty(request.values.size(), "values");
            for (const auto value : request.values)
            {
                values.push_back(idOf(IdKind::StateValue, value, "values"));
            }
        }
        if (request.kind == Kind::STATE_CHANGES_BY_CATEGORY)
        {
            notEmpty(request.categories.size(), "categories");
            for (const rpc::StateCategory& category : request.categories)
            {
                if (category.level1 < 0 || category.level1 > 255 || category.level2 < 0 ||
                    category.level2 > 255)
                {
                    refuse(rpc::ErrorCode::BAD_ARGUMENT,
                           "categories: a status category is two numbers of 0 to 255");
                }
                categories.push_back({static_cast<unsigned char>(category.level1),
                                      static_cast<unsigned char>(category.level2)});
            }
        }
        for (const unsigned int group : facts.stateGroups(type))
        {
            const bool wanted =
                group != 0 &&
                (request.kind == Kind::ALL_STATE_CHANGES ||
                 (!values.empty() && EGW_BASIC_CheckInductStateIDInGroup(group, values)) ||
                 (!categories.empty() &&
                  EGW_BASIC_CheckInductStateCategoryInGroup(group, categories)));
            if (wanted)
            {
                filters.push_back({true, type, kStateGroupChangeEvent | (group & 0xFFFFu)});
            }
        }
        break;
    }
    case Kind::ALL_COMMANDS:
    {
        const UINT32 type = facts.elementType(request.target, "target");
        std::vector<unsigned int> commands;
        EGW_ELementServerGetCommandListByElementTypeId(commands, type);
        eventOfEach(type, kCommandEvent, commands);
        break;
    }
    case Kind::ALL_PROPERTY_CHANGES:
    {
        const UINT32 type = facts.elementType(request.target, "target");
        for (const EGW_PropertyDef_Thrift& property : facts.properties(type))
        {
            filters.push_back({true, type, kPropertyChangeEvent | (property.PropertyID & 0xFFFFu)});
        }
        break;
    }
    case Kind::DELETED_BY_TYPE:
    case Kind::DELETED_BY_ELEMENT:
    {
        const bool byType = request.kind == Kind::DELETED_BY_TYPE;
        const UINT32 target = byType ? facts.elementType(request.target, "target")
                                     : facts.element(request.target, "target").uuid;
        filters.push_back({byType, target, kDeletedFirstEvent});
        if (request.secondNotification)
        {
            filters.push_back({byType, target, kDeletedSecondEvent});
        }
        break;
    }
    default:
        refuse(rpc::ErrorCode::BAD_ARGUMENT,
               "kind " + std::to_string(static_cast<int>(request.kind)) +
                   " is no kind of subscription");
    }
    if (filters.empty())
    {
        refuse(rpc::ErrorCode::NOT_DEFINED,
               "target " + hex(static_cast<std::uint64_t>(request.target)) +
                   ": its type has nothing this subscription could follow");
    }
    return filters;
}

// Subscribes the module in the element server through the library; true when it was accepted.
bool subscribeInServer(UINT32 module, const rpc::Subscription& request,
                       const std::vector<EventFilter>& filters, void* client)
{
    using Kind = rpc::SubscriptionKind;
    const UINT32 target = filters.front().target;
    std::vector<unsigned int> values;
    std::vector<S_EGWStateCategoryStruct> categories;
    switch (request.kind)
    {
    case Kind::BY_TYPE:
        return EGW_ElementServerSubscribeByType(module, target, filters.front().eventId, client) ==
               0;
    case Kind::BY_ELEMENT:
        return EGW_ElementServerSubscribeByElement(module, target, filters.front().eventId,
                                                   client) == 0;
    case Kind::ALL_STATE_CHANGES:
        return EGW_BASIC_THRIFT_SubscribeAllStateChange(module, target, client) == TRUE;
    case Kind::STATE_CHANGES_BY_VALUE:
        for (const auto value : request.values)
        {
            values.push_back(static_cast<unsigned int>(value));
        }
        return EGW_BASIC_THRIFT_SubscribeAllStateChangeByStateIdList(module, target, values) ==
               TRUE;
    case Kind::STATE_CHANGES_BY_CATEGORY:
        for (const rpc::StateCategory& category : request.categories)
        {
            categories.push_back({static_cast<unsigned char>(category.level1),
                                  static_cast<unsigned char>(category.level2)});
        }
        return EGW_BASIC_THRIFT_SubscribeAllStateChangeByCategoryList(module, target,
                                                                     categories) == TRUE;
    case Kind::ALL_COMMANDS:
        return EGW_BASIC_THRIFT_SubscribeAllCommands(module, target, client) == TRUE;
    case Kind::ALL_PROPERTY_CHANGES:
        // 0 after every property was subscribed.
        return EGW_BASIC_THRIFT_SubscribeAllPropertyChange(module, target, client) == 0;
    case Kind::DELETED_BY_TYPE:
        return EGW_SubscribeDeletedElementForWaitingNotifyByType(
                   module, target, request.secondNotification, client) == 0;
    case Kind::DELETED_BY_ELEMENT:
        return EGW_SubscribeDeletedElementForWaitingNotifyByElement(
                   module, target, request.secondNotification, client) == 0;
    }
    return false;
}

// The event as a client receives it, decoded once for every session that follows it. A host
// failure while decoding leaves that part out; the event itself is never dropped.
rpc::Event decode(const RawEvent& raw, UINT32 type)
{
    rpc::Event event;
    event.eventId = raw.eventId;
    event.uuid = raw.uuid;
    event.source = raw.source;
    event.data = raw.data;
    event.timeMs = nowMs();
    try
    {
        if (type != 0)
        {
            EGW_ElementServerGetIDStringOfElement(event.idString, raw.uuid, nullptr);
        }
        EGW_CONTROLPARA record{};
        if ((raw.eventId & 0xFFFF0000u) == kStateGroupChangeEvent &&
            EGW_BASIC_UnpackStateChangeInforData(record, raw.data.data(),
                                                 static_cast<UINT32>(raw.data.size())) == TRUE)
        {
            event.stateChange.uuid = record.mUuid;
            event.stateChange.groupId = record.mGroupId;
            event.stateChange.value = record.mFirstStateValue;
            event.stateChange.previous = record.mSecondStateValue;
            event.__isset.stateChange = true;
        }
        if (type != 0)
        {
            event.__set_detail(eventDetailOf(raw.uuid));
        }
    }
    catch (const std::exception&)
    {
    }
    return event;
}

// The element and its ancestors up to the tree root, as they are now; only the element itself
// when it is gone (or the host fails), as its place in the tree can no longer be known.
std::vector<std::uint32_t> ancestorsOf(UINT32 uuid, UINT32 type)
{
    std::vector<std::uint32_t> chain{uuid};
    try
    {
        for (UINT32 parent = type == 0 ? 0 : EGW_ELementServerGetParentUuid(uuid, nullptr);
             parent != 0 && chain.size() < kDeepestTree;
             parent = EGW_ELementServerGetParentUuid(parent, nullptr))
        {
            chain.push_back(parent);
        }
    }
    catch (const std::exception&)
    {
    }
    return chain;
}

} // namespace

rpc::EventDetail eventDetailOf(UINT32 uuid)
{
    ENENT_FIELD field{};
    ENEventFormat format;
    rpc::EventDetail detail;
    detail.category = format.GetEventDetails(uuid, field);
    detail.selfId = field.SelfID;
    detail.selfAddress = field.SelfAddress;
    detail.parentId = field.ParentID;
    detail.parentAddress = field.ParentAddress;
    detail.deviceId = field.DeviceID;
    detail.hasProxy = field.HasProxy;
    detail.proxyId = field.ProxyID;
    detail.proxyAddress = field.ProxyAddress;
    return detail;
}

// ---- SessionQueue -------------------------------------------------------------------------------

void SessionQueue::announceLossLocked()
{
    if (lost_ == 0)
    {
        return;
    }
    rpc::Event marker;
    marker.sequence = nextSequence_++;
    marker.lost = static_cast<std::int64_t>(lost_);
    marker.timeMs = nowMs();
    events_.push_back(std::move(marker));
    lost_ = 0;
}

void SessionQueue::push(const rpc::Event& event)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (closed_)
        {
            return;
        }
        if (events_.size() >= limit_)
        {
            ++lost_;
            return;
        }
        announceLossLocked();
        events_.push_back(event);
        events_.back().sequence = nextSequence_++;
    }
    ready_.notify_all();
}

void SessionQueue::lose(std::size_t count)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lost_ += count;
    }
    ready_.notify_all();
}

std::vector<rpc::Event> SessionQueue::take(std::size_t max, std::chrono::milliseconds timeout,
                                           std::size_t maxBytes)
{
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait_for(lock, timeout,
                    [&] { return closed_ || !events_.empty() || lost_ > 0 || hurried_; });
    hurried_ = false;
    if (events_.empty())
    {
        announceLossLocked();
    }
    std::vector<rpc::Event> taken;
    std::size_t bytes = 0;
    while (!events_.empty() && taken.size() < max)
    {
        // The fixed fields and the detail record come to under 200 bytes; the rest is the
        // event's ID string and data.
        bytes += 200 + events_.front().idString.size() + events_.front().data.size();
        if (bytes > maxBytes && !taken.empty())
        {
            break;
        }
        taken.push_back(std::move(events_.front()));
        events_.pop_front();
    }
    return taken;
}

void SessionQueue::hurry()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        hurried_ = true;
    }
    ready_.notify_all();
}

void SessionQueue::close()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
    }
    ready_.notify_all();
}

// ---- EventHub -----------------------------------------------------------------------------------

EventHub::EventHub(EventSource& source, UINT32 module, std::size_t queueLimit,
                   std::size_t filterLimit, EventMemory* memory, PanelConditions* conditions)
    : source_(source),
      memory_(memory),
      conditions_(conditions),
      module_(module),
      queueLimit_(queueLimit),
      filterLimit_(filterLimit)
{
    source_.open(module_);
    droppedSeen_ = source_.dropped(module_);
    pump_ = std::thread([this] { pump(); });
}

EventHub::~EventHub()
{
    stop();
    source_.close(module_);
}

void EventHub::stop()
{
    stopping_ = true;
    if (pump_.joinable())
    {
        pump_.join();
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto& session : sessions_)
    {
        if (const auto queue = session.second.queue.lock())
        {
            queue->close();
        }
    }
}

std::shared_ptr<SessionQueue> EventHub::attach()
{
    auto queue = std::make_shared<SessionQueue>(queueLimit_);
    const std::lock_guard<std::mutex> lock(mutex_);
    sessions_[queue.get()].queue = queue;
    if (stopping_)
    {
        queue->close();
    }
    return queue;
}

void EventHub::detach(const std::shared_ptr<SessionQueue>& queue)
{
    queue->close();
    const std::lock_guard<std::mutex> changing(changes_);
    std::vector<EventFilter> ended;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto session = sessions_.find(queue.get());
        if (session == sessions_.end())
        {
            return;
        }
        for (const auto& held : session->second.filters)
        {
            if (releaseLocked(held.first, held.second))
            {
                ended.push_back(held.first);
            }
        }
        sessions_.erase(session);
    }
    for (const EventFilter& filter : ended)
    {
        unsubscribeInServer(filter, nullptr);
    }
}

bool EventHub::releaseLocked(const EventFilter& filter, int count)
{
    const auto held = held_.find(filter);
    if (held == held_.end())
    {
        return false;
    }
    held->second -= count;
    if (held->second > 0)
    {
        return false;
    }
    held_.erase(held);
    return true;
}

void EventHub::unsubscribeInServer(const EventFilter& filter, void* client)
{
    // A host failure is tried again, as a module subscription that no session holds would go on
    // taking the element server's events; it must never stop a closing session either (this runs
    // in its destructor). An element deleted meanwhile took its subscriptions with it.
    bool exists = filter.byType;
    for (int attempt = 0; attempt < kHostAttempts && !exists; ++attempt)
    {
        try
        {
            exists = EGW_ElementServerGetElementTypeByUuid(filter.target, client) != 0;
        }
        catch (const std::exception&)
        {
        }
    }
    for (int attempt = 0; attempt < kHostAttempts && exists; ++attempt)
    {
        try
        {
            const INT32 status =
                filter.byType
                    ? EGW_ElementServerUnSubscribeByType(module_, filter.target, filter.eventId,
                                                         client)
                    : EGW_ElementServerUnSubscribeByElement(module_, filter.target,
                                                            filter.eventId, client);
            exists = status != 0;
        }
        catch (const std::exception&)
        {
        }
    }
}

void EventHub::subscribe(const std::shared_ptr<SessionQueue>& queue,
                         const rpc::Subscription& request, void* client)
{
    TypeFacts facts;
    const std::vector<EventFilter> filters = filtersOf(request, facts);
    const std::lock_guard<std::mutex> changing(changes_);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (sessions_.at(queue.get()).filters.size() + filters.size() > filterLimit_)
        {
            refuse(rpc::ErrorCode::LIMIT, "the session may follow at most " +
                                              std::to_string(filterLimit_) +
                                              " event ids; unsubscribe some first");
        }
    }
    if (!subscribeInServer(module_, request, filters, client))
    {
        refuse(rpc::ErrorCode::REFUSED, "the element server refused the subscription to target " +
                                            hex(static_cast<std::uint64_t>(request.target)));
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    SessionFilters& session = sessions_.at(queue.get());
    for (const EventFilter& filter : filters)
    {
        ++session.filters[filter];
        ++held_[filter];
    }
}

void EventHub::unsubscribe(const std::shared_ptr<SessionQueue>& queue,
                           const rpc::Subscription& request, void* client)
{
    TypeFacts facts;
    const std::vector<EventFilter> filters = filtersOf(request, facts);
    const std::lock_guard<std::mutex> changing(changes_);
    std::vector<EventFilter> ended;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        SessionFilters& session = sessions_.at(queue.get());
        for (const EventFilter& filter : filters)
        {
            const auto own = session.filters.find(filter);
            if (own == session.filters.end())
            {
                continue;
            }
            if (--own->second == 0)
            {
                session.filters.erase(own);
            }
            if (releaseLocked(filter, 1))
            {
                ended.push_back(filter);
            }
        }
    }
    for (const EventFilter& filter : ended)
    {
        unsubscribeInServer(filter, client);
    }
}

void EventHub::pump()
{
    while (!stopping_)
    {
        RawEvent raw;
        try
        {
            if (source_.next(module_, raw, kPumpWait))
            {
                deliver(raw);
            }
            const std::size_t dropped = source_.dropped(module_);
            if (dropped > droppedSeen_)
            {
                // Which sessions the lost events were for cannot be known: all that follow any
                // event are told.
                const std::lock_guard<std::mutex> lock(mutex_);
                for (auto& session : sessions_)
                {
                    const auto queue = session.second.queue.lock();
                    if (queue && !session.second.filters.empty())
                    {
                        queue->lose(dropped - droppedSeen_);
                    }
                }
                droppedSeen_ = dropped;
                if (conditions_ != nullptr)
                {
                    conditions_->lost();
                }
            }
        }
        catch (const std::exception&)
        {
            // A host failure while looking at one event; the pump goes on with the next.
        }
    }
}

void EventHub::deliver(const RawEvent& raw)
{
    const UrgentWork urgent; // no page of a long read begins until the event is delivered
    // Without the element's type, by-type subscriptions cannot be matched: the host failed (it
    // is asked again, a failure may pass), or the element is gone. The event still reaches the
    // sessions that follow the element itself.
    UINT32 type = 0;
    for (int attempt = 0; attempt < kHostAttempts && type == 0; ++attempt)
    {
        try
        {
            type = EGW_ElementServerGetElementTypeByUuid(raw.uuid, nullptr);
        }
        catch (const std::exception&)
        {
        }
    }
    std::vector<std::shared_ptr<SessionQueue>> recipients;
    std::vector<std::shared_ptr<SessionQueue>> unsure;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        // After its deletion an element has no type; the announcement before it told it, and is
        // remembered while a session follows the second notification of that type.
        if (raw.eventId == kDeletedFirstEvent && type != 0 &&
            held_.count({true, type, kDeletedSecondEvent}) != 0)
        {
            deletedTypes_[raw.uuid] = type;
        }
        if (raw.eventId == kDeletedSecondEvent && type == 0)
        {
            const auto known = deletedTypes_.find(raw.uuid);
            if (known != deletedTypes_.end())
            {
                type = known->second;
                deletedTypes_.erase(known);
            }
        }
        const EventFilter byElement{false, raw.uuid, raw.eventId};
        const EventFilter byType{true, type, raw.eventId};
        for (auto& session : sessions_)
        {
            const auto& filters = session.second.filters;
            const bool wanted =
                filters.count(byElement) != 0 || (type != 0 && filters.count(byType) != 0);
            // A session that follows this event id by some type may have wanted it: it is told
            // that an event was lost rather than left to believe that none came. (The second
            // notification of a deletion comes for an element that is gone by design.)
            const bool maybe = !wanted && type == 0 && raw.eventId != kDeletedSecondEvent &&
                               std::any_of(filters.begin(), filters.end(), [&](const auto& held) {
                                   return held.first.byType && held.first.eventId == raw.eventId;
                               });
            if (wanted || maybe)
            {
                if (auto queue = session.second.queue.lock())
                {
                    (wanted ? recipients : unsure).push_back(std::move(queue));
                }
            }
        }
    }
    for (const auto& queue : unsure)
    {
        queue->lose(1);
    }
    if (recipients.empty() && memory_ == nullptr && conditions_ == nullptr)
    {
        return;
    }
    const rpc::Event event = decode(raw, type);
    if (conditions_ != nullptr)
    {
        conditions_->apply(event);
    }
    for (const auto& queue : recipients)
    {
        queue->push(event);
    }
    if (memory_ != nullptr)
    {
        memory_->store(event, ancestorsOf(raw.uuid, type));
    }
}

} // namespace egwservice
