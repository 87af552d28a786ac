// forkmark.cpp - a number in a page that a fork wipes.
#include "sys/linux/forkmark.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace {

constexpr size_t kPageBytes = 4096;

// Counts in each process on from where its parent stood at the fork, so that no mark of an ancestor
// comes again. Tally.
constinit std::atomic<UI4> last{0};
// Stands for the page where the system has none: a process must not change its kind of mark.
constinit std::atomic<UI4> noPage{0};

void* NewPage() {
  void* const page =
      mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  if (madvise(page, kPageBytes, MADV_WIPEONFORK) == 0) return page;
  munmap(page, kPageBytes);
  return nullptr;
}

}  // namespace

constinit std::atomic<FORKMARK::MARK*> FORKMARK::page{nullptr};

// The page stays for the life of the process: whoever asks holds no lock.
UI4 FORKMARK::Make() {
  static_assert(MARK::is_always_lock_free, "zeroes must be a mark of 0 and nothing else");
  MARK* at = page.load(std::memory_order_acquire);
  if (!at) {
    void* const made = NewPage();
    MARK* const mine = made ? new (made) MARK(0) : &noPage;
    if (page.compare_exchange_strong(at, mine, std::memory_order_acq_rel)) {
      at = mine;
    } else if (made) {
      munmap(made, kPageBytes);
    }
  }
  if (at == &noPage) return static_cast<UI4>(getpid());

  UI4 mark = 0;
  const UI4 fresh = last.fetch_add(1, std::memory_order_relaxed) + 1;
  return at->compare_exchange_strong(mark, fresh, std::memory_order_relaxed) ? fresh : mark;
}
