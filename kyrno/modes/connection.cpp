// connection.cpp - the engine of every stream endpoint.
#include "kyrno/modes/connection.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "kyrno/modes/relay.h"
#include "kyrno/net/address.h"
#include "kyrno/tree/root.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr UI4 kReadsPerTurn = 16;
constexpr UI4 kWritesPerTurn = 16;
constexpr size_t kLargeTimes = 8;  // as much of one large message
constexpr UI4 kPieces = 256;       // at most, of one write
constexpr UI4 kOwnBytes = 8192;    // from here on a payload is read to its place at once
constexpr UI4 kMaxCompLevel = 9;
constexpr SI4 kKeepAliveInterval = 1000;  // ms, when only the time is given

bool Is(PCH10 name, PCH10 word) { return strcasecmp(name, word) == 0; }

/// What stands first in the order of the tree of two nodes that are to be sent: commands and
/// messages lie right below the connection, reports below their command.
bool GoesBefore(PHIERAKI a, PHIERAKI b, PHIERAKI connection) {
  PHIERAKI const topA = a->Parent() == connection ? a : a->Parent();
  PHIERAKI const topB = b->Parent() == connection ? b : b->Parent();
  if (topA != topB) return connection->Place(topA) < connection->Place(topB);
  if (a == topA || b == topB) return b == topB;
  return topA->Place(a) < topA->Place(b);
}

}  // namespace

CONNECTION::CONNECTION() : RPCOBJS(TClient) {}

CONNECTION::CONNECTION(PRPCSOCK socket) : RPCOBJS(TConnection), pCon(socket) {
  switch (socket->lError) {
    case 0:
      SetState(SIncoming);
      break;
    case ERR_HANDSHAKE_NOT_COMPLETED:
      socket->lError = 0;
      NextState = SIncoming;
      SetState(SSSL);
      break;
    default:
      lErrorObj = socket->lError;
      SetState(SFinished);
  }
}

CONNECTION::~CONNECTION() {
  LOG(2, ("Deleting Connection/Client"));
  delete pHeader;
  delete pTaken;
  if (ownsCon) delete pCon;
}

SI4 CONNECTION::Connect(PCH10 address, PCH10 port, PROTOCOL prot) {
  SI4 code = 0;
  pCon = NewSock(address, port, false, prot, &code);
  if (!pCon) return code ? code : ERR_NEW_DATA_SOCKET;
  if (pCon->lError == 0) SetState(SConnected);
  return pCon->lError;
}

CONNECTION* CONNECTION::Above(PHIERAKI item) {
  do {
    item = item->Parent();
  } while (item->Obj()->Type != TClient && item->Obj()->Type != TConnection);
  return static_cast<PCONNECTION>(item->Obj());
}

void CONNECTION::CloseAfterFork() {
  if (pCon && pCon->isValid()) closesocket(pCon->RawSocket());
}

// ---- the interpreter's side

SI4 CONNECTION::Close(PHIERAKI item) {
  for (;;) {
    const OBJSTATE state = GetState();
    if (state == SReceiving || state == SSending) return ERR_OBJECT_ACTIVITY;
    if (state == SFinished || state == SMarkedForDeletion) return 0;
    if (state == SSocketClosed) {
      if (ActiveClose > 0 || !Replace(SSocketClosed, SFinished)) return 0;
      break;
    }
    // The time comes first: it tells this close from a peer's to whoever sees the state. The work
    // thread shuts the socket down, because it alone knows whether there still is one.
    ActiveClose = Micros();
    if (Replace(state, SSocketClosed)) {
      lErrorObj = ERR_ACTIVECLOSE;
      break;
    }
    ActiveClose = 0.0;
  }
  return RootOf(item)->ChangedSoon(item);
}

PCH10 CONNECTION::CompleteName(PCH1 name) {
  NumberedName(name, ".Auto", NameCnt.fetch_add(1, std::memory_order_relaxed));
  return name + 1;
}

SI4 CONNECTION::Queue(PHIERAKI item, PCH10 leaf, RPCOBJS* child, LENTBUFFER* lent) {
  std::unique_ptr<RPCOBJS> owned(child);
  PHIERAKI const node = item->AddNew(leaf, child);
  if (!node) return item->IsLinked() ? ERR_NAME_IN_USE : ERR_CLOSED;
  owned.release();
  // The connection may have ended since the caller looked: what can't be sent any more is not
  // accepted.
  const bool late = !IsOpen() && child->Move(SReadyToSend, SFinished);
  const SI4 code = RootOf(item)->ChangedInBurst(node, child->timeCreate);
  if (lent) lent->Own();
  return late ? ERR_CLOSED : code;
}

SI4 CONNECTION::SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag) {
  std::unique_ptr<BUFFER> owned(buffer);
  if (!IsOpen()) return ERR_CLOSED;
  MESSAGE* const message = new (std::nothrow) MESSAGE(buffer, SReadyToSend);
  if (!message) return ERR_MEMORY_ALLOC;
  owned.release();
  message->Mode = OBJMODE{Mode};
  message->NextState = flag == 3 ? SSent : SFinished;
  if (flag == 1) message->NextPState = SShutdown;

  CH1 own[kMaxName] = {0};
  if (!name) name = own;
  return Queue(item, *name ? name : CompleteName(name), message);
}

SI4 CONNECTION::SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) {
  if (!IsOpen()) return ERR_CLOSED;
  PBUFFER buffer = nullptr;
  const SI4 code = ComposeBuffer(z, size, &buffer);
  return code ? code : SendBuffer(item, name, buffer, flag);
}

SI4 CONNECTION::SetRPCProp(PHIERAKI, PCH10 name, PAA value) {
  if (Is(name, "IWA") || Is(name, "Token") || Is(name, "Impersonate") || Is(name, "MakeFile"))
    return ERR_NONCE;
  const bool magic = Is(name, "Magic");
  const bool level = Is(name, "CompLevel");
  if (!magic && !level && !Is(name, "KeepAlive")) return ERR_OPTION;

  SI4 first = 0;
  const SI4 code = VAGetSI4(value, 0, &first);
  if (code) return code;
  const UI4 n = static_cast<UI4>(first);
  if (magic) {
    if (Mode == MBlkRaw || Mode == MBlkAscii) SetMagic(n);
    return 0;
  }
  if (level) {
    CompLevel = n < kMaxCompLevel ? n : kMaxCompLevel;
    return 0;
  }
  SI4 interval = kKeepAliveInterval;
  if (VAElems(value) > 1)
    if (const SI4 second = VAGetSI4(value, 1, &interval)) return second;
  if (!pCon || !pCon->isValid()) return 0;
  return pCon->SetKeepalive(n, static_cast<UI4>(interval));
}

SI4 CONNECTION::GetRPCProp(PCH10 name, PAA, PPAA out) {
  static const PCH10 words[] = {"CompLevel", "LocalAddr", "Magic",   "OwnCert",
                                "PeerAddr",  "PeerCert",  "PropList"};
  *out = nullptr;
  if (Is(name, "Token") || Is(name, "IWA")) return ERR_NONCE;
  if (Is(name, "PeerCert") || Is(name, "OwnCert")) {
    *out = pCon->paaCert(Is(name, "OwnCert"));
    return *out ? 0 : ERR_MEMORY_ALLOC;
  }
  if (Is(name, "LocalAddr")) return pCon->Info(true, out);
  if (Is(name, "PeerAddr")) return pCon->Info(false, out);
  if (Is(name, "Magic")) return PropSI4(static_cast<SI4>(GetMagic()), out);
  if (Is(name, "CompLevel")) return PropSI4(static_cast<SI4>(UI4{CompLevel}), out);
  if (Is(name, "PropList")) return PropWords(words, sizeof words / sizeof *words, out);
  return ERR_OPTION;
}

void CONNECTION::ChildFailed(PHIERAKI item, SI4 code) {
  ROOT* const root = RootOf(item);
  if (ReportInstead(item, code)) {
    root->Waiters.Post();
    return;
  }
  lChildFailed.store(code, std::memory_order_release);
  root->Changed(item);
}

/// A peer's close that has not been told yet is told as this failure instead.
bool CONNECTION::ReportInstead(PHIERAKI item, SI4 code) {
  if (ActiveClose > 0 || !Seize(SSocketClosed)) return false;
  lErrorObj = code;
  SettleReady(item, SSocketClosed, SError);
  return true;
}

// ---- the turn

SI4 CONNECTION::Execute(PFDSETS sets) {
  PHIERAKI const item = sets->pItem;
  if (sets->closeAllSockets) {
    pCon->CloseSocket();
    return 0;
  }
  if (const SI4 failed = lChildFailed.exchange(0, std::memory_order_acq_rel))
    if (!ReportInstead(item, failed) && GetState() == SConnected && !HasEnded())
      EndStream(item, SError, failed);

  const OBJSTATE state = GetState();
  if (state == SSSL) {
    Handshake(item);
    return 0;
  }
  if (state == SSocketClosed && ActiveClose > 0) {
    if (pCon->Ready4R(&sets->ss)) Drain(item);
    return 0;
  }
  if (state != SConnected) return 0;
  if (HasEnded()) {
    TryEnd(item);
    return 0;
  }

  if (pCon->Ready4W(&sets->ss)) blocked = false;
  SI4 code = FeedTaken(sets, item);
  if (code == 0) code = RelayAhead();
  if (code == 0 && pCon->Ready4R(&sets->ss)) code = ReadSome(sets, item);
  // The object is read from the node again: a mode that has just put another one there is still
  // reported on that node, and goes on there.
  PCONNECTION const now = static_cast<PCONNECTION>(item->Obj());
  if (code == 0 && now->GetState() == SConnected && !now->HasEnded())
    code = now->WriteSome(sets, item);
  if (code) now->EndStream(item, SError, code);
  return code;
}

SI4 CONNECTION::Check(PFDSETS sets) {
  PHIERAKI const item = sets->pItem;
  pCon->Watch(item);
  pCon->Want();
  switch (GetState()) {
    case SSocketClosed:
      CheckClosing(sets, item);
      break;
    case SSSL:
      RootOf(item)->SetTimer(item, timeCreate + kHandshakeMicros);
      (void)pCon->Wait4R(&sets->ss);
      break;
    case SConnected:
      if (HasEnded()) break;
      if (Reads()) (void)pCon->Wait4R(&sets->ss);
      if (pOut) (void)pCon->Wait4W(&sets->ss);
      // What lies decrypted in user space is not seen by the wait.
      if (Reads() && pCon->PendingRead()) RootOf(item)->Mark(item);
      break;
    default:
      break;
  }
  return pCon->Settle(&sets->ss);
}

/// This side closes: waits until the peer has closed too, but not for ever.
void CONNECTION::CheckClosing(PFDSETS sets, PHIERAKI item) {
  if (!(ActiveClose > 0)) return;
  if (!shutDown && pCon->isValid()) pCon->Shutdown();
  shutDown = true;
  const F8 until = ActiveClose + kDrainMicros;
  if (Micros() >= until || !pCon->isValid()) {
    if (Replace(SSocketClosed, SFinished)) RootOf(item)->Mark(item);
    return;
  }
  RootOf(item)->SetTimer(item, until);
  (void)pCon->Wait4R(&sets->ss);
}

bool CONNECTION::Reads() const {
  if (Skip > 0 || phRead || !phRelay) return true;
  return !static_cast<RELAY*>(phRelay->Obj())->IsHeld();
}

void CONNECTION::Leave(PHIERAKI) {
  while (phHeld) Unhold(phHeld);
  pCon->CloseSocket();
}

void CONNECTION::TakeOver(RPCOBJS* from) {
  PCONNECTION const old = static_cast<PCONNECTION>(from);
  pCon = old->pCon;
  old->ownsCon = false;
  std::swap(pTaken, old->pHeader);
  pOut = old->pOut;
  pOutLast = old->pOutLast;
  cntOut = old->cntOut;
  phRead = old->phRead;
  pRead = old->pRead;
  phRelay = old->phRelay;
  phHeld = old->phHeld;
  Skip = old->Skip;
  blocked = old->blocked;
  old->pOut = old->pOutLast = old->phRead = old->phRelay = old->phHeld = nullptr;
  NameCnt.store(old->NameCnt.load(std::memory_order_relaxed), std::memory_order_relaxed);
  // What is queued through the old object finds it closed.
  old->streamEnded.store(true, std::memory_order_release);
}

void CONNECTION::Handshake(PHIERAKI item) {
  const SI4 code = pCon->Handshake(true);
  if (code == 0) {
    const OBJSTATE next = NextState;
    NextState = SDoNotChange;
    RootOf(item)->ClearTimer(item);
    if (Seize(SSSL)) SettleReady(item, SSSL, next);
    return;
  }
  if (code == ERR_HANDSHAKE_NOT_COMPLETED && timeCreate + kHandshakeMicros > Micros()) return;
  lErrorObj = code;
  Finish();
  RootOf(item)->Mark(item);
}

void CONNECTION::Drain(PHIERAKI item) {
  iovec piece = {RootOf(item)->ReadAhead(), ROOT::kReadAhead};
  size_t got = 0;
  if (!pCon->ReadV(&piece, 1, &got)) return;
  if (Replace(SSocketClosed, SFinished)) RootOf(item)->Mark(item);
}

// ---- receiving

void CONNECTION::Receive(PHIERAKI child, PBUFFER buffer) {
  phRead = child;
  pRead = buffer;
}

SI4 CONNECTION::ReadSome(PFDSETS sets, PHIERAKI item) {
  // A read that got all it asked for is likely to have left more, but not so much is taken in one
  // turn that the others wait.
  bool filled = true;
  for (UI4 i = 0; filled && i < kReadsPerTurn; ++i) {
    if (GetState() != SConnected || HasEnded() || item->Obj() != this || !Reads()) return 0;
    filled = false;
    if (const SI4 code = ReadOnce(sets, item, &filled)) return code;
    // What comes in after the application has added a relay goes to the relay.
    if (filled && RootOf(item)->IsTouched()) RootOf(item)->TakeTouched();
  }
  return 0;
}

SI4 CONNECTION::ReadOnce(PFDSETS sets, PHIERAKI item, bool* filled) {
  SI4 code;
  if (Skip == 0 && !phRead && phRelay)
    code = ReadRelay(sets, item, filled);
  else if (Skip == 0 && !phRead && !ReadsAhead())
    code = ReadHeader(sets, item, filled);
  else
    code = ReadAhead(sets, item, filled);
  return code == ERR_CLOSED ? PassiveClose(sets, item) : code;
}

SI4 CONNECTION::ReadRelay(PFDSETS, PHIERAKI, bool* filled) {
  RELAY* const relay = static_cast<RELAY*>(phRelay->Obj());
  relay->Move(SReadyToRecv, SReceiving);
  PBUFFER const buffer = relay->GetBuffer();
  if (const SI4 code = pCon->Read(buffer)) return code;
  *filled = buffer->Complete();
  return relay->RelayBuf(phRelay, pHeader);
}

/// A relay has been added: what was read ahead goes out now, since nothing may follow.
SI4 CONNECTION::RelayAhead() {
  if (!phRelay || phRead || Skip > 0 || !pHeader || pHeader->SizeProcessed() == 0) return 0;
  RELAY* const relay = static_cast<RELAY*>(phRelay->Obj());
  relay->Move(SReadyToRecv, SReceiving);
  return relay->Forward(phRelay, pHeader, nullptr, 0);
}

SI4 CONNECTION::ReadHeader(PFDSETS sets, PHIERAKI item, bool* filled) {
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  if (const SI4 code = pCon->Read(pHeader)) return code;
  *filled = pHeader->Complete();
  return *filled ? HeaderComplete(sets, item) : HeaderRecv(sets, item);
}

/// Reads what a child still lacks to its place, when that is much, and whatever follows, or little
/// things, to the room that all connections share.
SI4 CONNECTION::ReadAhead(PFDSETS sets, PHIERAKI item, bool* filled) {
  iovec pieces[2];
  int n = 0;
  UI4 own = 0;
  if (Skip == 0 && phRead && pRead->Remaining() >= kOwnBytes) {
    PCH1 at;
    if (const SI4 code = pRead->Room(&at, &own)) return code;
    pieces[n++] = {at, own};
  }
  PCH1 const ahead = RootOf(item)->ReadAhead();
  if (n == 0 || own == pRead->Remaining()) pieces[n++] = {ahead, ROOT::kReadAhead};

  size_t got = 0;
  if (const SI4 code = pCon->ReadV(pieces, n, &got)) return code;
  size_t all = 0;
  for (int i = 0; i < n; ++i) all += pieces[i].iov_len;
  *filled = got == all;
  if (got == 0) return 0;
  sets->now = Micros();

  const UI4 mine = static_cast<UI4>(got < own ? got : own);
  if (mine > 0) {
    pRead->NextProcessed(mine);
    if (const SI4 code = ChildRead(sets)) return code;
  }
  return Feed(sets, item, ahead, static_cast<UI4>(got - mine));
}

SI4 CONNECTION::ChildRead(PFDSETS sets) {
  PHIERAKI const child = phRead;
  if (!pRead->Complete()) return ReadRecv(sets, child);
  phRead = nullptr;
  pRead = nullptr;
  return ReadComplete(sets, child);
}

SI4 CONNECTION::Feed(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n) {
  while (n > 0) {
    PCONNECTION const now = static_cast<PCONNECTION>(item->Obj());
    // Closed or ended meanwhile: nothing more is cut.
    if (now->GetState() != SConnected || now->HasEnded()) return 0;
    if (const SI4 code = now->FeedTaken(sets, item)) return code;
    UI4 used = 0;
    if (const SI4 code = now->FeedSome(sets, item, data, n, &used)) return code;
    data += used;
    n -= used;
  }
  return 0;
}

/// What the object before this one had read ahead, as far as its own framing had taken it.
SI4 CONNECTION::FeedTaken(PFDSETS sets, PHIERAKI item) {
  if (!pTaken) return 0;
  const std::unique_ptr<BUFFER> taken(std::exchange(pTaken, nullptr));
  const UI4 n = taken->SizeProcessed();
  taken->Rewind();
  return Feed(sets, item, taken->Start(), n);
}

SI4 CONNECTION::FeedSome(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, UI4* used) {
  if (Skip > 0) {
    *used = n < Skip ? n : Skip;
    Skip -= *used;
    return 0;
  }
  if (phRead) {
    const UI4 left = pRead->Remaining();
    *used = n < left ? n : left;
    pRead->Append(data, *used);
    return pRead->lError ? pRead->lError : ChildRead(sets);
  }
  if (phRelay) {
    RELAY* const relay = static_cast<RELAY*>(phRelay->Obj());
    relay->Move(SReadyToRecv, SReceiving);
    *used = n;
    return relay->Forward(phRelay, pHeader, data, n);
  }
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  const UI4 left = pHeader->Remaining();
  *used = n < left ? n : left;
  pHeader->Append(data, *used);
  if (pHeader->lError) return pHeader->lError;
  return pHeader->Complete() ? HeaderComplete(sets, item) : HeaderRecv(sets, item);
}

// ---- sending

void CONNECTION::Send(PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  if (obj->isOut) return;
  PHIERAKI const item = pItem;
  PHIERAKI before = pOutLast;
  if (before) {
    // Its place is nearly always the last one. Half of a message stays in front of all.
    MUTEXHOLD hold(RootOf(item)->Queue.Lock);
    while (before && before->Obj()->GetState() != SSending && GoesBefore(child, before, item))
      before = before->Obj()->pPrevOut;
  }
  obj->pPrevOut = before;
  obj->pNextOut = before ? before->Obj()->pNextOut : pOut;
  (before ? before->Obj()->pNextOut : pOut) = child;
  (obj->pNextOut ? obj->pNextOut->Obj()->pPrevOut : pOutLast) = child;
  obj->isOut = true;
  ++cntOut;
}

void CONNECTION::Unlist(PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  if (!obj->isOut) return;
  (obj->pPrevOut ? obj->pPrevOut->Obj()->pNextOut : pOut) = obj->pNextOut;
  (obj->pNextOut ? obj->pNextOut->Obj()->pPrevOut : pOutLast) = obj->pPrevOut;
  obj->pNextOut = obj->pPrevOut = nullptr;
  obj->isOut = false;
  --cntOut;
  while (phHeld && cntOut < kMostQueued) Unhold(phHeld);
}

void CONNECTION::Forget(PHIERAKI child) {
  Unlist(child);
  if (phRead == child) {
    phRead = nullptr;
    pRead = nullptr;
  }
  if (phRelay == child) phRelay = nullptr;
  if (!child->Obj()->isUntold) return;
  child->Obj()->isUntold = false;
  --cntUntold;
}

bool CONNECTION::IsHalfSent(PHIERAKI child) const {
  // Of a stream that has ended nothing more goes out.
  return child == pOut && child->Obj()->isOut && GetState() == SConnected && !HasEnded() &&
         child->Obj()->Outgoing()->SizeProcessed() > 0;
}

void CONNECTION::Hold(PHIERAKI relay) {
  static_cast<RELAY*>(relay->Obj())->HoldAt(pItem, phHeld);
  phHeld = relay;
}

void CONNECTION::Unhold(PHIERAKI relay) {
  PHIERAKI* at = &phHeld;
  while (*at && *at != relay) at = static_cast<RELAY*>((*at)->Obj())->NextHeld();
  RELAY* const object = static_cast<RELAY*>(relay->Obj());
  if (*at) *at = *object->NextHeld();
  object->HoldAt(nullptr, nullptr);
  RootOf(relay)->Mark(relay);
}

SI4 CONNECTION::WriteSome(PFDSETS sets, PHIERAKI item) {
  for (UI4 i = 0; pOut && !blocked && i < kWritesPerTurn; ++i) {
    if (const SI4 code = WriteOnce(sets, item)) return code;
    if (GetState() != SConnected) return 0;
  }
  return 0;
}

SI4 CONNECTION::WriteOnce(PFDSETS sets, PHIERAKI item) {
  iovec pieces[kPieces];
  PHIERAKI nodes[kPieces];
  size_t sizes[kPieces];  // what each node gives
  const size_t most = BufferBlkSize.load(std::memory_order_relaxed);
  size_t bytes = 0;
  UI4 cntPieces = 0;
  UI4 n = 0;
  for (PHIERAKI child = pOut; child && cntPieces + BUFFER::kPieces <= kPieces && bytes < most;) {
    RPCOBJS* const obj = child->Obj();
    PHIERAKI const next = obj->pNextOut;
    // Closed before its first byte: it is not sent. Those behind the first are only seized, since
    // they may have to stay.
    const bool mine = n > 0 ? obj->Seize(SReadyToSend)
                            : obj->Move(SReadyToSend, SSending) || obj->GetState() == SSending ||
                                  IsHalfSent(child);
    if (!mine) {
      Unlist(child);
      child = next;
      continue;
    }
    PBUFFER const buffer = obj->Outgoing();
    const bool whole = buffer->NextSize() == buffer->Remaining();
    // A file is sent alone, and a large message begins a write of its own.
    if (n > 0 && (!whole || buffer->lError)) {
      if (!obj->Settle(SReadyToSend, SReadyToSend)) RootOf(item)->Mark(child);
      break;
    }
    if (buffer->lError) return buffer->lError;
    // What is larger than that goes in fewer pieces: each may wake the peer.
    const size_t room = n == 0 && !whole ? kLargeTimes * most : most - bytes;
    const UI4 more = buffer->Gather(pieces + cntPieces, room);
    sizes[n] = 0;
    for (UI4 i = 0; i < more; ++i) sizes[n] += pieces[cntPieces + i].iov_len;
    cntPieces += more;
    bytes += sizes[n];
    nodes[n++] = child;
    // Behind a message that closes the connection nothing is sent.
    if (!whole || obj->NextPState == SShutdown) break;
    child = next;
  }
  if (n == 0) return 0;

  size_t sent = 0;
  const SI4 code = bytes > 0 ? pCon->WriteV(pieces, static_cast<int>(cntPieces), &sent) : 0;
  if (sent < bytes) blocked = true;
  SI4 result = code;
  bool more = code == 0;  // all before this one are out
  for (UI4 i = 0; i < n; ++i) {
    RPCOBJS* const obj = nodes[i]->Obj();
    PBUFFER const buffer = obj->Outgoing();
    buffer->Gathered();
    const size_t take = sent < sizes[i] ? sent : sizes[i];
    sent -= take;
    const bool begun = more && (take > 0 || sizes[i] == 0);
    if (i > 0 && !obj->Settle(SReadyToSend, begun ? SSending : SReadyToSend))
      RootOf(item)->Mark(nodes[i]);
    if (!begun) {
      more = false;
      continue;
    }
    buffer->NextProcessed(static_cast<UI4>(take));
    if (result == 0) result = buffer->lError;
    more = result == 0 && buffer->Complete();
    if (result == 0) result = more ? Sent(sets, nodes[i]) : WriteSend(sets, nodes[i]);
  }
  return result;
}

/// A child's last byte is out.
SI4 CONNECTION::Sent(PFDSETS sets, PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  Unlist(child);
  if (obj->NextPState == SShutdown) {
    obj->NextPState = SDoNotChange;
    ActiveClose = Micros();
    Replace(SConnected, SSocketClosed);
    pCon->Shutdown();
    shutDown = true;
  }
  const SI4 code = WriteComplete(sets, child);
  if (child->Obj()->GetState() == SFinished && child->Obj()->Abandon(child))
    RootOf(child)->TakeOut(child);
  return code;
}

SI4 CONNECTION::HeaderRecv(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::HeaderComplete(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::ReadRecv(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::WriteSend(PFDSETS, PHIERAKI) { return 0; }

SI4 CONNECTION::ReadComplete(PFDSETS sets, PHIERAKI child) {
  child->Obj()->MakeReady(child, SAPL, sets->now);
  return 0;
}

SI4 CONNECTION::WriteComplete(PFDSETS, PHIERAKI child) {
  // An AClose that came in between stays.
  RPCOBJS* const obj = child->Obj();
  const OBJSTATE next = obj->NextState;
  if (next != SSent) {
    obj->Move(SSending, next);
  } else if (obj->Seize(SSending)) {
    obj->SettleReady(child, SSending, next);
  }
  return 0;
}

SI4 CONNECTION::PassiveClose(PFDSETS, PHIERAKI item) {
  EndStream(item, SSocketClosed, ERR_CLOSED);
  return 0;
}

// ---- the end of the stream

void CONNECTION::EndStream(PHIERAKI item, OBJSTATE to, SI4 code) {
  EndTo = to;
  EndCode = code;
  streamEnded.store(true, std::memory_order_release);
  if (to == SSocketClosed) pCon->CloseSocket();
  item->WalkSub([&](PHIERAKI child) {
    AssumeWorkThread();
    if (child->Obj()->isUntold || child->Obj()->ConnectionEnded(child)) return;
    child->Obj()->isUntold = true;
    ++cntUntold;
  });
  TryEnd(item);
}

void CONNECTION::AskAgain(PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  if (!obj->isUntold || !obj->ConnectionEnded(child)) return;
  obj->isUntold = false;
  --cntUntold;
}

void CONNECTION::TryEnd(PHIERAKI item) {
  // An application that closes at this moment hears nothing more.
  if (cntUntold > 0 || !Seize(SConnected)) return;
  lErrorObj = EndCode;
  SettleReady(item, SConnected, EndTo);
}

bool CONNECTION::IsSettled(PHIERAKI) {
  switch (GetState()) {
    case SConnected: {
      if (HasEnded()) return cntUntold > 0;
      const UI4 wants = (Reads() ? UI4{EPOLLIN} : 0u) | (pOut ? UI4{EPOLLOUT} : 0u);
      return pCon->Watched() == wants;
    }
    case SSocketClosed:
      return ActiveClose > 0 ? pCon->Watched() == EPOLLIN : pCon->Watched() == 0;
    case SSSL:
      return true;
    default:
      return pCon->Watched() == 0;
  }
}
