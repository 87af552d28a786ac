// httpmsg.cpp - pieces of an HTTP stream taken apart.
#include "kyrno/modes/httpmsg.h"

#include <cstring>

#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/httphead.h"

namespace {

HTTPTEXT Between(PCH10 from, PCH10 to) { return {from, static_cast<UI4>(to - from)}; }

/// A place in a piece that only moves on, and never behind the end.
class SCANNER {
 public:
  SCANNER(PCH10 piece, UI4 n) : at(piece), end(piece + n) {}

  /// The rest of the line without its end, CR LF or LF. False when there is none.
  bool Line(HTTPTEXT* text) {
    const PCH10 stop = Find('\n');
    if (!stop) return false;
    *text = Between(at, stop > at && stop[-1] == '\r' ? stop - 1 : stop);
    at = stop + 1;
    return true;
  }

  /// The next field. One without a colon is a name alone, or no field.
  /// Deliberate: the colon is also looked for in later lines. A line without one, before one that
  /// has one, becomes part of that one's name.
  bool Field(bool needsColon, HTTPTEXT* name, HTTPTEXT* value) {
    const PCH10 colon = noColon ? nullptr : Find(':');
    if (!colon) {
      // Hostile lines without a colon would have the whole rest searched for each of them.
      noColon = true;
      *value = {at, 0};
      return !needsColon && Line(name);
    }
    *name = Between(at, colon);
    at = colon + 1;
    while (at < end && (*at == ' ' || *at == '\t')) ++at;
    return Line(value);
  }

  /// What comes before the end of the line and, for a word, before a blank, which is passed over.
  HTTPTEXT Part(bool word) {
    const PCH10 from = at;
    while (at < end && *at != '\r' && *at != '\n' && !(word && *at == ' ')) ++at;
    const HTTPTEXT text = Between(from, at);
    if (at < end && *at == ' ') ++at;
    return text;
  }

 private:
  PCH10 Find(CH1 c) const {
    if (at == end) return nullptr;
    return static_cast<PCH10>(memchr(at, c, static_cast<size_t>(end - at)));
  }

  PCH10 at;
  const PCH10 end;
  bool noColon = false;  // there is none any more
};

UI4 CountLines(SCANNER scan) {
  UI4 lines = 0;
  for (HTTPTEXT line; scan.Line(&line);) ++lines;
  return lines;
}

constexpr UI8 kMostBytes = UINT32_MAX - 8;  // of the arrays in a Z

UI8 TextBytes(const HTTPTEXT& text) {
  return ZWRITER::VectorBytes(VAC1, 0) + (UI8{text.length} + 7) / 8 * 8;
}

/// What a matrix of so many fields takes in a Z; 0 when there are not that many.
UI8 MatrixBytes(SCANNER fields, UI4 rows, bool needColons) {
  UI8 bytes = ZWRITER::kMatrixBytes;
  for (UI4 i = 0; i < rows; ++i) {
    HTTPTEXT name, value;
    if (!fields.Field(needColons, &name, &value)) return 0;
    bytes += TextBytes(name) + TextBytes(value);
  }
  return bytes;
}

void PutMatrix(SCANNER fields, UI4 rows, bool needColons, VATYPES whenEmpty, ZWRITER* z) {
  z->Matrix(rows > 0 ? VAPntr : whenEmpty, rows, 2);
  for (UI4 i = 0; i < rows; ++i) {
    HTTPTEXT name{}, value{};
    (void)fields.Field(needColons, &name, &value);
    z->Text(name.text, name.length);
    z->Text(value.text, value.length);
  }
}

SI4 Finished(ZWRITER* z, PUI4* ppZ) {
  *ppZ = z->Finish();
  return 0;
}

}  // namespace

SI4 DecodeHttpHeader(PCH10 piece, UI4 n, PUI4* ppZ) {
  *ppZ = nullptr;
  // Empty lines ahead of the first one belong to nobody, as where the body's end was found.
  const HTTPTEXT line = FirstLine(piece, n);
  const UI4 ahead = line.length > 0 ? static_cast<UI4>(line.text - piece) : 0;
  SCANNER scan(piece + ahead, n - ahead);
  const UI4 lines = CountLines(scan);
  if (lines < 2) return ERR_HTTPDECODE;
  const HTTPTEXT first[] = {scan.Part(true), scan.Part(true), scan.Part(false)};
  HTTPTEXT rest;
  (void)scan.Line(&rest);

  UI8 bytes = MatrixBytes(scan, lines - 2, false);
  if (bytes == 0) return ERR_HTTPDECODE;
  bytes += ZWRITER::kNestedBytes;
  for (const HTTPTEXT& part : first) bytes += TextBytes(part);
  if (bytes > kMostBytes) return ERR_MEMORY_ALLOC;

  ZWRITER z(static_cast<UI4>(bytes));
  if (!z) return ERR_MEMORY_ALLOC;
  z.Nested(4);
  for (const HTTPTEXT& part : first) z.Text(part.text, part.length);
  PutMatrix(scan, lines - 2, false, VAPntr, &z);
  return Finished(&z, ppZ);
}

SI4 DecodeHttpTrailer(PCH10 piece, UI4 n, PUI4* ppZ) {
  *ppZ = nullptr;
  SCANNER scan(piece, n);
  const UI4 lines = CountLines(scan);
  const UI4 rows = lines > 2 ? lines - 2 : 0;
  HTTPTEXT zero;
  (void)scan.Line(&zero);

  const UI8 bytes = MatrixBytes(scan, rows, true);
  if (bytes == 0) return ERR_HTTPDECODE;
  if (bytes > kMostBytes) return ERR_MEMORY_ALLOC;
  ZWRITER z(static_cast<UI4>(bytes));
  if (!z) return ERR_MEMORY_ALLOC;
  PutMatrix(scan, rows, true, VAC1, &z);
  return Finished(&z, ppZ);
}

SI4 DecodeHttpChunk(PCH10 piece, UI4 n, UI4 decode, PUI4* ppZ) {
  *ppZ = nullptr;
  const void* const lineEnd = n > 0 ? memchr(piece, '\n', n) : nullptr;
  if (!lineEnd) return ERR_HTTPDECODE;
  const UI4 head = static_cast<UI4>(static_cast<PCH10>(lineEnd) + 1 - piece);
  UI4 size = 0;
  if (!ParseChunkSize(piece, head, &size) || size > n - head) return ERR_HTTPDECODE;

  const VATYPES type = decode & DecodeInts ? VAI2 : VAC1;
  const UI8 width = VAsize[type] / 8;
  constexpr UI4 kHeads = ZWRITER::kNestedBytes + ZWRITER::kMatrixBytes;
  if (width * size > kMostBytes - kHeads - ZWRITER::VectorBytes(type, 0) - 7)
    return ERR_MEMORY_ALLOC;
  ZWRITER z(kHeads + ZWRITER::VectorBytes(type, size));
  if (!z) return ERR_MEMORY_ALLOC;
  z.Nested(2);
  PutData(z.Vector(type, size), piece + head, size, type);
  // Deliberate: extensions are never told, whatever the size line has.
  z.Matrix(VAC1, 0, 2);
  return Finished(&z, ppZ);
}

namespace {

/// The piece as the application wants it taken apart. 0 with a null Z when it does not.
SI4 Decode(PCH10 event, UI4 decode, PCH10 piece, UI4 n, PUI4* ppZ) {
  *ppZ = nullptr;
  if (decode & DecodeHeader && strcmp(event, "HTTPHeader") == 0)
    return DecodeHttpHeader(piece, n, ppZ);
  if (decode & DecodeTrailer && strcmp(event, "HTTPTrailer") == 0)
    return DecodeHttpTrailer(piece, n, ppZ);
  if (decode & DecodeChunk && strcmp(event, "HTTPChunk") == 0)
    return DecodeHttpChunk(piece, n, decode, ppZ);
  // A body as text is delivered as every other piece.
  if (decode & DecodeBody && decode & DecodeInts && strcmp(event, "HTTPBody") == 0) {
    *ppZ = Data2Z(piece, n, VAI2);
    return *ppZ ? 0 : ERR_MEMORY_ALLOC;
  }
  return 0;
}

}  // namespace

SI4 HTTPMSG::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next, PUI4* ppZ) {
  const UI4 wanted = decode;
  if (wanted == 0 || LastState == SError || LastState == SSent)
    return MESSAGE::GetWaitReturns(item, objname, event, next, ppZ);
  Describe(item, objname, event);

  const SI4 code = Decode(event, wanted, pBuf->Start(), pBuf->TotalSize(), ppZ);
  if (*ppZ || code == ERR_MEMORY_ALLOC) return code;
  // The piece has long left the stream: what it lacks is the application's to judge.
  if (code) strcpy(event, "HTTPFail");
  return TakeData(ppZ);
}

void HTTPMSG::Leave(PHIERAKI item) {
  MESSAGE::Leave(item);
  CONNECTION::Above(item)->UnitGone();
}
