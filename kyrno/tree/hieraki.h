// hieraki.h - the tree of named nodes, in which everything that the library keeps has its place.
//
//   root ("." )                    a root's own name is no part of any path
//    |-- SRV00000000               server
//    |    |-- CON00000000          connection    path "SRV00000000.CON00000000"
//    |         |-- Blk00000003     message
//    |-- CLT00000001               client
//
// The children of a node form a ring, oldest first behind pSub:
//
//   pSub -> newest -> oldest -> ... -> newest        (through pNext, back through pPrev)
//
// Each child has an order number. Around the ring the numbers grow, up to one place where they
// wrap: of two children the one with the smaller distance from the oldest comes first. So two
// children are compared without a walk (Place).
//
// Who may do what:
//   - A thread inside the root's gate may keep a node that it has found; it never meets freed
//     memory, though the node may have been unlinked meanwhile.
//   - The shape of a ring changes under both the write lock of its parent and the lock of the
//     root's ready queue, in this order; who holds either of them may walk it.
//   - Interpreter threads add. Only who has the work thread's role unlinks. Therefore walks in that
//     role need no lock while they go: a ring can only grow meanwhile.
#pragma once

#include <atomic>

#include "kyrno/annotate.h"
#include "kyrno/base/sharedmutex.h"
#include "kyrno/tree/gate.h"
#include "kyrno/tree/nameindex.h"
#include "kyrno/tree/readyentry.h"
#include "kyrno/tree/timers.h"
#include "kyrno/tree/touched.h"
#include "sys/linux/qlntypes.h"
#include "util/pool.h"

class RPCOBJS;
class HIERAKI;
class READYQUEUE;
struct THREADSEM;
using PRPCOBJS = RPCOBJS*;
using PHIERAKI = HIERAKI*;

/// A walk's callback. A result other than null stops the walk and becomes its result.
using PFNH = PHIERAKI (*)(PHIERAKI node, void* p);

inline constexpr SI4 kMaxName = 32;        // characters of a name
inline constexpr SI4 kFullNameSize = 198;  // what callers give FullName, terminator not counted
inline constexpr CH1 MagicString[] = "Quillon0";

/// A node.
///
/// Owner:   its parent's ring; the ring of roots for a root; the gate once it has been unlinked.
///          A node owns its children and its object.
/// Threads: see above; each operation says when it is different.
/// Errors:  a node whose Magic is damaged ends the process by an assertion: it is the library's own
///          fault, and the only alternative is to work on freed memory.
class HIERAKI : public RETIRED, public POOLED {
 public:
  /// A lone node that owns obj, which may be null. The name is cut at 32 characters.
  HIERAKI(PCH10 name, PRPCOBJS obj);
  /// Deletes the children and the object. The node is in no ring any more.
  ~HIERAKI() override;

  PHIERAKI Next() const { return pNext.load(std::memory_order_acquire); }
  PHIERAKI Parent() const { return pParent.load(std::memory_order_acquire); }
  PHIERAKI Top();
  /// Hand-over: whoever sees the object sees it whole.
  PRPCOBJS Obj() const { return pObj.load(std::memory_order_acquire); }
  PCH10 GetName() const { return Name; }

  PHIERAKI FirstChild();
  SI4 CountChildren();

  /// Creates the child that `name`, a path relative to this node, tells, and hands obj to it.
  /// Null when the parent doesn't exist, the name is taken or empty, or memory is short: the caller
  /// still owns obj then.
  PHIERAKI AddNew(PCH10 name, PRPCOBJS obj);
  /// Unlinks a child, in constant time. It keeps its own pNext, so that a walk that stands on it
  /// goes on. It leaves the ready queue too.
  void Unlink(PHIERAKI child);
  /// Makes h, a child, the last one of the ring: the next walk begins behind it. Does nothing when
  /// h is no child any more. The old last one is the result.
  PHIERAKI SetSub(PHIERAKI h);
  /// False once the node has been unlinked, or one above it.
  bool IsLinked() const { return linked.load(std::memory_order_acquire); }
  /// What is below an unlinked node: takes no children any more.
  void Shut() WORK_ONLY;

  /// Puts another object in the place of the present one, which is the result and still the
  /// caller's to retire. All that belongs to the node stays with it: its name and children, the
  /// touched mark, the time limit, the place among the waiters; the entry in the ready queue
  /// follows the new object's state.
  PRPCOBJS Replace(PRPCOBJS obj) WORK_ONLY;

  /// Walks the children, oldest first, under the read lock.
  PHIERAKI LoopSub(PFNH fn, void* p);
  /// The same for the work thread, which holds the lock only to find both ends: what is added
  /// meanwhile is left to the next walk. fn takes a PHIERAKI and returns nothing; it may add nodes
  /// anywhere but must not unlink children of this node.
  template <typename FN>
  void WalkSub(FN fn) WORK_ONLY {
    PHIERAKI last = nullptr;
    for (PHIERAKI t = Ends(&last); t; t = t == last ? nullptr : t->Next()) fn(t);
  }

  /// Node at a path. An empty path, or one that ends with a dot, means the node reached so far. A
  /// part of more than 32 characters is never found, and neither is a last part of exactly 32.
  PHIERAKI FindLeaf(PCH10 path);
  /// Node that holds the last part of a path, whether that part exists or not.
  PHIERAKI FindParent(PCH10 path);
  /// Child by exactly these characters, at most 32: names from a peer have no terminator.
  PHIERAKI FindChild(PCH10 name, size_t len);

  /// The dotted path without the root's name, terminated. Returns its length, or the negated length
  /// that would be needed when size is too small; buf then holds what fitted.
  /// Deliberate: a name of 32 characters comes out with the eight of Magic behind it, as ever.
  SI4 FullName(PCH1 buf, SI4 size);

  // --- for whoever holds the lock of the ready queue
  /// The last child; the walk `for (h = last->Next(); ; h = h->Next())` ends with it.
  PHIERAKI LastSub() const { return pSub.load(std::memory_order_acquire); }
  /// How far behind the oldest a child of this node stands, comparable with its siblings'.
  UI8 Place(const HIERAKI* child) const {
    // The last one has the largest number of all, so the walk begins with the number behind it.
    return child->order.load(std::memory_order_relaxed) -
           LastSub()->order.load(std::memory_order_relaxed) - 1;
  }
  UI8 Order() const { return order.load(std::memory_order_relaxed); }
  bool HasSub() const { return LastSub() != nullptr; }

  // --- the ring of roots: no parent, guarded by whoever owns the anchor. A null ring is empty.
  static PHIERAKI Add(PHIERAKI ring, PHIERAKI h);
  static PHIERAKI Find(PHIERAKI ring, PCH10 name);
  static PHIERAKI Remove(PHIERAKI ring, PHIERAKI h);

  /// After a fork: the child can't trust locks that other threads held. Unlocks the whole subtree.
  void ForkedChild();

  READYENTRY Ready;                       // guarded by the lock of the ready queue
  TOUCHENTRY Touched;                     // see touched.h
  TIMER Timer WORK_DATA{this};            // time limit of the object, see timers.h
  PHIERAKI pNextDue WORK_DATA = nullptr;  // of the nodes that are to have their turn, see work.h
  bool isDue WORK_DATA = false;
  PHIERAKI pNextTold WORK_DATA = nullptr;     // of those whose callback is due; the last has itself
  std::atomic<THREADSEM*> pWaiting{nullptr};  // borrowed; written under the lock of the wait pool
  /// The ready queue of the root above; null in a tree without a root. Constant once linked.
  READYQUEUE* pQueue = nullptr;
  /// Children that were picked and are still being delivered. Tally, with a single order of its
  /// own: see READYQUEUE::Delivered.
  std::atomic<SI4> Delivering{0};

  // Clean-up duty towards an ancestor of this type, done when the node is unlinked; guarded by that
  // ancestor's own lock.
  std::atomic<SI4> CleanUpCount{0};

 private:
  friend class NAMEINDEX;  // its entry, and IsNamed

  /// The oldest child, and the newest in *last; null without any.
  PHIERAKI Ends(PHIERAKI* last);
  bool IsNamed(PCH10 name, size_t len) const;
  PHIERAKI FindHeld(PCH10 name, size_t len) TSA(requires_shared_capability(lock));
  bool IsTaken(PCH10 name) TSA(requires_shared_capability(lock));
  void CheckMagic() const;
  /// Makes child the last one, in the ready queue too.
  void Link(PHIERAKI child) TSA(requires_capability(lock));
  /// How many order numbers are free between the last child and the oldest. There is one.
  UI8 Room() const TSA(requires_shared_capability(lock));
  void Renumber() TSA(requires_capability(lock));

  CMutexRW lock;                      // guards the shape of the ring of children
  NAMEINDEX names GUARDED_BY(lock);   // of the children
  NAMEENTRY nameEntry;                // guarded by the parent's lock
  std::atomic<PHIERAKI> pNext{this};  // next sibling; shared, guarded by the parent's lock
  PHIERAKI pPrev = this;              // sibling before, of children only; guarded as pNext
  std::atomic<UI8> order{0};          // see above; shared, guarded by the parent's lock
  std::atomic<bool> linked{true};
  std::atomic<PHIERAKI> pSub{nullptr};     // last child; shared, written under the write lock
  std::atomic<PHIERAKI> pParent{nullptr};  // constant once linked
  std::atomic<PRPCOBJS> pObj;              // owned
  CH1 Name[kMaxName + 1];                  // constant, terminated
  CH1 Magic[9];
};
