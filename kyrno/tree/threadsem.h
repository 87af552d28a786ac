// threadsem.h - the pool of semaphores on which interpreter threads wait for an event.
//
//   WAITPOOL of a root:  head -> THREADSEM -> THREADSEM -> ...
//                                   ^ pWaiting of the node that is waited on
//
// Making a semaphore for every wait would be costly, so each root keeps its own, adds one when all
// are taken and prunes old ones. Several threads that wait on one node share one entry. Each object
// that becomes ready is worth one wake-up; an entry gets no more of them at a time than it has
// threads, and what they do not use goes on to the next waiter above.
#pragma once

#include <atomic>
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
  /// A thread has been released. A release that came late for the one before may count too much.
  void Use() {
    if (Released > 0) --Released;
    if (Due > 0) --Due;
  }
  THREADSEM(const THREADSEM&) = delete;
  THREADSEM& operator=(const THREADSEM&) = delete;

  THREADSEM* pNext;             // owned by the pool
  QLNSEMATO Sem{0, 1000};       // what the waiters sleep on
  TTHREADID ThreadId = FREEID;  // who took the entry; FREEID when it is free
  time_t LastUsed;              // of the head: the last take of any; of the others: their creation
  SI4 Users = 0;                // threads that share the entry now
  SI4 Due = 0;                  // wake-ups for them that none has used yet
  SI4 Released = 0;             // those of them that the semaphore has been told
  SI4 Pins = 0;                 // threads that are about to release the semaphore
  bool IsNoted = false;         // it is on the list of Note
  THREADSEM* pNoted = nullptr;  // next on that list
  HIERAKI* pNode = nullptr;     // borrowed: whose pWaiting points here; null when gone
};
using PTHREADSEM = THREADSEM*;

/// Threads: any.
class WAITPOOL {
 public:
  WAITPOOL() = default;
  ~WAITPOOL();
  WAITPOOL(const WAITPOOL&) = delete;
  WAITPOOL& operator=(const WAITPOOL&) = delete;

  /// Nobody waits in this root. Who registers from now on finds by its own search what became ready
  /// before this was asked.
  bool IsEmpty() const { return registered.load(std::memory_order_relaxed) == 0; }

  /// Wakes one thread of the nearest waiter on this node or above. False when nobody waits there.
  bool WakeNearest(HIERAKI* node);
  /// The same, but nobody wakes before Post: a thread that wakes while the caller still has the
  /// work thread's role could only wait for it.
  void Note(HIERAKI* node);
  void Post();
  /// Wakes everybody who waits on this node, which can no longer be found. Afterwards nothing in
  /// the pool points to it.
  void Detach(HIERAKI* node);
  /// Wakes every waiter of the root.
  void WakeAll();

  /// Entries in the list, taken or free.
  SI4 Count() const { return count.load(std::memory_order_relaxed); }
  /// The first wait of a root makes an entry, whether it sleeps or not: listings show the number.
  void Begin();
  /// Frees entries that are older than 300 seconds and free, but never the head.
  void RemoveOld();

  /// After a fork: the child starts with an unlocked, empty pool.
  void ForkedChild();

 private:
  friend class WAITER;
  PTHREADSEM FindFree() TSA(requires_capability(Lock));
  PTHREADSEM Grow() TSA(requires_capability(Lock));
  bool NoteFrom(HIERAKI* node, SI4 wakeUps) TSA(requires_capability(Lock));
  void NoteEntry(PTHREADSEM entry, SI4 wakeUps) TSA(requires_capability(Lock));

  MUTEX Lock;
  PTHREADSEM pThreadList GUARDED_BY(Lock) = nullptr;  // owned
  PTHREADSEM pNotedList GUARDED_BY(Lock) = nullptr;   // borrowed
  std::atomic<bool> noted{false};                     // hand-over: the list is not empty
  std::atomic<SI4> count{0};                          // tally
  std::atomic<SI4> registered{0};                     // threads, written under Lock
};

/// One thread's wait for an event on a node.
///
/// Owner:   lives on the stack of the waiting thread, inside the gate except during AplWait.
class WAITER {
 public:
  explicit WAITER(WAITPOOL& p) : pool(p) {}
  /// Gives the entry back.
  ~WAITER() { AplWaitClear(); }
  WAITER(const WAITER&) = delete;
  WAITER& operator=(const WAITER&) = delete;

  /// Registers for `node`, giving up an earlier registration for another one: the next Ready4Apl at
  /// or below it will wake this thread. A search for a ready object has to follow.
  /// 0, or 1121 (ERR_THREAD_NOT_FOUND) when no entry can be had.
  [[nodiscard]] SI4 AplWaitInit(HIERAKI* node);
  /// Sleeps. 0 when released, 100 (TIMEOUT), 1122 (ERR_WAIT_SEM). Touches nothing but the
  /// semaphore: the caller may have left the gate, parked.
  [[nodiscard]] SI4 AplWait(UI4 milliseconds);
  /// Ends the registration. Wake-ups that were not used are passed on to the next waiter above.
  void AplWaitClear();

 private:
  WAITPOOL& pool;
  PTHREADSEM pEntry = nullptr;  // borrowed, from Init to Clear
  bool released = false;        // the sleep ended by a wake-up that has not been counted yet
};
