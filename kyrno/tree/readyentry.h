// readyentry.h - what a node contributes to the ready queue of its root: see readyqueue.h.
#pragma once

#include <limits>

#include "sys/linux/qlntypes.h"

class HIERAKI;
enum OBJSTATE : UI4;

/// How a search chooses among the ready objects; boundary/ready.h says which strategy is which.
enum ORDER : UI4 {
  InTree,         // the first in the tree
  ByTime,         // the earliest
  ByTimeInRings,  // the earliest of those that come first in their ring
  InBudget        // the same within a budget of descents
};

inline constexpr F8 kNothing = std::numeric_limits<F8>::infinity();

/// What a search finds at or below one child of a ring, without going there. Each has two values:
/// [0] when failures don't count, [1] when they do.
struct READYVALUE {
  F8 byTime[2] = {kNothing, kNothing};   // timeReady of what ByTime finds; kNothing for nothing
  F8 inRings[2] = {kNothing, kNothing};  // the same for ByTimeInRings
  F8 spent[2] = {kNothing, kNothing};    // ... for InBudget without descents, which ends the ring
  bool stops[2] = {false, false};        // ByTimeInRings looks no further in the ring behind it

  bool operator==(const READYVALUE&) const = default;
  bool HoldsSomething() const { return byTime[0] < kNothing || byTime[1] < kNothing; }
};

/// What an object is to a search, by its state.
enum PART : UI4 {
  Gone,          // skipped with all below it
  Passage,       // no event; what is below it counts
  Itself,        // an event
  Command,       // an event, but progress below it goes first
  Ended,         // an event, but units below it go first, and failures after those
  EndedSilently  // the same, and no event
};

/// A node's part: a member of the balanced tree of those siblings that hold something ready, see
/// readyring.h, and the top of the tree of its own children.
///
/// Threads: guarded by the lock of the ready queue.
struct READYENTRY {
  READYVALUE value;  // of this node
  READYVALUE all;    // the least, or any, of this node and of those below it in the balanced tree
  HIERAKI* left = nullptr;  // borrowed, as all of them
  HIERAKI* right = nullptr;
  HIERAKI* up = nullptr;
  HIERAKI* top = nullptr;  // of the children's tree
  UI4 priority = 0;        // of the treap; 0 when the node is in no tree
  OBJSTATE state{};        // from which the value was computed
  PART part = Passage;     // ... and what that is
  bool visited = false;    // counted in toVisit of the parent
  UI4 children = 0;        // in the ring
  // Children that InBudget visits one by one: passages into which it descends, and objects that
  // have ended. All others are to it what their `spent` values say.
  UI4 toVisit = 0;
};
