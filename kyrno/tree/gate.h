// gate.h - the lifetime gate of a root: nobody meets freed memory.
//
//   interpreter thread          Enter ---- reads nodes, objects, buffers ---- Leave
//   work thread                       unlink node, Retire(node) ... Collect() frees it
//
// A node that has been unlinked can't be found any more, but a thread that found it before may
// still look at it. So the work thread retires it, and Collect frees it once everybody who was
// inside at that moment has left. Time is cut into epochs; a thread counts itself in the slot of
// the epoch in which it entered, and only two epochs have threads inside at any time:
//
//   slot of epoch e     : those who may have seen what was retired in e, and are still in
//   slot of epoch e - 1 : draining; when it is empty, all that was retired before e is free
//
// The gate outlives its root. A call that is inside keeps the root and so the gate; before it steps
// out to come back it takes a reference. What a thread still reads of a gate behind its last step
// out is memory of a gate for as long as the library is there: gates are used again, not freed.
#pragma once

#include <pthread.h>

#include <atomic>

#include "kyrno/annotate.h"
#include "sys/linux/qlntypes.h"

/// Something that waits to be freed.
///
/// Threads: linked and freed in the work thread's role, or by the unloading thread once that has
///          ended.
class RETIRED {
 public:
  virtual ~RETIRED() = default;
  RETIRED() = default;
  RETIRED(const RETIRED&) = delete;
  RETIRED& operator=(const RETIRED&) = delete;

 private:
  friend class GATE;
  RETIRED* pNextRetired = nullptr;  // owned by the gate's lists
};

/// Owner:   counted; Release gives one reference up.
/// Threads: Enter, Leave, Park, Unpark, AddRef, Release: any. Retire, Collect: the work thread's
///          role; whoever has it may be inside.
/// Errors:  none.
class GATE {
 public:
  /// One with one reference; null without memory.
  static GATE* Make();
  /// Frees the gates that wait to be used again: nobody uses the library any more.
  static void FreeUnused();
  /// A fork takes the lock of those that wait to be used again with it.
  static void BeforeFork();
  static void AfterFork();

  GATE() = default;
  GATE(const GATE&) = delete;
  GATE& operator=(const GATE&) = delete;

  void AddRef() { refs.fetch_add(1, std::memory_order_relaxed); }
  void Release();

  /// Counts the caller in. False when the gate is closed; otherwise *ticket is for Leave.
  [[nodiscard]] bool Enter(UI4* ticket);
  void Leave(UI4 ticket);

  /// A caller that sleeps on a semaphore of the root counts as parked instead: it touches no node,
  /// but the root's memory has to stay until it is through.
  void Park() { parked.fetch_add(1, std::memory_order_seq_cst); }
  void Unpark();

  /// Lets nobody in from now on. True for the one caller that closed it.
  bool Close() { return !closed.exchange(true, std::memory_order_seq_cst); }
  bool IsClosed() const { return closed.load(std::memory_order_seq_cst); }
  /// After Close: returns when nobody is inside or parked.
  void WaitEmpty();

  /// Takes an unlinked object over, to free it when nobody can look at it any more.
  void Retire(RETIRED* object) WORK_ONLY;
  /// Frees what may be freed. Before that, when nobody who could still point to it is inside,
  /// `forget` is called, to drop what points to unlinked nodes. True when something is left for a
  /// later call.
  bool Collect(void (*forget)(void*) = nullptr, void* p = nullptr) WORK_ONLY;
  /// Ends the present epoch if it can end and nothing is retired; answers its number.
  UI4 Advance() WORK_ONLY;
  bool HasRetired() const WORK_ONLY { return limbo || current; }
  /// Frees everything: nobody is inside and no work thread runs.
  void FreeAll();

 private:
  ~GATE() = default;
  void Left();
  static RETIRED* Free(RETIRED* list);

  GATE* pNextUnused = nullptr;  // owned by the list of those that wait to be used again
  std::atomic<UI4> refs{1};
  std::atomic<bool> closed{false};
  std::atomic<UI4> epoch{0};
  std::atomic<SI4> inside[2] = {0, 0};  // by the parity of the epoch of entry
  std::atomic<SI4> parked{0};
  RETIRED* limbo = nullptr;    // owned; retired in earlier epochs; work thread's role
  RETIRED* current = nullptr;  // owned; retired in this epoch; work thread's role

  // Only for the unloading thread, which sleeps here until the last one has left.
  pthread_mutex_t emptyLock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t emptied = PTHREAD_COND_INITIALIZER;
};
