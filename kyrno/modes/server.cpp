// server.cpp - listening sockets and their peers.
#include "kyrno/modes/server.h"

#include <strings.h>
#include <unistd.h>

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/blkconnection.h"
#include "kyrno/modes/cmdconnection.h"
#include "kyrno/modes/rawconnection.h"
#include "kyrno/tls/newsock.h"
#include "kyrno/tree/root.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00002000;

namespace {

constexpr SI4 kKeepAliveInterval = 1000;  // ms, when only the time is given
constexpr F8 kRestMicros = 100000;        // without descriptors, how long until the next try
constexpr UI4 kAcceptsPerTurn = 64;       // then the connections get theirs
constexpr size_t kHostNameSize = 255;

bool Is(PCH10 name, PCH10 word) { return strcasecmp(name, word) == 0; }

PCH1 CopyOf(PCH10 text) { return text ? strdup(text) : nullptr; }

}  // namespace

SERVER::SERVER(OBJMODE mode) : RPCOBJS(TServer) { Mode = mode; }

SERVER::~SERVER() {
  LOG(2, ("Deleting Server"));
  delete pSocket;
  free(Port);
  free(Address);
  while (pReady) {
    READYNODE* const oldest = pReady->pNext;
    pReady = oldest == pReady ? nullptr : pReady;
    if (pReady) pReady->pNext = oldest->pNext;
    delete oldest;
  }
}

void SERVER::CloseAfterFork() TSA(no_thread_safety_analysis) {
  if (pSocket && pSocket->isValid()) closesocket(pSocket->RawSocket());
}

void SERVER::SetFilters(REF<RANGES> allow, REF<RANGES> deny) {
  pAllow = std::move(allow);
  pDeny = std::move(deny);
}

// ---- the interpreter's side

SI4 SERVER::Listen(PCH10 port, PCH10 address, PROTOCOL prot) {
  if (GetState() == SListen) return ERR_STATE;
  Port = CopyOf(port);
  Address = CopyOf(address);
  if ((port && !Port) || (address && !Address)) return ERR_MEMORY_ALLOC;
  Prot = prot;
  const SI4 code = OpenSocket();
  if (!code) SetState(SListen);
  return code;
}

SI4 SERVER::OpenSocket() {
  SI4 code = 0;
  PRPCSOCK const socket = NewSock(Address, Port, true, pCert, Prot, &code);
  if (!socket) return code ? code : ERR_NEW_DATA_SOCKET;
  if (socket->lError) {
    code = socket->lError;
    delete socket;
    return code;
  }
  MUTEXHOLD hold(SocketLock);
  pSocket = socket;
  return 0;
}

SI4 SERVER::Pause(PHIERAKI root, SI4 value) {
  SI4 code = 0;
  switch (value) {
    case 0: {
      // One thread takes the listener out of its pause; a second one finds no pause any more.
      if (!Seize(SListenPaused)) return ERR_STATE;
      bool there;
      {
        MUTEXHOLD hold(SocketLock);
        there = pSocket != nullptr;
      }
      if (!there) code = OpenSocket();
      Settle(SListenPaused, code ? SListenPaused : SListen);
      break;
    }
    case 1:
      if (!Move(SListen, SListenPaused)) Move(SGotoPause, SListenPaused);
      break;
    case 2:
      if (!Move(SListen, SGotoPause)) Move(SListenPaused, SGotoPause);
      break;
    default:
      return ERR_OPTION;
  }
  if (code) return code;
  Paused = value;
  return static_cast<ROOT*>(root->Obj())->ChangedSoon(pItem);
}

SI4 SERVER::SetRPCProp(PHIERAKI root, PCH10 name, PAA value) {
  const bool keepAlive = Is(name, "KeepAlive");
  const bool only = Is(name, "ConnectionOnly");
  const bool fifo = Is(name, "FIFOMode");
  if (!keepAlive && !only && !fifo && !Is(name, "Pause")) return ERR_OPTION;

  SI4 n = 0;
  SI4 code = VAGetSI4(value, 0, &n);
  if (code) return code;
  if (fifo) return ERR_NONCE;
  if (only) {
    OnlyNewReadyConnections = n > 0;
    if (n > 0) static_cast<ROOT*>(root->Obj())->UseFnsReady = 4;
    return 0;
  }
  if (!keepAlive) return Pause(root, n);

  SI4 interval = kKeepAliveInterval;
  if (VAElems(value) > 1) code = VAGetSI4(value, 1, &interval);
  if (code) return code;
  timeKeepAlive = static_cast<UI4>(n);
  intevalKeepAlive = static_cast<UI4>(interval);
  return 0;
}

SI4 SERVER::GetRPCProp(PCH10 name, PAA, PPAA out) {
  static const PCH10 words[] = {"CompLevel", "ConnectionOnly", "Hostname", "LocalAddr",
                                "KeepAlive", "OwnCert",        "Pause",    "PropList"};
  *out = nullptr;
  if (Is(name, "KeepAlive")) {
    const SI4 both[] = {static_cast<SI4>(UI4{timeKeepAlive}),
                        static_cast<SI4>(UI4{intevalKeepAlive})};
    return PropVector(both, 2, out);
  }
  if (Is(name, "ConnectionOnly") || Is(name, "FIFOMode") || Is(name, "Pause")) {
    const SI4 one = Is(name, "Pause")      ? SI4{Paused}
                    : Is(name, "FIFOMode") ? SI4{FIFO}
                                           : SI4{OnlyNewReadyConnections};
    return PropVector(&one, 1, out);
  }
  if (Is(name, "HostName")) {
    CH1 host[kHostNameSize + 1] = {0};
    if (gethostname(host, kHostNameSize)) host[0] = 0;
    return PropText(host, out);
  }
  if (Is(name, "OwnCert") || Is(name, "LocalAddr")) {
    MUTEXHOLD hold(SocketLock);
    if (!pSocket) return ERR_INVALID_ADDR;
    if (Is(name, "LocalAddr")) return pSocket->Info(true, out);
    *out = pSocket->paaCert(true);
    return *out ? 0 : ERR_MEMORY_ALLOC;
  }
  if (Is(name, "CompLevel")) return PropSI4(static_cast<SI4>(UI4{CompLevel}), out);
  if (Is(name, "PropList")) return PropWords(words, sizeof words / sizeof *words, out);
  return ERR_OPTION;
}

// ---- the turn

SI4 SERVER::Execute(PFDSETS sets) {
  PRPCSOCK socket;
  {
    MUTEXHOLD hold(SocketLock);
    socket = pSocket;
  }
  if (!socket) return 0;
  if (sets->closeAllSockets) {
    socket->CloseSocket();
    return 0;
  }
  if (GetState() != SListen || !socket->Ready4R(&sets->ss)) return 0;
  for (UI4 i = 0; i < kAcceptsPerTurn && Accept(socket, sets->pItem); ++i) {
  }
  return 0;
}

SI4 SERVER::Check(PFDSETS sets) {
  PHIERAKI const item = sets->pItem;
  PRPCSOCK paused = nullptr;
  {
    MUTEXHOLD hold(SocketLock);
    if (GetState() == SGotoPause) {
      if (!RootOf(item)->IsWorkThread()) {
        RootOf(item)->LeaveToWorkThread(item);
        return 0;
      }
      paused = pSocket;
      pSocket = nullptr;
      // Before another thread, which may end the pause already, finds no socket and makes one.
      if (paused) (void)paused->SaveCred();
    } else if (pSocket) {
      pSocket->Watch(item);
      pSocket->Want();
      if (GetState() == SListen && restUntil <= Micros())
        (void)pSocket->Wait4R(&sets->ss);
      else if (GetState() == SListen)
        RootOf(item)->SetTimer(item, restUntil);
      if (pSocket->Settle(&sets->ss)) {
        // The kernel has no memory to watch it just now: peers wait in its queue.
        restUntil = Micros() + kRestMicros;
        RootOf(item)->SetTimer(item, restUntil);
      }
    }
  }
  delete paused;
  Move(SGotoPause, SListenPaused);
  return 0;
}

void SERVER::Leave(PHIERAKI) {
  MUTEXHOLD hold(SocketLock);
  if (pSocket) pSocket->CloseSocket();
}

bool SERVER::IsSettled(PHIERAKI) {
  if (GetState() == SGotoPause) return false;
  MUTEXHOLD hold(SocketLock);
  if (!pSocket || restUntil > Micros()) return true;
  return (pSocket->Watched() == EPOLLIN) == (GetState() == SListen);
}

/// Takes one peer. False when there is none to take just now.
bool SERVER::Accept(PRPCSOCK listener, PHIERAKI item) {
  PRPCSOCK socket = nullptr;
  bool mustRest = false;
  if (listener->Accept(&socket, &mustRest)) {
    // The peer stays in the kernel's queue; without a rest this would spin.
    if (mustRest) restUntil = Micros() + kRestMicros;
    return false;
  }
  if (!socket) return false;

  // The number advances here, so that refused peers leave gaps.
  CH1 name[kMaxName];
  NumberedName(name, "CON", NameCnt++);
  if (!IsWelcome(socket)) {
    LOG(1, ("%s refused", name));
    delete socket;
    return true;
  }
  if (timeKeepAlive && intevalKeepAlive) socket->SetKeepalive(timeKeepAlive, intevalKeepAlive);
  RPCOBJS* const connection = NewConnection(socket);
  if (!connection) {
    delete socket;
    return true;
  }
  PHIERAKI const node = connection->lErrorObj ? nullptr : item->AddNew(name, connection);
  if (!node) {
    delete connection;
    return true;
  }
  if (connection->GetState() == SIncoming)
    Ready4Apl(node);
  else
    RootOf(item)->Mark(node);
  return true;
}

bool SERVER::IsWelcome(PRPCSOCK socket) {
  if (!pAllow && !pDeny) return true;
  QLNSOCKADDR peer;
  memset(&peer, 0, sizeof peer);
  if (socket->Addr(false, &peer)) return false;
  return (!pAllow || pAllow->IsValid(&peer)) && (!pDeny || !pDeny->IsValid(&peer));
}

// ---- waiting in order of arrival

void SERVER::ReadyFn(PHIERAKI node) {
  READYNODE* const entry = new (std::nothrow) READYNODE{nullptr, node};
  if (!entry) return;
  MUTEXHOLD hold(SemReady);
  entry->pNext = pReady ? pReady->pNext : entry;
  if (pReady) pReady->pNext = entry;
  pReady = entry;
  node->CleanUpCount.fetch_add(1, std::memory_order_relaxed);
}

PHIERAKI SERVER::PopReady() {
  MUTEXHOLD hold(SemReady);
  while (pReady) {
    READYNODE* const oldest = pReady->pNext;
    if (oldest == pReady)
      pReady = nullptr;
    else
      pReady->pNext = oldest->pNext;
    PHIERAKI const node = oldest->ph;
    delete oldest;
    const SI4 duties = node->CleanUpCount.fetch_sub(1, std::memory_order_relaxed);
    assert(duties > 0);
    RPCOBJS* const obj = node->Obj();
    if (!pReady || !obj) return node;
    const OBJSTATE state = obj->GetState();
    if (state != SFinished && state != SMarkedForDeletion) return node;
  }
  return nullptr;
}

void SERVER::ChildReady(PHIERAKI child) {
  if (FIFO) ReadyFn(child);
}

SI4 SERVER::CleanUp(PHIERAKI item) {
  MUTEXHOLD hold(SemReady);
  if (!pReady) return 0;
  READYNODE* before = pReady;
  READYNODE* const last = pReady;
  for (bool more = true; more;) {
    READYNODE* const entry = before->pNext;
    more = entry != last;
    if (entry->ph != item) {
      before = entry;
      continue;
    }
    if (entry == before) {
      pReady = nullptr;
      delete entry;
      return 0;
    }
    before->pNext = entry->pNext;
    if (entry == pReady) pReady = before;
    delete entry;
  }
  return 0;
}

// ---- the modes

RPCOBJS* CMDSERVER::NewConnection(PRPCSOCK socket) {
  CMDCONNECTION* const c = new (std::nothrow) CMDCONNECTION(socket);
  if (!c) return nullptr;
  c->CompLevel = UI4{CompLevel};
  c->pOOSfn = pOOSfn;
  return c;
}

RPCOBJS* BLKSERVER::NewConnection(PRPCSOCK socket) {
  BLKCONNECTION* const c = new (std::nothrow) BLKCONNECTION(Magic, MaxBlockSize, Mode, socket);
  if (c) c->pOOSfn = pOOSfn;
  return c;
}

RPCOBJS* RAWSERVER::NewConnection(PRPCSOCK socket) {
  RAWCONNECTION* const c = new (std::nothrow) RAWCONNECTION(MaxBlockSize, Mode, socket, &Rule);
  if (c) c->pOOSfn = pOOSfn;
  return c;
}

SI4 RAWSERVER::SetRPCProp(PHIERAKI root, PCH10 name, PAA value) {
  if (!Is(name, "EOM")) return SERVER::SetRPCProp(root, name, value);
  return ReplaceStop(&Rule, value, Mode == MAscii);
}
