// relay.h - sends all that arrives on one connection out through another: child of the source.
//
// Each read makes one message on the target. The source is not read while the target has more than
// a few of them to send, so a slow target slows the source's peer down and memory stays bounded.
#pragma once

#include "kyrno/tree/rpcobjs.h"

class RELAY : public RPCOBJS {
 public:
  /// Owns the buffer, whose size is the largest unit. The target is remembered by name, because it
  /// may go first. lErrorObj tells when memory was short.
  RELAY(PHIERAKI to, PBUFFER buffer);
  ~RELAY() override;

  PBUFFER GetBuffer() override { return pBuf; }
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  void Leave(PHIERAKI item) override WORK_ONLY;
  /// Forwards what `header`, the source's framing buffer, has read ahead, then its own buffer. 1104
  /// when the target is gone.
  [[nodiscard]] SI4 RelayBuf(PHIERAKI item, PBUFFER header) WORK_ONLY;
  /// The same with n bytes in place of its own buffer.
  [[nodiscard]] SI4 Forward(PHIERAKI item, PBUFFER header, PCH10 data, UI4 n) WORK_ONLY;

  /// Too much waits on the target: its source is not to be read.
  bool IsHeld() const WORK_ONLY { return phHeldBy != nullptr; }
  // --- for the target: in its list of those that it holds, or null for none
  void HoldAt(PHIERAKI target, PHIERAKI next) WORK_ONLY {
    phHeldBy = target;
    phNextHeld = next;
  }
  PHIERAKI* NextHeld() WORK_ONLY { return &phNextHeld; }

 private:
  SI4 RelayBytes(PHIERAKI item, PCH10 data, UI4 n) WORK_ONLY;
  PHIERAKI Target(PHIERAKI item);

  PBUFFER const pBuf;                     // owned
  PCH1 const pToName;                     // owned
  UI4 Bytes WORK_DATA = 0;                // running total; numbers the messages
  PHIERAKI phHeldBy WORK_DATA = nullptr;  // borrowed, both
  PHIERAKI phNextHeld WORK_DATA = nullptr;
};

/// Couples two connections; without oneWay in both directions. 1010, 1008, 1012, or 0 also when one
/// of them is coupled already.
[[nodiscard]] SI4 SetRelay(PHIERAKI root, PCH10 from, PCH10 to, UI4 blockSize, bool oneWay);
