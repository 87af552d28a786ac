// sharedmutex.h - a readers/writer lock in one word, for the rings of the tree: every node has one.
//
//   word:  readers | kWriter while one writes | kWaiting while one wants to
//
// A waiting writer goes ahead of new readers, so that a crowd of pollers does not keep a thread
// from adding a node. No thread takes the same lock twice.
#pragma once

#include "kyrno/annotate.h"
#include "sys/linux/futex.h"

class TSA(capability("shared_mutex")) CMutexRW {
 public:
  CMutexRW() = default;
  CMutexRW(const CMutexRW&) = delete;
  CMutexRW& operator=(const CMutexRW&) = delete;

  void Lock_DataRead() TSA(acquire_shared_capability()) TSA(no_thread_safety_analysis) {
    for (;;) {
      UI4 now = word.load(std::memory_order_relaxed);
      if (now & (kWriter | kWaiting))
        Sleep(now);
      else if (word.compare_exchange_weak(now, now + 1, std::memory_order_seq_cst))
        return;
    }
  }
  void Unlock_DataRead() TSA(release_shared_capability()) TSA(no_thread_safety_analysis) {
    if ((word.fetch_sub(1, std::memory_order_seq_cst) & kReaders) == 1) WakeSleepers();
  }
  void Lock_DataWrite() TSA(acquire_capability()) TSA(no_thread_safety_analysis) {
    for (;;) {
      UI4 now = word.load(std::memory_order_relaxed);
      if ((now & (kWriter | kReaders)) == 0) {
        if (word.compare_exchange_weak(now, kWriter, std::memory_order_seq_cst)) return;
      } else if (now & kWaiting ||
                 word.compare_exchange_weak(now, now | kWaiting, std::memory_order_seq_cst)) {
        Sleep(now | kWaiting);
      }
    }
  }
  void Unlock_DataWrite() TSA(release_capability()) TSA(no_thread_safety_analysis) {
    // With kWaiting, if another one wants to write.
    word.fetch_and(~kWriter, std::memory_order_seq_cst);
    WakeSleepers();
  }

 private:
  static constexpr UI4 kWriter = 1u << 31;
  static constexpr UI4 kWaiting = 1u << 30;
  static constexpr UI4 kReaders = kWaiting - 1;

  // A sleeper counts itself first and the kernel then compares the word; who unlocks changes the
  // word first and then looks at the count: one of the two sees the other.
  void Sleep(UI4 value) {
    sleepers.fetch_add(1, std::memory_order_seq_cst);
    FutexWait(&word, value);
    sleepers.fetch_sub(1, std::memory_order_seq_cst);
  }
  void WakeSleepers() {
    if (sleepers.load(std::memory_order_seq_cst) != 0) FutexWake(&word);
  }

  std::atomic<UI4> word{0};
  std::atomic<UI4> sleepers{0};
};
