// The element server's state: the tree, property values, states, reference relations,
// subscriptions, logins, the event dispatcher and the record of executed commands. Every member
// function takes the tree lock for its own duration; the host classes are thin fronts over it.
#ifndef PANELSIM_SIMULATOR_H
#define PANELSIM_SIMULATOR_H

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "panelsim/nodeStore.h"
#include "panelsim/panelsim.h"
#include "panelsim/typeLibraryModel.h"

namespace panelsim::detail
{

// Status codes of the simulated host (0 is success).
enum Status : int
{
    kOk = 0,
    kUnknownElement = 1,   // the uuid names no element (or there is no root)
    kNotInTypeLibrary = 2, // type, property, state group, command or child type not defined
    kBadValue = 3,         // wrong width of an integer value, value not in the group, no data
    kConflict = 4,         // root exists, relation exists, nothing to remove, nothing found
    kLockRefused = 5,      // shared policy, tree held by another thread, unlock without lock
    kDispatcherState = 6,  // dispatcher opened twice or closed while closed
    kNotLoggedIn = static_cast<int>(0x80070004u)
};

constexpr unsigned kDeleteAnnouncedEvent = 0xF0010000u;
constexpr unsigned kDeleteDoneEvent = 0xF0020000u;

// Visitor of a walk: returns false to end it; sets the bool to skip the children of the element.
using WalkVisitor = std::function<bool(unsigned uuid, bool& skipChildren)>;

class Simulator
{
public:
    static Simulator& instance();

    int lock(int policy);
    int unlock();
    int openDispatcher();
    int closeDispatcher();

    unsigned root(int& error);
    unsigned add(const unsigned* parent, unsigned short type, bool checkChildType, bool validate,
                 int& error);
    int remove(unsigned uuid, bool childrenOnly);
    int removeAnnounced(unsigned uuid);

    unsigned short type(unsigned uuid);
    bool property(unsigned uuid, unsigned short id, bool& hasValue, std::string& bytes);
    int setProperty(unsigned uuid, unsigned short id, bool hasValue, const std::string& bytes,
                    bool silent);
    int validate(unsigned uuid, bool recursive);
    unsigned parent(unsigned uuid, int& error);
    std::vector<unsigned> children(unsigned uuid);
    unsigned state(unsigned uuid, unsigned short group);
    int setState(unsigned uuid, unsigned short group, unsigned value, bool silent);
    int execute(unsigned uuid, unsigned short command, unsigned source, const void* data,
                unsigned short size, bool silent);

    std::vector<unsigned> related(unsigned uuid, unsigned short type, bool forward);
    // With `again`, a relation the holder holds already is added once more.
    int addRelation(unsigned holder, unsigned target, unsigned short type, bool replace,
                    bool again = false);
    int deleteRelation(unsigned holder, unsigned target, unsigned short type, bool allOfType);

    int subscribe(bool byType, unsigned typeOrUuid, unsigned eventId, bool oneShot, unsigned pid);
    int unsubscribe(bool byType, unsigned typeOrUuid, unsigned eventId, unsigned pid);

    // Visits the start (with includeStart) and the elements below it, depth first in child
    // order; only the start's children with childrenOnly. A null start is the root.
    void walk(const unsigned* start, bool childrenOnly, bool includeStart,
              const WalkVisitor& visit);
    unsigned findByTypeChain(const unsigned short* chain, int& error);

    void reset();
    void login(unsigned pid, bool in);
    std::vector<ExecutedCommand> executedCommands();
    std::vector<Subscription> subscriptions();
    bool dispatcherOpen();
    std::size_t elementCount();
    bool validated(unsigned uuid);

private:
    struct SubscriptionEntry
    {
        Subscription subscription;
        bool oneShot;
    };
    // A subscription as the duplicate check sees it: by type, type or uuid, event, module.
    using SubscriptionKey = std::tuple<bool, unsigned, unsigned, unsigned>;
    static SubscriptionKey keyOf(const Subscription& s)
    {
        return SubscriptionKey(s.byType, s.typeOrUuid, s.eventId, s.pid);
    }
    struct Relation
    {
        unsigned short type;
        unsigned other;
    };
    // An element with its type's definition in the library in force; all null for an unknown uuid.
    struct Subject
    {
        Node* node = nullptr;
        std::shared_ptr<const TypeLibrary> library;
        const ElementTypeDefinition* type = nullptr;
    };

    Simulator() = default;
    Node* find(unsigned uuid);
    Subject subject(unsigned uuid);
    void eraseSubtree(unsigned uuid);
    void dropRelations(unsigned uuid);
    template <typename Ends>
    void endSubscriptions(Ends ends);
    std::vector<unsigned> takeRecipients(unsigned uuid, unsigned short type, unsigned eventId);
    void raise(unsigned uuid, unsigned short type, unsigned eventId, unsigned source,
               const std::string& data);
    void deliver(const std::vector<unsigned>& pids, unsigned eventId, unsigned uuid,
                 unsigned source, const std::string& data);

    std::recursive_mutex mutex_;
    NodeStore nodes_; // uuids are not reused while the process lives, also across reset()
    unsigned root_ = 0;
    std::unordered_map<unsigned, std::vector<Relation>> forward_;
    std::unordered_map<unsigned, std::vector<Relation>> backward_;
    std::vector<SubscriptionEntry> subscriptions_; // in the order they were made
    std::set<SubscriptionKey> subscriptionKeys_;   // the same, for the duplicate check
    std::unordered_set<unsigned> logins_;
    bool dispatcherOpen_ = false;
    std::vector<ExecutedCommand> commands_;
};

// Event queues of the modules (events.cpp).
void queueEvent(unsigned pid, const Event& event);
void clearEventQueues();

// Clears the count of properties that outlived their element (element.cpp).
void resetReleaseOrder();

} // namespace panelsim::detail

#endif
