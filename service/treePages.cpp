#include "service/treePages.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <unordered_set>
#include <utility>

#include "service/requestChecks.h"

namespace egwservice
{
namespace
{

struct Urgency
{
    std::mutex mutex;
    std::condition_variable none;
    int marked = 0;
};

Urgency& urgency()
{
    static Urgency shared;
    return shared;
}

} // namespace

UrgentWork::UrgentWork()
{
    const std::lock_guard<std::mutex> lock(urgency().mutex);
    ++urgency().marked;
}

UrgentWork::~UrgentWork()
{
    Urgency& u = urgency();
    {
        const std::lock_guard<std::mutex> lock(u.mutex);
        --u.marked;
    }
    u.none.notify_all();
}

void UrgentWork::letPass(std::chrono::milliseconds longest)
{
    Urgency& u = urgency();
    std::unique_lock<std::mutex> lock(u.mutex);
    u.none.wait_for(lock, longest, [&] { return u.marked == 0; });
}

std::size_t pageSize(std::int32_t max, const PageBounds& bounds)
{
    if (max < 0)
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT,
               "max " + std::to_string(max) + " is not 0 (the page bound) or more");
    }
    if (static_cast<std::size_t>(max) > bounds.elements)
    {
        refuse(rpc::ErrorCode::LIMIT, "max " + std::to_string(max) + ": a page holds at most " +
                                          std::to_string(bounds.elements) + " elements");
    }
    return max == 0 ? bounds.elements : static_cast<std::size_t>(max);
}

TreeWalk::TreeWalk(void* client, UINT32 root, UINT32 after, std::int32_t depth)
    : client_(client), root_(root)
{
    if (depth < 0)
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT,
               "depth " + std::to_string(depth) + " is not 0 (every level) or more");
    }
    depth_ = static_cast<std::size_t>(depth);
    rootParent_ = EGW_ELementServerGetParentUuid(root_, client_);
    if (after != 0)
    {
        resume(after);
    }
}

// The chain of parents from `after` up to the root gives, level by level, the children list in
// which the walk stands; the work is one children list per level above `after`.
void TreeWalk::resume(UINT32 after)
{
    if (EGW_ElementServerGetElementTypeByUuid(after, client_) == 0)
    {
        refuse(rpc::ErrorCode::REFUSED, "element " + std::to_string(after) +
                                            " where the last page ended is gone: start again");
    }
    std::vector<UINT32> chain{after}; // after, its parent, ..., up to the root's child
    while (chain.back() != root_)
    {
        const UINT32 up = EGW_ELementServerGetParentUuid(chain.back(), client_);
        if (up == 0)
        {
            refuse(rpc::ErrorCode::BAD_ARGUMENT, "after: element " + std::to_string(after) +
                                                     " is not below the root " +
                                                     std::to_string(root_));
        }
        chain.push_back(up);
    }
    if (depth_ != 0 && chain.size() - 1 > depth_)
    {
        refuse(rpc::ErrorCode::BAD_ARGUMENT, "after: element " + std::to_string(after) + " is " +
                                                 std::to_string(chain.size() - 1) +
                                                 " levels below the root, deeper than depth " +
                                                 std::to_string(depth_));
    }
    for (std::size_t i = chain.size() - 1; i > 0; --i)
    {
        Level level{chain[i], {}, 0};
        EGW_ELementServerGetChildrenUuidList(level.children, chain[i], client_);
        const auto at =
            std::find(level.children.begin(), level.children.end(), static_cast<int>(chain[i - 1]));
        if (at == level.children.end())
        {
            refuse(rpc::ErrorCode::REFUSED, "element " + std::to_string(after) +
                                                " where the last page ended is gone: start again");
        }
        level.index = static_cast<std::size_t>(at - level.children.begin());
        levels_.push_back(std::move(level));
    }
    current_ = after;
    started_ = true;
}

UINT32 TreeWalk::next()
{
    if (!started_)
    {
        started_ = true;
        current_ = root_;
        return current_;
    }
    if (current_ == 0)
    {
        return 0;
    }
    // Down to the first child while the depth allows it...
    if (depth_ == 0 || levels_.size() < depth_)
    {
        Level level{current_, {}, 0};
        EGW_ELementServerGetChildrenUuidList(level.children, current_, client_);
        if (!level.children.empty())
        {
            current_ = static_cast<UINT32>(level.children.front());
            levels_.push_back(std::move(level));
            return current_;
        }
    }
    // ...else to the next sibling of the element or of the nearest parent that has one.
    while (!levels_.empty())
    {
        Level& level = levels_.back();
        if (++level.index < level.children.size())
        {
            current_ = static_cast<UINT32>(level.children[level.index]);
            return current_;
        }
        levels_.pop_back();
    }
    current_ = 0;
    return 0;
}

rpc::KeyPage keyPage(const std::map<std::int64_t, std::string>& keys, UINT32 after,
                     std::size_t limit, std::size_t replyBytes)
{
    rpc::KeyPage page;
    std::size_t bytes = 0;
    auto at = keys.upper_bound(after);
    for (; at != keys.end() && page.keys.size() < limit; ++at)
    {
        bytes += kUuidReplyBytes + 4 + at->second.size();
        if (bytes > replyBytes && !page.keys.empty())
        {
            break;
        }
        page.keys.emplace_hint(page.keys.end(), at->first, at->second);
    }
    page.nextAfter = at == keys.end() ? 0 : page.keys.rbegin()->first;
    return page;
}

std::size_t replyBytesOf(const rpc::PropertyValue& value)
{
    // The struct's stop byte, storageType and present, then the value that is set.
    std::size_t bytes = 1 + 11 + 4;
    if (value.__isset.truth)
    {
        bytes += 4;
    }
    if (value.__isset.integer)
    {
        bytes += 11;
    }
    if (value.__isset.dateTime)
    {
        bytes += 3 + 7 + 7 + 7 + 7 + 11 + 11 + 1;
    }
    if (value.__isset.bytes)
    {
        bytes += 7 + value.bytes.size();
    }
    return bytes;
}

std::size_t replyBytesOf(const rpc::ElementSnapshot& element)
{
    // uuid, parent, typeId, idString, the two lists' headers and the stop byte.
    std::size_t bytes = 3 * 11 + 7 + element.idString.size() + 2 * 8 + 1;
    for (const rpc::PropertyResult& result : element.properties)
    {
        bytes += kResultReplyBytes + replyBytesOf(result.value);
    }
    return bytes + element.states.size() * (2 * 11 + 1);
}

std::vector<UINT32> snapshotProperties(const std::vector<std::int64_t>& ids)
{
    if (ids.size() > kMostSnapshotProperties)
    {
        refuse(rpc::ErrorCode::LIMIT, "propertyIds holds " + std::to_string(ids.size()) +
                                          " ids; a snapshot reads at most " +
                                          std::to_string(kMostSnapshotProperties));
    }
    std::vector<UINT32> properties;
    std::unordered_set<UINT32> seen;
    for (const std::int64_t id : ids)
    {
        properties.push_back(idOf(IdKind::Property, id, "propertyIds"));
        if (ISValidTypeByPropertyID(properties.back()) != TRUE)
        {
            refuse(rpc::ErrorCode::NOT_DEFINED,
                   "propertyIds: the type library defines no property " + hex(properties.back()));
        }
        if (!seen.insert(properties.back()).second)
        {
            refuse(rpc::ErrorCode::BAD_ARGUMENT,
                   "propertyIds: " + hex(properties.back()) + " is given more than once");
        }
    }
    return properties;
}

void refuseRepeatedPairs(const std::vector<rpc::PropertyRef>& refs)
{
    std::set<std::pair<std::int64_t, std::int64_t>> seen;
    for (const rpc::PropertyRef& ref : refs)
    {
        if (!seen.emplace(ref.uuid, ref.propertyId).second)
        {
            refuse(rpc::ErrorCode::BAD_ARGUMENT,
                   "refs: element " + std::to_string(ref.uuid) + " with property " +
                       hex(static_cast<std::uint64_t>(ref.propertyId)) +
                       " is given more than once");
        }
    }
}

} // namespace egwservice
