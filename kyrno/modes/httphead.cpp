// httphead.cpp - fields by name, and what they say of the body. Only ASCII letters have a case
// here: with the process's locale a name could be found on one machine and not on another.
#include "kyrno/modes/httphead.h"

#include <cstring>

namespace {

constexpr UI4 kMaxLength = 0xFFFFFFFF;
constexpr HTTPBODY kBad{HTTPBODY::Bad, 0};

CH1 Lower(CH1 c) { return c >= 'A' && c <= 'Z' ? static_cast<CH1>(c | 0x20) : c; }
bool IsBlank(CH1 c) { return c == ' ' || c == '\t'; }
bool IsDigit(CH1 c) { return c >= '0' && c <= '9'; }
bool IsOfName(CH1 c) {
  return (Lower(c) >= 'a' && Lower(c) <= 'z') || IsDigit(c) || c == '-' || c == '_';
}

bool Same(PCH10 text, PCH10 word, UI4 n) {
  for (UI4 i = 0; i < n; ++i)
    if (Lower(text[i]) != Lower(word[i])) return false;
  return true;
}

bool IsWord(HTTPTEXT text, PCH10 word) {
  const size_t n = strlen(word);
  return text.length == n && Same(text.text, word, text.length);
}

/// The text without what `drop` names at both ends.
HTTPTEXT Trim(HTTPTEXT text, bool (*drop)(CH1)) {
  while (text.length > 0 && drop(text.text[text.length - 1])) --text.length;
  while (text.length > 0 && drop(*text.text)) ++text.text, --text.length;
  return text;
}

/// The line at *at without its line end; *at moves behind it. False at the end of the block.
bool NextLine(PCH10 head, UI4 n, PUI4 at, HTTPTEXT* line) {
  if (*at >= n) return false;
  PCH10 const text = head + *at;
  const PCH10 lf = static_cast<PCH10>(memchr(text, '\n', n - *at));
  UI4 length = lf ? static_cast<UI4>(lf - text) : n - *at;
  *at += lf ? length + 1 : length;
  if (lf && length > 0 && text[length - 1] == '\r') --length;
  *line = {text, length};
  return true;
}

/// The same for the first line. Empty ones before it belong to nobody (RFC 9112, section 2.2).
HTTPTEXT NextFirst(PCH10 head, UI4 n, PUI4 at) {
  HTTPTEXT line{head, 0};
  while (line.length == 0 && NextLine(head, n, at, &line)) continue;
  return line;
}

/// The two fields that say where a body ends.
enum FRAMING { Other, ContentLength, TransferEncoding, Disguised };

/// Which of them the line is. Disguised is what only a careless reader takes for one: a name behind
/// or before blanks or signs, or without its colon.
FRAMING FramingField(HTTPTEXT line, HTTPTEXT* value) {
  const PCH10 colon = static_cast<PCH10>(memchr(line.text, ':', line.length));
  const HTTPTEXT all{line.text, colon ? static_cast<UI4>(colon - line.text) : line.length};
  const HTTPTEXT name = Trim(all, [](CH1 c) { return !IsOfName(c); });
  const FRAMING field = IsWord(name, "Content-Length")      ? ContentLength
                        : IsWord(name, "Transfer-Encoding") ? TransferEncoding
                                                            : Other;
  if (field == Other) return Other;
  if (!colon || name.length != all.length) return Disguised;
  *value = Trim({colon + 1, line.length - all.length - 1}, IsBlank);
  return field;
}

/// Whether some lines end in CR LF and some in LF alone. A reader that knows only one of them sees
/// other fields.
bool MixesLineEnds(PCH10 head, UI4 n) {
  bool with = false, without = false;
  for (UI4 at = 0; at < n;) {
    const PCH10 lf = static_cast<PCH10>(memchr(head + at, '\n', n - at));
    if (!lf) break;
    (lf > head && lf[-1] == '\r' ? with : without) = true;
    at = static_cast<UI4>(lf - head) + 1;
  }
  return with && without;
}

/// Whether a reader that knows only CR LF, or takes LF as well, ends the block where it ends here.
bool EndsForAll(PCH10 head, UI4 n) {
  if (n >= 4 && memcmp(head + n - 4, "\r\n\r\n", 4) == 0) return true;
  return n >= 2 && memcmp(head + n - 2, "\n\n", 2) == 0 && !MixesLineEnds(head, n);
}

bool ParseLength(HTTPTEXT value, PUI4 length) {
  if (value.length == 0) return false;
  UI8 sum = 0;
  for (UI4 i = 0; i < value.length; ++i) {
    if (!IsDigit(value.text[i])) return false;
    sum = sum * 10 + static_cast<UI8>(value.text[i] - '0');
    if (sum > kMaxLength) return false;
  }
  *length = static_cast<UI4>(sum);
  return true;
}

/// Whether a request or status line is of the version that knows no transfer coding.
bool IsHttp10(HTTPTEXT first) {
  constexpr UI4 kVersionSize = 8;
  first = Trim(first, IsBlank);
  if (first.length < kVersionSize) return false;
  return Same(first.text, "HTTP/1.0", kVersionSize) ||
         Same(first.text + first.length - kVersionSize, "HTTP/1.0", kVersionSize);
}

/// The value of a hexadecimal digit, 16 for anything else.
UI4 HexDigit(CH1 c) {
  if (IsDigit(c)) return static_cast<UI4>(c - '0');
  const CH1 lower = Lower(c);
  return lower >= 'a' && lower <= 'f' ? static_cast<UI4>(lower - 'a' + 10) : 16;
}

}  // namespace

bool FindHdr(PCH10 head, UI4 n, PCH10 name, PUI4 from, HTTPTEXT* value) {
  const UI4 nameLen = static_cast<UI4>(strlen(name));
  if (*from == 0) NextFirst(head, n, from);
  for (HTTPTEXT line; NextLine(head, n, from, &line);) {
    if (line.length < nameLen || !Same(line.text, name, nameLen)) continue;
    *value = Trim({line.text + nameLen, line.length - nameLen}, IsBlank);
    return true;
  }
  return false;
}

bool isHdr(PCH10 head, UI4 n, PCH10 name, PCH10 value) {
  UI4 from = 0;
  HTTPTEXT found;
  return FindHdr(head, n, name, &from, &found) && IsWord(found, value);
}

bool isHdrM(PCH10 head, UI4 n, PCH10 name, PCH10 value) {
  UI4 from = 0;
  for (HTTPTEXT list; FindHdr(head, n, name, &from, &list);) {
    while (list.length > 0) {
      const PCH10 comma = static_cast<PCH10>(memchr(list.text, ',', list.length));
      const UI4 length = comma ? static_cast<UI4>(comma - list.text) : list.length;
      if (IsWord(Trim({list.text, length}, IsBlank), value)) return true;
      const UI4 skip = comma ? length + 1 : length;
      list = {list.text + skip, list.length - skip};
    }
  }
  return false;
}

HTTPTEXT FirstLine(PCH10 head, UI4 n) {
  UI4 at = 0;
  return NextFirst(head, n, &at);
}

HTTPBODY BodyOf(PCH10 head, UI4 n) {
  UI4 at = 0;
  const HTTPTEXT first = NextFirst(head, n, &at);
  UI4 lengths = 0, codings = 0, length = 0;
  FRAMING before = Other;
  for (HTTPTEXT line; NextLine(head, n, &at, &line);) {
    if (before != Other && line.length > 0 && IsBlank(*line.text)) return kBad;
    HTTPTEXT value;
    UI4 again = 0;
    before = FramingField(line, &value);
    switch (before) {
      case Other:
        break;
      case ContentLength:
        if (!ParseLength(value, &again) || (lengths > 0 && again != length)) return kBad;
        length = again;
        ++lengths;
        break;
      case TransferEncoding:
        if (!IsWord(value, "chunked")) return kBad;
        ++codings;
        break;
      case Disguised:
        return kBad;
    }
  }
  if (codings + lengths > 0 && MixesLineEnds(head, n)) return kBad;
  if (codings > 1 || (codings > 0 && (lengths > 0 || IsHttp10(first)))) return kBad;
  if (codings > 0) return {HTTPBODY::Chunked, 0};
  if (length > 0) return {HTTPBODY::Length, length};
  return {HTTPBODY::None, 0};
}

bool IsPlainHead(PCH10 head, UI4 n) {
  if (memchr(head, 0, n)) return false;
  for (UI4 at = 0; at < n;) {
    PCH10 const text = head + at;
    const PCH10 lf = static_cast<PCH10>(memchr(text, '\n', n - at));
    const UI4 size = lf ? static_cast<UI4>(lf - text) + 1 : n - at;
    const PCH10 cr = static_cast<PCH10>(memchr(text, '\r', size));
    if (cr && (!lf || cr + 1 != lf)) return false;
    at += size;
  }
  UI4 fields = 0;
  NextFirst(head, n, &fields);
  return EndsForAll(head, n) && (fields >= n || !IsBlank(head[fields]));
}

bool ParseChunkSize(PCH10 line, UI4 n, PUI4 size) {
  if (n == 0 || line[n - 1] != '\n') return false;
  UI4 end = n - 1;
  const bool withCr = end > 0 && line[end - 1] == '\r';
  if (withCr) --end;

  UI4 at = 0;
  while (at < end && IsBlank(line[at])) ++at;
  const UI4 digits = at;
  UI4 sum = 0;
  for (; at < end && HexDigit(line[at]) < 16; ++at) {
    if (sum > kMaxLength >> 4) return false;
    sum = sum << 4 | HexDigit(line[at]);
  }
  if (at == digits) return false;

  while (at < end && IsBlank(line[at])) ++at;
  if (at < end) {
    // A reader for whom a line ends at CR LF alone goes on in the extension where LF ends it here.
    if (line[at] != ';' || !withCr) return false;
    if (memchr(line + at, 0, end - at) || memchr(line + at, '\r', end - at)) return false;
  }
  *size = sum;
  return true;
}
