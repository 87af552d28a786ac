// mutex.h - the lock of the library, known to the thread-safety analysis, and its guard.
//
// No lock is held while a thread sleeps, polls, makes a system call that can block, or runs a
// callback. What is done under one takes less than a microsecond as a rule, so it is made to cost
// little when nobody else wants it: a message passes a dozen of them.
#pragma once

#include <mutex>

#include "kyrno/annotate.h"
#include "sys/linux/futex.h"

#if defined(__SANITIZE_THREAD__)
#define KYRNO_CHECKED_LOCKS
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KYRNO_CHECKED_LOCKS
#endif
#endif

#ifdef KYRNO_CHECKED_LOCKS
/// ThreadSanitizer knows the order of these and tells of an inversion.
using PLAINLOCK = std::mutex;
#else
/// A word: free, held, or held with others asleep.
class PLAINLOCK {
 public:
  constexpr PLAINLOCK() = default;

  void lock() {
    UI4 expected = Free;
    if (word.compare_exchange_strong(expected, Held, std::memory_order_acquire)) return;
    while (word.exchange(Wanted, std::memory_order_acquire) != Free) FutexWait(&word, Wanted);
  }
  void unlock() {
    if (word.exchange(Free, std::memory_order_release) == Wanted) FutexWake(&word, 1);
  }

 private:
  enum WORD : UI4 { Free, Held, Wanted };
  std::atomic<UI4> word{Free};
};
#endif

class TSA(capability("mutex")) MUTEX {
 public:
  constexpr MUTEX() = default;
  MUTEX(const MUTEX&) = delete;
  MUTEX& operator=(const MUTEX&) = delete;

  void Lock() TSA(acquire_capability()) { m.lock(); }
  void Unlock() TSA(release_capability()) { m.unlock(); }

 private:
  PLAINLOCK m;
};

/// Holds a MUTEX from its declaration to the end of the block.
class TSA(scoped_lockable) MUTEXHOLD {
 public:
  explicit MUTEXHOLD(MUTEX& lock) TSA(acquire_capability(lock)) : held(lock) { held.Lock(); }
  ~MUTEXHOLD() TSA(release_capability()) { held.Unlock(); }
  MUTEXHOLD(const MUTEXHOLD&) = delete;
  MUTEXHOLD& operator=(const MUTEXHOLD&) = delete;

 private:
  MUTEX& held;
};
