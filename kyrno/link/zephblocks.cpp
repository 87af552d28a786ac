// zephblocks.cpp - blocks that have come and that the interpreter has not freed yet.
#include "kyrno/link/zephblocks.h"

#include <memory>
#include <new>

#include "util/blockstore.h"

namespace {

CH1 kNoBytes[1] = {0};

void Delete(ZEPHBLOCK* block) {
  BlockFree(block->block);
  delete block;
}

}  // namespace

PVOID ZEPHBLOCKS::NewNumber() {
  return reinterpret_cast<PVOID>(numbers.fetch_add(1, std::memory_order_relaxed) + 1);
}

PVOID ZEPHBLOCKS::Put(PBUFFER buffer, UI4 size) {
  std::unique_ptr<ZEPHBLOCK> fresh(new (std::nothrow) ZEPHBLOCK{});
  if (!fresh) return nullptr;
  fresh->data = kNoBytes;
  if (size > 0) {
    PCH1 const data = buffer->Start();
    fresh->block = buffer->ReleaseBlock();
    if (!fresh->block) return nullptr;
    fresh->data = data;
    fresh->size = size;
  }
  fresh->number = NewNumber();
  ZEPHBLOCK* const block = fresh.release();
  MUTEXHOLD hold(Lock);
  (pFirst ? pLast->pNext : pFirst) = block;
  pLast = block;
  return block->number;
}

bool ZEPHBLOCKS::Find(PVOID number, PCH1* data, PUI4 size) {
  MUTEXHOLD hold(Lock);
  for (ZEPHBLOCK* b = pFirst; b; b = b->pNext) {
    if (b->number != number) continue;
    b->seen = true;
    *data = b->data;
    *size = b->size;
    return true;
  }
  return false;
}

/// Drops those for which `goes` is true, at most so many.
template <typename WHICH>
void ZEPHBLOCKS::DropSome(SI4 most, WHICH goes) {
  ZEPHBLOCK* dropped = nullptr;
  {
    MUTEXHOLD hold(Lock);
    ZEPHBLOCK* before = nullptr;
    for (ZEPHBLOCK* block = pFirst; block && most > 0;) {
      ZEPHBLOCK* const next = block->pNext;
      if (goes(*block)) {
        (before ? before->pNext : pFirst) = next;
        if (!next) pLast = before;
        block->pNext = dropped;
        dropped = block;
        --most;
      } else {
        before = block;
      }
      block = next;
    }
  }
  while (dropped) {
    ZEPHBLOCK* const next = dropped->pNext;
    Delete(dropped);
    dropped = next;
  }
}

void ZEPHBLOCKS::Drop(PVOID number) {
  DropSome(1, [number](const ZEPHBLOCK& block) { return block.number == number; });
}

void ZEPHBLOCKS::DropUnseen() {
  DropSome(INT32_MAX, [](const ZEPHBLOCK& block) { return !block.seen; });
}
