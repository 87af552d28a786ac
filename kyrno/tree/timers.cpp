// timers.cpp - the heap of time limits.
//
// A pairing heap: `child` is the first of those below, which are linked through next and prev; none
// of them is earlier than the one above. Their order among each other means nothing.
#include "kyrno/tree/timers.h"

#include <cassert>
#include <utility>

void TIMERS::Set(TIMER* timer, F8 due) {
  assert(due > 0);
  Clear(timer);
  timer->due = due;
  top = Meld(top, timer);
}

void TIMERS::Clear(TIMER* timer) {
  if (!timer->IsSet()) return;
  TIMER* const below = MeldAll(timer->child);
  if (timer == top) {
    top = below;
  } else {
    TIMER* const before = timer->prev;
    (before->child == timer ? before->child : before->next) = timer->next;
    if (timer->next) timer->next->prev = before;
    top = Meld(top, below);
  }
  timer->due = 0;
  timer->child = timer->next = timer->prev = nullptr;
}

TIMER* TIMERS::PopDue(F8 now) {
  TIMER* const first = top;
  if (!first || first->due > now) return nullptr;
  Clear(first);
  return first;
}

TIMER* TIMERS::Meld(TIMER* a, TIMER* b) {
  if (!a || !b) return a ? a : b;
  if (b->due < a->due) std::swap(a, b);
  b->prev = a;
  b->next = a->child;
  if (b->next) b->next->prev = b;
  a->child = b;
  return a;
}

TIMER* TIMERS::MeldAll(TIMER* siblings) {
  // Pairs on the way there, and one heap on the way back: this is what keeps the heap flat.
  TIMER* pairs = nullptr;
  while (siblings) {
    TIMER* const a = siblings;
    TIMER* const b = a->next;
    siblings = b ? b->next : nullptr;
    a->next = a->prev = nullptr;
    if (b) b->next = b->prev = nullptr;
    TIMER* const pair = Meld(a, b);
    pair->next = pairs;
    pairs = pair;
  }
  TIMER* all = nullptr;
  while (pairs) {
    TIMER* const pair = pairs;
    pairs = pair->next;
    pair->next = nullptr;
    all = Meld(all, pair);
  }
  return all;
}
