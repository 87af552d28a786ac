// forkmark.h - which process is this? Answered without a system call, also after a fork that ran no
// handlers: the number lies in a page that the kernel wipes in a forked child.
#pragma once

#include <atomic>

#include "sys/linux/qlntypes.h"

/// The mark of the running process. What belongs to one process remembers the mark under which it
/// was made; another mark now means that this is a forked child of that process.
///
/// Threads: any.
/// Errors:  none. Where the system has no such page, the mark is the process id, and asking for it
///          costs a system call.
class FORKMARK {
 public:
  /// Never 0, the same for the life of the process, and none that any of its ancestors had when it
  /// was forked.
  static UI4 Current() {
    if (const MARK* const at = page.load(std::memory_order_acquire)) {
      if (const UI4 mark = at->load(std::memory_order_relaxed)) return mark;
    }
    return Make();
  }

 private:
  using MARK = std::atomic<UI4>;
  static UI4 Make();

  static std::atomic<MARK*> page;  // hand-over; null before the first use
};
