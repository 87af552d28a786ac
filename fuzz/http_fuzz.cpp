// http_fuzz.cpp - an HTTP stream from a client or from a server, in pieces, with whatever follows
// an upgrade.
//
// The first byte is the size of the pieces, 0 for everything at once. In the second, 1 makes this
// side the client, 2 leaves upgrades to the application, 4 holds a WebSocket to the letter, and 8
// has pieces taken apart when they are delivered.
#include "fuzz/stream.h"
#include "kyrno/modes/httpconnection.h"
#include "kyrno/modes/httpmsg.h"

namespace {

constexpr UI4 kMaxBlock = 1024;

class CLIENT : public HTTPCONNECTION {
 public:
  explicit CLIENT(PRPCSOCK socket) : HTTPCONNECTION(kMaxBlock, MHttp) { pCon = socket; }
};

HTTPCONNECTION* NewConnection(UI1 how, PRPCSOCK socket) {
  HTTPCONNECTION* const c =
      how & 1 ? new CLIENT(socket) : new HTTPCONNECTION(kMaxBlock, MHttp, socket);
  c->Features = (how & 2 ? 0 : WSAutoUpgrade) | (how & 4 ? WSStrict : 0);
  if (how & 8) c->DecodeBuffers = DecodeHeader | DecodeTrailer | DecodeChunk | DecodeBody;
  return c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const UI1* data, size_t n) {
  if (n < 2) return 0;
  STREAM stream([&](PRPCSOCK socket) { return NewConnection(data[1], socket); });
  const size_t piece = data[0] ? data[0] : n;
  for (size_t at = 2; at < n; at += piece) stream.Send(data + at, n - at < piece ? n - at : piece);
  stream.ClosePeer();
  return 0;
}
