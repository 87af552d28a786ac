// httpconnection.h - mode "http", both sides: a stream of HTTP/1.1 messages, handed on piece by
// piece as they complete, and messages composed from arrays. Methods, status codes and the meaning
// of headers are the application's.
//
//   piece          event                   holds
//   HTTPHeader     "HTTPHeader"            first line and fields, with the blank line
//   HTTPBody       "HTTPBody"              Content-Length bytes
//   HTTPChunk      "HTTPChunk"             size line, data, line end
//   HTTPTrailer    "HTTPTrailer"           "0" line, fields, blank line
//   WSUpgradeReq   "WSUpgradeReq"          a request to upgrade, unless WSAutoUpgrade
//   WSResponse     "WSResponse"            its answer, unless WSAutoUpgrade
//   Blk            "BlkLast"               what is left when the peer closes
//
// Receiving: httpconnection.cpp. Sending: httpcompose.cpp. Becoming a WEBSOCKET: httpupgrade.cpp.
#pragma once

#include <memory>

#include "kyrno/base/mutex.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/httpframing.h"
#include "kyrno/modes/websocket.h"

/// Owner and threads as CONNECTION.
class HTTPCONNECTION : public CONNECTION {
 public:
  /// A client.
  HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode);
  /// An accepted peer.
  HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode, PRPCSOCK socket);
  ~HTTPCONNECTION() override;

  // --- httpcompose.cpp
  /// Six shapes, told apart by count and rank:
  ///
  ///   simple vector                            its bytes
  ///   (bytes, file name of rank 1)             bytes, Content-Length, the file: see GetFilehandle
  ///   (empty, matrix)                          the last chunk, the matrix as trailer
  ///   (bytes, matrix)                          one chunk, the matrix as extensions
  ///   (w1, w2, w3, matrix, body)               a message; the body bytes, or nested a file
  ///
  /// ERR_ARCHITECTURE, ERR_RANK, ERR_INDEX for another count, and the codes of the parts.
  [[nodiscard]] SI4 ComposeBuffer(PUI4 z, UI4 size, PBUFFER* out) override;
  /// data is a header block: its last CR LF makes room for the Content-Length of the file, which is
  /// owned here. Without data the file alone; without a file (-1, -2) the data alone.
  [[nodiscard]] SI4 ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) override;

  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;

  SI4 ReadComplete(PFDSETS sets, PHIERAKI child) override WORK_ONLY;
  SI4 PassiveClose(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  void Send(PHIERAKI child) override WORK_ONLY;

  /// For pieces to come, and for those below `item` that wait.
  void SetDecodeBuffers(PHIERAKI item, UI4 decode);

  WORD<UI4> Features{0};       // as in websocket.h
  WORD<UI4> DecodeBuffers{0};  // Decode bits of httpmsg.h

 protected:
  PBUFFER NewHeader() override WORK_ONLY;
  SI4 HeaderBytes(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) override WORK_ONLY;
  SI4 Resume(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  bool WantsBytes() const override WORK_ONLY;

 private:
  SI4 CutHeader(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) WORK_ONLY;
  SI4 Hand(PFDSETS sets, PHIERAKI item, const HTTPFRAMING::PIECE& piece, PCH10 data,
           UI4 have) WORK_ONLY;
  SI4 ReturnBuffer(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 have, UI4 size,
                   PCH10 prefix) WORK_ONLY;
  SI4 KeepHead(PCH10 data, UI4 n) WORK_ONLY;
  SI4 Keep(PCH10 data, UI4 n) WORK_ONLY;

  // --- httpupgrade.cpp
  SI4 Upgrade(PFDSETS sets, PHIERAKI item, PCH10 head, UI4 headSize, PCH10 rest,
              UI4 restSize) WORK_ONLY;
  SI4 Become(PHIERAKI item, std::unique_ptr<BUFFER> answer,
             std::unique_ptr<BUFFER> accept) WORK_ONLY;
  bool IsBetweenMessages() const WORK_ONLY;
  SI4 WSUpgrade(PAA value);
  SI4 WSAccept(PAA value);
  SI4 UpgradeHeader(PAA value);
  bool IsAnswer(PCH10 head, UI4 n);

  const UI4 MaxBlockSize;  // size of pHeader: the longest header block or chunk line
  HTTPFRAMING framing WORK_DATA;
  UI4 Count WORK_DATA = 0;       // names of pieces
  UI4 lineEnd WORK_DATA = 0;     // of the chunk that is being received; 0 for another piece
  bool uncut WORK_DATA = false;  // pHeader has bytes that the framing has not been shown
  // A request or answer of an upgrade has been handed out: what follows is kept uncut until the
  // application has accepted, or sends something else, which refuses.
  bool held WORK_DATA = false;

  MUTEX lockUpgrade;
  CH1 pWSUpgradeKey[25] GUARDED_BY(lockUpgrade) = {0};  // of this client's request, base64
  PCH1 pUserHeaders GUARDED_BY(lockUpgrade) = nullptr;  // owned, from malloc
};
using PHTTPCONNECTION = HTTPCONNECTION*;

// --- the parts of what is composed, httpcompose.cpp

/// Opens the file of a description: up to 4 items, bytes to go ahead, file name, content
/// encoding, compression level in place of `level`. "deflate" and "gzip" make it a compressed
/// temporary file. *ahead, for free(), and *aheadSize are the bytes; *file is the caller's and
/// stands anywhere. ERR_LENGTH, ERR_FILE, ERR_SIZE above 4 GiB, ERR_NO_SSL_SUPPORT without the
/// compression library.
[[nodiscard]] SI4 GetFilehandle(PAA spec, PUI1* ahead, PUI4 aheadSize, int* file, PUI4 fileSize,
                                UI4 level);
/// Three words, a header matrix and, above 0, the length of what follows, as a header block behind
/// the position of out, which grows for the matrix. ERR_APL_LENGTH for words that do not fit.
[[nodiscard]] SI4 FmtHeader(PAA* items, PBUFFER out, UI4 contentLength);
/// Two columns as lines: prefix, name, and where the value is not empty separator and value,
/// suffix. ERR_RANK, ERR_DOMAIN, ERR_INDEX for another array, ERR_APL_LENGTH above 512 KiB, and the
/// codes of the text.
[[nodiscard]] SI4 FmtMat(PAA matrix, PCH10 prefix, PCH10 separator, PCH10 suffix, PBUFFER out);

// --- the upgrade, httpupgrade.cpp (RFC 6455, section 4)

inline constexpr UI4 kWSAcceptSize = 28;  // of a key's answer, in base64

/// Whether a header block asks for an upgrade as section 4.2.1 wants it; key, 24 characters, is
/// then inside the block.
bool isWSUpgradeReq(PCH10 head, UI4 n, HTTPTEXT* key);
/// Whether it grants one (section 4.1) to who has sent this key.
bool isWSUpgradeAns(PCH10 head, UI4 n, PCH10 key);
/// The answer to a key, with a NUL; its length.
UI4 WebSocketKey(PCH10 key, UI4 n, CH1 (&accept)[kWSAcceptSize + 1]);
