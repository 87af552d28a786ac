// readyqueue.cpp - what is ready for the application in a root.
//
// The value of a node follows from its part, which its state gives, and from the members of its own
// ring. Part and state are kept as they were when the value was computed. So under the lock a
// search meets no surprise; what has changed behind it, it learns when the pick fails.
#include "kyrno/tree/readyqueue.h"

#include <cassert>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/tree/readyring.h"
#include "kyrno/tree/rpcobjs.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

/// What has come for the application lies below these.
bool IsEndpoint(OBJTYPE type) { return type == TClient || type == TConnection || type == TUdp; }

/// The searches by rings go no further at these: what is below is none of theirs.
bool IsLeaf(OBJTYPE type) { return type == TMessage || type == TRelay || type > TUdpPeer; }

/// The object may be an event when it comes to its end, but not before what is below it.
bool HasEnded(PART part) { return part == Ended || part == EndedSilently; }

/// InBudget has to look for itself, unless it has no descents left.
bool IsVisited(PHIERAKI node) {
  const PART part = node->Ready.part;
  return HasEnded(part) || (part == Passage && !IsLeaf(node->Obj()->Type));
}

PART PartIn(OBJSTATE state, const RPCOBJS* object) {
  switch (state) {
    case SFinished:
    case SMarkedForDeletion:
      return Gone;
    case SSocketClosed:
      return object->ClosesSilently() ? EndedSilently : Ended;
    case SError:
      if (IsEndpoint(object->Type)) return Ended;
      return object->Type == TCommand ? Command : Itself;
    case SAPL:
      return object->Type == TCommand ? Command : Itself;
    case SIncoming:
    case SAPLLast:
    case SSent:
      return Itself;
    default:
      return Passage;
  }
}

void Look(PHIERAKI node) {
  READYENTRY& entry = node->Ready;
  PRPCOBJS const object = node->Obj();
  // Seized in between: then the pick fails, and its update is on its way in any case.
  const bool seized = object && object->IsSeized();
  entry.state = object ? object->GetState() : SFinished;
  entry.part = seized ? Passage : PartIn(entry.state, object);
}

/// The object itself is an event, if nothing below it is.
bool IsEvent(PHIERAKI node, bool failures) {
  const READYENTRY& entry = node->Ready;
  if (entry.part == Gone || entry.part == Passage || entry.part == EndedSilently) return false;
  if (entry.state == SError && !failures) return false;
  // A child is on its way to the application, which may yet change what becomes of this one. Both
  // this and Delivered's step change the word: whichever comes second sees what the other side has
  // stored before, so that one of the two makes it an event.
  return entry.part != Ended || node->Delivering.fetch_add(0, std::memory_order_acq_rel) == 0;
}

/// The time of what goes before the object itself, and how that was searched for.
F8 TimeBelow(PHIERAKI node, HOW* how) {
  const PART part = node->Ready.part;
  if (part == Gone || part == Itself) return kNothing;
  if (HasEnded(part) && how->failures) {
    const HOW units{how->order, false};
    const F8 time = LeastTime(node, units);
    if (time < kNothing) {
      *how = units;
      return time;
    }
  }
  return LeastTime(node, *how);
}

/// The time of what a search finds at or below this node.
F8 TimeOf(PHIERAKI node, HOW how) {
  const READYENTRY& entry = node->Ready;
  const bool failures = how.failures;
  const bool byRings = how.order == ByTimeInRings || how.order == InBudget;
  if (entry.part == Passage && byRings && (how.order == InBudget || IsLeaf(node->Obj()->Type)))
    return kNothing;
  // Without descents, units that can't be looked for must not be lost: the object waits for a
  // deeper search. A failed one without any needs none.
  if (HasEnded(entry.part) && how.order == InBudget &&
      (entry.state == SSocketClosed || entry.children > 0))
    return kNothing;
  const F8 time = TimeBelow(node, &how);
  return !(time < kNothing) && IsEvent(node, failures) ? F8{node->Obj()->timeReady} : time;
}

READYVALUE ValueOf(PHIERAKI node, bool byRings) {
  READYVALUE v;
  const READYENTRY& entry = node->Ready;
  // The two that are found out most often: it holds nothing, or what its children hold.
  if (!entry.top && (entry.part == Passage || entry.part == Gone)) return v;
  if (entry.part == Passage && !byRings) {
    const READYVALUE& all = entry.top->Ready.all;
    for (const bool f : {false, true}) v.byTime[f] = all.byTime[f];
    return v;
  }
  for (const bool f : {false, true}) {
    v.byTime[f] = TimeOf(node, {ByTime, f});
    if (!byRings || !(v.byTime[f] < kNothing)) continue;  // nor by any other way
    v.inRings[f] = TimeOf(node, {ByTimeInRings, f});
    v.spent[f] = TimeOf(node, {InBudget, f});
    v.stops[f] = v.inRings[f] < kNothing && entry.part != Passage && IsReadyState(entry.state);
  }
  return v;
}

/// What the value of this node stands for. It holds something, searched this way.
READYFIND Follow(PHIERAKI node, HOW how) {
  while (TimeBelow(node, &how) < kNothing) node = LeastMember(node, how);
  assert(node->Ready.part != Gone && node->Ready.part != Passage);
  return {node, node->Ready.state};
}

/// InBudget while there are descents left.
class BUDGETSEARCH {
 public:
  BUDGETSEARCH(SI4 descents, bool withFailures) : depth(descents), how{InBudget, withFailures} {}

  /// True when the rest of this ring need not be looked at.
  bool Visit(PHIERAKI node);

  READYFIND best;

 private:
  void Ring(PHIERAKI node);
  bool VisitEnded(PHIERAKI node);
  void Offer(const READYFIND& find) {
    const F8 ready = find.node->Obj()->timeReady;
    if (best.node && !(time > ready)) return;
    best = find;
    time = ready;
  }

  SI4 depth;  // descents left
  const HOW how;
  F8 time = 0;
};

bool BUDGETSEARCH::Visit(PHIERAKI node) {
  const READYENTRY& entry = node->Ready;
  if (HasEnded(entry.part) && depth > 1) return VisitEnded(node);
  if (entry.part != Passage) {
    if (how.Time(entry.value) < kNothing) Offer(Follow(node, how));
    return how.Stops(entry.value);
  }
  // Deliberate: the budget is one for the whole search, not a level, and is used up by rings that
  // hold nothing as well.
  if (IsLeaf(node->Obj()->Type) || depth < 1) return false;
  --depth;
  Ring(node);
  return false;
}

void BUDGETSEARCH::Ring(PHIERAKI node) {
  if (node->Ready.toVisit > 0) {
    PHIERAKI const last = node->LastSub();
    for (PHIERAKI h = last->Next(); depth > 0; h = h->Next())
      if (Visit(h) || h == last) return;
  }
  // None of those visited counts again: whatever a search without descents finds, stops it.
  if (PHIERAKI const child = LeastMember(node, how)) Offer(Follow(child, how));
}

bool BUDGETSEARCH::VisitEnded(PHIERAKI node) {
  for (const bool failures : {false, true}) {
    if (failures && !how.failures) break;
    BUDGETSEARCH units(depth - 1, failures);
    units.Ring(node);
    if (!units.best.node) continue;
    if (node->Ready.state == SSocketClosed) units.best.finish = true;
    Offer(units.best);
    return IsReadyState(node->Ready.state);
  }
  if (!IsEvent(node, how.failures)) return false;
  Offer({node, node->Ready.state});
  return IsReadyState(node->Ready.state);
}

READYFIND Search(PHIERAKI node, ORDER order, SI4 budget) {
  if (order == InBudget) {
    BUDGETSEARCH search(budget, true);
    search.Visit(node);
    return search.best;
  }
  const HOW how{order, true};
  return how.Time(node->Ready.value) < kNothing ? Follow(node, how) : READYFIND{};
}

}  // namespace

UI4 RPCOBJS::PartOf(UI4 w) {
  const OBJSTATE state = ToState(w);
  if (w & kSeized) return SNew;
  if (state == SMarkedForDeletion) return SFinished;
  return state == SFinished || state == SSocketClosed || IsReadyState(state) ? w : SNew;
}

void RPCOBJS::Update() {
  PHIERAKI const item = pItem;
  if (item && item->pQueue) item->pQueue->Update(item);
}

void READYQUEUE::Update(PHIERAKI node) {
  MUTEXHOLD hold(Lock);
  UpdateLocked(node);
}

void READYQUEUE::UpdateLocked(PHIERAKI node) {
  for (PHIERAKI parent = nullptr; node; node = parent) {
    Look(node);
    parent = node->IsLinked() ? node->Parent() : nullptr;
    if (parent) Visits(node, IsVisited(node));
    const READYVALUE value = ValueOf(node, byRings);
    if (value == node->Ready.value) return;
    node->Ready.value = value;
    if (!node->Parent()) hasReady.store(value.HoldsSomething(), std::memory_order_relaxed);
    if (parent) UpdateMember(parent, node, NextPriority());
  }
}

void READYQUEUE::Visits(PHIERAKI node, bool visited) {
  if (node->Ready.visited == visited) return;
  node->Ready.visited = visited;
  UI4& count = node->Parent()->Ready.toVisit;
  count = visited ? count + 1 : count - 1;
}

void READYQUEUE::Delivered(PHIERAKI parent) {
  if (parent->Delivering.fetch_sub(1, std::memory_order_acq_rel) > 1) return;
  const OBJSTATE state = parent->Obj()->GetState();
  if (state == SSocketClosed || state == SError) Update(parent);
}

void READYQUEUE::Linked(PHIERAKI child) {
  PHIERAKI const parent = child->Parent();
  ++parent->Ready.children;
  UpdateLocked(child);
  if (HasEnded(parent->Ready.part)) UpdateLocked(parent);
}

void READYQUEUE::Leaves(PHIERAKI child) {
  PHIERAKI const parent = child->Parent();
  RemoveMember(parent, child);
  Visits(child, false);
  --parent->Ready.children;
  UpdateLocked(parent);
}

void READYQUEUE::Renumbered(PHIERAKI parent) { SortMembers(parent); }

UI4 READYQUEUE::NextPriority() {
  // Marsaglia's xorshift: never 0, and random enough for a balanced tree.
  seed ^= seed << 13;
  seed ^= seed >> 17;
  seed ^= seed << 5;
  return seed;
}

bool READYQUEUE::Take(const READYFIND& find) {
  PRPCOBJS const object = find.node->Obj();
  const bool taken = object->Pick(find.state);
  PHIERAKI const parent = find.node->Parent();
  if (taken) {
    const bool closed = find.state == SSocketClosed;
    object->LastState = closed ? SError : find.state;
    if (closed) object->lErrorObj = ERR_CLOSED;
    if (find.finish) object->NextState = SFinished;
    if (parent) parent->Delivering.fetch_add(1, std::memory_order_acq_rel);
  }
  UpdateLocked(find.node);
  // Delivering counts, also when the node has been unlinked.
  if (taken && parent && HasEnded(parent->Ready.part)) UpdateLocked(parent);
  return taken;
}

void READYQUEUE::BeginRings(PHIERAKI node) {
  if (PHIERAKI const last = node->LastSub()) {
    PHIERAKI t = last;
    do {
      t = t->Next();
      BeginRings(t);
    } while (t != last);
  }
  node->Ready.value = ValueOf(node, true);
  if (node->Parent()) UpdateMember(node->Parent(), node, NextPriority());
}

PHIERAKI READYQUEUE::PickNext(PHIERAKI node, ORDER order, SI4 budget) {
  READYFIND find;
  {
    MUTEXHOLD hold(Lock);
    if (!byRings && (order == ByTimeInRings || order == InBudget)) {
      byRings = true;
      BeginRings(node->Top());
    }
    // Where a pick fails, the state has moved on, and the queue knows it now.
    do {
      find = Search(node, order, budget);
    } while (find.node && !Take(find));
  }
  if (find.node) LOG(3, ("Ready %s ", find.node->GetName()));
  return find.node;
}

bool READYQUEUE::PickThis(PHIERAKI node) {
  {
    MUTEXHOLD hold(Lock);
    UpdateLocked(node);
    const READYENTRY& entry = node->Ready;
    if (entry.part == Gone || entry.part == Passage || entry.part == EndedSilently) return false;
    if (!Take({node, entry.state})) return false;
  }
  LOG(3, ("Ready %s ", node->GetName()));
  return true;
}

bool READYQUEUE::IsRight(PHIERAKI node) {
  MUTEXHOLD hold(Lock);
  READYENTRY& entry = node->Ready;
  const OBJSTATE state = entry.state;
  const PART part = entry.part;
  Look(node);
  const bool right = entry.part == part && entry.value == ValueOf(node, byRings);
  entry.state = state;
  entry.part = part;

  UI4 children = 0;
  UI4 toVisit = 0;
  if (PHIERAKI const last = node->LastSub()) {
    PHIERAKI t = last;
    do {
      t = t->Next();
      ++children;
      if (t->Ready.visited != IsVisited(t)) return false;
      toVisit += t->Ready.visited;
    } while (t != last);
  }
  return right && children == entry.children && toVisit == entry.toVisit && AreMembersRight(node);
}
