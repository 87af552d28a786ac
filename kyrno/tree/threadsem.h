// threadsem.h - the pool of semaphores on which interpreter threads wait for an event.
//
//   WAITPOOL of a root:  head -> THREADSEM -> THREADSEM -> ...
//                                   ^ pWaiting of the object that is waited on
//
// Making a semaphore for every wait would be costly, so each root keeps its own, adds one when all
// are taken and prunes old ones. Several threads that wait on one object share one entry; each
// object that becomes ready releases it once.
#pragma once

#include <ctime>

#include "kyrno/base/mutex.h"
#include "sys/linux/qlnplat.h"

class HIERAKI;
class WAITPOOL;

inline constexpr TTHREADID FREEID = 0;

/// One entry of the pool.
///
/// Owner:   the WAITPOOL, whose lock guards all but the semaphore.
struct THREADSEM {
  explicit THREADSEM(THREADSEM* next) : pNext(next), LastUsed(time(nullptr)) {}
  THREADSEM(const THREADSEM&) = delete;
  THREADSEM& operator=(const THREADSEM&) = delete;

  THREADSEM* pNext;             // owned by the pool
  QLNSEMATO Sem{0, 1000};       // what the waiters sleep on
  TTHREADID ThreadId = FREEID;  // who took the entry; FREEID when it is free
  time_t LastUsed;              // of the head: the last take of any; of the others: their creation
  SI4 Users = 0;                // threads that share the entry now
  HIERAKI* pNode = nullptr;     // borrowed: whose object's pWaiting points here; null when gone
};
using PTHREADSEM = THREADSEM*;

/// Threads: any.
class WAITPOOL {
 public:
  WAITPOOL() = default;
  ~WAITPOOL();
  WAITPOOL(const WAITPOOL&) = delete;
  WAITPOOL& operator=(const WAITPOOL&) = delete;

  /// Wakes one thread of the nearest waiter on this node or above. False when nobody waits there.
  bool WakeNearest(HIERAKI* node);
  /// Wakes everybody who waits on this node, which can no longer be found. Afterwards nothing in
  /// the pool points to it.
  void Detach(HIERAKI* node);
  /// Wakes every waiter of the root.
  void WakeAll();

  /// Entries in the list, taken or free.
  SI4 Count();
  /// Frees entries that are older than 300 seconds and free, but never the head.
  void RemoveOld();

  /// After a fork: the child starts with an unlocked, empty pool.
  void ForkedChild();

 private:
  friend class WAITER;
  PTHREADSEM FindFree() TSA(requires_capability(Lock));
  bool WakeFrom(HIERAKI* node) TSA(requires_capability(Lock));

  MUTEX Lock;
  PTHREADSEM pThreadList GUARDED_BY(Lock) = nullptr;  // owned
};

/// One thread's wait for an event on an object.
///
/// Owner:   lives on the stack of the waiting thread, inside the gate except during AplWait.
class WAITER {
 public:
  explicit WAITER(WAITPOOL& p) : pool(p) {}
  /// Gives the entry back.
  ~WAITER() { AplWaitClear(); }
  WAITER(const WAITER&) = delete;
  WAITER& operator=(const WAITER&) = delete;

  /// Registers for `node`, giving up an earlier registration for another object: the next
  /// Ready4Apl at or below it will wake this thread. Comes before the search for a ready object.
  /// 0, or 1121 (ERR_THREAD_NOT_FOUND) when no entry can be had.
  [[nodiscard]] SI4 AplWaitInit(HIERAKI* node);
  /// Sleeps. 0 when released, 100 (TIMEOUT), 1122 (ERR_WAIT_SEM). Touches nothing but the
  /// semaphore: the caller may have left the gate, parked.
  [[nodiscard]] SI4 AplWait(UI4 milliseconds);
  /// Ends the registration. A release that was not used is passed on to the next waiter above.
  void AplWaitClear();

 private:
  WAITPOOL& pool;
  PTHREADSEM pEntry = nullptr;  // borrowed, from Init to Clear
};
