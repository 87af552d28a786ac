// workrole.cpp - the work thread's role.
#include "kyrno/tree/workrole.h"

#include "sys/linux/futex.h"

bool WORKROLE::TryTake() TSA(no_thread_safety_analysis) {
  UI4 expected = Free;
  return word.compare_exchange_strong(expected, Held, std::memory_order_seq_cst,
                                      std::memory_order_seq_cst);
}

void WORKROLE::Take() TSA(no_thread_safety_analysis) {
  if (TryTake()) return;
  // From here on the word says Wanted while this thread waits or has the role: nobody else gets it,
  // and Give wakes.
  while (word.exchange(Wanted, std::memory_order_seq_cst) != Free) FutexWait(&word, Wanted);
}

void WORKROLE::Give() TSA(no_thread_safety_analysis) {
  if (word.exchange(Free, std::memory_order_seq_cst) == Wanted) FutexWake(&word, 1);
}
