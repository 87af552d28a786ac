// pool.cpp - one list of free pieces for each size, under a lock that is only ever tried.
#include "util/pool.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>

namespace {

// Pool i has pieces of kStep * (i + 1) bytes less the word that malloc keeps with each of them.
constexpr size_t kStep = 64;
constexpr size_t kWord = sizeof(size_t);
constexpr size_t kPools = (kPoolPieceBytes + kWord) / kStep;
static_assert(kPools * kStep - kWord == kPoolPieceBytes);

struct PIECE {
  PIECE* next;
};

struct alignas(64) POOL {
  std::atomic<bool> busy{false};  // hand-over of what follows
  std::atomic<UI4> count{0};      // pieces in the list; a tally for those who are not in it
  UI4 unneeded = 0;               // the smallest count since the last purge
  PIECE* first = nullptr;         // owned

  bool TryEnter() {
    return !busy.load(std::memory_order_relaxed) && !busy.exchange(true, std::memory_order_acquire);
  }
  void Leave() { busy.store(false, std::memory_order_release); }
  UI4 Count() const { return count.load(std::memory_order_relaxed); }

  // Inside only, as all that follows. Null when the list is empty.
  PIECE* Take() {
    PIECE* const piece = first;
    if (!piece) return nullptr;
    first = piece->next;
    const UI4 left = Count() - 1;
    count.store(left, std::memory_order_relaxed);
    unneeded = std::min(unneeded, left);
    return piece;
  }
  void Put(PIECE* piece) {
    piece->next = first;
    first = piece;
    count.store(Count() + 1, std::memory_order_relaxed);
  }
  void Free(UI4 n) {
    for (; n > 0; --n) free(Take());
    unneeded = Count();
  }
};

constinit POOL pools[kPools];

UI4 MostOf(size_t pool) {
  return static_cast<UI4>(std::min<size_t>(kPoolPieces, kPoolBytes / (kStep * (pool + 1))));
}

// The library goes, or the process: what is freed from now on is left to malloc.
__attribute__((destructor)) void CloseAll() {
  for (POOL& pool : pools)
    if (pool.TryEnter()) pool.Free(pool.Count());
}

}  // namespace

PVOID PoolAlloc(size_t n) {
  if (!kPooled || n > kPoolPieceBytes) return malloc(std::max<size_t>(n, 1));
  const size_t i = (n + kWord - 1) / kStep;
  POOL& pool = pools[i];
  if (pool.Count() > 0 && pool.TryEnter()) {
    PVOID const piece = pool.Take();
    pool.Leave();
    if (piece) return piece;
  }
  return malloc(kStep * (i + 1) - kWord);
}

void PoolFree(PVOID piece) {
  if (!piece) return;
  // What malloc has given may be larger than asked for, and then belongs to a larger size.
  const size_t steps = kPooled ? (malloc_usable_size(piece) + kWord) / kStep : 0;
  if (steps > 0 && steps <= kPools) {
    POOL& pool = pools[steps - 1];
    if (pool.Count() < MostOf(steps - 1) && pool.TryEnter()) {
      const bool room = pool.Count() < MostOf(steps - 1);
      if (room) pool.Put(static_cast<PIECE*>(piece));
      pool.Leave();
      if (room) return;
    }
  }
  free(piece);
}

void PoolPurge() {
  for (POOL& pool : pools) {
    if (pool.Count() == 0 || !pool.TryEnter()) continue;
    pool.Free(pool.unneeded);
    pool.Leave();
  }
}

bool PoolsAreEmpty() {
  return std::all_of(std::begin(pools), std::end(pools),
                     [](const POOL& pool) { return pool.Count() == 0; });
}
