// udp.cpp - datagram sockets.
#include "kyrno/modes/udp.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/net/address.h"
#include "kyrno/tree/root.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00002000;

namespace {

constexpr UI4 kMaxDatagram = 65536;      // no socket brings a longer one
constexpr UI4 kDatagramsPerTurn = 64;    // each way, then the other objects get theirs
constexpr UI4 kMaxItems = 3;             // address, port, data
constexpr UI1 kMapped[] = {0xff, 0xff};  // in front of an IPv4 address, behind 10 zeros

UDPADDR* PeerOf(PHIERAKI datagram) { return static_cast<UDPADDR*>(datagram->Parent()->Obj()); }

/// An IPv4 address as an IPv6 socket brings it, or such a one as IPv4. False for all others.
bool OtherForm(const QLNSOCKADDR& from, PQLNSOCKADDR to) {
  *to = {};
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  if (from.ss_family == AF_INET) {
    memcpy(&v4, &from, sizeof v4);
    v6.sin6_family = AF_INET6;
    v6.sin6_port = v4.sin_port;
    memcpy(v6.sin6_addr.s6_addr + 10, kMapped, sizeof kMapped);
    memcpy(v6.sin6_addr.s6_addr + 12, &v4.sin_addr, sizeof v4.sin_addr);
    memcpy(to, &v6, sizeof v6);
    return true;
  }
  memcpy(&v6, &from, sizeof v6);
  if (from.ss_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr)) return false;
  v4.sin_family = AF_INET;
  v4.sin_port = v6.sin6_port;
  memcpy(&v4.sin_addr, v6.sin6_addr.s6_addr + 12, sizeof v4.sin_addr);
  memcpy(to, &v4, sizeof v4);
  return true;
}

PHIERAKI FindNamed(PHIERAKI item, const QLNSOCKADDR& address) {
  CH1 name[kPeerNameSize];
  PeerName(name, address);
  return item->FindChild(name, strlen(name));
}

}  // namespace

// ---- what is to be sent where

SI4 UDPTARGET::Read(PUI4 z) {
  const VAHOLD array(UnpackZ(z));
  if (!array) return ERR_ARCHITECTURE;
  if (VARank(array.Get()) > 1) return ERR_RANK;
  if (VAType(array.Get()) != VAPntr) return ERR_DOMAIN;
  const UI4 items = VACount(array.Get());
  if (items > kMaxItems) return ERR_LENGTH;

  SI4 code = ReadText(array.Get(), 0, &host);
  if (!code) code = ReadText(array.Get(), 1, &service);
  if (!code && items == kMaxItems) code = VAGetpAA(array.Get(), 2, data.Out());
  return code;
}

SI4 UDPTARGET::LookUp(PROTOCOL prot) {
  return GetIPAddr(*host ? host.get() : nullptr, service.get(), SOCK_DGRAM, prot, false, &addr);
}

// ---- the interpreter's side

UDP::UDP(UI4 maxBlockSize) : RPCOBJS(TUdp), MaxBlockSize(maxBlockSize) {
  Mode = MUdp;
  SetState(SListen);
}

UDP::~UDP() {
  LOG(2, ("Deleting UDP"));
  delete pSocket;
  delete pBuf;
}

SI4 UDP::Bind(PCH10 address, PCH10 port, PROTOCOL prot) {
  return Open(new (std::nothrow) RPCSOCK(address, port, true, prot, SOCK_DGRAM), prot);
}

SI4 UDP::Init(PROTOCOL prot) {
  return Open(new (std::nothrow) RPCSOCK(nullptr, nullptr, false, prot, SOCK_DGRAM), prot);
}

SI4 UDP::Open(PRPCSOCK socket, PROTOCOL prot) {
  AssumeWorkThread();  // nobody else knows the object yet
  pSocket = socket;
  if (!pSocket) return ERR_MEMORY_ALLOC;
  if (pSocket->lError) return pSocket->lError;
  pBuf = new (std::nothrow) BUFFER(std::min(MaxBlockSize, kMaxDatagram));
  if (!pBuf || pBuf->lError) return ERR_MEMORY_ALLOC;
  QLNSOCKADDR own;
  if (pSocket->Addr(true, &own)) return ERR_NEW_DATA_SOCKET;
  Prot = own.ss_family == AF_INET ? PIPv4 : prot;
  return 0;
}

void UDP::SetFilters(REF<RANGES> allow, REF<RANGES> deny) {
  pAllow = std::move(allow);
  pDeny = std::move(deny);
}

void UDP::CloseAfterFork() {
  if (pSocket && pSocket->isValid()) closesocket(pSocket->RawSocket());
}

/// The peer of an address; null when there is none. IPv4 has two forms: it is the same peer under
/// the name by which it was met first.
PHIERAKI UDP::Find(PHIERAKI item, const QLNSOCKADDR& address) {
  if (PHIERAKI const found = FindNamed(item, address)) return found;
  QLNSOCKADDR other;
  return OtherForm(address, &other) ? FindNamed(item, other) : nullptr;
}

PHIERAKI UDP::Peer(PHIERAKI item, const QLNSOCKADDR& address) {
  if (PHIERAKI const found = Find(item, address)) return found;
  std::unique_ptr<UDPADDR> made(new (std::nothrow) UDPADDR(address));
  if (!made) return nullptr;
  CH1 name[kPeerNameSize];
  PeerName(name, address);
  PHIERAKI const node = item->AddNew(name, made.get());
  // Another thread may have been quicker.
  if (!node) return Find(item, address);
  (void)made.release();
  LOG(1, ("UDPAddr added"));
  return node;
}

SI4 UDP::SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4, UI4) {
  UDPTARGET to;
  SI4 code = to.Read(z);
  if (!code) code = to.LookUp(Prot);
  return code ? code : SendTo(item, name, to);
}

SI4 UDP::SendTo(PHIERAKI item, PCH1 name, const UDPTARGET& to) {
  if (!IsOpen()) return ERR_CLOSED;
  if (*name) return ERR_OBJECT_NOT_FOUND;
  PHIERAKI const peer = Peer(item, to.Address());
  if (!peer) return item->IsLinked() ? ERR_MEMORY_ALLOC : ERR_CLOSED;
  if (peer->Obj()->GetState() != SConnected) return ERR_CLOSED;
  *name = '.';
  strcpy(name + 1, peer->GetName());
  if (!to.Data()) return RootOf(item)->Changed(peer);

  // Deliberate: a file goes out through its peer alone.
  if (VAType(to.Data()) == VAPntr) return ERR_LENGTH;
  PUI1 bytes = nullptr;
  UI4 n = 0;
  SI4 code = GetBytes(to.Data(), &bytes, &n);
  PBUFFER buffer = nullptr;
  if (!code) code = ComposeBuffer(bytes, n, -1, &buffer);
  free(bytes);
  return code ? code : peer->Obj()->SendBuffer(peer, nullptr, buffer, 0);
}

SI4 UDP::SetRPCProp(PHIERAKI, PCH10 name, PAA value) {
  if (strcasecmp(name, "MaxOld") != 0) return ERR_OPTION;
  SI4 n = 0;
  if (const SI4 code = VAGetSI4(value, 0, &n)) return code;
  if (n < 0) return ERR_OPTION;
  MaxOld = n;
  return 0;
}

SI4 UDP::GetRPCProp(PCH10 name, PAA, PPAA out) {
  static const PCH10 words[] = {"LocalAddr", "PropList"};
  *out = nullptr;
  if (strcasecmp(name, "PropList") == 0) return PropWords(words, 2, out);
  if (strcasecmp(name, "LocalAddr") != 0) return ERR_OPTION;
  // Asked anew each time: a client's socket has no port before it has sent.
  QLNSOCKADDR own;
  return pSocket->Addr(true, &own) ? ERR_CALL_FAILED : SockAddr2pAA(&own, out);
}

// ---- the turn

UDP* UDP::Above(PHIERAKI datagram) {
  return static_cast<UDP*>(datagram->Parent()->Parent()->Obj());
}

SI4 UDP::Execute(PFDSETS sets) {
  if (sets->closeAllSockets) {
    pSocket->CloseSocket();
    return 0;
  }
  if (pSocket->Ready4W(&sets->ss)) blocked = false;
  if (IsOpen() && pSocket->Ready4R(&sets->ss)) ReceiveSome(sets->pItem);
  SendSome(sets->pItem);
  return 0;
}

SI4 UDP::Check(PFDSETS sets) {
  pSocket->Watch(sets->pItem);
  pSocket->Want();
  if (IsOpen()) (void)pSocket->Wait4R(&sets->ss);
  if (Sends()) (void)pSocket->Wait4W(&sets->ss);
  const SI4 code = pSocket->Settle(&sets->ss);
  if (code && !failed) End(sets->pItem, code);
  return code;
}

bool UDP::Sends() const { return pOut && !failed; }

bool UDP::Abandon(PHIERAKI item) {
  bool left = false;
  item->WalkSub([&](PHIERAKI peer) {
    AssumeWorkThread();
    left = StillSends(peer) || left;
  });
  if (left) RootOf(item)->MakeDue(item);
  return !left;
}

bool UDP::StillSends(PHIERAKI peer) {
  if (failed) return false;
  // The last ones may have been queued behind the touch that has led here: their own come later.
  peer->WalkSub([&](PHIERAKI datagram) {
    AssumeWorkThread();
    if (datagram->Obj()->GetState() == SReadyToSend) Send(datagram);
  });
  return static_cast<UDPADDR*>(peer->Obj())->cntOut > 0;
}

void UDP::Leave(PHIERAKI) { pSocket->CloseSocket(); }

bool UDP::IsSettled(PHIERAKI) {
  return pSocket->Watched() == ((IsOpen() ? UI4{EPOLLIN} : 0u) | (Sends() ? UI4{EPOLLOUT} : 0u));
}

/// Neither direction goes on: the application hears of it.
void UDP::End(PHIERAKI item, SI4 code) {
  failed = true;
  if (Seize(SListen)) {
    lErrorObj = code;
    SettleReady(item, SListen, SError);
  } else {
    RootOf(item)->Mark(item);  // it was to send on before it goes
  }
}

// ---- receiving

void UDP::ReceiveSome(PHIERAKI item) {
  for (UI4 i = 0; i < kDatagramsPerTurn; ++i) {
    QLNSOCKADDR from;
    pBuf->Rewind();
    const SI4 code = pSocket->RecvFrom(pBuf, &from);
    // Deliberate: an empty one is dropped. What else a receive reports is the fate of one datagram.
    if (code) continue;
    if (pBuf->SizeProcessed() == 0) return;
    if (IsWelcome(from)) Received(item, from);
  }
}

bool UDP::IsWelcome(const QLNSOCKADDR& from) const {
  return (!pAllow || pAllow->IsValid(&from)) && (!pDeny || !pDeny->IsValid(&from));
}

/// Makes what lies in pBuf a child of its sender. Without memory it is lost, as on its way.
void UDP::Received(PHIERAKI item, const QLNSOCKADDR& from) {
  PHIERAKI peer = Peer(item, from);
  if (peer && peer->Obj()->GetState() == SFinished && peer->Obj()->Abandon(peer)) {
    // Closed, but not unlinked yet: this one came later.
    RootOf(item)->TakeOut(peer);
    peer = Peer(item, from);
  }
  if (!peer) return;
  UDPADDR* const sender = static_cast<UDPADDR*>(peer->Obj());
  const UI4 most = static_cast<UI4>(SI4{MaxOld});
  if (most > 0 && sender->cntIn > most) return;

  const UI4 n = pBuf->SizeProcessed();
  std::unique_ptr<BUFFER> data(new (std::nothrow) BUFFER(PlaceInZ(n), n));
  if (!data || data->lError) return;
  data->Append(pBuf->Start(), n);
  std::unique_ptr<DATAGRAM> datagram(new (std::nothrow) DATAGRAM(data.get(), SAPL));
  if (!datagram) return;
  (void)data.release();
  CH1 name[kMaxName];
  NumberedName(name, "Udp", sender->NextNumber());
  PHIERAKI const node = peer->AddNew(name, datagram.get());
  if (!node) return;
  (void)datagram.release();
  ++sender->cntIn;
  Ready4Apl(node);
}

// ---- sending

void UDP::Send(PHIERAKI datagram) {
  RPCOBJS* const obj = datagram->Obj();
  if (obj->isOut) return;
  obj->pPrevOut = pOutLast;
  (pOutLast ? pOutLast->Obj()->pNextOut : pOut) = datagram;
  pOutLast = datagram;
  obj->isOut = true;
  ++PeerOf(datagram)->cntOut;
}

void UDP::Unlist(PHIERAKI datagram) {
  RPCOBJS* const obj = datagram->Obj();
  (obj->pPrevOut ? obj->pPrevOut->Obj()->pNextOut : pOut) = obj->pNextOut;
  (obj->pNextOut ? obj->pNextOut->Obj()->pPrevOut : pOutLast) = obj->pPrevOut;
  obj->pNextOut = obj->pPrevOut = nullptr;
  obj->isOut = false;
  // Those above that were closed have waited for it.
  UDPADDR* const peer = PeerOf(datagram);
  if (--peer->cntOut == 0 && peer->GetState() == SFinished)
    RootOf(datagram)->Mark(datagram->Parent());
  if (!pOut && GetState() == SFinished) RootOf(datagram)->Mark(pItem);
}

void UDP::Forget(PHIERAKI datagram) {
  if (datagram->Obj()->isOut) Unlist(datagram);
  if (static_cast<DATAGRAM*>(datagram->Obj())->Received) --PeerOf(datagram)->cntIn;
}

void UDP::SendSome(PHIERAKI item) {
  for (UI4 i = 0; Sends() && !blocked && i < kDatagramsPerTurn; ++i) SendOne(item);
}

void UDP::SendOne(PHIERAKI item) {
  PHIERAKI const node = pOut;
  RPCOBJS* const obj = node->Obj();
  // Closed before its turn: it is not sent.
  if (!obj->Move(SReadyToSend, SSending)) {
    Unlist(node);
    return;
  }
  PBUFFER const buffer = obj->Outgoing();
  bool sent = false;
  LOG(4, ("Sending, %s", node->GetName()));
  const SI4 code = pSocket->SendTo(buffer, &PeerOf(node)->GetAddr(), &sent);
  if (!sent && code == 0) {
    blocked = true;
    obj->Move(SSending, SReadyToSend);
    return;
  }

  Unlist(node);
  const bool tooLong = sent ? !buffer->Complete() : code == ERR_LENGTH;
  if (!sent && !tooLong && obj->Seize(SSending)) {
    obj->lErrorObj = code;
    obj->SettleReady(node, SSending, SError);
    return;
  }
  if (!tooLong) LOG(4, ("Command sent, %s", node->GetName()));
  obj->Finish();
  RootOf(item)->TakeOut(node);
  if (tooLong) End(item, ERR_SEND);
}
