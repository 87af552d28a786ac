// udp.h - mode "udp": one datagram socket, and a child for each remote address that was seen or
// addressed.
//
//   S                        UDP        bound by ASrv, not bound by AClt
//    |-- fwAAAQ==:1267       UDPADDR    one peer
//         |-- Udp00000000    DATAGRAM
//
//   from       on                                    to         by
//   SListen    a datagram too long to be sent        SError     W   both directions stop
//   SError     AWaitZ, when all that came is told    SFinished  A   "Error"
//   SListen    AClose                                SFinished  A   ends when all is sent
//
// Datagrams leave in the order in which they were queued. One that can't go to its address ends
// alone, with an "Error" of its own name: no peer and no network can end what serves the others.
#pragma once

#include "kyrno/modes/udpaddr.h"
#include "kyrno/net/ranges.h"
#include "kyrno/tree/rpcobjs.h"
#include "util/freed.h"

/// What an array asks a UDP object to send: (address, port, data), the last one optional.
class UDPTARGET {
 public:
  /// ERR_ARCHITECTURE for no array, ERR_RANK, ERR_DOMAIN for a simple one, ERR_LENGTH, and the
  /// codes of its texts.
  [[nodiscard]] SI4 Read(PUI4 z);
  /// Looks the address up, which may block: outside the gate.
  [[nodiscard]] SI4 LookUp(PROTOCOL prot);

  const QLNSOCKADDR& Address() const { return addr; }
  PAA Data() const { return data.Get(); }  ///< borrowed; null for none

 private:
  TEXT host;
  TEXT service;
  VAHOLD data;
  QLNSOCKADDR addr{};
};

/// Owner:   its node. Owns the socket.
/// Threads: as RPCOBJS.
/// Errors:  lErrorObj comes out with "Error".
class UDP : public RPCOBJS {
 public:
  explicit UDP(UI4 maxBlockSize);
  ~UDP() override;

  /// A bound socket, or one that is not. In the calling thread, outside the gate; nobody else knows
  /// the object yet.
  [[nodiscard]] SI4 Bind(PCH10 address, PCH10 port, PROTOCOL prot);
  [[nodiscard]] SI4 Init(PROTOCOL prot);
  /// Whom it lets in and whom it keeps out; null for no filter. Before the object is linked.
  void SetFilters(REF<RANGES> allow, REF<RANGES> deny);
  /// What addresses this socket reaches.
  PROTOCOL Reaches() const { return Prot; }

  /// Sends to any address and completes the name, which is to be empty, with ".peer". Blocks while
  /// it looks the address up: a caller inside the gate does that before and calls SendTo.
  [[nodiscard]] SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) override;
  [[nodiscard]] SI4 SendTo(PHIERAKI item, PCH1 name, const UDPTARGET& to);
  /// The node of an address below item, made if it isn't there; null without memory, or when this
  /// object has ended.
  PHIERAKI Peer(PHIERAKI item, const QLNSOCKADDR& address);

  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  void CloseAfterFork() override;

  SI4 Execute(PFDSETS sets) override WORK_ONLY;
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  /// False while datagrams are to be sent.
  bool Abandon(PHIERAKI item) override WORK_ONLY;
  void Leave(PHIERAKI item) override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;

  // --- for the objects below
  /// The object to which a datagram belongs.
  static UDP* Above(PHIERAKI datagram);
  /// What is queued now can go out. Any thread.
  bool IsOpen() const { return GetState() == SListen; }
  /// A datagram in SReadyToSend takes its place behind the others.
  void Send(PHIERAKI datagram) WORK_ONLY;
  /// A datagram goes.
  void Forget(PHIERAKI datagram) WORK_ONLY;
  /// Something that was queued below this peer is still to be sent.
  bool StillSends(PHIERAKI peer) WORK_ONLY;

 private:
  [[nodiscard]] SI4 Open(PRPCSOCK socket, PROTOCOL prot);
  PHIERAKI Find(PHIERAKI item, const QLNSOCKADDR& address);
  void ReceiveSome(PHIERAKI item) WORK_ONLY;
  void Received(PHIERAKI item, const QLNSOCKADDR& from) WORK_ONLY;
  bool IsWelcome(const QLNSOCKADDR& from) const;
  void SendSome(PHIERAKI item) WORK_ONLY;
  void SendOne(PHIERAKI item) WORK_ONLY;
  void Unlist(PHIERAKI datagram) WORK_ONLY;
  bool Sends() const WORK_ONLY;
  void End(PHIERAKI item, SI4 code) WORK_ONLY;

  const UI4 MaxBlockSize;      // of a received datagram; a longer one is cut
  PRPCSOCK pSocket = nullptr;  // owned; constant once the object is linked
  PROTOCOL Prot = PAny;        // constant once the object is linked
  REF<RANGES> pAllow, pDeny;   // constant once the object is linked
  WORD<SI4> MaxOld{0};         // datagrams that may wait per peer; 0: no limit

  PBUFFER pBuf WORK_DATA = nullptr;   // owned; null until something has come
  PHIERAKI pOut WORK_DATA = nullptr;  // borrowed; first and last to be sent
  PHIERAKI pOutLast WORK_DATA = nullptr;
  bool blocked WORK_DATA = false;  // the socket takes nothing just now
  bool failed WORK_DATA = false;   // nothing is sent or received any more
};
