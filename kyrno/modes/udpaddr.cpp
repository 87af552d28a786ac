// udpaddr.cpp - the peers of a UDP object and their datagrams.
#include "kyrno/modes/udpaddr.h"

#include <strings.h>

#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/modes/udp.h"
#include "kyrno/net/address.h"
#include "kyrno/tree/root.h"
#include "util/base64.h"
#include "util/itoa.h"

void PeerName(PCH1 to, const QLNSOCKADDR& addr) {
  sockaddr_in v4;
  sockaddr_in6 v6;
  memcpy(&v4, &addr, sizeof v4);
  memcpy(&v6, &addr, sizeof v6);
  UI1 host[16];
  UI1 port[2];
  memcpy(port, &v4.sin_port, sizeof port);  // at the same place in both families
  const bool six = addr.ss_family == AF_INET6;
  if (six)
    memcpy(host, &v6.sin6_addr, sizeof v6.sin6_addr);
  else
    memcpy(host, &v4.sin_addr, sizeof v4.sin_addr);
  to += encode64(to, host, six ? sizeof v6.sin6_addr : sizeof v4.sin_addr);
  *to++ = ':';
  to += encodeHex(to, port, sizeof port);
  *to = 0;
}

DATAGRAM::DATAGRAM(PBUFFER buffer, OBJSTATE state, F8 now)
    : MESSAGE(buffer, state, now), Received(state == SAPL) {
  Mode = MUdp;
}

SI4 DATAGRAM::Check(PFDSETS sets) {
  if (GetState() == SReadyToSend) UDP::Above(sets->pItem)->Send(sets->pItem);
  return 0;
}

void DATAGRAM::Leave(PHIERAKI item) { UDP::Above(item)->Forget(item); }

bool DATAGRAM::IsSettled(PHIERAKI item) {
  return GetState() != SReadyToSend || isOut || !UDP::Above(item)->IsOpen();
}

UDPADDR::UDPADDR(const QLNSOCKADDR& address) : RPCOBJS(TUdpPeer), addr(address) {
  Mode = MUdp;
  SetState(SConnected);
}

UDPADDR::~UDPADDR() { VAFree(paaInfo); }

bool UDPADDR::IsOpen(PHIERAKI item) const {
  return GetState() == SConnected && static_cast<UDP*>(item->Parent()->Obj())->IsOpen();
}

SI4 UDPADDR::SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4) {
  std::unique_ptr<BUFFER> owned(buffer);
  if (!IsOpen(item)) return ERR_CLOSED;
  std::unique_ptr<DATAGRAM> datagram(new (std::nothrow) DATAGRAM(buffer, SReadyToSend));
  if (!datagram) return ERR_MEMORY_ALLOC;
  (void)owned.release();

  CH1 own[kMaxName] = {0};
  if (!name) name = own;
  if (!*name) NumberedName(name++, ".Udp", NextNumber());
  PHIERAKI const node = item->AddNew(name, datagram.get());
  if (!node) return item->IsLinked() ? ERR_NAME_IN_USE : ERR_CLOSED;
  DATAGRAM* const queued = datagram.release();
  // What can't be sent any more is not accepted.
  const bool late = !IsOpen(item) && queued->Move(SReadyToSend, SFinished);
  const SI4 code = RootOf(item)->ChangedInBurst(node, queued->timeCreate);
  return late ? ERR_CLOSED : code;
}

SI4 UDPADDR::SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) {
  if (!IsOpen(item)) return ERR_CLOSED;
  PBUFFER buffer = nullptr;
  const SI4 code = ComposeBuffer(z, size, &buffer);
  return code ? code : SendBuffer(item, name, buffer, flag);
}

bool UDPADDR::Abandon(PHIERAKI item) {
  return !static_cast<UDP*>(item->Parent()->Obj())->StillSends(item);
}

SI4 UDPADDR::GetRPCProp(PCH10 name, PAA, PPAA out) {
  static const PCH10 words[] = {"LocalAddr", "PropList"};
  *out = nullptr;
  if (strcasecmp(name, "PropList") == 0) return PropWords(words, 2, out);
  if (strcasecmp(name, "LocalAddr") != 0) return ERR_OPTION;
  MUTEXHOLD hold(Lock);
  if (!paaInfo)
    if (const SI4 code = SockAddr2pAA(&addr, &paaInfo)) return code;
  VAIncRef(paaInfo);
  *out = paaInfo;
  return 0;
}
