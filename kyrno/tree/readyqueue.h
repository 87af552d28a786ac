// readyqueue.h - what is ready for the application in a root, so that the next event is found at
// once, however many objects are silent.
//
//   root                         every node has a balanced tree of those children that hold
//    |-- S   . . . . . . . .     something ready, at or below them; each member knows the least
//    |    |-- CON0  nothing      timeReady of what it holds. So a search descends straight to its
//    |    |-- CON1  ready        find, and a change climbs straight up to the root: both cost the
//    |         |-- Blk7  ready   logarithm of what is ready.
//
// What a search finds is defined by a walk, oldest child first, and the queue gives the same:
//
//   an object in state          is to a search
//   SFinished, marked           skipped with all below it
//   SIncoming, SAPLLast, SSent  an event; what is below it is not looked at
//   SAPL, SError                an event; for a command, progress below it goes first
//   SError of a connection      whole units below it go first, failures after those, then the
//   or a UDP object,            object itself, unless this side closes it (ClosesSilently) or a
//   SSocketClosed               child of it is being delivered
//   any other, or seized        a passage: what is below it counts
//
//   InTree         the first find of the walk
//   ByTime         the least timeReady of all; of equal ones the first
//   ByTimeInRings  the same, but a find whose own state is a ready one ends the walk of its ring;
//                  no descent into TMessage and TRelay
//   InBudget       the same, and each descent into a passage takes one from a budget which is one
//   for
//                  the whole search; an object that has ended is searched with one less than what
//                  is left, in a budget of its own, and passed over when that would be none, unless
//                  it has failed and has no children
//
// The rules follow each other down: below an object that has ended, a search of its own begins,
// whose find stands for that object.
#pragma once

#include "kyrno/base/mutex.h"
#include "kyrno/tree/hieraki.h"

enum OBJSTATE : UI4;

/// A find, and what it was when it was found.
struct READYFIND {
  PHIERAKI node = nullptr;
  OBJSTATE state{};
  bool finish = false;  // InBudget found it below a closed object: the two end together
};

/// Owner:   the root.
/// Threads: any. A state is stored first and its node updated then, so whoever has updated last has
///          seen the latest state.
class READYQUEUE {
 public:
  READYQUEUE() = default;
  READYQUEUE(const READYQUEUE&) = delete;
  READYQUEUE& operator=(const READYQUEUE&) = delete;

  /// Makes the queue agree with the state of this node, after a change of it.
  void Update(PHIERAKI node);
  void UpdateLocked(PHIERAKI node) TSA(requires_capability(Lock));
  /// A child of this node that had been picked is through with it: a closed parent may be the next
  /// event now.
  void Delivered(PHIERAKI parent);

  // --- the ring of a node changes, see hieraki.h
  void Linked(PHIERAKI child) TSA(requires_capability(Lock));
  /// Before the child leaves its ring.
  void Leaves(PHIERAKI child) TSA(requires_capability(Lock));
  /// The order numbers of its children are new.
  void Renumbered(PHIERAKI parent) TSA(requires_capability(Lock));

  /// Searches from a node and picks what it finds: its state becomes SProcessing, seized, and
  /// LastState and lErrorObj tell why (see RPCOBJS::Pick); Delivering of its parent counts it.
  /// Null when nothing is ready. `budget` is for InBudget alone.
  PHIERAKI PickNext(PHIERAKI node, ORDER order, SI4 budget);
  /// Picks this node itself, whatever is ready below it. False when it is no event.
  bool PickThis(PHIERAKI node);

  /// Something was ready a moment ago.
  bool HasReady() const { return hasReady.load(std::memory_order_relaxed); }

  /// For tests and sanitizer builds: the values of this node are those that its state and its
  /// children give.
  bool IsRight(PHIERAKI node);

  MUTEX Lock;
  class ROOT* pRoot = nullptr;  // borrowed; whose it is. Constant

 private:
  bool Take(const READYFIND& find) TSA(requires_capability(Lock));
  void Visits(PHIERAKI node, bool visited) TSA(requires_capability(Lock));
  UI4 NextPriority() TSA(requires_capability(Lock));
  void BeginRings(PHIERAKI node) TSA(requires_capability(Lock));

  std::atomic<bool> hasReady{false};  // tally; of the topmost node
  // The values for searches by rings cost as much as the others together and are wanted by few
  // applications: they are kept from the first such search on.
  bool byRings GUARDED_BY(Lock) = false;
  UI4 seed GUARDED_BY(Lock) = 1;  // of the priorities
};
