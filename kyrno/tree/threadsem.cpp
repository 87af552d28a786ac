// threadsem.cpp - the pool of wait semaphores.
#include "kyrno/tree/threadsem.h"

#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/tree/hieraki.h"
#include "kyrno/tree/rpcobjs.h"

static constexpr UI4 MODULE = 0x00000100;

namespace {
constexpr time_t kOldSeconds = 300;
}  // namespace

WAITPOOL::~WAITPOOL() {
  MUTEXHOLD hold(Lock);
  while (pThreadList) {
    PTHREADSEM const next = pThreadList->pNext;
    delete pThreadList;
    pThreadList = next;
  }
}

PTHREADSEM WAITPOOL::FindFree() {
  for (PTHREADSEM t = pThreadList; t; t = t->pNext) {
    if (t->ThreadId != FREEID) continue;
    t->ThreadId = pthread_self();
    // Deliberate: the take is noted in the head, so all others fall due 300 s after their creation.
    pThreadList->LastUsed = time(nullptr);
    LOG(2,
        ("WAITSEM %p taken by %p ", static_cast<void*>(t), reinterpret_cast<void*>(t->ThreadId)));
    return t;
  }
  return nullptr;
}

PTHREADSEM WAITPOOL::Grow() {
  PTHREADSEM const added = new (std::nothrow) THREADSEM(pThreadList);
  if (!added) return nullptr;
  pThreadList = added;
  count.fetch_add(1, std::memory_order_relaxed);
  return added;
}

void WAITPOOL::Begin() {
  if (Count() > 0) return;
  MUTEXHOLD hold(Lock);
  if (!pThreadList) Grow();
}

bool WAITPOOL::WakeNearest(HIERAKI* node) {
  bool found;
  {
    MUTEXHOLD hold(Lock);
    found = NoteFrom(node, 1);
  }
  Post();
  return found;
}

void WAITPOOL::Note(HIERAKI* node) {
  if (IsEmpty()) return;
  MUTEXHOLD hold(Lock);
  NoteFrom(node, 1);
}

bool WAITPOOL::NoteFrom(HIERAKI* node, SI4 wakeUps) {
  for (HIERAKI* n = node; n; n = n->Parent()) {
    PTHREADSEM const entry = n->pWaiting.load(std::memory_order_relaxed);
    if (!entry) continue;
    NoteEntry(entry, wakeUps);
    return true;
  }
  return false;
}

void WAITPOOL::NoteEntry(PTHREADSEM entry, SI4 wakeUps) {
  entry->Due += wakeUps;
  if (entry->IsNoted) return;
  entry->IsNoted = true;
  entry->pNoted = pNotedList;
  pNotedList = entry;
  noted.store(true, std::memory_order_release);
}

void WAITPOOL::Post() {
  while (noted.load(std::memory_order_acquire)) {
    PTHREADSEM entry;
    SI4 n;
    {
      MUTEXHOLD hold(Lock);
      entry = pNotedList;
      if (!entry) return;
      pNotedList = entry->pNoted;
      if (!pNotedList) noted.store(false, std::memory_order_release);
      entry->IsNoted = false;
      n = (entry->Due < entry->Users ? entry->Due : entry->Users) - entry->Released;
      if (n > 0) entry->Released += n;
      if (n > 0) ++entry->Pins;
    }
    if (n <= 0) continue;
    // Outside the lock: whoever wakes needs it next.
    entry->Sem.release(static_cast<UI4>(n));
    MUTEXHOLD hold(Lock);
    --entry->Pins;
  }
}

void WAITPOOL::Detach(HIERAKI* node) {
  // Nobody can find the node any more: who has not registered by now does not wait on it.
  if (!node->pWaiting.load(std::memory_order_relaxed)) return;
  {
    MUTEXHOLD hold(Lock);
    PTHREADSEM const entry = node->pWaiting.load(std::memory_order_relaxed);
    if (!entry) return;
    node->pWaiting.store(nullptr, std::memory_order_relaxed);
    entry->pNode = nullptr;
    NoteEntry(entry, entry->Users);
  }
  Post();
}

void WAITPOOL::WakeAll() {
  {
    MUTEXHOLD hold(Lock);
    for (PTHREADSEM t = pThreadList; t; t = t->pNext)
      if (t->Users > 0) NoteEntry(t, t->Users);
  }
  Post();
}

void WAITPOOL::RemoveOld() {
  const time_t now = time(nullptr);
  MUTEXHOLD hold(Lock);
  if (!pThreadList) return;
  for (PTHREADSEM p = pThreadList; p->pNext;) {
    PTHREADSEM const n = p->pNext;
    if (now > n->LastUsed + kOldSeconds && n->ThreadId == FREEID && n->Pins == 0 && !n->IsNoted) {
      p->pNext = n->pNext;
      delete n;
      count.fetch_sub(1, std::memory_order_relaxed);
    } else {
      p = n;
    }
  }
}

void WAITPOOL::ForkedChild() {
  // The threads that held the lock or an entry did not come along.
  new (&Lock) MUTEX;
  MUTEXHOLD hold(Lock);
  pNotedList = nullptr;
  noted.store(false, std::memory_order_relaxed);
  registered.store(0, std::memory_order_relaxed);
  for (PTHREADSEM t = pThreadList; t; t = t->pNext) {
    if (t->pNode) t->pNode->pWaiting.store(nullptr, std::memory_order_relaxed);
    t->pNode = nullptr;
    t->ThreadId = FREEID;
    t->Users = t->Due = t->Released = t->Pins = 0;
    t->IsNoted = false;
  }
}

SI4 WAITER::AplWaitInit(HIERAKI* node) {
  {
    MUTEXHOLD hold(pool.Lock);
    if (pEntry && pEntry->pNode == node) {
      if (released) {
        // What woke this thread has gone to another one.
        released = false;
        pEntry->Use();
      }
      return 0;
    }
  }
  AplWaitClear();

  MUTEXHOLD hold(pool.Lock);
  PTHREADSEM entry = node->pWaiting.load(std::memory_order_relaxed);
  if (!entry) {
    entry = pool.FindFree();
    if (!entry && pool.Grow()) entry = pool.FindFree();
    if (!entry) return ERR_THREAD_NOT_FOUND;
    entry->Due = 0;
  }
  node->pWaiting.store(entry, std::memory_order_relaxed);
  entry->pNode = node;
  ++entry->Users;
  pool.registered.fetch_add(1, std::memory_order_relaxed);
  pEntry = entry;
  return 0;
}

SI4 WAITER::AplWait(UI4 milliseconds) {
  switch (pEntry->Sem.wait(milliseconds)) {
    case SemReleased:
      released = true;
      return 0;
    case SemTimeout:
      return TIMEOUT;
    default:
      return ERR_WAIT_SEM;
  }
}

void WAITER::AplWaitClear() {
  if (!pEntry) return;
  {
    MUTEXHOLD hold(pool.Lock);
    if (released) pEntry->Use();
    pool.registered.fetch_sub(1, std::memory_order_relaxed);
    if (--pEntry->Users == 0) {
      while (pEntry->Sem.wait(0) == SemReleased) {
      }
      const SI4 unused = pEntry->Due;
      pEntry->Due = pEntry->Released = 0;
      HIERAKI* const node = pEntry->pNode;
      pEntry->pNode = nullptr;
      pEntry->ThreadId = FREEID;
      LOG(2, ("WAITSEM %p return by %p ", static_cast<void*>(pEntry),
              reinterpret_cast<void*>(pthread_self())));
      // Under the lock, because a parked thread is outside the gate: a node that still is
      // somebody's to wait on has not been retired.
      if (node) node->pWaiting.store(nullptr, std::memory_order_relaxed);
      if (node && unused > 0) pool.NoteFrom(node, unused);
    }
  }
  pEntry = nullptr;
  released = false;
  pool.Post();
}
