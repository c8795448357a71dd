#include "service/conditions.h"

#include <algorithm>
#include <chrono>
#include <memory>

#include "service/requestChecks.h"

namespace egwservice
{
namespace
{

using Kind = rpc::ConditionKind;

constexpr UINT32 kLabel = 0x30002;
constexpr UINT32 kZoneText = 0x30036;
constexpr UINT32 kZoneRelation = 0x20001;
constexpr UINT32 kNormal = 0x60001;
constexpr UINT32 kAnyButNormal = 0; // in the table: every value but normal (and none)

// The panel's conditions by state group and value.
struct ConditionRule
{
    UINT32 group;
    UINT32 value;
    Kind::type kind;
};
constexpr ConditionRule kConditionRules[] = {
    {0x80001, 0x60002, Kind::FIRE},        // fire alarm state: fire alarm
    {0x80001, 0x60003, Kind::FIRE},        // fire alarm state: pre-alarm
    {0x80002, kAnyButNormal, Kind::FAULT}, // fault state: any fault
    {0x80007, kAnyButNormal, Kind::FAULT}, // power state: any fault of the supply
    {0x80003, 0x60007, Kind::DISABLEMENT}, // disablement state: disabled
    {0x80005, 0x6000A, Kind::OUTPUT},      // output state: activated
    {0x80005, 0x6000B, Kind::OUTPUT},      // output state: silenced
};

// A failed hold of the lock is tried again after this long.
constexpr std::chrono::milliseconds kRetryPause{100};
constexpr int kUnlockAttempts = 100;
// A row's ID string, label and zone are read again after this long (a level-3 session may have
// changed them): a reply after every event does not read them all again.
constexpr std::chrono::seconds kDescribedFor{5};

// The element server's lock for one slice of the scan.
class SliceLock
{
public:
    explicit SliceLock(void* client) : client_(client)
    {
        if (EGW_ElementServerLock(1, client_) != 0)
        {
            refuse(rpc::ErrorCode::REFUSED, "the element server's lock could not be taken");
        }
    }
    // Every module of the panel waits while the lock is held: a failed unlock is tried again.
    ~SliceLock()
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
    SliceLock(const SliceLock&) = delete;
    SliceLock& operator=(const SliceLock&) = delete;

private:
    void* client_;
};

std::string textOf(TypeFacts& facts, UINT32 uuid, UINT32 type, UINT32 property, void* client)
{
    std::string text;
    if (facts.defines(type, property))
    {
        EGW_ElementServerGetPropertyDataByPropertyID(uuid, property, text, client);
    }
    text.erase(std::find(text.begin(), text.end(), '\0'), text.end());
    return text;
}

} // namespace

std::optional<rpc::ConditionKind::type> conditionKindOf(UINT32 group, UINT32 value)
{
    for (const ConditionRule& rule : kConditionRules)
    {
        const bool matches = rule.value == kAnyButNormal ? value != kNormal && value != 0
                                                         : value == rule.value;
        if (rule.group == group && matches)
        {
            return rule.kind;
        }
    }
    return std::nullopt;
}

PanelConditions::PanelConditions(ConditionLimits limits) : limits_(limits) {}

PanelConditions::~PanelConditions()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
    {
        thread_.join();
    }
}

void PanelConditions::start()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!thread_.joinable())
    {
        rescan_ = true;
        thread_ = std::thread([this] { run(); });
    }
}

void PanelConditions::place(std::map<Key, Held>& into, const Key& key, UINT32 value,
                            std::int64_t since)
{
    const auto kind = conditionKindOf(key.group, value);
    if (!kind)
    {
        into.erase(key);
        return;
    }
    const auto found = into.find(key);
    if (found != into.end() && found->second.kind == *kind && found->second.value == value)
    {
        return; // the same condition goes on: it keeps the time it was raised
    }
    into[key] = Held{*kind, value, since};
}

void PanelConditions::apply(const rpc::Event& event)
{
    if (!event.__isset.stateChange)
    {
        return;
    }
    const Key key{static_cast<UINT32>(event.stateChange.uuid),
                  static_cast<UINT32>(event.stateChange.groupId)};
    const std::lock_guard<std::mutex> lock(mutex_);
    place(held_, key, static_cast<UINT32>(event.stateChange.value), event.timeMs);
    if (scanning_)
    {
        touched_.insert(key);
    }
}

void PanelConditions::lost()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rescan_ = true;
        complete_ = false;
    }
    wake_.notify_all();
}

void PanelConditions::run()
{
    const std::unique_ptr<ElementServerThriftClient, void (*)(ElementServerThriftClient*)> client(
        NewThriftClientInstance(), [](ElementServerThriftClient* c) { ThriftClient_Close(c); });
    for (;;)
    {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [&] { return rescan_ || stopping_; });
            if (stopping_)
            {
                return;
            }
        }
        try
        {
            scan(client.get());
        }
        catch (const std::exception&)
        {
            // The host failed before the scan could begin: it is tried again shortly.
            const std::lock_guard<std::mutex> lock(mutex_);
            scanning_ = false;
            rescan_ = true;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (rescan_)
        {
            wake_.wait_for(lock, kRetryPause, [&] { return stopping_; });
        }
    }
}

void PanelConditions::scan(void* client)
{
    TypeFacts facts;
    const UINT32 root = EGW_ELementServerGetTreeRoot(client);
    std::vector<unsigned int> types;
    const UINT32 rootType = root == 0 ? 0 : EGW_ElementServerGetElementTypeByUuid(root, client);
    if (rootType != 0) // an empty tree has no types and nothing to read
    {
        EGW_BASIC_THRIFT_GetAllChildrenElementType(types, rootType);
        types.push_back(rootType);
    }
    std::vector<std::int64_t> stateTypes;
    for (const unsigned int type : types)
    {
        if (!facts.stateGroups(type).empty())
        {
            stateTypes.push_back(type);
        }
    }
    std::sort(stateTypes.begin(), stateTypes.end());
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stateTypes_ = std::move(stateTypes);
        scanning_ = true;
        rescan_ = false;
        scanned_.clear();
        touched_.clear();
    }
    std::vector<UINT32> waiting;
    if (rootType != 0)
    {
        waiting.push_back(root);
    }
    std::vector<std::pair<Key, UINT32>> read;
    std::vector<UINT32> slice;
    while (!waiting.empty())
    {
        read.clear();
        const std::size_t take = std::min(limits_.slice, waiting.size());
        slice.assign(waiting.end() - static_cast<std::ptrdiff_t>(take), waiting.end());
        waiting.resize(waiting.size() - take);
        try
        {
            const SliceLock lock(client);
            for (const UINT32 uuid : slice)
            {
                const UINT32 type = EGW_ElementServerGetElementTypeByUuid(uuid, client);
                if (type == 0)
                {
                    continue; // deleted since its parent was read
                }
                for (const unsigned int group : facts.stateGroups(type))
                {
                    UINT32 value = 0;
                    EGW_ELementServerGetStateValueByUuid(value, uuid, group, client);
                    read.emplace_back(Key{uuid, group}, value);
                }
                std::vector<int> children;
                EGW_ELementServerGetChildrenUuidList(children, uuid, client);
                waiting.insert(waiting.end(), children.begin(), children.end());
            }
        }
        catch (const std::exception&)
        {
            // A host failure within the slice: the slice is read again after a pause.
            waiting.insert(waiting.end(), slice.begin(), slice.end());
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait_for(lock, kRetryPause, [&] { return stopping_; });
            if (stopping_)
            {
                return;
            }
            continue;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (limits_.pause.count() > 0)
        {
            wake_.wait_for(lock, limits_.pause, [&] { return stopping_ || rescan_; });
        }
        if (stopping_ || rescan_)
        {
            scanning_ = false;
            return;
        }
        // What an event changed since the scan began is newer than what the scan read.
        for (const auto& [key, value] : read)
        {
            if (touched_.count(key) == 0)
            {
                place(held_, key, value, 0);
                place(scanned_, key, value, 0);
            }
        }
    }
    // The whole tree read: what the scan found, with what the events changed meanwhile on top.
    // Conditions of elements the scan no longer found (deleted) are gone with it.
    const std::lock_guard<std::mutex> lock(mutex_);
    if (rescan_ || stopping_)
    {
        scanning_ = false;
        return;
    }
    for (auto& [key, held] : scanned_)
    {
        const auto now = held_.find(key);
        if (now != held_.end() && now->second.value == held.value)
        {
            held.sinceMs = now->second.sinceMs;
        }
    }
    for (const Key& key : touched_)
    {
        scanned_.erase(key);
        const auto now = held_.find(key);
        if (now != held_.end())
        {
            scanned_.insert(*now);
        }
    }
    held_.swap(scanned_);
    scanned_.clear();
    touched_.clear();
    scanning_ = false;
    complete_ = true;
}

PanelConditions::Described PanelConditions::describe(TypeFacts& facts, UINT32 uuid, void* client)
{
    Described d;
    d.type = EGW_ElementServerGetElementTypeByUuid(uuid, client);
    if (d.type == 0)
    {
        return d;
    }
    EGW_ElementServerGetIDStringOfElement(d.idString, uuid, client);
    d.label = textOf(facts, uuid, d.type, kLabel, client);
    std::vector<int> zones;
    EGW_ElementServerGetReferenceRelations(zones, uuid, kZoneRelation, 1, client);
    const UINT32 zone = zones.empty() ? 0 : static_cast<UINT32>(zones.front());
    const UINT32 zoneType = zone == 0 ? 0 : EGW_ElementServerGetElementTypeByUuid(zone, client);
    if (zoneType != 0)
    {
        d.zone = zone;
        d.zoneLabel = textOf(facts, zone, zoneType, kLabel, client);
        const std::string text = textOf(facts, zone, zoneType, kZoneText, client);
        if (!text.empty())
        {
            d.zoneLabel += ", " + text;
        }
    }
    return d;
}

PanelConditions::Described PanelConditions::described(TypeFacts& facts, UINT32 uuid, void* client)
{
    const auto now = std::chrono::steady_clock::now();
    {
        const std::lock_guard<std::mutex> lock(describedMutex_);
        const auto found = described_.find(uuid);
        if (found != described_.end() && now - found->second.at < kDescribedFor)
        {
            return found->second.described;
        }
    }
    Described d = describe(facts, uuid, client);
    const std::lock_guard<std::mutex> lock(describedMutex_);
    if (described_.size() >= 8 * limits_.rowsPerKind)
    {
        described_.clear(); // rows of conditions long gone
    }
    described_[uuid] = {d, now};
    return d;
}

rpc::ConditionList PanelConditions::list(void* client)
{
    rpc::ConditionList out;
    out.rowsPerKind = static_cast<std::int32_t>(limits_.rowsPerKind);
    using Row = std::pair<Key, Held>;
    std::vector<Row> byKind[4];
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        out.complete = complete_;
        out.stateTypes = stateTypes_;
        for (const auto& row : held_)
        {
            byKind[row.second.kind - Kind::FIRE].push_back(row);
        }
    }
    out.fires = static_cast<std::int64_t>(byKind[0].size());
    out.faults = static_cast<std::int64_t>(byKind[1].size());
    out.disablements = static_cast<std::int64_t>(byKind[2].size());
    out.outputs = static_cast<std::int64_t>(byKind[3].size());
    const auto older = [](const Row& a, const Row& b) {
        return a.second.sinceMs != b.second.sinceMs ? a.second.sinceMs < b.second.sinceMs
                                                    : a.first < b.first;
    };
    std::vector<Key> gone;
    TypeFacts facts;
    for (auto& rows : byKind)
    {
        const std::size_t shown = std::min(rows.size(), limits_.rowsPerKind);
        std::partial_sort(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(shown),
                          rows.end(), older);
        for (std::size_t i = 0; i < shown; ++i)
        {
            const auto& [key, held] = rows[i];
            const Described d = described(facts, key.uuid, client);
            if (d.type == 0)
            {
                gone.push_back(key); // deleted with its conditions
                continue;
            }
            rpc::Condition c;
            c.kind = held.kind;
            c.uuid = key.uuid;
            c.groupId = key.group;
            c.value = held.value;
            c.sinceMs = held.sinceMs;
            c.typeId = d.type;
            c.idString = d.idString;
            c.label = d.label;
            c.zone = d.zone;
            c.zoneLabel = d.zoneLabel;
            out.conditions.push_back(std::move(c));
        }
    }
    std::int64_t* const counts[] = {&out.fires, &out.faults, &out.disablements, &out.outputs};
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const Key& key : gone)
    {
        const auto found = held_.find(key);
        if (found != held_.end())
        {
            --*counts[found->second.kind - Kind::FIRE];
            held_.erase(found);
        }
    }
    return out;
}

} // namespace egwservice
