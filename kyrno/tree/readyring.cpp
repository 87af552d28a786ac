// readyring.cpp - the balanced tree of a ring's members.
#include "kyrno/tree/readyring.h"

#include <algorithm>
#include <limits>

namespace {

constexpr UI8 kLastOrder = std::numeric_limits<UI8>::max();

/// The pointer to a member, in its upper one or in the node that owns the tree.
PHIERAKI& LinkTo(PHIERAKI parent, PHIERAKI t) {
  PHIERAKI const up = t->Ready.up;
  if (!up) return parent->Ready.top;
  return up->Ready.left == t ? up->Ready.left : up->Ready.right;
}

void Merge(READYVALUE& to, const READYVALUE& v) {
  for (const bool f : {false, true}) {
    to.byTime[f] = std::min(to.byTime[f], v.byTime[f]);
    to.inRings[f] = std::min(to.inRings[f], v.inRings[f]);
    to.spent[f] = std::min(to.spent[f], v.spent[f]);
    to.stops[f] |= v.stops[f];
  }
}

READYVALUE AllOf(PHIERAKI t) {
  READYVALUE all = t->Ready.value;
  if (t->Ready.left) Merge(all, t->Ready.left->Ready.all);
  if (t->Ready.right) Merge(all, t->Ready.right->Ready.all);
  return all;
}

/// Tells those above about a change at t.
void Refresh(PHIERAKI t) {
  for (; t; t = t->Ready.up) {
    const READYVALUE all = AllOf(t);
    if (all == t->Ready.all) return;
    t->Ready.all = all;
  }
}

/// Lifts a member by one level.
void Rotate(PHIERAKI parent, PHIERAKI t) {
  PHIERAKI const down = t->Ready.up;
  LinkTo(parent, down) = t;
  t->Ready.up = down->Ready.up;
  down->Ready.up = t;
  const bool wasLeft = down->Ready.left == t;
  PHIERAKI& mine = wasLeft ? t->Ready.right : t->Ready.left;
  PHIERAKI& other = wasLeft ? down->Ready.left : down->Ready.right;
  other = mine;
  if (other) other->Ready.up = down;
  mine = down;
  t->Ready.all = down->Ready.all;
  down->Ready.all = AllOf(down);
}

void Insert(PHIERAKI parent, PHIERAKI child, UI4 priority) {
  READYENTRY& entry = child->Ready;
  PHIERAKI* link = &parent->Ready.top;
  PHIERAKI up = nullptr;
  while (*link) {
    up = *link;
    link = child->Order() < up->Order() ? &up->Ready.left : &up->Ready.right;
  }
  *link = child;
  entry.up = up;
  entry.left = entry.right = nullptr;
  entry.all = entry.value;
  entry.priority = priority;
  Refresh(up);
  while (entry.up && entry.up->Ready.priority < priority) Rotate(parent, child);
}

/// A walk of the ring, in pieces: single members, and parts of the tree that lie in it as a whole
/// and stop nothing.
class RINGWALK {
 public:
  RINGWALK(PHIERAKI parent, HOW how);

  F8 Time() const { return time; }
  PHIERAKI Found() const { return whole ? First() : best; }

 private:
  bool Walk(PHIERAKI t, UI8 low, UI8 high);
  void Offer(PHIERAKI t, const READYVALUE& value, bool isWhole) {
    if (!(how.Time(value) < time)) return;
    time = how.Time(value);
    best = t;
    whole = isWhole;
  }
  PHIERAKI First() const;

  const HOW how;
  F8 time = kNothing;
  PHIERAKI best = nullptr;
  bool whole = false;  // best is the top of the piece that has the least
};

RINGWALK::RINGWALK(PHIERAKI parent, HOW searching) : how(searching) {
  PHIERAKI const top = parent->Ready.top;
  if (!top || !(how.Time(top->Ready.all) < kNothing)) return;
  const UI8 end = parent->LastSub()->Order();
  if (parent->LastSub()->Next()->Order() <= end)
    Walk(top, 0, kLastOrder);  // nobody has turned this ring, or not since it was numbered
  else if (!Walk(top, end + 1, kLastOrder))
    Walk(top, 0, end);
}

/// Looks at those with orders from low to high. True when the walk is over.
// The depth of the recursion is that of the treap, a small multiple of the logarithm of its size.
bool RINGWALK::Walk(PHIERAKI t, UI8 low, UI8 high) {
  if (!t) return false;
  if (low == 0 && high == kLastOrder && !how.Stops(t->Ready.all)) {
    Offer(t, t->Ready.all, true);
    return false;
  }
  if (t->Order() < low) return Walk(t->Ready.right, low, high);
  if (t->Order() > high) return Walk(t->Ready.left, low, high);
  if (Walk(t->Ready.left, low, kLastOrder)) return true;
  Offer(t, t->Ready.value, false);
  return how.Stops(t->Ready.value) || Walk(t->Ready.right, 0, high);
}

PHIERAKI RINGWALK::First() const {
  PHIERAKI t = best;
  for (;;) {
    PHIERAKI const left = t->Ready.left;
    if (left && how.Time(left->Ready.all) == time)
      t = left;
    else if (how.Time(t->Ready.value) == time)
      return t;
    else
      t = t->Ready.right;
  }
}

/// Tests the part at and below t, whose members come behind *before, and counts them.
bool IsRight(PHIERAKI t, PHIERAKI up, const HIERAKI** before, UI4* members) {
  if (!t) return true;
  const READYENTRY& entry = t->Ready;
  if (!IsRight(entry.left, t, before, members)) return false;
  if (*before && (*before)->Order() >= t->Order()) return false;
  *before = t;
  ++*members;
  const bool balanced = !up || up->Ready.priority >= entry.priority;
  if (entry.up != up || !balanced || entry.priority == 0 || entry.all != AllOf(t)) return false;
  return IsRight(entry.right, t, before, members);
}

}  // namespace

void UpdateMember(PHIERAKI parent, PHIERAKI child, UI4 priority) {
  if (!child->Ready.value.HoldsSomething())
    RemoveMember(parent, child);
  else if (child->Ready.priority == 0)
    Insert(parent, child, priority);
  else
    Refresh(child);
}

void RemoveMember(PHIERAKI parent, PHIERAKI child) {
  READYENTRY& entry = child->Ready;
  if (entry.priority == 0) return;
  Refresh(child);  // its own part may be older than its value
  while (entry.left && entry.right) {
    const bool isLeft = entry.left->Ready.priority > entry.right->Ready.priority;
    Rotate(parent, isLeft ? entry.left : entry.right);
  }
  PHIERAKI const below = entry.left ? entry.left : entry.right;
  LinkTo(parent, child) = below;
  if (below) below->Ready.up = entry.up;
  PHIERAKI const up = entry.up;
  entry.left = entry.right = entry.up = nullptr;
  entry.priority = 0;
  Refresh(up);
}

void SortMembers(PHIERAKI parent) {
  parent->Ready.top = nullptr;
  PHIERAKI const last = parent->LastSub();
  if (!last) return;
  PHIERAKI t = last;
  do {
    t = t->Next();
    if (t->Ready.priority != 0) Insert(parent, t, t->Ready.priority);
  } while (t != last);
}

PHIERAKI LeastMember(PHIERAKI parent, HOW how) { return RINGWALK(parent, how).Found(); }

F8 LeastTime(PHIERAKI parent, HOW how) { return RINGWALK(parent, how).Time(); }

bool AreMembersRight(PHIERAKI parent) {
  UI4 holding = 0;
  if (PHIERAKI const last = parent->LastSub()) {
    PHIERAKI t = last;
    do {
      t = t->Next();
      if ((t->Ready.priority != 0) != t->Ready.value.HoldsSomething()) return false;
      if (t->Ready.priority != 0) ++holding;
    } while (t != last);
  }
  const HIERAKI* before = nullptr;
  UI4 members = 0;
  return IsRight(parent->Ready.top, nullptr, &before, &members) && members == holding;
}
