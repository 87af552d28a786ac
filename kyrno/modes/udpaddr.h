// udpaddr.h - one remote address of a UDP object, and the datagrams that it sent or is to be sent.
//
//   SConnected   for its whole life; AClose ends it once its datagrams are out
//
// A datagram is a child of its peer:
//
//   out:  SReadyToSend -> SSending -> SFinished       SError when it can't go to this address
//   in:   SAPL -> SProcessing -> SFinished
//
// The name of a peer is that of its address, written by PeerName:
//
//   base64 of the 4 or 16 address bytes, ":", the port in 4 hexadecimal digits
//   127.0.0.1 port 4711  "fwAAAQ==:1267"       ::1 port 80  "AAAAAAAAAAAAAAAAAAAAAQ==:0050"
#pragma once

#include <atomic>

#include "kyrno/base/mutex.h"
#include "kyrno/modes/message.h"

class UDP;

inline constexpr UI4 kPeerNameSize = 30;  // with its terminator

/// Of an IPv4 or IPv6 address; `to` has kPeerNameSize bytes.
void PeerName(PCH1 to, const QLNSOCKADDR& addr);

/// Owner and threads as MESSAGE.
class DATAGRAM : public MESSAGE {
 public:
  DATAGRAM(PBUFFER buffer, OBJSTATE state, F8 now = Micros());

  SI4 Check(PFDSETS sets) override WORK_ONLY;
  bool Abandon(PHIERAKI) override WORK_ONLY { return true; }
  void Leave(PHIERAKI item) override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;

  const bool Received;
};

/// Owner:   its node, right below that of the UDP object.
/// Threads: as RPCOBJS.
class UDPADDR : public RPCOBJS, public POOLED {
 public:
  explicit UDPADDR(const QLNSOCKADDR& address);
  ~UDPADDR() override;

  /// One datagram. ERR_CLOSED when this peer or the object above has ended. The flag is not used.
  [[nodiscard]] SI4 SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag) override;
  [[nodiscard]] SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) override;
  /// Deliberate: "LocalAddr" is the peer's address, under the word that the other objects have.
  [[nodiscard]] SI4 GetRPCProp(PCH10 name, PAA args, PPAA out) override;
  /// False while datagrams are to be sent.
  bool Abandon(PHIERAKI item) override WORK_ONLY;

  const QLNSOCKADDR& GetAddr() const { return addr; }
  /// Of the next datagram, either way.
  UI4 NextNumber() { return NameCnt.fetch_add(1, std::memory_order_relaxed); }

  UI4 cntOut WORK_DATA = 0;  // datagrams that are to be sent
  UI4 cntIn WORK_DATA = 0;   // received ones that are still here

 private:
  bool IsOpen(PHIERAKI item) const;

  const QLNSOCKADDR addr;
  std::atomic<UI4> NameCnt{0};  // tally
  MUTEX Lock;
  PAA paaInfo GUARDED_BY(Lock) = nullptr;  // owned count
};
