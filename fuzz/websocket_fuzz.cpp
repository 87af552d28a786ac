// websocket_fuzz.cpp - a WebSocket stream from a peer, in pieces.
//
// The first byte is the size of the pieces, 0 for everything at once; of the second, bit 0 makes
// this end a client, bit 1 holds it to the RFC, bit 2 begins the close on this side, bit 3 with bit
// 1 joins the fragments of a message.
#include "fuzz/stream.h"
#include "kyrno/modes/websocket.h"

namespace {

/// A WebSocket that has been there from the beginning.
class FROMSOCKET : public WEBSOCKET {
 public:
  FROMSOCKET(UI4 most, OBJTYPE type, UI4 features, PRPCSOCK socket)
      : WEBSOCKET(most, type, features, nullptr) {
    pCon = socket;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const UI1* data, size_t n) {
  if (n < 2) return 0;
  constexpr UI4 kMaxFrame = 4096;
  const OBJTYPE type = data[1] & 1 ? TClient : TConnection;
  FROMSOCKET* socket = nullptr;
  STREAM stream([&](PRPCSOCK accepted) {
    const UI4 features = (data[1] & 2 ? WSStrict : 0) | (data[1] & 8 ? WSWhole : 0);
    socket = new FROMSOCKET(kMaxFrame, type, features, accepted);
    return socket;
  });
  if (data[1] & 4) {
    const SI4 code = socket->Close(socket->pItem);
    (void)code;
  }
  const size_t piece = data[0] ? data[0] : n;
  for (size_t at = 2; at < n; at += piece) stream.Send(data + at, n - at < piece ? n - at : piece);
  stream.ClosePeer();
  return 0;
}
