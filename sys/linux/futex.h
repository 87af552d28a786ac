// futex.h - sleeping on a word, for the locks of the library.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>

#include "sys/linux/qlntypes.h"

/// Sleeps while the word is `value`, until FutexWake; may come back early.
inline void FutexWait(std::atomic<UI4>* word, UI4 value) {
  syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}
inline void FutexWake(std::atomic<UI4>* word, int threads = INT_MAX) {
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, threads, nullptr, nullptr, 0);
}
