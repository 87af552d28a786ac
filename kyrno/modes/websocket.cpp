// websocket.cpp - mode "websocket": what is received.
//
//   head --> control frame: its payload is gathered, then answered or dropped
//        --> data frame: a WSMSG, which is read to its place, then unmasked and checked
//        --> the next fragment of a message that is joined: behind the others in its WSMSG
//        --> a mistake of the peer
//
// Deliberate, without WSStrict: reserved bits and opcodes, missing masks and masks that a server
// has put on are not looked at; what follows a control frame in the midst of a text is not text.
#include "kyrno/modes/websocket.h"

#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "kyrno/tree/root.h"
#include "util/base64.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

/// "WSFText00000000": fin or continued, opcode, number.
void UnitName(PCH1 to, const WSHEAD& head, UI4 number) {
  CH1 prefix[16] = "WSC";
  if (head.fin) prefix[2] = 'F';
  strcpy(prefix + 3, wsopcode[head.opcode]);
  NumberedName(to, prefix, number);
}

/// Bytes at the end that begin a character without ending it, when there are any.
UI1 Unfinished(const UI1* text, UI4 n) {
  constexpr UI1 kLead = 0xC0;
  UI1 k = 1;
  while (k < n && text[n - k] < kLead) ++k;
  return k;
}

}  // namespace

WEBSOCKET::WEBSOCKET(UI4 maxBlockSize, OBJTYPE type, UI4 features, PBUFFER accept)
    : CONNECTION(type),
      MaxBlockSize(maxBlockSize),
      strict(features & WSStrict),
      joins(strict && (features & WSWhole)),
      pWSAccept(accept) {
  Mode = MWebSocket;
  SetState(accept ? SIncoming : SConnected);
}

WEBSOCKET::~WEBSOCKET() {
  AssumeWorkThread();  // nobody else knows it any more
  delete pWSAccept;
  delete pPong;
}

SI4 WEBSOCKET::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next, PUI4* ppZ) {
  if (LastState != SIncoming) return CONNECTION::GetWaitReturns(item, objname, event, next, ppZ);
  *ppZ = nullptr;
  item->FullName(objname, kFullNameSize);
  strcpy(event, eventname[EWSUpgrade]);
  *next = SConnected;
  if (!pWSAccept) return 0;
  pWSAccept->Rewind();
  *ppZ = Data2Z(pWSAccept->Start(), pWSAccept->TotalSize(), VAC1);
  if (!*ppZ) return ERR_MEMORY_ALLOC;
  delete pWSAccept;
  pWSAccept = nullptr;
  return 0;
}

PBUFFER WEBSOCKET::NewHeader() { return new (std::nothrow) BUFFER(kMaxFrameHead); }

SI4 WEBSOCKET::HeaderBytes(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) {
  *used = n;
  if (failed || peerDone) return 0;
  if (controls) return ControlBytes(item, data, n, used);
  WSHEAD head;
  const UI4 have = pHeader ? pHeader->SizeProcessed() : 0;
  if (have == 0 && ParseHead(data, n, &head)) {
    *used = head.size;
    return BeginFrame(sets, item, head);
  }
  // A head in pieces.
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  pHeader->AppendP(data, n);
  if (!ParseHead(pHeader->Start(), pHeader->SizeProcessed(), &head)) return 0;
  *used = head.size - have;
  pHeader->Rewind();
  return BeginFrame(sets, item, head);
}

SI4 WEBSOCKET::BeginFrame(PFDSETS sets, PHIERAKI item, const WSHEAD& head) {
  if (strict) {
    const UI4 most = MaxBlockSize - (phJoined ? JoinedUnit()->Size() : 0);
    if (const UI2 fault = HeadFault(head, Type == TConnection, lastOpcode != 0, most))
      return Fail(item, fault);
  } else if (head.length > MaxBlockSize) {
    return ERR_MAX_BLOCK_SIZE;
  }
  const bool control = IsControl(head.opcode) && !IsReserved(head.opcode);
  if (head.opcode != WSCont && !(strict && control)) lastOpcode = head.opcode;
  if (!IsControl(head.opcode)) return BeginUnit(sets, item, head);
  if (head.length > kMaxControl) {
    LOG(1, ("Control frame >125 on %s: %u", item->GetName(), static_cast<UI4>(head.length)));
    return EndQuietly(item, WSProtocolError);
  }
  // Reserved ones are units, only where nobody minds them.
  if (!control) return BeginUnit(sets, item, head);
  ++Count;
  controlHead = head;
  controlSize = 0;
  controls = head.length > 0;
  return controls ? 0 : ControlComplete(item);
}

// ---- data frames

SI4 WEBSOCKET::BeginUnit(PFDSETS sets, PHIERAKI item, const WSHEAD& head) {
  if (joins && head.opcode == WSCont) return ContinueUnit(sets, head);
  const bool text = lastOpcode == WSText;
  if (head.opcode != WSCont) check.Begin();
  const UI8 total = head.length + splitSize;
  if (total > UINT32_MAX) return ERR_MEMORY_ALLOC;
  const UI4 size = static_cast<UI4>(total);
  // How long a joined message becomes is not known yet: it has no place.
  const bool grows = joins && !head.fin;
  const BLOCKPLACE place = grows ? BLOCKPLACE{0, 0, 0} : WSMSG::Place(size);
  std::unique_ptr<BUFFER> body(new (std::nothrow) BUFFER(place, size));
  if (!body || body->lError) return ERR_MEMORY_ALLOC;
  body->Append(reinterpret_cast<PCH10>(split), splitSize);
  splitSize = 0;
  if (strict && head.fin) lastOpcode = 0;

  WSHEAD told = head;
  told.fin = head.fin || joins;
  std::unique_ptr<WSMSG> unit(new (std::nothrow)
                                  WSMSG(body.get(), SReceiving, told, text, sets->now));
  if (!unit) return ERR_MEMORY_ALLOC;
  PBUFFER const buffer = body.release();
  unit->Mode = OBJMODE{Mode};
  CH1 name[kMaxName];
  UnitName(name, told, Count++);
  PHIERAKI const child = item->AddNew(name, unit.get());
  if (!child) return ERR_NAME_IN_USE;
  (void)unit.release();
  UnitAdded();
  if (grows) phJoined = child;
  if (buffer->Complete()) return ReadComplete(sets, child);
  Receive(child, buffer);
  return 0;
}

SI4 WEBSOCKET::ContinueUnit(PFDSETS sets, const WSHEAD& head) {
  if (head.fin) lastOpcode = 0;
  const UI4 n = static_cast<UI4>(head.length);
  if (!phJoined) {  // its unit has been closed
    SkipBytes(n);
    return 0;
  }
  if (const SI4 code = JoinedUnit()->Continue(head, MaxBlockSize)) return code;
  if (n == 0) return ReadComplete(sets, phJoined);
  Receive(phJoined, phJoined->Obj()->GetBuffer());
  return 0;
}

/// A unit that is not delivered.
void WEBSOCKET::Drop(PHIERAKI child) {
  Forget(child);
  child->Obj()->Finish();
  RootOf(child)->Mark(child);
}

void WEBSOCKET::Forget(PHIERAKI child) {
  if (child == phJoined) phJoined = nullptr;
  CONNECTION::Forget(child);
}

SI4 WEBSOCKET::ReadRecv(PFDSETS, PHIERAKI child) {
  WSMSG* const unit = static_cast<WSMSG*>(child->Obj());
  if (!strict || !unit->Text) return 0;
  UI4 n = 0;
  const UI1* const fresh = unit->MaskBuf(child, &n);
  if (n == 0 || check.Feed(fresh, n)) return 0;
  Drop(child);
  return Fail(child->Parent(), WSBadText);
}

SI4 WEBSOCKET::ReadComplete(PFDSETS sets, PHIERAKI child) {
  WSMSG* const unit = static_cast<WSMSG*>(child->Obj());
  UI4 n = 0;
  const UI1* const fresh = unit->MaskBuf(child, &n);
  if (unit->Text && !TakeText(unit, fresh, n)) {
    Drop(child);
    return Fail(child->Parent(), WSBadText);
  }
  if (GoesOn()) return 0;
  phJoined = nullptr;
  LOG(4, ("WS msg %d size %u", unit->Opcode, unit->Size()));
  unit->MakeReady(child, SAPL, sets->now);
  return 0;
}

/// The last bytes of a frame of text have come. False when it is not UTF-8.
bool WEBSOCKET::TakeText(WSMSG* unit, const UI1* fresh, UI4 n) {
  if (!strict) return unit->Measure();
  if (n > 0 && !check.Feed(fresh, n)) return false;
  if (GoesOn()) return true;
  if (!check.IsWhole()) {
    if (unit->Fin) return false;
    splitSize = Unfinished(unit->Bytes(), unit->Size());
    memcpy(split, unit->Bytes() + unit->Size() - splitSize, splitSize);
    unit->Cut(splitSize);
  }
  return unit->Measure();
}

// ---- control frames

SI4 WEBSOCKET::ControlBytes(PHIERAKI item, PCH10 data, UI4 n, PUI4 used) {
  const UI4 left = static_cast<UI4>(controlHead.length) - controlSize;
  *used = n < left ? n : left;
  memcpy(controlData + controlSize, data, *used);
  controlSize += *used;
  if (controlSize < controlHead.length) return 0;
  controls = false;
  if (controlHead.masked && Type == TConnection)
    mask(controlData, controlSize, reinterpret_cast<PCH10>(controlHead.mask), kMaskSize);
  return ControlComplete(item);
}

SI4 WEBSOCKET::ControlComplete(PHIERAKI item) {
  LOG(4, ("WS%s size %u", wsopcode[controlHead.opcode], controlSize));
  switch (controlHead.opcode) {
    case WSPing:
      return Pong(item);
    case WSClose:
      return PeerCloses(item);
    default:
      return 0;
  }
}
