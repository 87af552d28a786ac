// blocks_fuzz.cpp - block frames from a peer, with and without magic, in pieces.
//
// The first byte is the size of the pieces, 0 for everything at once; the second says whether there
// is a magic.
#include "fuzz/stream.h"
#include "kyrno/modes/blkconnection.h"

extern "C" int LLVMFuzzerTestOneInput(const UI1* data, size_t n) {
  if (n < 2) return 0;
  constexpr UI4 kMaxBlock = 4096;
  const UI4 magic = data[1] & 1 ? 0x4B59524E : 0;
  STREAM stream([&](PRPCSOCK socket) {
    return new BLKCONNECTION(magic, kMaxBlock, data[1] & 2 ? MBlkRaw : MBlkAscii, socket);
  });
  const size_t piece = data[0] ? data[0] : n;
  for (size_t at = 2; at < n; at += piece) stream.Send(data + at, n - at < piece ? n - at : piece);
  stream.ClosePeer();
  return 0;
}
