// mutex.h - the lock of the library, known to the thread-safety analysis, and its guard.
//
// No lock is held while a thread sleeps, polls, makes a system call that can block, or runs a
// callback.
#pragma once

#include <mutex>

#include "kyrno/annotate.h"

class TSA(capability("mutex")) MUTEX {
 public:
  constexpr MUTEX() = default;
  MUTEX(const MUTEX&) = delete;
  MUTEX& operator=(const MUTEX&) = delete;

  void Lock() TSA(acquire_capability()) { m.lock(); }
  void Unlock() TSA(release_capability()) { m.unlock(); }

 private:
  std::mutex m;
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
