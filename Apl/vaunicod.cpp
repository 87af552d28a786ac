// vaunicod.cpp - conversion between encodings.
#include "Apl/vaunicod.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "kyrno/base/error.h"

namespace {

// One form of a UTF-8 sequence: what its lead byte looks like, and the values that belong to it.
struct Tab {
  UI4 cmask;
  UI4 cval;
  UI4 shift;
  UI4 lmask;
  UI4 lval;
};
constexpr Tab tab[] = {
    {0x80, 0x00, 0, 0x7F, 0},
    {0xE0, 0xC0, 6, 0x7FF, 0x80},
    {0xF0, 0xE0, 12, 0xFFFF, 0x800},
    {0xF8, 0xF0, 18, 0x1FFFFF, 0x10000},
    {0xFC, 0xF8, 24, 0x3FFFFFF, 0x200000},
    {0xFE, 0xFC, 30, 0x7FFFFFFF, 0x4000000},
};

constexpr UI4 kMaxCodePoint = 0x10FFFF;

// The code point of each byte of C1AV.
constexpr UI2 AVU[256] = {
    0x0000, 0x0008, 0x000A, 0x000D, 0x0020, 0x000C, 0x0006, 0x0007, 0x001B, 0x0009, 0x2336, 0x026B,
    0x0025, 0x0027, 0x237A, 0x2375, 0x005F, 0x0061, 0x0062, 0x0063, 0x0064, 0x0065, 0x0066, 0x0067,
    0x0068, 0x0069, 0x006A, 0x006B, 0x006C, 0x006D, 0x006E, 0x006F, 0x0070, 0x0071, 0x0072, 0x0073,
    0x0074, 0x0075, 0x0076, 0x0077, 0x0078, 0x0079, 0x007A, 0x0001, 0x0002, 0x00AF, 0x002E, 0x236C,
    0x0030, 0x0031, 0x0032, 0x0033, 0x0034, 0x0035, 0x0036, 0x0037, 0x0038, 0x0039, 0x0003, 0x22A2,
    0x00A5, 0x0024, 0x00A3, 0x00A2, 0x2206, 0x0041, 0x0042, 0x0043, 0x0044, 0x0045, 0x0046, 0x0047,
    0x0048, 0x0049, 0x004A, 0x004B, 0x004C, 0x004D, 0x004E, 0x004F, 0x0050, 0x0051, 0x0052, 0x0053,
    0x0054, 0x0055, 0x0056, 0x0057, 0x0058, 0x0059, 0x005A, 0x0004, 0x0005, 0x00FD, 0x00B7, 0x007F,
    0x2359, 0x00C1, 0x00C2, 0x00C3, 0x00C7, 0x00C8, 0x00CA, 0x00CB, 0x00CC, 0x00CD, 0x00CE, 0x00CF,
    0x00D0, 0x00D2, 0x00D3, 0x00D4, 0x00D5, 0x00D9, 0x00DA, 0x00DB, 0x00DD, 0x00FE, 0x00E3, 0x00EC,
    0x00F0, 0x00F2, 0x00F5, 0x007B, 0x20AC, 0x007D, 0x22A3, 0x2337, 0x00A8, 0x00C0, 0x00C4, 0x00C5,
    0x00C6, 0x2368, 0x00C9, 0x00D1, 0x00D6, 0x00D8, 0x00DC, 0x00DF, 0x00E0, 0x00E1, 0x00E2, 0x00E4,
    0x00E5, 0x00E6, 0x00E7, 0x00E8, 0x00E9, 0x00EA, 0x00EB, 0x00ED, 0x00EE, 0x00EF, 0x00F1, 0x005B,
    0x002F, 0x233F, 0x005C, 0x2340, 0x003C, 0x2264, 0x003D, 0x2265, 0x003E, 0x2260, 0x2228, 0x2227,
    0x002D, 0x002B, 0x00F7, 0x00D7, 0x003F, 0x220A, 0x2374, 0x007E, 0x2191, 0x2193, 0x2373, 0x25CB,
    0x002A, 0x2308, 0x230A, 0x2207, 0x2218, 0x0028, 0x2282, 0x2283, 0x2229, 0x222A, 0x22A5, 0x22A4,
    0x007C, 0x003B, 0x002C, 0x2371, 0x2372, 0x2352, 0x234B, 0x2349, 0x233D, 0x2296, 0x235F, 0x2339,
    0x0021, 0x2355, 0x234E, 0x236B, 0x236A, 0x2261, 0x2262, 0x00F3, 0x00F4, 0x00F6, 0x00F8, 0x0022,
    0x0023, 0x001E, 0x0026, 0x00B4, 0x2518, 0x2510, 0x250C, 0x2514, 0x253C, 0x2500, 0x251C, 0x2524,
    0x2534, 0x252C, 0x2502, 0x0040, 0x00F9, 0x00FA, 0x00FB, 0x005E, 0x00FC, 0x0060, 0x2223, 0x00B6,
    0x003A, 0x2377, 0x00BF, 0x00A1, 0x22C4, 0x2190, 0x2192, 0x235D, 0x0029, 0x005D, 0x001F, 0x00A0,
    0x00A7, 0x2395, 0x235E, 0x2363,
};

template <typename T>
T UnitAt(const UI1* from) {
  T unit;
  memcpy(&unit, from, sizeof unit);
  return unit;
}

// How many bytes from the start are ASCII and not zero: those that UCS1 and UTF8 share.
size_t AsciiRun(const UI1* text, size_t size) {
  constexpr UI8 kOnes = 0x0101010101010101;
  constexpr UI8 kHighs = 0x8080808080808080;
  size_t at = 0;
  while (size - at >= sizeof(UI8)) {
    const UI8 eight = UnitAt<UI8>(text + at);
    if ((eight | (eight - kOnes)) & kHighs) break;
    at += sizeof eight;
  }
  while (at < size && text[at] > 0 && text[at] < 0x80) ++at;
  return at;
}

// Reads one sequence; the bytes it takes, or 0 when it is cut, malformed or overlong.
UI4 GetUtf8(const UI1* source, size_t left, PUI4 codepoint) {
  const UI1 lead = *source;
  const Tab* const row = std::find_if(std::begin(tab), std::end(tab),
                                      [lead](const Tab& t) { return (lead & t.cmask) == t.cval; });
  if (row == std::end(tab)) return 0;
  const UI4 length = row->shift / 6 + 1;
  if (left < length) return 0;
  UI4 value = lead;
  for (UI4 i = 1; i < length; ++i) {
    if ((source[i] & 0xC0) != 0x80) return 0;
    value = value << 6 | (source[i] & 0x3Fu);
  }
  *codepoint = value & row->lmask;
  return *codepoint < row->lval ? 0 : length;
}

UI4 GetUtf16(const UI1* source, size_t left, PUI4 codepoint) {
  const UI4 first = UnitAt<UI2>(source);
  *codepoint = first;
  if (first < 0xD800 || first > 0xDBFF || left < 4) return 2;
  const UI4 second = UnitAt<UI2>(source + 2);
  if (second < 0xDC00 || second > 0xDFFF) return 2;
  *codepoint = 0x10000 + ((first & 0x3FF) << 10 | (second & 0x3FF));
  return 4;
}

// Reads one code point from at least one smallest unit; the bytes it takes, or 0.
UI4 GetUnicodeC(UNICODETYPES from, const UI1* source, size_t left, PUI4 codepoint) {
  switch (from) {
    case C1AV:
      *codepoint = AVU[*source];
      return 1;
    case UCS1:
      *codepoint = *source;
      return 1;
    case UCS2:
      *codepoint = UnitAt<UI2>(source);
      return 2;
    case UCS4:
      *codepoint = UnitAt<UI4>(source);
      return 4;
    case UTF8:
      return GetUtf8(source, left, codepoint);
    case UTF16:
      return GetUtf16(source, left, codepoint);
  }
  return 0;
}

template <typename T>
SI4 PutUnit(PUI1 destination, UI4 codepoint) {
  const T unit = static_cast<T>(codepoint);
  if (destination) memcpy(destination, &unit, sizeof unit);
  return sizeof unit;
}

SI4 PutUtf8(PUI1 destination, UI4 room, UI4 codepoint) {
  const Tab* const row = std::find_if(std::begin(tab), std::end(tab),
                                      [codepoint](const Tab& t) { return codepoint <= t.lmask; });
  if (row == std::end(tab)) return -1;
  const UI4 length = row->shift / 6 + 1;
  if (!destination) return static_cast<SI4>(length);
  if (room < length) return -1;
  destination[0] = static_cast<UI1>(row->cval | codepoint >> row->shift);
  for (UI4 i = 1; i < length; ++i) {
    destination[i] = static_cast<UI1>(0x80 | (codepoint >> (row->shift - 6 * i) & 0x3F));
  }
  return static_cast<SI4>(length);
}

SI4 PutUtf16(PUI1 destination, UI4 room, UI4 codepoint) {
  if (codepoint < 0x10000) return PutUnit<UI2>(destination, codepoint);
  if (!destination) return 4;
  if (room < 4) return -1;
  const UI4 v = codepoint - 0x10000;
  PutUnit<UI2>(destination, 0xD800 + (v >> 10 & 0x3FF));
  PutUnit<UI2>(destination + 2, 0xDC00 + (v & 0x3FF));
  return 4;
}

// Writes one code point with `room` bytes left, or measures it.
SI4 Put(UNICODETYPES to, PUI1 destination, UI4 room, UI4 codepoint) {
  if (destination && room < MinUSize[to]) return -1;
  switch (to) {
    case C1AV: {
      const UI2* const found = std::find(std::begin(AVU), std::end(AVU), codepoint);
      const bool known = found != std::end(AVU);
      PutUnit<UI1>(destination, known ? static_cast<UI4>(found - AVU) : 0);
      return known ? 1 : -2;
    }
    case UCS1:
      return codepoint > 0xFF ? -2 : PutUnit<UI1>(destination, codepoint);
    case UCS2:
      return codepoint > 0xFFFF ? -2 : PutUnit<UI2>(destination, codepoint);
    case UCS4:
      return PutUnit<UI4>(destination, codepoint);
    case UTF8:
      return PutUtf8(destination, room, codepoint);
    case UTF16:
      return PutUtf16(destination, room, codepoint);
  }
  return -2;
}

// A destination that fills up, or, without one, a count.
struct SINK {
  UNICODETYPES to;
  PUI1 destination;
  UI4 size;  // the largest of all while measuring
  UI4 at = 0;

  bool IsFull() const { return destination && at >= size; }

  SI4 Add(UI4 codepoint) {
    const SI4 n = Put(to, destination ? destination + at : nullptr, size - at, codepoint);
    if (n == -2) return ERR_APL_DOMAIN;
    if (n < 0 || static_cast<UI4>(n) > size - at) return ERR_APL_LENGTH;
    at += static_cast<UI4>(n);
    return 0;
  }

  // Takes what fits of bytes that need no conversion; how many it took.
  UI4 AddBytes(const UI1* source, UI4 n) {
    n = std::min(n, size - at);
    if (destination) memcpy(destination + at, source, n);
    at += n;
    return n;
  }
};

bool SharesAscii(UNICODETYPES type) { return type == UCS1 || type == UTF8; }

SI4 Run(SINK* sink, UNICODETYPES from, const UI1* source, UI4 left) {
  const bool copiesAscii = SharesAscii(from) && SharesAscii(sink->to);
  while (!sink->IsFull() && left >= MinUSize[from]) {
    UI4 used = 0;
    if (copiesAscii) used = sink->AddBytes(source, static_cast<UI4>(AsciiRun(source, left)));
    if (used == 0) {
      UI4 codepoint = 0;
      used = GetUnicodeC(from, source, left, &codepoint);
      if (used == 0 || codepoint == 0) return 0;
      if (codepoint > kMaxCodePoint) return ERR_UTF8;
      const SI4 code = sink->Add(codepoint);
      if (code != 0) return code;
    }
    source += used;
    left -= used;
  }
  return 0;
}

}  // namespace

size_t utf8_lenStrict(const UI1* text, size_t size, PUI1 width) {
  size_t count = 0;
  *width = 1;
  for (size_t at = 0; at < size && text[at] != 0;) {
    const size_t ascii = AsciiRun(text + at, size - at);
    at += ascii;
    count += ascii;
    if (at == size || text[at] == 0) break;
    const UI1 lead = text[at];
    UI4 codepoint = 0;
    const UI4 used = GetUtf8(text + at, size - at, &codepoint);
    if (used == 0 || codepoint > kMaxCodePoint) return static_cast<size_t>(-1);
    if (lead >= 0xF0) *width = 4;
    if (lead > 0xC3 && *width < 2) *width = 2;
    at += used;
    ++count;
  }
  return count;
}

SI4 PutUnicodeC(UNICODETYPES to, PUI1 destination, UI4 size, UI4 position, UI4 codepoint) {
  if (!destination) return Put(to, nullptr, 0, codepoint);
  if (position > size) return -1;
  return Put(to, destination + position, size - position, codepoint);
}

size_t ToVAPL(const UI1* source, size_t size, UNICODETYPES from, PUI1 width) {
  *width = MinUSize[from];
  size_t count = 0;
  if (from == UTF8) {
    for (size_t at = 0; at < size && source[at] != 0; ++at) {
      const UI1 byte = source[at];
      if ((byte & 0xC0) == 0x80) continue;
      ++count;
      if (byte >= 0xF0) *width = 4;
      if (byte > 0xC3 && *width < 2) *width = 2;
    }
    return count;
  }
  if (from == UTF16) {
    for (size_t at = 0; size - at >= 2; at += 2) {
      const UI2 unit = UnitAt<UI2>(source + at);
      if (unit == 0) break;
      const bool second = unit >= 0xDC00 && unit <= 0xDFFF;
      if (second) *width = 4;
      if (!second) ++count;
    }
    return count;
  }
  return size;
}

SI4 ZeroLength(const UI1* source, UNICODETYPES from) {
  SI4 n = 0;
  switch (MinUSize[from]) {
    case 1:
      return static_cast<SI4>(strlen(reinterpret_cast<PCH10>(source)));
    case 2:
      while (UnitAt<UI2>(source + 2 * static_cast<size_t>(n)) != 0) ++n;
      return n;
    case 4:
      while (UnitAt<UI4>(source + 4 * static_cast<size_t>(n)) != 0) ++n;
      return n;
    default:
      return -1;
  }
}

SI4 ConvUnicodeM(UNICODETYPES to, PUI1 destination, PUI4 size, UNICODETYPES from, const UI1* source,
                 UI4 sourceSize, SI2 terminate) {
  SINK sink{to, destination, destination ? *size : UINT32_MAX};
  SI4 code = Run(&sink, from, source, sourceSize);
  if (code == 0 && terminate != 0) code = sink.Add(0);
  if (!destination) *size = sink.at;
  return code;
}

SI4 ConvUnicode(UNICODETYPES to, PUI1 destination, UI4 size, UNICODETYPES from, const UI1* source,
                UI4 sourceSize, SI2 terminate) {
  return ConvUnicodeM(to, destination, &size, from, source, sourceSize, terminate);
}
