// readyring.h - the children of one node that hold something ready, as a balanced tree (a treap)
// through their READYENTRY, sorted by their order numbers.
//
// The order numbers grow along the ring and wrap once, so ring order is the second half of the tree
// and then the first:
//
//   pSub, the last one, has order 40    tree   10 20 30 40 | 50 60
//                                       ring               | 50 60 10 20 30 40
//
// Each member knows the least value, by each way of searching, of itself and of those below it in
// the tree. So every question costs the logarithm of the number of members.
//
// Threads: all of it under the lock of the ready queue.
#pragma once

#include "kyrno/tree/hieraki.h"

/// One way of searching.
struct HOW {
  ORDER order;    // InBudget means here that no descents are left
  bool failures;  // objects in SError count

  /// Of what this way finds; kNothing for nothing.
  F8 Time(const READYVALUE& v) const {
    if (order == ByTimeInRings) return v.inRings[failures];
    return order == InBudget ? v.spent[failures] : v.byTime[failures];
  }
  /// Siblings behind it are not looked at.
  bool Stops(const READYVALUE& v) const {
    if (order == ByTime) return false;
    return order == ByTimeInRings ? v.stops[failures] : Time(v) < kNothing;
  }
};

/// Puts the child of this parent in, takes it out, or tells the others its new value, so that those
/// are members that hold something.
void UpdateMember(PHIERAKI parent, PHIERAKI child, UI4 priority);
void RemoveMember(PHIERAKI parent, PHIERAKI child);
/// Builds the tree anew: the members have new order numbers.
void SortMembers(PHIERAKI parent);

/// What a walk of the ring finds: the child with the least time up to the first that stops, of
/// equal ones the first; null for none.
PHIERAKI LeastMember(PHIERAKI parent, HOW how);
/// The time of that child; kNothing for none.
F8 LeastTime(PHIERAKI parent, HOW how);

/// The tree is sorted and balanced by its priorities, its parts agree, and it has as members the
/// children that hold something, and no others.
bool AreMembersRight(PHIERAKI parent);
