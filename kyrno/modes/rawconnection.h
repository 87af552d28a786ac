// rawconnection.h - modes "raw" and "text": no framing on the wire. What arrives is cut at the
// stops of a list, or, without one, into what each read brought.
#pragma once

#include "kyrno/modes/connection.h"
#include "kyrno/modes/stoprule.h"

class RAWCONNECTION : public CONNECTION {
 public:
  RAWCONNECTION(UI4 maxBlockSize, OBJMODE mode);
  /// An accepted one; `shared`, the server's rule, is used while this connection has none.
  RAWCONNECTION(UI4 maxBlockSize, OBJMODE mode, PRPCSOCK socket, STOPRULE* shared);

  /// Takes the list over. Null leaves none.
  void SetStop(PLIST list, bool ignoreCase) { own.Set(list, ignoreCase); }
  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;

  bool ReadsAhead() const override { return false; }
  PBUFFER NewHeader() override WORK_ONLY;
  SI4 HeaderRecv(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  SI4 HeaderComplete(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  SI4 PassiveClose(PFDSETS sets, PHIERAKI item) override WORK_ONLY;

 private:
  void Begin(OBJMODE mode);
  SI4 Deliver(PHIERAKI item, PBUFFER bytes, OBJSTATE state) WORK_ONLY;
  PBUFFER TakeAll() WORK_ONLY;

  const UI4 MaxBlockSize;  // size of pHeader, so the longest unit
  STOPRULE own;
  STOPRULE* const pShared;        // borrowed from the server above; null for a client
  UI4 Count WORK_DATA = 0;        // names of units
  STOPRULE::MARK mark WORK_DATA;  // how far pHeader has been searched
};
