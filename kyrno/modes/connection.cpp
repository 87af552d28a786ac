// connection.cpp - the engine of every stream endpoint: the interpreter's side, the turn, and the
// end of the stream. What is received is in connectionread.cpp, what is sent in
// connectionwrite.cpp.
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
#include "kyrno/tls/newsock.h"
#include "kyrno/tree/root.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr UI4 kMaxCompLevel = 9;
constexpr SI4 kKeepAliveInterval = 1000;  // ms, when only the time is given

bool Is(PCH10 name, PCH10 word) { return strcasecmp(name, word) == 0; }

}  // namespace

CONNECTION::CONNECTION() : RPCOBJS(TClient) {}

CONNECTION::CONNECTION(OBJTYPE type) : RPCOBJS(type) {}

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

SI4 CONNECTION::Connect(PCH10 address, PCH10 port, PROTOCOL prot, const REF<CERTDATA>& cert,
                        int giveUp) {
  SI4 code = 0;
  pCon = NewSock(address, port, false, cert, prot, &code, giveUp);
  if (!pCon) return code ? code : ERR_NEW_DATA_SOCKET;
  if (pCon->lError == 0) SetState(SConnected);
  return pCon->lError;
}

SOCKERR CONNECTION::SetKeepalive(UI4 time, UI4 interval) {
  return pCon && pCon->isValid() ? pCon->SetKeepalive(time, interval) : 0;
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
    // Another object may have taken the node over meanwhile.
    if (state == SFinished && item->Obj() != this) return item->Obj()->Close(item);
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
  return SetKeepalive(n, static_cast<UI4>(interval));
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
  (void)pCon->Flush();  // a failure is told behind what can still be read
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
  if (code == 0) code = Resume(sets, item);
  if (code == 0 && item->Obj() == this) code = RelayAhead();
  if (code == 0 && item->Obj() == this && pCon->Ready4R(&sets->ss)) code = ReadSome(sets, item);
  // The object is read from the node again: a mode that has just put another one there is still
  // reported on that node, and goes on there.
  PCONNECTION const now = static_cast<PCONNECTION>(item->Obj());
  if (code == 0 && now->GetState() == SConnected && !now->HasEnded())
    code = now->WriteSome(sets, item);
  if (code == 0 && now->GetState() == SConnected && !now->HasEnded()) code = now->EndSending();
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
    case SIncoming:
      // It will be read from in a moment. Only when something comes before, it leaves the set.
      if (std::exchange(hasShaken, false)) (void)pCon->Wait4R(&sets->ss);
      break;
    default:
      break;
  }
  const SI4 code = pCon->Settle(&sets->ss);
  if (code) Unwatched(item, code);
  return code;
}

/// The kernel has no memory to watch this socket: the application hears of it, where it can.
void CONNECTION::Unwatched(PHIERAKI item, SI4 code) {
  switch (GetState()) {
    case SConnected:
      if (!HasEnded()) EndStream(item, SError, code);
      return;
    case SSSL:
      lErrorObj = code;
      Finish();
      break;
    default:
      Replace(SSocketClosed, SFinished);
  }
  RootOf(item)->Mark(item);
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

bool CONNECTION::Reads() const { return !heardEnd && (Skip > 0 || phRead || TakesMore()); }

/// Beyond what belongs to somebody already.
bool CONNECTION::TakesMore() const {
  if (!phRelay) return cntWaiting < kMostWaiting && WantsBytes();
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
  cntWaiting = old->cntWaiting;
  phRead = old->phRead;
  pRead = old->pRead;
  phRelay = old->phRelay;
  phHeld = old->phHeld;
  Skip = old->Skip;
  blocked = old->blocked;
  lastSent = old->lastSent;
  heardEnd = old->heardEnd;
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
    hasShaken = true;
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

// ---- the phases, as a stream without framing has them

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
    // It has waited for something half sent, which now stays so.
    if (child->Obj()->GetState() == SFinished) RootOf(item)->Mark(child);
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
      return pCon->Watched() == (wants | pCon->OwnWants());
    }
    case SSocketClosed:
      return pCon->Watched() == (ActiveClose > 0 ? EPOLLIN | pCon->OwnWants() : 0);
    case SSSL:
      return true;
    case SIncoming:
    case SProcessing:
      return (pCon->Watched() & ~UI4{EPOLLIN}) == pCon->OwnWants();
    default:
      return pCon->Watched() == pCon->OwnWants();
  }
}
