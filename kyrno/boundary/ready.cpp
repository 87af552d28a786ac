// ready.cpp - the strategies that choose the next ready object.
#include "kyrno/boundary/ready.h"

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/server.h"

static constexpr UI4 MODULE = 0x00000010;

namespace {

constexpr SI4 kDescents = 10;        // of the bounded strategy
constexpr SI4 kDescentsStopped = 1;  // on a server that wants its connections only

enum ORDER { InTree, ByTime, ByTimeInRings, InBudget };

/// What an object is to a search, by its type and state.
enum PART {
  Gone,           // skipped with all below it
  Itself,         // an event
  Command,        // an event, but progress below it goes first
  Ended,          // an event, but units below it go first, and failures after those
  EndedSilently,  // the same, and no event
  Passage         // no event; what is below it counts
};

struct SEEN {
  OBJSTATE state;
  PART part;
};

bool IsConnection(const RPCOBJS* object) {
  return object->Type == TClient || object->Type == TConnection;
}

SEEN Look(PHIERAKI node) {
  PRPCOBJS const object = node->Obj();
  if (!object) return {SFinished, Gone};
  const OBJSTATE state = object->GetState();
  switch (state) {
    case SFinished:
    case SMarkedForDeletion:
      return {state, Gone};
    case SSocketClosed:
      if (IsConnection(object) && static_cast<PCONNECTION>(object)->ActiveClose > 0)
        return {state, EndedSilently};
      return {state, Ended};
    case SError:
      if (IsConnection(object)) return {state, Ended};
      return {state, object->Type == TCommand ? Command : Itself};
    case SAPL:
      return {state, object->Type == TCommand ? Command : Itself};
    case SIncoming:
    case SAPLLast:
    case SSent:
      return {state, Itself};
    default:
      return {state, Passage};
  }
}

/// A child is on its way to the application, which may yet change what becomes of the parent.
bool IsDelivering(PHIERAKI node) {
  auto isOnItsWay = [](PHIERAKI child, void*) -> PHIERAKI {
    PRPCOBJS const object = child->Obj();
    const bool is = object && object->GetState() == SProcessing && object->IsSeized();
    return is ? child : nullptr;
  };
  return node->LoopSub(isOnItsWay, nullptr) != nullptr;
}

struct FIND {
  PHIERAKI node = nullptr;
  OBJSTATE state = SNew;  // as it was seen
  F8 time = 0;
  bool finish = false;  // it ends with the closed object above it
};

/// One walk. A search below an object that has ended or below a command is a walk of its own, whose
/// find then stands for that object.
class SEARCH {
 public:
  SEARCH(ORDER how, SI4 descents, bool withFailures)
      : order(how), depth(descents), failures(withFailures) {}

  /// True when the rest of this ring need not be looked at.
  bool Visit(PHIERAKI node);

  FIND best;

 private:
  static PHIERAKI Step(PHIERAKI node, void* search) {
    return static_cast<SEARCH*>(search)->Visit(node) ? node : nullptr;
  }
  bool VisitEvent(PHIERAKI node, const SEEN& seen);
  bool VisitPassage(PHIERAKI node);
  FIND Below(PHIERAKI node, const SEEN& seen) const;
  void Offer(const FIND& find) {
    if (!best.node || best.time > find.time) best = find;
  }

  const ORDER order;
  SI4 depth;            // descents left
  const bool failures;  // objects in SError count
};

bool SEARCH::Visit(PHIERAKI node) {
  const SEEN seen = Look(node);
  switch (seen.part) {
    case Gone:
      return false;
    case Itself:
    case Command:
    case Ended:
    case EndedSilently:
      return VisitEvent(node, seen);
    case Passage:
      return VisitPassage(node);
  }
  return false;
}

FIND SEARCH::Below(PHIERAKI node, const SEEN& seen) const {
  if (seen.part == Itself) return {};
  if (seen.part == Command) {
    // Its reports lie right below it and cost the budget nothing.
    SEARCH reports(order, kDescentsStopped, failures);
    node->LoopSub(Step, &reports);
    return reports.best;
  }
  for (const bool withFailures : {false, true}) {
    if (withFailures && !failures) break;
    SEARCH units(order, depth - 1, withFailures);
    node->LoopSub(Step, &units);
    if (!units.best.node) continue;
    if (seen.state == SSocketClosed && order == InBudget) units.best.finish = true;
    return units.best;
  }
  return {};
}

bool SEARCH::VisitEvent(PHIERAKI node, const SEEN& seen) {
  if (order == InBudget && depth < 2 && (seen.part == Ended || seen.part == EndedSilently)) {
    // Units that can't be looked for must not be lost: the object waits for a deeper search. A
    // failed one without any needs none.
    if (seen.state == SSocketClosed || node->FirstChild()) return false;
  }
  FIND find = Below(node, seen);
  if (!find.node) {
    if (seen.part == EndedSilently || (seen.state == SError && !failures)) return false;
    if (seen.part == Ended && IsDelivering(node)) return false;
    find.node = node;
    find.state = seen.state;
    find.time = node->Obj()->timeReady;
  }
  Offer(find);
  if (order == InTree) return true;
  return order != ByTime && IsReadyState(seen.state);
}

bool SEARCH::VisitPassage(PHIERAKI node) {
  const OBJTYPE type = node->Obj()->Type;
  const bool inRings = order == ByTimeInRings || order == InBudget;
  if (inRings && (type == TMessage || type == TRelay || type > TUdpPeer)) return false;
  // Deliberate: the budget is one for the whole search, not a level, and is used up by rings that
  // are not looked at any more as well.
  if (order == InBudget && depth-- < 1) return false;
  const bool found = node->LoopSub(Step, this) != nullptr;
  return order == InTree && found;
}

bool Take(const FIND& find) {
  PRPCOBJS const object = find.node->Obj();
  if (!object->Pick(find.state)) return false;
  const bool closed = find.state == SSocketClosed;
  object->LastState = closed ? SError : find.state;
  if (closed) object->lErrorObj = ERR_CLOSED;
  if (find.finish) object->NextState = SFinished;
  LOG(3, ("Ready %s ", find.node->GetName()));
  return true;
}

PHIERAKI FindAndTake(ORDER order, PHIERAKI node, PHIERAKI* found) {
  *found = nullptr;
  if (!node || !node->Obj()) return nullptr;
  const bool stops =
      node->Obj()->Type == TServer && static_cast<SERVER*>(node->Obj())->SearchStop();
  for (;;) {
    SEARCH search(order, stops ? kDescentsStopped : kDescents, true);
    search.Visit(node);
    if (!search.best.node) return nullptr;
    // If that fails, another thread was faster, or the work thread has moved on.
    if (Take(search.best)) return *found = search.best.node;
  }
}

}  // namespace

PHIERAKI FindReady(PHIERAKI node, PHIERAKI* found) { return FindAndTake(InTree, node, found); }

PHIERAKI FindReadyRR(PHIERAKI node, PHIERAKI* found) {
  PHIERAKI const find = FindAndTake(InTree, node, found);
  // The next search at each level begins behind the child that has just had its turn.
  for (PHIERAKI n = find; n && n != node; n = n->Parent()) {
    const OBJTYPE above = n->Parent()->Obj()->Type;
    if (above == TRoot || above == TServer) n->Parent()->SetSub(n);
  }
  return find;
}

PHIERAKI FindReadyTO(PHIERAKI node, PHIERAKI* found) { return FindAndTake(ByTime, node, found); }

PHIERAKI FindReadyTS(PHIERAKI node, PHIERAKI* found) {
  return FindAndTake(ByTimeInRings, node, found);
}

PHIERAKI FindReadyTnc(PHIERAKI node, PHIERAKI* found) { return FindAndTake(InBudget, node, found); }

PHIERAKI PopReady(PHIERAKI node, PHIERAKI* found) {
  *found = nullptr;
  SERVER* const server = static_cast<SERVER*>(node->Obj());
  while (PHIERAKI const next = server->PopReady()) {
    const SEEN seen = Look(next);
    if (seen.part == Gone || seen.part == EndedSilently || seen.part == Passage) continue;
    FIND find;
    find.node = next;
    find.state = seen.state;
    if (Take(find)) return *found = next;
  }
  return nullptr;
}
