// buffer.cpp - the byte container.
#include "kyrno/net/buffer.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "kyrno/base/error.h"
#include "util/base64.h"
#include "util/blockstore.h"

namespace {

// The letters of ASCII only: what matches must not depend on the interpreter's locale.
constexpr UI1 Fold(CH1 c) {
  const UI1 byte = static_cast<UI1>(c);
  return byte >= 'a' && byte <= 'z' ? static_cast<UI1>(byte - 'a' + 'A') : byte;
}

bool Equal(PCH10 a, PCH10 b, size_t n, bool ignoreCase) {
  if (!ignoreCase) return memcmp(a, b, n) == 0;
  return std::equal(a, a + n, b, [](CH1 x, CH1 y) { return Fold(x) == Fold(y); });
}

// The first occurrence of n >= 1 bytes between at and end, or null.
PCH10 Search(PCH10 at, PCH10 end, PCH10 text, size_t n, bool ignoreCase) {
  const size_t left = static_cast<size_t>(end - at);
  if (left < n) return nullptr;
  if (!ignoreCase) return static_cast<PCH10>(memmem(at, left, text, n));

  for (const PCH10 last = end - n; at <= last; ++at) {
    if (Equal(at, text, n, true)) return at;
  }
  return nullptr;
}

// The bytes that the items of a list begin with, to step over those which cannot start a match.
class FIRSTBYTES {
 public:
  FIRSTBYTES(const LIST* list, bool ignoreCase) {
    for (SI4 i = 0; i < list->Count; ++i) {
      const ITEM* item = list->items[i];
      if (!item || item->len < 0) continue;
      if (item->len == 0) {
        everywhere = true;
        continue;
      }
      const CH1 c = item->pc[0];
      Mark(static_cast<UI1>(c));
      if (!ignoreCase) continue;
      Mark(Fold(c));
      if (Fold(c) >= 'A' && Fold(c) <= 'Z') Mark(static_cast<UI1>(Fold(c) - 'A' + 'a'));
    }
  }

  // The next start worth a try from `at` on; `end` when there is none.
  size_t Next(PCH10 bytes, size_t at, size_t end) const {
    if (everywhere) return at;
    if (distinct == 1) {
      const void* hit = memchr(bytes + at, only, end - at);
      return hit ? static_cast<size_t>(static_cast<PCH10>(hit) - bytes) : end;
    }
    while (at < end && !starts[static_cast<UI1>(bytes[at])]) ++at;
    return at;
  }

 private:
  void Mark(UI1 byte) {
    if (starts[byte]) return;
    starts[byte] = true;
    only = byte;
    ++distinct;
  }

  bool starts[256] = {};
  bool everywhere = false;  // an empty item matches at any start
  SI4 distinct = 0;
  UI1 only = 0;
};

}  // namespace

BUFFER::BUFFER(UI4 size) : BUFFER(LAZY, 0) { Resize(size); }

BUFFER::BUFFER(LAZYTAG, UI4 size)
    : Size(size), Blksize(BufferBlkSize.load(std::memory_order_relaxed)) {}

BUFFER::BUFFER(const BLOCKPLACE& where, UI4 size) : BUFFER(LAZY, std::min(where.lead, size)) {
  place = where;
  place.lead = TotalSize();
  Rewind();
  Resize(size);
}

BUFFER::BUFFER(UI4 size, PCH10 data) : BUFFER(data ? size : 0) {
  if (lError || !data || size == 0) return;
  lError = Reserve(size);
  if (lError) {
    SetSize(0);
    return;
  }
  memcpy(pBuf, data, size);
}

BUFFER::~BUFFER() {
  if (!onePiece) BlockFree(pBuf);
}

PBUFFER BUFFER::NewWhole(UI4 n) {
  if (n > kPoolPieceBytes - sizeof(BUFFER)) {
    std::unique_ptr<BUFFER> large(new (std::nothrow) BUFFER(n));
    return !large || large->lError || large->Reserve(n) ? nullptr : large.release();
  }
  PVOID const piece = PoolAlloc(sizeof(BUFFER) + n);
  if (!piece) return nullptr;
  PBUFFER const whole = new (piece) BUFFER(LAZY, n);
  whole->pBuf = reinterpret_cast<PCH1>(whole + 1);
  whole->onePiece = true;
  whole->held = whole->written = n;
  return whole;
}

BOOL BUFFER::NextProcessed(UI4 n) {
  const UI4 at = SizeProcessed();
  const UI4 there = InMemory();
  SetOffset(at + std::min(n, there > at ? there - at : 0));
  written = std::max(written, SizeProcessed());
  return Complete();
}

SI4 BUFFER::Room(PCH1* at, PUI4 n) {
  const bool grows = Remaining() > 0 && SizeProcessed() >= InMemory();
  const SI4 error = grows && !Hold(SizeProcessed() + 1) ? ERR_MEMORY_ALLOC : 0;
  *at = Next();
  *n = InMemory() > SizeProcessed() ? InMemory() - SizeProcessed() : 0;
  return error;
}

SI4 BUFFER::Reserve(UI4 n) {
  if (n > TotalSize()) return ERR_LENGTH;
  if (!Hold(n)) return ERR_MEMORY_ALLOC;
  written = std::max(written, n);
  return 0;
}

UI4 BUFFER::NextSize() const {
  const UI4 there = InMemory();
  return there > SizeProcessed() ? std::min(there - SizeProcessed(), Blksize) : 0;
}

UI4 BUFFER::Gather(iovec* pieces, size_t most) {
  const UI4 there = InMemory();
  const size_t left = there > SizeProcessed() ? there - SizeProcessed() : 0;
  *pieces = {Next(), std::min(left, most)};
  return 1;
}

UI4 BUFFER::Remaining() const {
  // A Resize may have left the position behind the end.
  return TotalSize() > SizeProcessed() ? TotalSize() - SizeProcessed() : 0;
}

PCH1 BUFFER::ReleaseBlock() {
  if (!Complete() || onePiece) return nullptr;
  held = 0;
  return std::exchange(pBuf, nullptr);
}

BOOL BUFFER::AppendP(PCH10 data, UI4 n) {
  n = std::min(n, Remaining());
  if (n == 0) return Complete();
  if (!Hold(SizeProcessed() + n)) {
    lError = ERR_MEMORY_ALLOC;
    return false;
  }
  memcpy(Next(), data, n);
  return BUFFER::NextProcessed(n);
}

SI4 BUFFER::FindStop(const LIST* list, bool ignoreCase, PITEM* found, UI4 from) const {
  const size_t end = SizeProcessed();
  if (!list || list->Count < 1 || end == 0) return -1;

  const FIRSTBYTES first(list, ignoreCase);
  for (size_t at = from; at <= end; ++at) {
    at = first.Next(pBuf, at, end);
    for (SI4 i = 0; i < list->Count; ++i) {
      const PITEM item = list->items[i];
      if (!item || item->len < 0 || static_cast<size_t>(item->len) > end - at) continue;
      const size_t len = static_cast<size_t>(item->len);
      if (!Equal(pBuf + at, item->pc, len, ignoreCase)) continue;
      if (found) *found = item;
      return static_cast<SI4>(at + len);
    }
  }
  return -1;
}

UI4 BUFFER::SearchedTo(const LIST* list) const {
  SI4 longest = 1;
  for (SI4 i = 0; list && i < list->Count; ++i) {
    if (list->items[i]) longest = std::max(longest, list->items[i]->len);
  }
  const UI4 tail = static_cast<UI4>(longest) - 1;
  return SizeProcessed() > tail ? SizeProcessed() - tail : 0;
}

SI4 BUFFER::FindStop1(const LIST* list, bool, PITEM* found) const {
  if (!list || !pBuf || Remaining() == 0) return -1;
  // Deliberate: starts run from the position on, but an item fits only in front of it, so that none
  // with bytes in it ever does. What decodes chunk extensions relies on finding none.
  for (SI4 i = 0; i < list->Count; ++i) {
    if (!list->items[i] || list->items[i]->len != 0) continue;
    if (found) *found = list->items[i];
    return 0;
  }
  return -1;
}

SI4 BUFFER::FindAsc(PCH10 text, bool after, bool ignoreCase) const {
  const size_t len = text ? strlen(text) : 0;
  if (len == 0 || len > SizeProcessed()) return -1;

  const PCH10 end = pBuf + SizeProcessed();
  const bool opens = !after && Equal(pBuf, text, len, ignoreCase);
  const PCH10 hit = Search(opens ? pBuf + len : pBuf, end, text, len, ignoreCase);
  return hit ? static_cast<SI4>(hit - pBuf + static_cast<ptrdiff_t>(after ? len : 0)) : -1;
}

SI4 BUFFER::FindBin1(PCH10 bytes, SI4 len, bool after) const {
  if (!bytes || len <= 0 || InMemory() <= SizeProcessed()) return -1;

  const PCH10 at = pBuf + SizeProcessed();
  const PCH10 hit = Search(at, pBuf + InMemory(), bytes, static_cast<size_t>(len), false);
  return hit ? static_cast<SI4>(hit - at) + (after ? len : 0) : -1;
}

UI4 BUFFER::Resize(UI4 size) {
  const UI4 before = TotalSize();
  SetSize(size);
  if (!Hold(place.lead + std::min(size - place.lead, kEagerBytes))) {
    lError = ERR_MEMORY_ALLOC;
    SetSize(before);
  }
  return TotalSize();
}

void BUFFER::Drop(UI4 n) {
  if (n < written) memmove(pBuf, pBuf + n, written - n);
  written -= std::min(n, written);
  SetOffset(SizeProcessed() - std::min(n, SizeProcessed()));
}

PBUFFER BUFFER::Take(UI4 n, UI4 from) const {
  from = std::min(from, InMemory());
  n = std::min(n, InMemory() - from);
  const PBUFFER taken = new (std::nothrow) BUFFER(n, pBuf + from);
  if (!taken) return nullptr;
  if (taken->lError) {
    delete taken;
    return nullptr;
  }
  taken->SetOffset(n);
  return taken;
}

void BUFFER::Mask(const UI1* key, UI4 keyLength) {
  if (keyLength == 0) return;
  mask(pBuf, InMemory(), reinterpret_cast<PCH10>(key), keyLength);
}

UI4 BUFFER::InMemory() const {
  return static_cast<UI4>(std::min<size_t>(TotalSize(), size_t{place.lead} + held));
}

// Sees to memory for the first `need` bytes, which are at most Size. Growth doubles, so that a
// message of n bytes asks the system log n times.
bool BUFFER::Hold(UI4 need) {
  const size_t kept = need > place.lead ? need - place.lead : 0;
  if (pBuf && kept <= held) return true;
  const size_t size = TotalSize() - place.lead;
  const size_t around = size_t{place.front} + place.tail;
  size_t wanted = size <= kEagerBytes
                      ? size
                      : std::min(size, std::max<size_t>({kept, kEagerBytes, size_t{2} * held}));

  // A block for all of it that waits to be used again costs nothing, whatever a peer only claims.
  PVOID moved = pBuf || wanted == size ? nullptr : BlockStored(size + around);
  if (moved)
    wanted = size;
  else
    moved = BlockResize(onePiece ? nullptr : pBuf, wanted + around);
  if (!moved) return false;
  if (onePiece) memcpy(moved, pBuf, held);
  onePiece = false;
  pBuf = static_cast<PCH1>(moved);
  held = static_cast<UI4>(wanted);
  return true;
}
