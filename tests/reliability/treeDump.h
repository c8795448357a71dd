// A picture of the simulator's state in which two panels built the same way compare equal even
// though their uuids differ: elements are named by their path of child positions from the root
// ("r", "r.0", "r.0.2"), and every uuid that a fact holds is replaced by that name.
#ifndef TESTS_RELIABILITY_TREE_DUMP_H
#define TESTS_RELIABILITY_TREE_DUMP_H

#include <map>
#include <string>

struct TreeDump
{
    // One entry per fact: "r.0 type" -> "0x170", "r.0 prop 0x4" -> "01000000",
    // "r.0 state 0x3" -> "0x60001", "r.0 rel 0x2 fwd" -> "r.1 r.2 ",
    // "sub type 0x48 event 0x3010001 pid 11" -> "1", "cmd r.0 0x4001 from 0 []" -> "2".
    std::map<std::string, std::string> facts;
    std::map<unsigned int, std::string> names; // uuid -> path

    // The element's path, "0" for 0 and "new" for an element that was not in the tree.
    std::string name(unsigned int uuid) const;
};

// Walks the tree through the host's own calls (root, children, type, the properties and state
// groups that the type library lists, the reference relations) and adds the subscriptions and
// executed commands that the simulator records. Makes host calls: take it with no fault armed.
// Elements that `earlier` names keep that name, also when they have been deleted since, so that
// a fact about them reads the same in both dumps.
TreeDump dumpTree(const TreeDump* earlier = nullptr);

// The first fact of `actual` that is neither as `before` had it nor as `completed` has it (a
// fact missing from a dump counts as a value of its own); empty when there is none. With
// `completed` equal to `before` this is the first difference from `before`.
std::string outsidePartialState(const TreeDump& before, const TreeDump& actual,
                                const TreeDump& completed);

#endif
