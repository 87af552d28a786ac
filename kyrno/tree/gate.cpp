// gate.cpp - the lifetime gate of a root.
#include "kyrno/tree/gate.h"

#include <new>

#include "kyrno/base/mutex.h"

namespace {
constinit MUTEX unusedLock;
constinit GATE* pUnused GUARDED_BY(unusedLock) = nullptr;  // owned
}  // namespace

GATE* GATE::Make() {
  GATE* gate;
  {
    MUTEXHOLD hold(unusedLock);
    gate = pUnused;
    if (gate) pUnused = gate->pNextUnused;
  }
  if (!gate) return new (std::nothrow) GATE;
  gate->refs.store(1, std::memory_order_relaxed);
  gate->closed.store(false, std::memory_order_seq_cst);
  return gate;
}

void GATE::Release() {
  if (refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  // Closed it stays until it is used again.
  Close();
  MUTEXHOLD hold(unusedLock);
  pNextUnused = pUnused;
  pUnused = this;
}

void GATE::FreeUnused() {
  MUTEXHOLD hold(unusedLock);
  while (GATE* const gate = pUnused) {
    pUnused = gate->pNextUnused;
    delete gate;
  }
}

void GATE::BeforeFork() TSA(no_thread_safety_analysis) { unusedLock.Lock(); }
void GATE::AfterFork() TSA(no_thread_safety_analysis) { unusedLock.Unlock(); }

bool GATE::Enter(UI4* ticket) {
  for (;;) {
    const UI4 now = epoch.load(std::memory_order_seq_cst);
    inside[now & 1].fetch_add(1, std::memory_order_seq_cst);
    // The look at `closed` comes after the count and Close comes before the wait for 0: whoever
    // gets past is waited for. The second look at `epoch` makes sure that the slot is the right
    // one.
    const bool shut = IsClosed();
    if (!shut && epoch.load(std::memory_order_seq_cst) == now) {
      *ticket = now;
      return true;
    }
    Leave(now);
    if (shut) return false;
  }
}

void GATE::Leave(UI4 ticket) {
  inside[ticket & 1].fetch_sub(1, std::memory_order_seq_cst);
  Left();
}

void GATE::Unpark() {
  parked.fetch_sub(1, std::memory_order_seq_cst);
  Left();
}

void GATE::Left() {
  if (!IsClosed()) return;
  pthread_mutex_lock(&emptyLock);
  pthread_cond_broadcast(&emptied);
  pthread_mutex_unlock(&emptyLock);
}

void GATE::WaitEmpty() {
  pthread_mutex_lock(&emptyLock);
  while (inside[0].load(std::memory_order_seq_cst) != 0 ||
         inside[1].load(std::memory_order_seq_cst) != 0 ||
         parked.load(std::memory_order_seq_cst) != 0)
    pthread_cond_wait(&emptied, &emptyLock);
  pthread_mutex_unlock(&emptyLock);
}

void GATE::Retire(RETIRED* object) {
  object->pNextRetired = current;
  current = object;
}

bool GATE::Collect(void (*forget)(void*), void* p) {
  // Twice at most: with nobody inside, what was retired a moment ago goes at once.
  for (int i = 0; i < 2 && (limbo || current); ++i) {
    const UI4 now = epoch.load(std::memory_order_relaxed);
    if (inside[(now - 1) & 1].load(std::memory_order_seq_cst) != 0) break;
    if (limbo && forget) forget(p);
    limbo = Free(limbo);
    limbo = current;
    current = nullptr;
    epoch.store(now + 1, std::memory_order_seq_cst);
  }
  return limbo || current;
}

UI4 GATE::Advance() {
  const UI4 now = epoch.load(std::memory_order_relaxed);
  if (!limbo && !current && inside[(now - 1) & 1].load(std::memory_order_seq_cst) == 0)
    epoch.store(now + 1, std::memory_order_seq_cst);
  return now;
}

void GATE::FreeAll() {
  limbo = Free(limbo);
  current = Free(current);
}

RETIRED* GATE::Free(RETIRED* list) {
  while (list) {
    RETIRED* const next = list->pNextRetired;
    delete list;
    list = next;
  }
  return nullptr;
}
