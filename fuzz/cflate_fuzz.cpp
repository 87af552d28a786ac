// cflate_fuzz.cpp - streams from outside and callers that get it wrong: no byte beside the room,
// no session left behind, and what was compressed comes back.
//
// An even first byte: steps follow, each an op, the length of its input and its room, then the
// input. The upper bits of the op leave out arguments. An odd one: its bit 3 chooses the form, the
// second byte is the level and the third the size of pieces; the rest is compressed and inflated.
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kyrno/base/kyrnossl.h"
#include "util/compression.h"

namespace {

constexpr int kDeflate = 0, kInflate = 1, kLast = 2, kAbort = 4, kGzip = 8;
constexpr int kOps = 15, kNoIn = 16, kNoOut = 32, kNoSizes = 64;

std::unique_ptr<UI1[]> Exact(const UI1* from, size_t n) {  // so that a byte too much shows
  std::unique_ptr<UI1[]> copy(new UI1[n]);
  memcpy(copy.get(), from, n);
  return copy;
}

void Abort(PVOID* session) {
  cflate(kAbort, session, nullptr, nullptr, nullptr, nullptr, 1);
  if (*session) abort();
}

void Steps(const UI1* data, size_t n) {
  PVOID session = nullptr;
  while (n >= 3) {
    const int op = data[0];
    const UI4 given = static_cast<UI4>(std::min<size_t>(data[1], n - 3));
    const UI4 room = data[2];
    const std::unique_ptr<UI1[]> in = Exact(data + 3, given);
    const std::unique_ptr<UI1[]> out(new UI1[room]);
    data += 3 + given;
    n -= 3 + given;

    UI4 inSize = given, outSize = room;
    cflate(op & kOps, &session, op & kNoIn ? nullptr : in.get(), op & kNoSizes ? nullptr : &inSize,
           op & kNoOut ? nullptr : out.get(), &outSize, static_cast<UI4>(op >> 4));
    if (outSize > room || inSize > 255) abort();
  }
  Abort(&session);
}

std::string Whole(int op, const std::string& data, UI4 level, size_t piece) {
  std::string all;
  PVOID session = nullptr;
  size_t at = 0;
  UI4 unread = 0;
  do {
    const size_t n = std::min(piece, data.size() - at);
    const int last = at + n == data.size() ? kLast : 0;
    const std::unique_ptr<UI1[]> in = Exact(reinterpret_cast<const UI1*>(data.data()) + at, n);
    const UI4 room = static_cast<UI4>(piece);
    const std::unique_ptr<UI1[]> out(new UI1[room]);
    UI4 inSize = unread ? unread : static_cast<UI4>(n);
    UI4 outSize = room;
    const int code = cflate(op | last, &session, in.get(), &inSize, out.get(), &outSize, level);
    if (code != Z_OK && code != Z_BUF_ERROR) abort();
    all.append(reinterpret_cast<PCH10>(out.get()), outSize);
    unread = inSize;
    if (unread == 0) at += n;
  } while (session);
  return all;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (LoadKyrnossl()) abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t n) {
  if (n < 3) return 0;
  if ((data[0] & 1) == 0) {
    Steps(data + 1, n - 1);
    return 0;
  }
  const int form = data[0] & kGzip;
  const size_t piece = data[2] + size_t{1};
  const std::string text(reinterpret_cast<PCH10>(data) + 3, n - 3);
  const std::string stream = Whole(kDeflate | form, text, data[1] % 10, piece);
  if (Whole(kInflate | form, stream, 0, piece) != text) abort();
  return 0;
}
