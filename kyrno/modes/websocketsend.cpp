// websocketsend.cpp - mode "websocket": what is sent, from the application's array to a frame.
#include <cstring>
#include <memory>
#include <new>

#include "Apl/vaget.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/modes/websocket.h"
#include "sys/linux/fdhold.h"
#include "sys/linux/random.h"
#include "util/base64.h"

namespace {

constexpr UI4 kItems = 3;

bool IsBytes(VATYPES type) { return type == VAI1 || type == VAI2; }
bool IsText(VATYPES type) { return type == VAC1 || type == VAC2 || type == VAC4; }

/// A whole number where it stands; false for what has to be read more thoroughly.
bool QuickNumber(const ZVIEW& view, PSI4 value) {
  return view.rank == 0 && ViewNumber(view, value);
}

/// Units in front of the first zero, at which the converters end.
UI4 UnitsToZero(const CH1* text, UI4 units, UI4 width) {
  if (width == 1) {
    const void* const zero = units > 0 ? memchr(text, 0, units) : nullptr;
    return zero ? static_cast<UI4>(static_cast<const CH1*>(zero) - text) : units;
  }
  static constexpr CH1 kZero[4] = {0};
  UI4 n = 0;
  while (n < units && memcmp(text + size_t{n} * width, kZero, width) != 0) ++n;
  return n;
}

/// The text as UTF-8: *size bytes, which are written where `to` is not null.
SI4 ToUtf8(const ZVIEW& text, PUI1 to, UI8* size) {
  const UNICODETYPES from = text.type == VAC4   ? UCS4
                            : text.type == VAC2 ? UCS2
                            : isUnicode()       ? UCS1
                                                : C1AV;
  const UI4 width = MinUSize[from];
  const UI8 whole = *size;
  UI8 put = 0;
  for (UI4 at = 0;;) {
    const CH1* const units = text.data + size_t{at} * width;
    const UI4 n = UnitsToZero(units, text.count - at, width);
    const UI1* const source = reinterpret_cast<const UI1*>(units);
    UI4 bytes = static_cast<UI4>(whole);
    SI4 code = 0;
    if (!to || n < text.count)
      code = ConvUnicodeM(UTF8, nullptr, &bytes, from, source, n * width, 0);
    if (!code && to) code = ConvUnicode(UTF8, to + put, bytes, from, source, n * width, 0);
    if (code) return code;
    put += bytes;
    at += n;
    if (at == text.count) break;
    if (to) to[put] = 0;
    ++put;
    ++at;
  }
  *size = put;
  return 0;
}

bool IsUtf8(PCH10 text, UI4 n) {
  UTF8CHECK check;
  return check.Feed(reinterpret_cast<const UI1*>(text), n) && check.IsWhole();
}

/// What the application has given for a frame.
struct PARTS {
  ZVIEW data;  // in the block, or in `held`
  SI4 fin = 1;
  SI4 opcode = 0;
  bool given = false;  // the opcode
  VAHOLD held;

  SI4 Read(PUI4 z, UI4 size);

 private:
  SI4 ReadSlowly(PUI4 z, UI4 size);
};

SI4 PARTS::Read(PUI4 z, UI4 size) {
  ZVIEW items[kItems];
  const UI4 n = ViewItems(z, size, items, kItems);
  if (n < 2 || !QuickNumber(items[1], &fin)) return ReadSlowly(z, size);
  given = n > 2;
  if (given && !QuickNumber(items[2], &opcode)) return ReadSlowly(z, size);
  data = items[0];
  return 0;
}

SI4 PARTS::ReadSlowly(PUI4 z, UI4 size) {
  PAA read = nullptr;
  if (const SI4 code = ReadZ(z, size, &read)) return code;
  const VAHOLD array(read);
  if (VARank(read) != 1) return ERR_RANK;
  if (VAType(read) != VAPntr) return ERR_DOMAIN;
  const UI4 n = VACount(read);
  if (n < 2 || n > kItems) return ERR_LENGTH;
  if (VAGetSI4(read, 1, &fin)) fin = 1;
  given = n > 2;
  if (given)
    if (const SI4 code = VAGetSI4(read, 2, &opcode)) return code;
  PAA first = nullptr;
  if (const SI4 code = VAGetpAA(read, 0, &first)) return code;
  held = VAHOLD(first);
  data = {VAType(first), VARank(first), VACount(first),
          reinterpret_cast<const CH1*>(VAData(static_cast<const VARRAY*>(first)))};
  return 0;
}

}  // namespace

/// A frame on its way out, and what is under way before and behind it: see firstOpcode.
struct WEBSOCKET::FRAME {
  UI1 opcode = 0;
  UI1 before = 0;
  UI1 next = 0;
  PBUFFER out = nullptr;
};

// ---- frames

/// A frame with room for its payload, to be written, then masked.
PBUFFER WEBSOCKET::NewFrame(bool fin, UI1 opcode, UI4 n, PCH1* payload) const {
  UI1 key[kMaskSize];
  const bool client = Type == TClient;
  const UI4 head = HeadSize(n, client);
  if (n > UINT32_MAX - head) return nullptr;
  PBUFFER const frame = BUFFER::NewWhole(head + n);
  if (!frame) return nullptr;
  if (client) RandomBytes(key, kMaskSize);
  *payload = PutHead(frame->Start(), fin, opcode, n, client ? key : nullptr);
  return frame;
}

void WEBSOCKET::MaskOut(PCH1 payload, UI4 n) const {
  if (Type != TClient) return;
  CH1 key[kMaskSize];
  memcpy(key, payload - kMaskSize, kMaskSize);
  mask(payload, n, key, kMaskSize);
}

PBUFFER WEBSOCKET::NewFrame(UI1 opcode, PCH10 data, UI4 n) const {
  PCH1 payload = nullptr;
  PBUFFER const frame = NewFrame(true, opcode, n, &payload);
  if (!frame) return nullptr;
  if (n > 0) memcpy(payload, data, n);
  MaskOut(payload, n);
  return frame;
}

// ---- the interpreter's side

/// Which opcode goes out.
SI4 WEBSOCKET::ChooseOpcode(VATYPES type, bool fin, const SI4* given, FRAME* frame) const {
  if (!IsBytes(type) && !IsText(type)) return ERR_DOMAIN;
  const UI1 first = firstOpcode.load(std::memory_order_relaxed);
  frame->before = frame->next = first;
  if (strict && given && *given >= WSClose) {
    // It does not disturb the message that is under way.
    if (*given > WSPong || !fin) return ERR_DOMAIN;
    frame->opcode = static_cast<UI1>(*given);
    return 0;
  }
  if (first == (IsBytes(type) ? WSText : WSBin)) return ERR_DOMAIN;
  UI1 opcode = IsBytes(type) ? WSBin : WSText;
  if (given) opcode = *given & 0x0F;
  if (strict && given && !first && *given != WSText && *given != WSBin) return ERR_DOMAIN;
  // Deliberate: unless the RFC is kept, later frames go out with the opcode of the first.
  if (first) opcode = first;
  frame->opcode = strict && first ? UI1{WSCont} : opcode;
  frame->next = fin ? 0 : opcode;
  return 0;
}

SI4 WEBSOCKET::Compose(PUI4 z, UI4 size, FRAME* frame) const {
  PARTS parts;
  SI4 code = parts.Read(z, size);
  const bool fin = parts.fin != 0;
  if (!code)
    code = ChooseOpcode(parts.data.type, fin, parts.given ? &parts.opcode : nullptr, frame);
  if (code) return code;

  const bool text = IsText(parts.data.type);
  UI8 bytes = parts.data.count;
  if (text && parts.data.rank > 1) return ERR_APL_RANK;
  if (text) code = ToUtf8(parts.data, nullptr, &bytes);
  if (code) return code;
  const bool isControl = strict && IsControl(frame->opcode);
  if (isControl && bytes > kMaxControl) return ERR_LENGTH;
  if (bytes > UINT32_MAX - kMaxFrameHead) return ERR_SIZE;
  const UI4 n = static_cast<UI4>(bytes);

  PCH1 payload = nullptr;
  std::unique_ptr<BUFFER> out(NewFrame(fin, frame->opcode, n, &payload));
  if (!out) return ERR_MEMORY_ALLOC;
  PUI1 const to = reinterpret_cast<PUI1>(payload);
  code = text ? ToUtf8(parts.data, to, &bytes) : ViewBytes(parts.data, to);
  if (code) return code;
  if (strict) {
    const UI1 kind = frame->before && !isControl ? frame->before : frame->opcode;
    if (kind == WSText && !IsUtf8(payload, n)) return ERR_UTF8;
    if (kind == WSClose && CloseFault(payload, n)) return ERR_DOMAIN;
  }
  MaskOut(payload, n);
  frame->out = out.release();
  return 0;
}

SI4 WEBSOCKET::ComposeBuffer(PUI4 z, UI4 size, PBUFFER* out) {
  FRAME frame;
  const SI4 code = Compose(z, size, &frame);
  *out = frame.out;
  if (!code) firstOpcode.store(frame.next, std::memory_order_relaxed);
  return code;
}

SI4 WEBSOCKET::ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) {
  *out = nullptr;
  const FDHOLD owned(file);
  if (file != -1) return ERR_FILE;
  if (strict && !IsUtf8(reinterpret_cast<PCH10>(data), n)) return ERR_UTF8;
  *out = NewFrame(WSText, reinterpret_cast<PCH10>(data), n);
  return *out ? 0 : ERR_MEMORY_ALLOC;
}

SI4 WEBSOCKET::SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) {
  if (!IsOpen() || closing.load(std::memory_order_acquire)) return ERR_CLOSED;
  FRAME frame;
  SI4 code = Compose(z, size, &frame);
  if (code) return code;
  if (strict && frame.opcode == WSClose) return SendClose(item, name, frame.out);
  code = SendBuffer(item, name, frame.out, flag);
  // A frame that was not queued has not been.
  if (!code && frame.next != frame.before) firstOpcode.store(frame.next, std::memory_order_relaxed);
  return code;
}

SI4 WEBSOCKET::SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag) {
  if (closing.load(std::memory_order_acquire)) {
    delete buffer;
    return ERR_CLOSED;
  }
  if (!strict || flag != 1) return CONNECTION::SendBuffer(item, name, buffer, flag);
  const SI4 code = CONNECTION::SendBuffer(item, name, buffer, 0);
  return code ? code : Close(item);
}
