// httpupgrade.cpp - how an HTTP connection becomes a WEBSOCKET: by itself, or when the application
// accepts.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/httpconnection.h"
#include "kyrno/modes/message.h"
#include "kyrno/tree/root.h"
#include "sys/linux/random.h"
#include "util/base64.h"
#include "util/freed.h"
#include "util/sha1.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr UI4 kKeyBytes = 16;
constexpr UI4 kKeySize = 24;  // the same in base64
constexpr CH1 WSGUID[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

/// The texts one behind the other, ready to be sent.
PBUFFER Join(std::initializer_list<PCH10> texts) {
  size_t n = 0;
  for (PCH10 text : texts) n += strlen(text);
  if (n > UINT32_MAX) return nullptr;
  std::unique_ptr<BUFFER> all(BUFFER::NewWhole(static_cast<UI4>(n)));
  if (!all) return nullptr;
  for (PCH10 text : texts) all->Append(text, static_cast<UI4>(strlen(text)));
  all->Rewind();
  return all.release();
}

// What is sent around the key, and around its answer.
constexpr CH1 kAskMore[] =
    "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: ";
// Deliberate: with a lower-case s in "Sec-Websocket-Accept".
constexpr CH1 kGrant[] =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-Websocket-Accept: ";
constexpr CH1 CRLF[] = "\r\n";

/// The answer that grants an upgrade, with lines of the application's own.
PBUFFER AnswerTo(const HTTPTEXT& key, PCH10 extra) {
  CH1 accept[kWSAcceptSize + 1];
  WebSocketKey(key.text, key.length, accept);
  return Join({kGrant, accept, CRLF, extra, CRLF});
}

/// An item that may be absent.
SI4 ReadExtra(PAA value, UI4 index, TEXT* text) {
  // A text alone is one item, whatever its length.
  if (VAType(value) != VAPntr || VAElems(value) <= index) return 0;
  return ReadText(value, index, text);
}

bool StartsWith(const HTTPTEXT& line, PCH10 word) {
  const size_t n = strlen(word);
  return line.length >= n && memcmp(line.text, word, n) == 0;
}

bool EndsWith(const HTTPTEXT& line, PCH10 word) {
  const size_t n = strlen(word);
  return line.length >= n && strncasecmp(line.text + line.length - n, word, n) == 0;
}

bool IsBase64(CH1 c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/';
}

/// 16 bytes in base64 have 22 digits and two signs of padding.
bool IsKey(const HTTPTEXT& key) {
  if (key.length != kKeySize || memcmp(key.text + kKeySize - 2, "==", 2) != 0) return false;
  for (UI4 i = 0; i < kKeySize - 2; ++i)
    if (!IsBase64(key.text[i])) return false;
  return true;
}

}  // namespace

bool isWSUpgradeReq(PCH10 head, UI4 n, HTTPTEXT* key) {
  const HTTPTEXT line = FirstLine(head, n);
  HTTPTEXT host;
  UI4 from = 0;
  if (!StartsWith(line, "GET ") || !EndsWith(line, "HTTP/1.1")) return false;
  if (!FindHdr(head, n, "Host:", &from, &host)) return false;
  from = 0;
  return isHdr(head, n, "Upgrade:", "websocket") && isHdrM(head, n, "Connection:", "upgrade") &&
         isHdr(head, n, "Sec-WebSocket-Version:", "13") &&
         FindHdr(head, n, "Sec-WebSocket-Key:", &from, key) && IsKey(*key);
}

bool isWSUpgradeAns(PCH10 head, UI4 n, PCH10 key) {
  if (!*key || !StartsWith(FirstLine(head, n), "HTTP/1.1 101")) return false;
  CH1 accept[kWSAcceptSize + 1];
  const UI4 size = WebSocketKey(key, static_cast<UI4>(strlen(key)), accept);
  HTTPTEXT answer;
  UI4 from = 0;
  return isHdr(head, n, "Upgrade:", "websocket") && isHdrM(head, n, "Connection:", "upgrade") &&
         FindHdr(head, n, "Sec-WebSocket-Accept:", &from, &answer) && answer.length == size &&
         memcmp(answer.text, accept, size) == 0;
}

UI4 WebSocketKey(PCH10 key, UI4 n, CH1 (&accept)[kWSAcceptSize + 1]) {
  SHA1Context sha;
  uint8_t digest[SHA1HashSize];
  SHA1Reset(&sha);
  SHA1Input(&sha, reinterpret_cast<const uint8_t*>(key), n);
  SHA1Input(&sha, reinterpret_cast<const uint8_t*>(WSGUID), sizeof WSGUID - 1);
  SHA1Result(&sha, digest);
  return encode64(accept, digest, SHA1HashSize);
}

// ---- the interpreter's side

SI4 HTTPCONNECTION::WSUpgrade(PAA value) {
  if (Type != TClient) return ERR_INVALID_OBJECT;
  TEXT url, host, extra;
  SI4 code = ReadText(value, 0, &url);
  if (!code) code = ReadText(value, 1, &host);
  if (!code) code = ReadExtra(value, 2, &extra);
  if (code) return code;

  UI1 bytes[kKeyBytes];
  CH1 key[kKeySize + 1];
  RandomBytes(bytes, kKeyBytes);
  encode64(key, bytes, kKeyBytes);
  PBUFFER request = nullptr;
  {
    MUTEXHOLD hold(lockUpgrade);
    memcpy(pWSUpgradeKey, key, sizeof key);
    PCH10 const lines = extra ? extra.get() : pUserHeaders;
    request = Join({"GET ", url.get(), " HTTP/1.1\r\nHost: ", host.get(), kAskMore, key, CRLF,
                    lines ? lines : "", CRLF});
  }
  if (!request) return ERR_MEMORY_ALLOC;
  CH1 name[] = "WSUpgradeReq";
  return SendBuffer(pItem, name, request, 0);
}

SI4 HTTPCONNECTION::UpgradeHeader(PAA value) {
  constexpr UI4 kIndex = 3;
  TEXT text;
  if (const SI4 code = ReadText(value, kIndex, &text)) return code;
  MUTEXHOLD hold(lockUpgrade);
  free(pUserHeaders);
  pUserHeaders = text.release();
  return 0;
}

bool HTTPCONNECTION::IsAnswer(PCH10 head, UI4 n) {
  MUTEXHOLD hold(lockUpgrade);
  return isWSUpgradeAns(head, n, pWSUpgradeKey);
}

SI4 HTTPCONNECTION::WSAccept(PAA value) {
  TEXT text, extra;
  SI4 code = ReadText(value, 0, &text);
  if (!code) code = ReadExtra(value, 1, &extra);
  if (code) return code;
  const UI4 n = static_cast<UI4>(strlen(text.get()));
  std::unique_ptr<BUFFER> answer;
  if (Type == TConnection) {
    HTTPTEXT key;
    if (!isWSUpgradeReq(text.get(), n, &key)) return ERR_WSUPGRADE_FAILED;
    answer.reset(AnswerTo(key, extra ? extra.get() : ""));
    if (!answer) return ERR_MEMORY_ALLOC;
  } else if (!IsAnswer(text.get(), n)) {
    return ERR_WSUPGRADE_FAILED;
  }

  PHIERAKI const item = pItem;
  ROOT* const root = RootOf(item);
  // In a forked child the socket is the parent's.
  if (!root->IsOwnProcess()) return 0;
  root->TakeRoleFromCall();
  code = IsBetweenMessages() ? Become(item, std::move(answer), nullptr) : ERR_WSUPGRADE_FAILED;
  root->GiveRoleFromCall();
  return code;
}

// ---- in the work thread's role

SI4 HTTPCONNECTION::Upgrade(PFDSETS sets, PHIERAKI item, PCH10 head, UI4 headSize, PCH10 rest,
                            UI4 restSize) {
  const bool server = Type == TConnection;
  HTTPTEXT key = {nullptr, 0};
  if (server ? !isWSUpgradeReq(head, headSize, &key) : !IsAnswer(head, headSize))
    return ERR_WSUPGRADE_FAILED;

  if (!(Features & WSAutoUpgrade)) {
    held = true;
    lineEnd = 0;
    const SI4 code =
        ReturnBuffer(sets, item, head, headSize, headSize, server ? "WSUpgradeReq" : "WSResponse");
    if (pHeader) pHeader->Rewind();
    return code ? code : Keep(rest, restSize);
  }
  std::unique_ptr<BUFFER> accept(new (std::nothrow) BUFFER(headSize, head));
  std::unique_ptr<BUFFER> answer(server ? AnswerTo(key, "") : nullptr);
  if (!accept || accept->lError || (server && !answer)) return ERR_MEMORY_ALLOC;
  if (pHeader) pHeader->Rewind();
  if (const SI4 code = Keep(rest, restSize)) return code;
  return Become(item, std::move(answer), std::move(accept));
}

/// What comes next is no part of a message that has begun.
bool HTTPCONNECTION::IsBetweenMessages() const {
  if (held) return true;
  return !IsReceiving() && !(pHeader && pHeader->SizeProcessed() > 0);
}

/// Gives the node to a WEBSOCKET, which sends the answer first. Both buffers may be null.
SI4 HTTPCONNECTION::Become(PHIERAKI item, std::unique_ptr<BUFFER> answer,
                           std::unique_ptr<BUFFER> accept) {
  // Somebody else may have been here first, or the connection may be over.
  if (item->Obj() != this || !item->IsLinked() || !IsOpen()) return ERR_CLOSED;
  const bool told = accept != nullptr;
  std::unique_ptr<WEBSOCKET> socket(new (std::nothrow)
                                        WEBSOCKET(MaxBlockSize, Type, Features, accept.get()));
  if (!socket) return ERR_MEMORY_ALLOC;
  (void)accept.release();
  socket->pOOSfn = pOOSfn;
  if (answer) {
    MESSAGE* const message = new (std::nothrow) MESSAGE(answer.get(), SReadyToSend);
    if (!message) return ERR_MEMORY_ALLOC;
    (void)answer.release();
    message->Mode = OBJMODE{Mode};
    if (const SI4 code = QueueFromTurn(item, "WSUpgradeAns", message)) return code;
  }
  LOG(2, ("%s is a WebSocket now", item->GetName()));
  RootOf(item)->Replace(item, socket.release());
  if (told) Ready4Apl(item);
  return 0;
}
