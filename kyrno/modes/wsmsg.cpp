// wsmsg.cpp - data frames on their way to the application.
#include "kyrno/modes/wsmsg.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "Apl/vaunicod.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/modes/connection.h"
#include "util/base64.h"

namespace {

// (data, Fin, Opcode): what stands around a vector of one-byte elements.
constexpr UI4 kInts = 2 * ZWRITER::kIntBytes;
constexpr UI4 kAround = ZWRITER::kNestedBytes + kInts;

/// The converters end at a zero: the bytes in front of the first one.
size_t UpToZero(const UI1* text, size_t n) {
  const void* const zero = n > 0 ? memchr(text, 0, n) : nullptr;
  return zero ? static_cast<size_t>(static_cast<const UI1*>(zero) - text) : n;
}

}  // namespace

BLOCKPLACE WSMSG::Place(UI4 n) {
  constexpr UI4 kFront = kZHead + ZWRITER::kNestedBytes;
  const UI4 front = kFront + ZWRITER::VectorBytes(VAC1, 0);
  const UI4 tail = VectorZTail(VAC1, n) + kInts;
  // At the very end of what a block can hold there is no room around it.
  if (n > UINT32_MAX - front - tail) return {0, 0, 0};
  return {0, front, tail};
}

WSMSG::WSMSG(PBUFFER buffer, OBJSTATE state, const WSHEAD& head, bool text, F8 now)
    : MESSAGE(buffer, state, now),
      Text(text),
      Fin(head.fin),
      Opcode(head.opcode),
      masked(head.masked),
      done(buffer->SizeProcessed()),
      size(buffer->TotalSize()) {
  memcpy(&Mask, head.mask, kMaskSize);
}

const UI1* WSMSG::MaskBuf(PHIERAKI item, PUI4 n) {
  const UI4 from = done;
  done = pBuf->SizeProcessed();
  *n = done - from;
  if (*n == 0) return nullptr;
  PCH1 const fresh = pBuf->Start() + from;
  if (masked && item->Parent()->Obj()->Type == TConnection) {
    mask(fresh, *n, reinterpret_cast<PCH10>(&Mask), kMaskSize);
    Mask = std::rotr(Mask, static_cast<int>(8 * (*n % kMaskSize)));
  }
  return reinterpret_cast<const UI1*>(fresh);
}

SI4 WSMSG::Continue(const WSHEAD& head, UI4 most) {
  memcpy(&Mask, head.mask, kMaskSize);
  const UI4 n = static_cast<UI4>(head.length);
  if (n == 0) return 0;
  // The memory doubles with what has come, so that a message in very many fragments is not copied
  // for each of them, and what is only claimed gets no more than in a single frame.
  const UI8 step = std::bit_ceil(UI8{size} + 1);
  pBuf->Resize(static_cast<UI4>(std::clamp<UI8>(step, UI8{size} + n, most)));
  if (pBuf->lError) return pBuf->lError;
  if (const SI4 code = pBuf->Reserve(size + 1)) return code;
  size += n;
  pBuf->Resize(size);
  return pBuf->lError;
}

bool WSMSG::Measure() {
  const UI1* at = Bytes();
  size_t left = size;
  size_t characters = 0;
  for (width = 1; left > 0;) {
    size_t n = UpToZero(at, left);
    UI1 widest = 1;
    const size_t found = utf8_lenStrict(at, n, &widest);
    if (found == static_cast<size_t>(-1)) return false;
    characters += found;
    width = std::max(width, widest);
    if (n < left) {
      ++characters;
      ++n;
    }
    at += n;
    left -= n;
  }
  count = static_cast<UI4>(characters);
  return true;
}

SI4 WSMSG::PutText(PCH1 to, VATYPES type) const {
  const UNICODETYPES units = type == VAC4 ? UCS4 : type == VAC2 ? UCS2 : isUnicode() ? UCS1 : C1AV;
  PUI1 const data = reinterpret_cast<PUI1>(to);
  const UI1* at = Bytes();
  UI4 left = size;
  size_t put = 0;  // characters
  for (;;) {
    const UI4 n = static_cast<UI4>(UpToZero(at, left));
    const UI4 room = static_cast<UI4>(count - put) * width;
    if (const SI4 code = ConvUnicode(units, data + put * width, room, UTF8, at, n, 0)) return code;
    if (n == left) return 0;
    UI1 widest;
    put += ToVAPL(at, n, UTF8, &widest);
    memset(data + put++ * width, 0, width);
    at += n + 1;
    left -= n + 1;
  }
}

SI4 WSMSG::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE*, PUI4* ppZ) {
  *ppZ = nullptr;
  Describe(item, objname, event);
  strcpy(event, eventname[EWSReceive]);

  const VATYPES type = Text ? es2va[width] : VAI1;
  const UI4 elements = Text ? count : size;
  constexpr UI4 kMost = UINT32_MAX - 2 * kAround;
  if (UI8{elements} * (Text ? width : 1) > kMost) return ERR_MEMORY_ALLOC;
  const UI4 bytes = kAround + ZWRITER::VectorBytes(type, elements);
  const bool asItCame = !Text || (count == size && isUnicode());
  const bool inPlace = asItCame && pBuf->Start() != pBuf->Block();
  ZWRITER unit = inPlace ? ZWRITER(pBuf->ReleaseBlock(), bytes) : ZWRITER(bytes);
  if (!unit) return ERR_MEMORY_ALLOC;
  unit.Nested(3);
  PCH1 const data = unit.Vector(type, elements);
  if (!inPlace && asItCame) {
    if (size > 0) memcpy(data, Bytes(), size);
  } else if (!inPlace) {
    if (const SI4 code = PutText(data, type)) return code;
  }
  unit.Int(Fin);
  unit.Int(Opcode);
  *ppZ = unit.Finish();
  return 0;
}

void WSMSG::Leave(PHIERAKI item) {
  MESSAGE::Leave(item);
  CONNECTION::Above(item)->UnitGone();
}
