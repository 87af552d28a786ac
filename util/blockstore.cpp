// blockstore.cpp - a few slots for large blocks, without a lock.
//
// A slot's word is null, a block, or kFilling while a thread writes what is told of the block that
// it puts there. Who exchanges a block for null owns it; only then may its size be asked of malloc.
#include "util/blockstore.h"

#include <malloc.h>
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>

#include "util/pool.h"

namespace {

struct SLOT {
  std::atomic<PVOID> block{nullptr};  // hand-over, of the other two as well
  std::atomic<size_t> bytes{0};
  std::atomic<UI4> turn{0};  // in which it was put there
};

constinit SLOT slots[64];
constinit std::atomic<size_t> stored{0};  // tally: the bytes of all blocks
constinit std::atomic<UI4> turns{0};      // tally: the calls of BlockPurge

CH1 filling;
PVOID const kFilling = &filling;

PVOID Peek(const SLOT& slot) {
  const PVOID block = slot.block.load(std::memory_order_acquire);
  return block == kFilling ? nullptr : block;
}

// Makes the block the caller's, unless another thread was faster.
bool Take(SLOT& slot, PVOID block) {
  if (!slot.block.compare_exchange_strong(block, nullptr, std::memory_order_acq_rel)) return false;
  const size_t bytes = malloc_usable_size(block);
  stored.fetch_sub(bytes, std::memory_order_relaxed);
  ASAN_UNPOISON_MEMORY_REGION(block, bytes);
  return true;
}

// False when there is no room.
bool Put(PVOID block, size_t bytes) {
  if (bytes > kBlockStoreBytes) return false;
  if (stored.fetch_add(bytes, std::memory_order_relaxed) <= kBlockStoreBytes - bytes) {
    for (SLOT& slot : slots) {
      PVOID empty = nullptr;
      if (!slot.block.compare_exchange_strong(empty, kFilling, std::memory_order_acquire)) continue;
      // Still told of by the address sanitizer when somebody goes on to use it.
      ASAN_POISON_MEMORY_REGION(block, bytes);
      slot.bytes.store(bytes, std::memory_order_relaxed);
      slot.turn.store(turns.load(std::memory_order_relaxed), std::memory_order_relaxed);
      slot.block.store(block, std::memory_order_release);
      return true;
    }
  }
  stored.fetch_sub(bytes, std::memory_order_relaxed);
  return false;
}

bool Fits(size_t bytes, size_t n) { return bytes >= n && bytes - n <= n / 4; }

// A block for n bytes, or null.
PVOID Find(size_t n) {
  for (SLOT& slot : slots) {
    const PVOID block = Peek(slot);
    if (!block || !Fits(slot.bytes.load(std::memory_order_relaxed), n)) continue;
    if (!Take(slot, block)) continue;
    if (Fits(malloc_usable_size(block), n)) return block;
    free(block);  // another one by now, at the address of the one that would have fitted
  }
  return nullptr;
}

}  // namespace

PVOID BlockAlloc(size_t n) {
  if (n >= kLargeBlockBytes) {
    if (const PVOID block = Find(n)) return block;
  }
  return PoolAlloc(n);
}

PVOID BlockStored(size_t n) { return n >= kLargeBlockBytes ? Find(n) : nullptr; }

PVOID BlockResize(PVOID block, size_t n) {
  // malloc moves the pages of a large block, not its bytes.
  return block ? realloc(block, std::max<size_t>(n, 1)) : BlockAlloc(n);
}

void BlockFree(PVOID block) {
  if (!block) return;
  const size_t bytes = malloc_usable_size(block);
  if (bytes < kLargeBlockBytes || !Put(block, bytes)) PoolFree(block);
}

void BlockPurge() {
  const UI4 now = turns.fetch_add(1, std::memory_order_relaxed) + 1;
  for (SLOT& slot : slots) {
    const PVOID block = Peek(slot);
    // Signed, as another thread may be a turn ahead.
    const SI4 waited = static_cast<SI4>(now - slot.turn.load(std::memory_order_relaxed));
    if (!block || waited < 2) continue;
    if (Take(slot, block)) free(block);
  }
}

bool BlockStoreIsEmpty() {
  return std::all_of(std::begin(slots), std::end(slots),
                     [](const SLOT& slot) { return Peek(slot) == nullptr; });
}
