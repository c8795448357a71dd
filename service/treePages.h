// Long reads in pages: a walk of a sub-tree in pre-order that can stop after any element and be
// taken up again after it in a later request, with nothing kept in the service between the two.
// Each page is read under the element server's lock and the lock is given up between pages, so a
// reader of the whole panel never keeps an alarm's setState or the event pump waiting for longer
// than one page takes.
#ifndef SERVICE_TREE_PAGES_H
#define SERVICE_TREE_PAGES_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "elementGateway.h"
#include "panelService_types.h"

namespace egwservice
{

namespace rpc = ::egw::rpc;

// How much one page may hold: elements looked at, and the estimated bytes of its reply.
struct PageBounds
{
    std::size_t elements = 1000;
    std::size_t replyBytes = 1048576;
};

// Alarms first. Work that must not wait for a reader (a change of the panel, the event pump
// delivering an event) is marked while it runs; a page of a long read lets it pass: it begins when
// none is marked, or after `longest` at most, so that readers are delayed but never starved. The
// element server's lock is not fair to its waiters; without this, readers taking page after page
// could keep an alarm waiting for many pages.
class UrgentWork
{
public:
    UrgentWork();
    ~UrgentWork();
    UrgentWork(const UrgentWork&) = delete;
    UrgentWork& operator=(const UrgentWork&) = delete;

    static void letPass(std::chrono::milliseconds longest);
};
constexpr std::chrono::milliseconds kLongestCourtesy{100};

// The elements per page a request asks for: `max` 1 to the bound, 0 for the bound itself.
std::size_t pageSize(std::int32_t max, const PageBounds& bounds);

// The pre-order walk of the sub-tree below `root`, down to `depth` levels below it (0: every
// level). Started with after == 0 it begins at the root; else it goes on after the element
// `after`, found again from its chain of parents (refused when it is gone or not in the walk).
class TreeWalk
{
public:
    TreeWalk(void* client, UINT32 root, UINT32 after, std::int32_t depth);
    // The next element, 0 when the walk is complete.
    UINT32 next();
    // The parent of the element next() returned last.
    UINT32 parent() const { return levels_.empty() ? rootParent_ : levels_.back().owner; }

private:
    struct Level
    {
        UINT32 owner;
        std::vector<int> children;
        std::size_t index; // of the element returned last among the children
    };
    void resume(UINT32 after);

    void* client_;
    UINT32 root_;
    std::size_t depth_; // 0: every level
    UINT32 rootParent_ = 0;
    UINT32 current_ = 0;
    bool started_ = false;
    std::vector<Level> levels_;
};

// One page of the walk: `take` is given each element and its parent and returns the estimated
// reply bytes of what it added to `out` (nothing when the element is not wanted). The page ends
// after `limit` elements, or before the element that would take it past the reply bound (that
// element is taken back out). Returns the continuation: the last element of the page, or 0 when
// the walk is complete.
template <typename Item, typename Take>
UINT32 fillPage(TreeWalk& walk, std::size_t limit, std::size_t replyBytes, std::vector<Item>& out,
                Take&& take)
{
    std::size_t bytes = 0;
    UINT32 last = 0;
    for (std::size_t seen = 0; seen < limit; ++seen)
    {
        const UINT32 uuid = walk.next();
        if (uuid == 0)
        {
            return 0;
        }
        const std::size_t before = out.size();
        const std::size_t added = take(uuid, walk.parent(), out);
        if (bytes + added > replyBytes && seen > 0)
        {
            out.resize(before);
            return last;
        }
        bytes += added;
        last = uuid;
    }
    return walk.next() == 0 ? 0 : last;
}

// The keys of the panel file after the uuid `after`, in increasing uuid order.
rpc::KeyPage keyPage(const std::map<std::int64_t, std::string>& keys, UINT32 after,
                     std::size_t limit, std::size_t replyBytes);

// Estimated bytes of values in a reply (binary protocol, field headers included).
std::size_t replyBytesOf(const rpc::PropertyValue& value);
std::size_t replyBytesOf(const rpc::ElementSnapshot& element);
constexpr std::size_t kUuidReplyBytes = 9;
// A PropertyResult's uuid, propertyId, value or error header and stop byte.
constexpr std::size_t kResultReplyBytes = 2 * 11 + 3 + 1;

// A batched read names each (element, property) pair once.
void refuseRepeatedPairs(const std::vector<rpc::PropertyRef>& refs);

// The property ids of a snapshot: each a property of the type library, each once (so never more
// than the library defines), and no more than kMostSnapshotProperties in any case.
std::vector<UINT32> snapshotProperties(const std::vector<std::int64_t>& ids);
constexpr std::size_t kMostSnapshotProperties = 256;

} // namespace egwservice

#endif
