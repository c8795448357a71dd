// The panel's present conditions as the service holds them: every fire alarm, fault, disablement
// and activated or silenced output. The event pump applies each state change as it arrives; a scan
// of the tree in small slices (the element server's lock held for one slice only) fills in what was
// there before. Until the scan is done the view says it is incomplete: nobody may call the panel
// normal then.
#ifndef SERVICE_CONDITIONS_H
#define SERVICE_CONDITIONS_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include "elementGateway.h"
#include "panelService_types.h"
#include "service/requestChecks.h"

namespace egwservice
{

namespace rpc = ::egw::rpc;

// Which condition a state group's value is, if any: the one table of the panel's conditions.
std::optional<rpc::ConditionKind::type> conditionKindOf(UINT32 group, UINT32 value);

struct ConditionLimits
{
    std::size_t rowsPerKind = 1000; // rows of each kind in one reply
    std::size_t slice = 256;        // elements read under one hold of the element server's lock
    std::chrono::milliseconds pause{0}; // between slices, for the panel's other modules
};

class PanelConditions
{
public:
    explicit PanelConditions(ConditionLimits limits = {});
    ~PanelConditions();
    PanelConditions(const PanelConditions&) = delete;
    PanelConditions& operator=(const PanelConditions&) = delete;

    // Starts reading the tree, in a thread of its own; the panel's events must be followed first.
    void start();
    // A state change from the event pump (other events are ignored). Never waits on the host.
    void apply(const rpc::Event& event);
    // Events were lost: the tree is read again, and the view is incomplete until then.
    void lost();
    // The reply of getConditions; asks the host for the rows' ID strings, labels and zones.
    rpc::ConditionList list(void* client);
    bool complete() const { return complete_; }

private:
    struct Key
    {
        UINT32 uuid;
        UINT32 group;
        bool operator<(const Key& other) const
        {
            return uuid != other.uuid ? uuid < other.uuid : group < other.group;
        }
    };
    struct Held
    {
        rpc::ConditionKind::type kind;
        UINT32 value;
        std::int64_t sinceMs;
    };
    struct Described
    {
        UINT32 type = 0; // 0: the element is gone
        std::string idString;
        std::string label;
        UINT32 zone = 0;
        std::string zoneLabel;
    };

    void run();
    void scan(void* client);
    // Sets or clears one (element, group) of the map by its value.
    static void place(std::map<Key, Held>& into, const Key& key, UINT32 value, std::int64_t since);
    static Described describe(TypeFacts& facts, UINT32 uuid, void* client);
    // The same, kept for a few seconds.
    Described described(TypeFacts& facts, UINT32 uuid, void* client);

    const ConditionLimits limits_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::map<Key, Held> held_;
    // While a scan runs: what it found, and the keys events changed since it began (their events
    // are newer than anything the scan read).
    std::map<Key, Held> scanned_;
    std::set<Key> touched_;
    bool scanning_ = false;
    bool rescan_ = false;
    bool stopping_ = false;
    std::atomic<bool> complete_{false};
    std::vector<std::int64_t> stateTypes_;
    struct Kept
    {
        Described described;
        std::chrono::steady_clock::time_point at;
    };
    std::mutex describedMutex_;
    std::unordered_map<UINT32, Kept> described_;
    std::thread thread_;
};

} // namespace egwservice

#endif
