// wsframe.cpp - heads of WebSocket frames, read and written.
#include "kyrno/modes/wsframe.h"

#include <byteswap.h>

#include <cstring>

#include "Apl/utf8check.h"
#include "kyrno/base/error.h"

namespace {

constexpr UI1 kFin = 0x80;     // first byte
constexpr UI1 kMasked = 0x80;  // second byte
constexpr UI1 kTwoBytes = 126;
constexpr UI1 kEightBytes = 127;

}  // namespace

const PCH10 wsopcode[16] = {"Cont",  "Text", "Bin",  "", "", "", "", "",
                            "Close", "Ping", "Pong", "", "", "", "", ""};

bool ParseHead(PCH10 data, UI4 n, WSHEAD* head) {
  if (n < WSHEADERSIZE) return false;
  const UI1 first = static_cast<UI1>(data[0]);
  const UI1 second = static_cast<UI1>(data[1]);
  const UI1 code = second & 0x7F;
  const UI4 extended = code == kTwoBytes ? 2 : code == kEightBytes ? 8 : 0;
  head->masked = second & kMasked;
  head->size = WSHEADERSIZE + extended + (head->masked ? kMaskSize : 0);
  if (n < head->size) return false;

  head->fin = first & kFin;
  head->rsv = first >> 4 & 7;
  head->opcode = first & 0x0F;
  head->length = code;
  head->shortest = true;
  if (extended == 2) {
    UI2 length;
    memcpy(&length, data + WSHEADERSIZE, sizeof length);
    head->length = bswap_16(length);
    head->shortest = head->length >= kTwoBytes;
  } else if (extended == 8) {
    UI8 length;
    memcpy(&length, data + WSHEADERSIZE, sizeof length);
    head->length = bswap_64(length);
    head->shortest = head->length > UINT16_MAX;
  }
  if (head->masked) memcpy(head->mask, data + head->size - kMaskSize, kMaskSize);
  return true;
}

UI4 HeadSize(UI4 length, bool masked) {
  const UI4 extended = length < kTwoBytes ? 0 : length <= UINT16_MAX ? 2 : 8;
  return WSHEADERSIZE + extended + (masked ? kMaskSize : 0);
}

PCH1 PutHead(PCH1 to, bool fin, UI1 opcode, UI4 length, const UI1* mask) {
  const UI1 code = length < kTwoBytes     ? static_cast<UI1>(length)
                   : length <= UINT16_MAX ? kTwoBytes
                                          : kEightBytes;
  *to++ = static_cast<CH1>((fin ? kFin : 0) | opcode);
  *to++ = static_cast<CH1>((mask ? kMasked : 0) | code);
  if (code == kTwoBytes) {
    const UI2 extended = bswap_16(static_cast<UI2>(length));
    memcpy(to, &extended, sizeof extended);
    to += sizeof extended;
  } else if (code == kEightBytes) {
    const UI8 extended = bswap_64(UI8{length});
    memcpy(to, &extended, sizeof extended);
    to += sizeof extended;
  }
  if (!mask) return to;
  memcpy(to, mask, kMaskSize);
  return to + kMaskSize;
}

bool IsCloseCode(UI2 code) {
  // 1004 has no meaning; 1005, 1006 and 1015 stand for what never came over the wire; 1012 to 1014
  // were registered later.
  const bool named = code >= 1000 && code <= 1014 && (code < 1004 || code > 1006);
  return named || (code >= 3000 && code <= 4999);
}

UI2 HeadFault(const WSHEAD& head, bool fromClient, bool inMessage, UI4 most) {
  const bool control = IsControl(head.opcode);
  const bool continues = head.opcode == WSCont;
  if (head.rsv != 0 || IsReserved(head.opcode) || head.masked != fromClient) return WSProtocolError;
  if (!head.shortest) return WSProtocolError;
  if (control) return !head.fin || head.length > kMaxControl ? WSProtocolError : 0;
  if (continues != inMessage) return WSProtocolError;
  return head.length > most ? WSTooBig : 0;
}

UI2 CloseFault(PCH10 payload, UI4 n) {
  if (n == 0) return 0;
  if (n < sizeof(UI2) || !IsCloseCode(CloseCode(payload))) return WSProtocolError;
  UTF8CHECK text;
  const UI1* const reason = reinterpret_cast<const UI1*>(payload) + sizeof(UI2);
  return text.Feed(reason, n - sizeof(UI2)) && text.IsWhole() ? 0 : WSBadText;
}

UI2 CloseCode(PCH10 payload) {
  UI2 code;
  memcpy(&code, payload, sizeof code);
  return bswap_16(code);
}

SI4 ErrorOfClose(UI2 code) {
  return code == WSBadText ? ERR_UTF8 : code == WSTooBig ? ERR_MAX_BLOCK_SIZE : ERR_WRONG_MAGIC;
}
