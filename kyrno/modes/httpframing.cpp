// httpframing.cpp - the states, one function each.
#include "kyrno/modes/httpframing.h"

#include <cstring>

namespace {

constexpr UI4 kMaxPiece = 0xFFFFFFFF;

bool StartsWith(HTTPTEXT text, PCH10 word) {
  const size_t n = strlen(word);
  return text.length >= n && memcmp(text.text, word, n) == 0;
}

/// "HTTP/1.1 204 No Content" and the like.
bool NeverHasBody(HTTPTEXT first) {
  constexpr UI4 kStatus = 9, kEnd = kStatus + 3;
  if (first.length < kEnd || !StartsWith(first, "HTTP/1.")) return false;
  if (first.text[kStatus - 1] != ' ') return false;
  if (first.length > kEnd && first.text[kEnd] != ' ') return false;
  PCH10 const status = first.text + kStatus;
  const auto isDigit = [](CH1 c) { return c >= '0' && c <= '9'; };
  if (status[0] == '1') return isDigit(status[1]) && isDigit(status[2]);
  return memcmp(status, "204", 3) == 0 || memcmp(status, "304", 3) == 0;
}

}  // namespace

HTTPFRAMING::PIECE HTTPFRAMING::Next(PCH10 data, UI4 n) {
  switch (state) {
    case Head:
      return NextHead(data, n);
    case InBody:
      state = Head;
      return {Body, length, 0};
    case ChunkLine:
      return NextChunk(data, n);
    case InTrailer:
      return NextTrailer(data, n);
    case Stuck:
      break;
  }
  return Break();
}

HTTPFRAMING::PIECE HTTPFRAMING::NextHead(PCH10 data, UI4 n) {
  const UI4 size = FindEnd(data, n);
  if (size == 0) return {More, 0, 0};
  searched = 0;
  if (!IsMessage(data, size)) return {Header, size, 0};
  if (!IsPlainHead(data, size)) return Break();

  const bool upgrade = isHdr(data, size, "Upgrade:", "websocket");
  const bool bodyless = ofResponses && (upgrade || NeverHasBody(FirstLine(data, size)));
  const HTTPBODY body = bodyless ? HTTPBODY{HTTPBODY::None, 0} : BodyOf(data, size);
  // Where this side would go on with frames, a proxy would see the body.
  if (upgrade && body.kind != HTTPBODY::None) return Break();
  switch (body.kind) {
    case HTTPBODY::None:
      break;
    case HTTPBODY::Length:
      length = body.length;
      state = InBody;
      break;
    case HTTPBODY::Chunked:
      state = ChunkLine;
      break;
    case HTTPBODY::Bad:
      state = Stuck;
      break;
  }
  return {upgrade ? Upgrade : Header, size, 0};
}

HTTPFRAMING::PIECE HTTPFRAMING::NextChunk(PCH10 data, UI4 n) {
  const PCH10 lf = FindLf(data, n);
  if (!lf) return {More, 0, 0};
  const UI4 line = static_cast<UI4>(lf - data) + 1;
  UI4 size;
  if (!ParseChunkSize(data, line, &size)) return Break();
  if (size == 0) {
    state = InTrailer;
    return NextTrailer(data, n);
  }

  searched = 0;
  const UI4 lineEnd = line > 1 && lf[-1] == '\r' ? 2 : 1;
  if (size > kMaxPiece - line - lineEnd) return Break();
  return {Chunk, line + size + lineEnd, lineEnd};
}

HTTPFRAMING::PIECE HTTPFRAMING::NextTrailer(PCH10 data, UI4 n) {
  const UI4 size = FindEnd(data, n);
  if (size == 0) return {More, 0, 0};
  searched = 0;
  if (!IsPlainHead(data, size)) return Break();
  state = Head;
  return {Trailer, size, 0};
}

HTTPFRAMING::PIECE HTTPFRAMING::Break() {
  state = Stuck;
  return {Broken, 0, 0};
}

bool HTTPFRAMING::IsMessage(PCH10 data, UI4 n) const {
  if (!ofResponses || state == InTrailer) return true;
  // Not more than the line's beginning is looked at: this is asked for many lines of one block.
  UI4 at = 0;
  while (at < n && (data[at] == '\r' || data[at] == '\n')) ++at;
  return StartsWith({data + at, n - at}, "HTTP/");
}

PCH10 HTTPFRAMING::FindLf(PCH10 data, UI4 n) {
  const void* const lf = searched < n ? memchr(data + searched, '\n', n - searched) : nullptr;
  searched = lf ? static_cast<UI4>(static_cast<PCH10>(lf) - data) : n;
  return static_cast<PCH10>(lf);
}

UI4 HTTPFRAMING::FindEnd(PCH10 data, UI4 n) {
  while (const PCH10 lf = FindLf(data, n)) {
    const UI4 next = searched + 1;
    if (next < n && data[next] == '\n') return next + 1;
    if (next == n || (data[next] == '\r' && next + 1 == n)) return 0;
    // Behind LF alone it ends no text, but breaks a message.
    const bool alike = lf > data && lf[-1] == '\r';
    if (data[next] == '\r' && data[next + 1] == '\n' && (alike || IsMessage(data, next)))
      return next + 2;
    searched = next;
  }
  return 0;
}
