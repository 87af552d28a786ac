// touched.cpp - the list of touched nodes.
#include "kyrno/tree/touched.h"

#include "kyrno/tree/hieraki.h"

bool TOUCHLIST::Add(HIERAKI* node) {
  if (node->Touched.on.exchange(true, std::memory_order_seq_cst)) return false;
  HIERAKI* before = last.load(std::memory_order_relaxed);
  do {
    node->Touched.pNext = before;
  } while (!last.compare_exchange_weak(before, node, std::memory_order_seq_cst,
                                       std::memory_order_relaxed));
  return true;
}

HIERAKI* TOUCHLIST::TakeAll() {
  HIERAKI* node = last.exchange(nullptr, std::memory_order_seq_cst);
  HIERAKI* first = nullptr;
  while (node) {
    HIERAKI* const next = node->Touched.pNext;
    node->Touched.pNext = first;
    first = node;
    node = next;
  }
  return first;
}

void TOUCHLIST::Unmark(HIERAKI* node) {
  node->Touched.pNext = nullptr;
  // An exchange: what was changed before a touch that found the mark still set is seen from here
  // on.
  node->Touched.on.exchange(false, std::memory_order_seq_cst);
}
