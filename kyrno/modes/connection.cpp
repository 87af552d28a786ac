// connection.cpp - the engine of every stream endpoint.
#include "kyrno/modes/connection.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "kyrno/modes/relay.h"
#include "kyrno/net/address.h"
#include "kyrno/tree/root.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr UI4 kDropBytes = 10000;  // at most this much of what nobody wants is read at a time
constexpr UI4 kReadsPerTurn = 16;
constexpr UI4 kMaxCompLevel = 9;
constexpr SI4 kKeepAliveInterval = 1000;  // ms, when only the time is given

bool Is(PCH10 name, PCH10 word) { return strcasecmp(name, word) == 0; }

/// Lets everything below a connection claim its socket, children first. Also what has been closed
/// since: until the next turn abandons it, the bytes that come are its own.
void ClaimSub(PHIERAKI node, PFDSETS sets) WORK_ONLY {
  node->WalkSub([&](PHIERAKI child) {
    AssumeWorkThread();
    ClaimSub(child, sets);
    sets->pItem = child;
    child->Obj()->Check(sets);
  });
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
  delete pCon;
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
  return RootOf(item)->Dirty();
}

PCH10 CONNECTION::CompleteName(PCH1 name) {
  snprintf(name, kMaxName, ".Auto%08u", NameCnt.fetch_add(1, std::memory_order_relaxed));
  return name + 1;
}

SI4 CONNECTION::Queue(PHIERAKI item, PCH10 leaf, RPCOBJS* child) {
  std::unique_ptr<RPCOBJS> owned(child);
  if (!item->AddNew(leaf, child)) return ERR_NAME_IN_USE;
  owned.release();
  // The connection may have ended since the caller looked: what can't be sent any more is not
  // accepted.
  if (!IsOpen() && child->Move(SReadyToSend, SFinished)) return ERR_CLOSED;
  return RootOf(item)->Dirty();
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
  if (ReportInstead(item, code)) return;
  lChildFailed.store(code, std::memory_order_release);
  RootOf(item)->Dirty();
}

/// A peer's close that has not been told yet is told as this failure instead.
bool CONNECTION::ReportInstead(PHIERAKI item, SI4 code) {
  if (ActiveClose > 0 || !Seize(SSocketClosed)) return false;
  lErrorObj = code;
  SettleReady(item, SSocketClosed, SError);
  return true;
}

// ---- the turn

SI4 CONNECTION::Setinfo(PFDSETS sets) {
  sets->pRead = sets->pWrite = nullptr;
  sets->phRead = sets->phWrite = nullptr;
  sets->holdRead = false;
  const OBJSTATE state = GetState();
  sets->fConnectionClosed = state == SSocketClosed || state == SError;
  return 0;
}

void CONNECTION::TakeClaims(PFDSETS sets) {
  pRead = sets->pRead;
  phRead = sets->phRead;
  pWrite = sets->pWrite;
  phWrite = sets->phWrite;
  holdRead = sets->holdRead;
}

void CONNECTION::ClaimAnew(PFDSETS sets, PHIERAKI item) {
  Setinfo(sets);
  ClaimSub(item, sets);
  TakeClaims(sets);
  sets->pItem = item;
}

SI4 CONNECTION::Check(PFDSETS sets) {
  pRead = pWrite = nullptr;
  phRead = phWrite = nullptr;
  PHIERAKI const item = sets->pItem;

  if (const SI4 failed = lChildFailed.exchange(0, std::memory_order_acq_rel))
    if (!ReportInstead(item, failed) && GetState() == SConnected) EndStream(item, SError, failed);

  switch (GetState()) {
    case SSocketClosed: {
      if (!(ActiveClose > 0)) return 0;
      if (!shutDown && pCon->isValid()) pCon->Shutdown();
      shutDown = true;
      const F8 until = ActiveClose + kDrainMicros;
      if (Micros() >= until || !pCon->isValid()) {
        Replace(SSocketClosed, SFinished);
        // Not seen by this walk any more: the next one takes the node out.
        sets->ss.WakeAt(Micros());
        return 0;
      }
      sets->ss.WakeAt(until);
      return pCon->Wait4R(&sets->ss);
    }
    case SSSL:
      sets->ss.WakeAt(timeCreate + kHandshakeMicros);
      return pCon->Wait4R(&sets->ss);
    case SConnected:
      break;
    default:
      return 0;
  }

  if (EndTo != SDoNotChange) {
    TryEnd(item);
    return 0;
  }
  TakeClaims(sets);
  const bool reads = Skip > 0 || (pRead ? !holdRead : pHeader != nullptr);
  if (reads)
    if (const SI4 code = pCon->Wait4R(&sets->ss)) return code;
  return pWrite ? pCon->Wait4W(&sets->ss) : 0;
}

SI4 CONNECTION::Execute(PFDSETS sets) {
  PHIERAKI const item = sets->pItem;
  if (sets->closeAllSockets) {
    pCon->CloseSocket();
    return 0;
  }
  const OBJSTATE state = GetState();
  if (state == SSSL) {
    Handshake(item);
    return 0;
  }
  if (state == SSocketClosed && ActiveClose > 0) {
    if (pCon->Ready4R(&sets->ss)) Drain();
    return 0;
  }
  if (state != SConnected || EndTo != SDoNotChange) return 0;

  // What came in after the application had added a relay goes to the relay, although the wait had
  // begun before.
  if (RootOf(item)->IsWakePending()) ClaimAnew(sets, item);

  SI4 code = 0;
  if (pCon->Ready4R(&sets->ss)) {
    // A read that got all it asked for is likely to have left more: header and payload of several
    // messages are taken in one turn, but not so many that the others wait.
    filled = false;
    code = ReadSome(sets, item);
    for (UI4 i = 1; filled && code == 0 && i < kReadsPerTurn; ++i) {
      if (GetState() != SConnected || EndTo != SDoNotChange) break;
      filled = false;
      ClaimAnew(sets, item);
      code = ReadSome(sets, item);
    }
  }
  if (code == 0 && EndTo == SDoNotChange && pWrite && pCon->Ready4W(&sets->ss))
    code = WriteSome(sets);
  if (code == 0) return 0;

  // The object is read from the node again: a mode that has just put another one there is still
  // reported on that node.
  PCONNECTION const now = static_cast<PCONNECTION>(item->Obj());
  now->EndStream(item, SError, code);
  return code;
}

void CONNECTION::Handshake(PHIERAKI item) {
  const SI4 code = pCon->Handshake(true);
  if (code == 0) {
    const OBJSTATE next = NextState;
    NextState = SDoNotChange;
    if (Seize(SSSL)) SettleReady(item, SSSL, next);
    return;
  }
  if (code == ERR_HANDSHAKE_NOT_COMPLETED && timeCreate + kHandshakeMicros > Micros()) return;
  lErrorObj = code;
  Finish();
}

void CONNECTION::Drain() {
  BUFFER drop(kDropBytes);
  const SI4 code = drop.lError ? drop.lError : pCon->Read(&drop);
  if (code) Replace(SSocketClosed, SFinished);
}

SI4 CONNECTION::ReadSome(PFDSETS sets, PHIERAKI item) {
  if (Skip > 0) return ReadSkipped(sets, item);
  if (pRead) return holdRead ? 0 : ReadChild(sets, item);
  return pHeader ? ReadHeader(sets, item) : 0;
}

SI4 CONNECTION::ReadSkipped(PFDSETS sets, PHIERAKI item) {
  BUFFER drop(Skip < kDropBytes ? Skip : kDropBytes);
  const SI4 code = drop.lError ? drop.lError : pCon->Read(&drop);
  if (code == ERR_CLOSED) return PassiveClose(sets, item);
  Skip -= drop.SizeProcessed();
  return code;
}

SI4 CONNECTION::ReadChild(PFDSETS sets, PHIERAKI item) {
  RPCOBJS* const child = phRead->Obj();
  child->Move(SReadyToRecv, SReceiving);
  const SI4 code = pCon->Read(pRead);
  if (code == ERR_CLOSED) return PassiveClose(sets, item);
  if (code) return code;
  filled = pRead->Complete();
  if (child->Type == TRelay) return static_cast<RELAY*>(child)->RelayBuf(phRead, pHeader);
  return pRead->Complete() ? ReadComplete(sets, phRead) : ReadRecv(sets, phRead);
}

SI4 CONNECTION::ReadHeader(PFDSETS sets, PHIERAKI item) {
  const SI4 code = pCon->Read(pHeader);
  if (code == ERR_CLOSED) return PassiveClose(sets, item);
  if (code) return code;
  filled = pHeader->Complete();
  return filled ? HeaderComplete(sets, item) : HeaderRecv(sets, item);
}

SI4 CONNECTION::WriteSome(PFDSETS sets) {
  RPCOBJS* const child = phWrite->Obj();
  // Closed since it claimed the socket, before its first byte: it is not sent.
  if (!child->Move(SReadyToSend, SSending) && child->GetState() != SSending) return 0;
  const SI4 code = pCon->Write(pWrite);
  if (code) return code;
  if (!pWrite->Complete()) return WriteSend(sets, phWrite);

  if (child->NextPState == SShutdown) {
    child->NextPState = SDoNotChange;
    ActiveClose = Micros();
    Replace(SConnected, SSocketClosed);
    pCon->Shutdown();
    shutDown = true;
  }
  return WriteComplete(sets, phWrite);
}

SI4 CONNECTION::HeaderRecv(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::HeaderComplete(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::ReadRecv(PFDSETS, PHIERAKI) { return 0; }
SI4 CONNECTION::WriteSend(PFDSETS, PHIERAKI) { return 0; }

SI4 CONNECTION::ReadComplete(PFDSETS, PHIERAKI child) {
  child->Obj()->MakeReady(child, SAPL);
  return 0;
}

SI4 CONNECTION::WriteComplete(PFDSETS, PHIERAKI child) {
  RPCOBJS* const obj = child->Obj();
  const OBJSTATE next = obj->NextState;
  if (next == SSent)
    obj->MakeReady(child, next);
  else
    obj->SetState(next);
  pWrite = nullptr;
  phWrite = nullptr;
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
  TryEnd(item);
}

void CONNECTION::TryEnd(PHIERAKI item) {
  bool all = true;
  item->WalkSub([&](PHIERAKI child) {
    AssumeWorkThread();
    if (!child->Obj()->ConnectionEnded(child)) all = false;
  });
  if (!all) return;
  // An application that closes at this moment hears nothing more.
  if (!Seize(SConnected)) return;
  lErrorObj = EndCode;
  SettleReady(item, SConnected, EndTo);
}
