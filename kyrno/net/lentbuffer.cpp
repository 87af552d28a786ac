// lentbuffer.cpp - a large message in its caller's memory.
#include "kyrno/net/lentbuffer.h"

#include <sched.h>

#include <algorithm>
#include <cstring>

#include "kyrno/base/error.h"

namespace {
constexpr UI4 kCopyBytes = 256u << 10;  // at a time: what is sent meanwhile need not be copied
}  // namespace

LENTBUFFER::LENTBUFFER(PCH10 header, UI4 headSize, PCH10 data, UI4 n)
    : BUFFER(LAZY, headSize + n), head(headSize), pData(data) {
  lError = Reserve(headSize + n);
  if (lError == 0) memcpy(Start(), header, headSize);
}

UI4 LENTBUFFER::Gather(iovec* pieces, size_t most) {
  inUse.store(true, std::memory_order_seq_cst);
  PCH10 const data = pData.load(std::memory_order_seq_cst);
  if (!data) return BUFFER::Gather(pieces, most);
  UI4 at = SizeProcessed();
  size_t left = std::min<size_t>(Remaining(), most);
  UI4 n = 0;
  if (at < head) {
    pieces[n++] = {Next(), std::min<size_t>(left, head - at)};
    left -= pieces[0].iov_len;
    at = head;
  }
  if (left > 0) pieces[n++] = {const_cast<PCH1>(data + (at - head)), left};
  return n;
}

void LENTBUFFER::Gathered() { inUse.store(false, std::memory_order_seq_cst); }

void LENTBUFFER::Own() {
  const CH1* const data = pData.load(std::memory_order_relaxed);
  UI4 at = head;
  for (;;) {
    at = std::max(at, SizeProcessed());
    if (at >= TotalSize()) break;
    const UI4 n = std::min(kCopyBytes, TotalSize() - at);
    memcpy(Start() + at, data + (at - head), n);
    at += n;
  }
  pData.store(nullptr, std::memory_order_seq_cst);
  while (inUse.load(std::memory_order_seq_cst)) sched_yield();
}
