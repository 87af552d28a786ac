// command_fuzz.cpp - command headers and payloads from a peer, in pieces, whole or compressed.
//
// The first byte is the size of the pieces; 0 sends everything at once.
#include "fuzz/stream.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/modes/cmdconnection.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  LoadKyrnossl();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const UI1* data, size_t n) {
  if (n == 0) return 0;
  STREAM stream([](PRPCSOCK socket) { return new CMDCONNECTION(socket); });
  const size_t piece = data[0] ? data[0] : n;
  for (size_t at = 1; at < n; at += piece) stream.Send(data + at, n - at < piece ? n - at : piece);
  stream.ClosePeer();
  return 0;
}
