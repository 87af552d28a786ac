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
//   pSub -> newest -> oldest -> ... -> newest        (through pNext)
//
// Who may do what:
//   - A thread inside the root's gate may keep a node that it has found; it never meets freed
//     memory, though the node may have been unlinked meanwhile.
//   - Interpreter threads walk a ring under the read lock of its parent, and add under its write
//     lock. Locks go top down and are never held across anything that blocks.
//   - The work thread alone unlinks, under the write lock, holding no other. Therefore its own
//     walks need no lock while they go: a ring can only grow meanwhile.
#pragma once

#include <pthread.h>

#include <atomic>

#include "kyrno/annotate.h"
#include "kyrno/tree/gate.h"
#include "sys/linux/qlntypes.h"

class RPCOBJS;
class HIERAKI;
using PRPCOBJS = RPCOBJS*;
using PHIERAKI = HIERAKI*;

/// A walk's callback. A result other than null stops the walk and becomes its result.
using PFNH = PHIERAKI (*)(PHIERAKI node, void* p);

inline constexpr SI4 kMaxName = 32;        // characters of a name
inline constexpr SI4 kFullNameSize = 198;  // what callers give FullName, terminator not counted
inline constexpr CH1 MagicString[] = "Quillon0";

/// Readers/writer lock of one ring. A waiting writer goes ahead of new readers; no thread takes the
/// same lock twice.
class TSA(capability("shared_mutex")) CMutexRW {
 public:
  CMutexRW();
  ~CMutexRW() { pthread_rwlock_destroy(&lock); }
  CMutexRW(const CMutexRW&) = delete;
  CMutexRW& operator=(const CMutexRW&) = delete;

  void Lock_DataRead() TSA(acquire_shared_capability()) { pthread_rwlock_rdlock(&lock); }
  void Unlock_DataRead() TSA(release_shared_capability()) { pthread_rwlock_unlock(&lock); }
  void Lock_DataWrite() TSA(acquire_capability()) { pthread_rwlock_wrlock(&lock); }
  void Unlock_DataWrite() TSA(release_capability()) { pthread_rwlock_unlock(&lock); }

 private:
  pthread_rwlock_t lock;
};

/// A node.
///
/// Owner:   its parent's ring; the ring of roots for a root; the gate once it has been unlinked.
///          A node owns its children and its object.
/// Threads: see above; each operation says when it is different.
/// Errors:  a node whose Magic is damaged ends the process by an assertion: it is the library's own
///          fault, and the only alternative is to work on freed memory.
class HIERAKI : public RETIRED {
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
  /// Unlinks a child. It keeps its own pNext, so that a walk that stands on it goes on.
  void Unlink(PHIERAKI child);
  /// Makes h, a child, the last one of the ring: the next walk begins behind it. Does nothing when
  /// h is no child any more. The old last one is the result.
  PHIERAKI SetSub(PHIERAKI h);

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

  // --- the ring of roots: no parent, guarded by whoever owns the anchor. A null ring is empty.
  static PHIERAKI Add(PHIERAKI ring, PHIERAKI h);
  static PHIERAKI Find(PHIERAKI ring, PCH10 name);
  static PHIERAKI Remove(PHIERAKI ring, PHIERAKI h);

  /// After a fork: the child can't trust locks that other threads held. Unlocks the whole subtree.
  void ForkedChild();

  // Clean-up duty towards an ancestor of this type, done when the node is unlinked; guarded by that
  // ancestor's own lock.
  std::atomic<SI4> CleanUpCount{0};

 private:
  /// The oldest child, and the newest in *last; null without any.
  PHIERAKI Ends(PHIERAKI* last);
  bool IsNamed(PCH10 name, size_t len) const;
  PHIERAKI FindHeld(PCH10 name, size_t len) TSA(requires_shared_capability(lock));
  bool IsTaken(PCH10 name) TSA(requires_shared_capability(lock));
  void CheckMagic() const;

  CMutexRW lock;                           // guards the shape of the ring of children
  std::atomic<PHIERAKI> pNext{this};       // next sibling; shared, guarded by the parent's lock
  std::atomic<PHIERAKI> pSub{nullptr};     // last child; shared, written under the write lock
  std::atomic<PHIERAKI> pParent{nullptr};  // constant once linked
  std::atomic<PRPCOBJS> pObj;              // owned
  CH1 Name[kMaxName + 1];                  // constant, terminated
  CH1 Magic[9];
};
