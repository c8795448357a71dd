// The element server's state and rules.
#include <algorithm>
#include <cstring>

#include "panelsim/debugLog.h"
#include "panelsim/hostCall.h"
#include "panelsim/simulator.h"

namespace panelsim::detail
{
namespace
{

using Guard = std::lock_guard<std::recursive_mutex>;

// Locks that ElementServer::Lock took on this thread and UnLock has not yet released.
thread_local unsigned heldByThisThread = 0;

constexpr unsigned kStateChangeEvent = 0x03010000u;
constexpr unsigned kPropertyChangeEvent = 0x03020000u;
constexpr unsigned kCommandEvent = 0x00060000u;

// The state-change record: uuid, group id, new value, previous value; four little-endian words.
std::string stateChangeRecord(unsigned uuid, unsigned group, unsigned value, unsigned previous)
{
    const unsigned words[4] = {uuid, group, value, previous};
    std::string record(sizeof words, '\0');
    std::memcpy(&record[0], words, sizeof words);
    return record;
}

std::string stateBytes(unsigned value)
{
    std::string bytes(sizeof value, '\0');
    std::memcpy(&bytes[0], &value, sizeof value);
    return bytes;
}

} // namespace

Simulator& Simulator::instance()
{
    static Simulator simulator;
    return simulator;
}

Node* Simulator::find(unsigned uuid)
{
    return nodes_.find(uuid);
}

Simulator::Subject Simulator::subject(unsigned uuid)
{
    Subject s;
    s.library = typeLibrary();
    s.node = find(uuid);
    s.type = s.node ? s.library->typeNumber(s.node->type) : nullptr;
    return s;
}

// ---- Lock and dispatcher ------------------------------------------------------------------------

int Simulator::lock(int policy)
{
    if (policy == LOCK_POLICY_WAIT)
        mutex_.lock();
    else if (policy != LOCK_POLICY_TRY || !mutex_.try_lock())
        return kLockRefused;
    ++heldByThisThread;
    return kOk;
}

int Simulator::unlock()
{
    if (heldByThisThread == 0)
        return kLockRefused;
    --heldByThisThread;
    mutex_.unlock();
    return kOk;
}

int Simulator::openDispatcher()
{
    const Guard guard(mutex_);
    if (dispatcherOpen_)
        return kDispatcherState;
    dispatcherOpen_ = true;
    return kOk;
}

int Simulator::closeDispatcher()
{
    const Guard guard(mutex_);
    if (!dispatcherOpen_)
        return kDispatcherState;
    dispatcherOpen_ = false;
    return kOk;
}

// ---- Tree ---------------------------------------------------------------------------------------

unsigned Simulator::root(int& error)
{
    const Guard guard(mutex_);
    error = root_ == 0 ? kUnknownElement : kOk;
    return root_;
}

unsigned Simulator::add(const unsigned* parent, unsigned short type, bool checkChildType,
                        bool validate, int& error)
{
    const Guard guard(mutex_);
    const auto library = typeLibrary();
    Node* parentNode = parent ? find(*parent) : nullptr;
    const ElementTypeDefinition* parentType =
        parentNode ? library->typeNumber(parentNode->type) : nullptr;
    if (parent && !parentNode)
        error = kUnknownElement;
    else if (!parent && root_ != 0)
        error = kConflict;
    else if (!library->typeNumber(type) ||
             (checkChildType && parent && !(parentType && parentType->hasChildType(type))))
        error = kNotInTypeLibrary;
    else
        error = kOk;
    if (error != kOk)
        return 0;

    const unsigned uuid = nodes_.add(parent ? *parent : 0, type, validate);
    if (!parentNode)
        root_ = uuid;
    return uuid;
}

int Simulator::remove(unsigned uuid, bool childrenOnly)
{
    const Guard guard(mutex_);
    Node* node = find(uuid);
    if (node == nullptr)
        return kUnknownElement;
    if (childrenOnly)
    {
        for (unsigned child : children(uuid))
            eraseSubtree(child);
        return kOk;
    }
    if (root_ == uuid)
        root_ = 0;
    eraseSubtree(uuid);
    return kOk;
}

int Simulator::removeAnnounced(unsigned uuid)
{
    const Guard guard(mutex_);
    Node* node = find(uuid);
    if (node == nullptr)
        return kUnknownElement;
    const unsigned short type = node->type;
    raise(uuid, type, kDeleteAnnouncedEvent, 0, std::string());
    // By-element subscriptions end with the element: whoever waits for the second notification
    // is found before the element goes.
    const std::vector<unsigned> waiting =
        dispatcherOpen_ ? takeRecipients(uuid, type, kDeleteDoneEvent) : std::vector<unsigned>();
    remove(uuid, false);
    deliver(waiting, kDeleteDoneEvent, uuid, 0, std::string());
    return kOk;
}

// Erases the element with its subtree; the element is unlinked from its parent.
void Simulator::eraseSubtree(unsigned uuid)
{
    std::vector<unsigned> erased{uuid};
    for (std::size_t i = 0; i < erased.size(); ++i)
    {
        for (unsigned child = find(erased[i])->firstChild; child != 0;
             child = find(child)->nextSibling)
            erased.push_back(child);
    }
    for (unsigned current : erased)
    {
        dropRelations(current);
        nodes_.erase(current);
    }
    std::sort(erased.begin(), erased.end());
    endSubscriptions([&](const SubscriptionEntry& e) {
        return !e.subscription.byType &&
               std::binary_search(erased.begin(), erased.end(), e.subscription.typeOrUuid);
    });
}

unsigned short Simulator::type(unsigned uuid)
{
    const Guard guard(mutex_);
    const Node* node = find(uuid);
    return node ? node->type : 0;
}

bool Simulator::property(unsigned uuid, unsigned short id, bool& hasValue, std::string& bytes)
{
    const Guard guard(mutex_);
    const Subject s = subject(uuid);
    const int index = s.type ? s.type->propertyIndex(id) : -1;
    if (index < 0)
        return false;
    const auto& initial = s.type->initial[static_cast<std::size_t>(index)];
    hasValue = ValueRecords::find(s.node->values, ValueRecords::kProperty, id, bytes);
    if (!hasValue)
    {
        hasValue = initial.has_value();
        bytes = initial.value_or(std::string());
    }
    return true;
}

int Simulator::setProperty(unsigned uuid, unsigned short id, bool hasValue,
                           const std::string& bytes, bool silent)
{
    const Guard guard(mutex_);
    const Subject s = subject(uuid);
    const int index = s.type ? s.type->propertyIndex(id) : -1;
    if (index < 0)
        return s.node ? kNotInTypeLibrary : kUnknownElement;
    const unsigned width = integerWidth(s.type->storage[static_cast<std::size_t>(index)]);
    if (!hasValue || (width != 0 && bytes.size() != width))
        return kBadValue;
    bool hadValue = false;
    std::string previous;
    property(uuid, id, hadValue, previous);
    ValueRecords::put(s.node->values, ValueRecords::kProperty, id, bytes);
    if ((!hadValue || previous != bytes) && !silent)
        raise(uuid, s.node->type, kPropertyChangeEvent | id, 0, bytes);
    return kOk;
}

int Simulator::validate(unsigned uuid, bool recursive)
{
    const Guard guard(mutex_);
    if (find(uuid) == nullptr)
        return kUnknownElement;
    walk(&uuid, !recursive, true, [this, recursive](unsigned current, bool&) {
        find(current)->validated = true;
        return recursive;
    });
    return kOk;
}

unsigned Simulator::parent(unsigned uuid, int& error)
{
    const Guard guard(mutex_);
    const Node* node = find(uuid);
    error = node && node->parent != 0 ? kOk : kUnknownElement;
    return error == kOk ? node->parent : 0;
}

std::vector<unsigned> Simulator::children(unsigned uuid)
{
    const Guard guard(mutex_);
    std::vector<unsigned> list;
    const Node* node = find(uuid);
    for (unsigned child = node ? node->firstChild : 0; child != 0; child = find(child)->nextSibling)
        list.push_back(child);
    return list;
}

// ---- States and commands ------------------------------------------------------------------------

unsigned Simulator::state(unsigned uuid, unsigned short group)
{
    const Guard guard(mutex_);
    const Subject s = subject(uuid);
    const unsigned groupId = s.type ? s.type->stateGroup(group) : 0;
    if (groupId == 0)
        return 0;
    std::string bytes;
    unsigned value = 0;
    if (!ValueRecords::find(s.node->values, ValueRecords::kState, group, bytes))
        return s.library->group(groupId)->defaultValue;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

int Simulator::setState(unsigned uuid, unsigned short group, unsigned value, bool silent)
{
    const Guard guard(mutex_);
    const Subject s = subject(uuid);
    const unsigned groupId = s.type ? s.type->stateGroup(group) : 0;
    if (groupId == 0)
        return s.node ? kNotInTypeLibrary : kUnknownElement;
    const std::vector<unsigned>& values = s.library->group(groupId)->values;
    if (std::find(values.begin(), values.end(), value) == values.end())
        return kBadValue;
    const unsigned previous = state(uuid, group);
    ValueRecords::put(s.node->values, ValueRecords::kState, group, stateBytes(value));
    if (previous != value && !silent)
        raise(uuid, s.node->type, kStateChangeEvent | group, 0,
              stateChangeRecord(uuid, groupId, value, previous));
    return kOk;
}

int Simulator::execute(unsigned uuid, unsigned short command, unsigned source, const void* data,
                       unsigned short size, bool silent)
{
    const Guard guard(mutex_);
    const Subject s = subject(uuid);
    if (!s.type || !s.type->hasCommand(command))
        return s.node ? kNotInTypeLibrary : kUnknownElement;
    if (data == nullptr && size != 0)
        return kBadValue;
    const std::string parameters(static_cast<const char*>(data), data ? size : 0);
    commands_.push_back({uuid, command, source, parameters});
    if (!silent)
        raise(uuid, s.node->type, kCommandEvent | command, source, parameters);
    return kOk;
}

// ---- Reference relations ------------------------------------------------------------------------

std::vector<unsigned> Simulator::related(unsigned uuid, unsigned short type, bool forward)
{
    const Guard guard(mutex_);
    std::vector<unsigned> list;
    const auto& relations = forward ? forward_ : backward_;
    const auto found = relations.find(uuid);
    if (found != relations.end())
    {
        for (const Relation& r : found->second)
        {
            if (r.type == type)
                list.push_back(r.other);
        }
    }
    return list;
}

int Simulator::addRelation(unsigned holder, unsigned target, unsigned short type, bool replace,
                           bool again)
{
    const Guard guard(mutex_);
    if (!find(holder) || !find(target))
        return kUnknownElement;
    if (replace)
    {
        for (unsigned other : related(holder, type, true))
            deleteRelation(holder, other, type, false);
    }
    std::vector<Relation>& held = forward_[holder];
    if (!again && std::any_of(held.begin(), held.end(), [&](const Relation& r) {
            return r.type == type && r.other == target;
        }))
        return kConflict;
    held.push_back({type, target});
    backward_[target].push_back({type, holder});
    return kOk;
}

int Simulator::deleteRelation(unsigned holder, unsigned target, unsigned short type, bool allOfType)
{
    const Guard guard(mutex_);
    auto held = forward_.find(holder);
    if (held == forward_.end())
        return kConflict;
    std::vector<unsigned> targets;
    for (const Relation& r : held->second)
    {
        if (r.type == type && (allOfType || r.other == target))
            targets.push_back(r.other);
    }
    if (targets.empty())
        return kConflict;
    const auto matches = [&](unsigned other) {
        return [&, other](const Relation& r) { return r.type == type && r.other == other; };
    };
    for (unsigned other : targets)
    {
        std::vector<Relation>& holders = backward_[other];
        holders.erase(std::remove_if(holders.begin(), holders.end(), matches(holder)),
                      holders.end());
        held->second.erase(std::remove_if(held->second.begin(), held->second.end(), matches(other)),
                           held->second.end());
    }
    return kOk;
}

void Simulator::dropRelations(unsigned uuid)
{
    const auto dropFrom = [uuid](std::unordered_map<unsigned, std::vector<Relation>>& relations,
                                 unsigned other) {
        const auto found = relations.find(other);
        if (found == relations.end())
            return;
        auto& list = found->second;
        list.erase(std::remove_if(list.begin(), list.end(),
                                  [uuid](const Relation& r) { return r.other == uuid; }),
                   list.end());
    };
    for (auto* relations : {&forward_, &backward_})
    {
        const auto found = relations->find(uuid);
        if (found == relations->end())
            continue;
        const std::vector<Relation> list = std::move(found->second);
        relations->erase(found);
        for (const Relation& r : list)
            dropFrom(relations == &forward_ ? backward_ : forward_, r.other);
    }
}

// ---- Subscriptions and events -------------------------------------------------------------------

// Ends the subscriptions for which `ends` is true, in the list and in the index.
template <typename Ends>
void Simulator::endSubscriptions(Ends ends)
{
    subscriptions_.erase(std::remove_if(subscriptions_.begin(), subscriptions_.end(),
                                        [&](const SubscriptionEntry& e) {
                                            if (!ends(e))
                                                return false;
                                            subscriptionKeys_.erase(keyOf(e.subscription));
                                            return true;
                                        }),
                         subscriptions_.end());
}

int Simulator::subscribe(bool byType, unsigned typeOrUuid, unsigned eventId, bool oneShot,
                         unsigned pid)
{
    const Guard guard(mutex_);
    if (byType && !typeLibrary()->typeNumber(static_cast<unsigned short>(typeOrUuid)))
        return kNotInTypeLibrary;
    if (!byType && !find(typeOrUuid))
        return kUnknownElement;
    if (!byType && logins_.count(pid) == 0)
        return kNotLoggedIn;
    const Subscription subscription{byType, typeOrUuid, eventId, pid};
    if (subscriptionKeys_.insert(keyOf(subscription)).second)
        subscriptions_.push_back({subscription, oneShot});
    return kOk;
}

int Simulator::unsubscribe(bool byType, unsigned typeOrUuid, unsigned eventId, unsigned pid)
{
    const Guard guard(mutex_);
    if (!byType && !find(typeOrUuid))
        return kUnknownElement;
    const SubscriptionKey key(byType, typeOrUuid, eventId, pid);
    if (subscriptionKeys_.count(key) == 0)
        return kConflict;
    endSubscriptions([&](const SubscriptionEntry& e) { return keyOf(e.subscription) == key; });
    return kOk;
}

// The modules that receive an event of this element, each once, in the order they subscribed;
// one-shot subscriptions that matched end here.
std::vector<unsigned> Simulator::takeRecipients(unsigned uuid, unsigned short type,
                                                unsigned eventId)
{
    std::vector<unsigned> pids;
    endSubscriptions([&](const SubscriptionEntry& e) {
        const Subscription& s = e.subscription;
        if (s.eventId != eventId || s.typeOrUuid != (s.byType ? type : uuid))
            return false;
        if (std::find(pids.begin(), pids.end(), s.pid) == pids.end())
            pids.push_back(s.pid);
        return e.oneShot;
    });
    return pids;
}

void Simulator::raise(unsigned uuid, unsigned short type, unsigned eventId, unsigned source,
                      const std::string& data)
{
    if (dispatcherOpen_)
        deliver(takeRecipients(uuid, type, eventId), eventId, uuid, source, data);
}

void Simulator::deliver(const std::vector<unsigned>& pids, unsigned eventId, unsigned uuid,
                        unsigned source, const std::string& data)
{
    for (unsigned pid : pids)
        queueEvent(pid, {eventId, uuid, source, data});
}

// ---- Searches -----------------------------------------------------------------------------------

void Simulator::walk(const unsigned* start, bool childrenOnly, bool includeStart,
                     const WalkVisitor& visit)
{
    const Guard guard(mutex_);
    const unsigned first = start ? *start : root_;
    if (find(first) == nullptr)
        return;
    // Uuids still to visit, the next one last. The visitor may change the tree, so every element
    // is looked up again when its turn comes.
    std::vector<unsigned> pending;
    const auto pushChildren = [&](unsigned uuid) {
        const Node* node = find(uuid);
        for (unsigned child = node ? node->lastChild : 0; child != 0;
             child = find(child)->previousSibling)
            pending.push_back(child);
    };
    bool skip = false;
    if (includeStart && (!visit(first, skip) || skip))
        return;
    pushChildren(first);
    while (!pending.empty())
    {
        const unsigned current = pending.back();
        pending.pop_back();
        if (find(current) == nullptr)
            continue;
        skip = false;
        if (!visit(current, skip))
            return;
        if (!childrenOnly && !skip)
            pushChildren(current);
    }
}

unsigned Simulator::findByTypeChain(const unsigned short* chain, int& error)
{
    const Guard guard(mutex_);
    const Node* node = find(root_);
    unsigned current = root_;
    if (!chain || !node || chain[0] != node->type)
    {
        error = kConflict;
        return 0;
    }
    for (const unsigned short* wanted = chain + 1; *wanted != 0; ++wanted)
    {
        current = node->firstChild;
        while (current != 0 && find(current)->type != *wanted)
            current = find(current)->nextSibling;
        if (current == 0)
        {
            error = kConflict;
            return 0;
        }
        node = find(current);
    }
    error = kOk;
    return current;
}

// ---- Control ------------------------------------------------------------------------------------

void Simulator::reset()
{
    const Guard guard(mutex_);
    nodes_.clear();
    root_ = 0;
    forward_.clear();
    backward_.clear();
    subscriptions_.clear();
    subscriptionKeys_.clear();
    logins_.clear();
    dispatcherOpen_ = false;
    commands_.clear();
    clearEventQueues();
}

void Simulator::login(unsigned pid, bool in)
{
    const Guard guard(mutex_);
    if (in)
        logins_.insert(pid);
    else
        logins_.erase(pid);
}

std::vector<ExecutedCommand> Simulator::executedCommands()
{
    const Guard guard(mutex_);
    return commands_;
}

std::vector<Subscription> Simulator::subscriptions()
{
    const Guard guard(mutex_);
    std::vector<Subscription> list;
    for (const SubscriptionEntry& e : subscriptions_)
        list.push_back(e.subscription);
    return list;
}

bool Simulator::dispatcherOpen()
{
    const Guard guard(mutex_);
    return dispatcherOpen_;
}

std::size_t Simulator::elementCount()
{
    const Guard guard(mutex_);
    return nodes_.size();
}

bool Simulator::validated(unsigned uuid)
{
    const Guard guard(mutex_);
    const Node* node = find(uuid);
    return node && node->validated;
}

} // namespace panelsim::detail

// ---- Control interface --------------------------------------------------------------------------

namespace panelsim
{

using detail::Simulator;

void reset()
{
    Simulator::instance().reset();
    detail::resetCalls();
    detail::resetReleaseOrder();
    setLogSink(nullptr);
}

void loginModule(unsigned int pid)
{
    Simulator::instance().login(pid, true);
}

void logoutModule(unsigned int pid)
{
    Simulator::instance().login(pid, false);
}

std::vector<ExecutedCommand> executedCommands()
{
    return Simulator::instance().executedCommands();
}

std::vector<Subscription> subscriptions()
{
    return Simulator::instance().subscriptions();
}

bool isDispatcherOpen()
{
    return Simulator::instance().dispatcherOpen();
}

std::size_t elementCount()
{
    return Simulator::instance().elementCount();
}

bool isValidated(unsigned int uuid)
{
    return Simulator::instance().validated(uuid);
}

int addRelationAgain(unsigned int holder, unsigned int target, unsigned short relationType)
{
    return Simulator::instance().addRelation(holder, target, relationType, false, true);
}

} // namespace panelsim
