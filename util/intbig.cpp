// intbig.cpp - big-endian numbers of any length as decimal text.
#include "util/intbig.h"

#include <cstring>

#include "util/freed.h"
#include "util/itoa.h"

namespace {

constexpr UI4 kBase = 1000000000;  // of a limb
constexpr UI4 kLimbDigits = 9;
constexpr UI4 kWordBytes = 4;

/// Limbs for so many words: a word takes 9.633 digits.
constexpr size_t LimbRoom(size_t words) { return words + words / 13 + 2; }

/// A magnitude as limbs, the lowest first; *count is at least 1. Whole words are taken in at a
/// time, as the number may be a peer's and of any length.
void ToLimbs(const UI1* magnitude, UI4 size, PUI4 limbs, size_t* count) {
  *count = 1;
  limbs[0] = 0;
  for (UI4 at = 0; at < size;) {
    // The first word takes what is too much for whole words.
    const UI4 n = (size - at) % kWordBytes ? (size - at) % kWordBytes : kWordBytes;
    UI8 carry = 0;
    for (UI4 i = 0; i < n; ++i) carry = carry << 8 | magnitude[at++];
    for (size_t i = 0; i < *count; ++i) {
      carry += UI8{limbs[i]} << 8 * n;
      limbs[i] = static_cast<UI4>(carry % kBase);
      carry /= kBase;
    }
    for (; carry; carry /= kBase) limbs[(*count)++] = static_cast<UI4>(carry % kBase);
  }
}

}  // namespace

UI4 FmtIntBig(const UI1* value, UI4 size, PCH1 text, UI4 room, SI4 isSigned) {
  const bool negative = isSigned && size && value[0] >= 0x80;
  const size_t words = size / kWordBytes + 1;
  const BYTES copy(static_cast<PUI1>(malloc(size ? size : 1)));
  const BYTES space(static_cast<PUI1>(malloc(LimbRoom(words) * sizeof(UI4))));
  if (!copy || !space) return 0;
  if (negative) {
    NegIntBig(copy.get(), value, size);
  } else if (size) {
    memcpy(copy.get(), value, size);
  }
  PUI4 const limbs = reinterpret_cast<PUI4>(space.get());
  size_t count = 0;
  ToLimbs(copy.get(), size, limbs, &count);

  CH1 digits[kLimbDigits + 2];
  UI4 length = negative;
  UI4 written = 0;
  const auto put = [&](CH1 c) {
    if (written + 1 < room) text[written++] = c;
  };
  if (!text) room = 0;
  if (negative) put('-');
  for (size_t i = count; i-- > 0;) {
    const PCH1 end = PutDigits(digits, limbs[i], i + 1 == count ? 1 : kLimbDigits);
    for (PCH10 c = digits; c < end; ++c) put(*c);
    length += static_cast<UI4>(end - digits);
  }
  if (room) text[written] = 0;
  return length;
}

UI4 NegIntBig(PVOID out, const void* value, UI4 size) {
  const UI1* const from = static_cast<const UI1*>(value);
  UI1* const to = static_cast<UI1*>(out);
  UI4 borrow = 0;
  for (UI4 i = size; i-- > 0;) {
    const UI4 part = from[i] + borrow;
    to[i] = static_cast<UI1>(0u - part);
    borrow = part != 0;
  }
  return borrow;
}
