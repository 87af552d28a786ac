// cmdconnection.h - a connection in mode "command": carries COMMANDs. The protocol: command.h.
#pragma once

#include "kyrno/modes/command.h"
#include "kyrno/modes/connection.h"

class CMDCONNECTION : public CONNECTION {
 public:
  CMDCONNECTION();
  explicit CMDCONNECTION(PRPCSOCK socket);

  /// Starts a command; only a client can (1008).
  [[nodiscard]] SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) override;
  /// Answers the command at node: the final answer, or a progress report.
  [[nodiscard]] SI4 Respond(PHIERAKI node, PCH10 name, PUI4 z, UI4 size, bool complete);

  PBUFFER NewHeader() override WORK_ONLY;
  SI4 HeaderRecv(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  SI4 HeaderComplete(PFDSETS sets, PHIERAKI item) override WORK_ONLY;
  SI4 ReadComplete(PFDSETS sets, PHIERAKI child) override WORK_ONLY;

 private:
  void Begin();
  SI4 BeginCommand(PHIERAKI item, const IPMSG& header, F8 now, PHIERAKI* child) WORK_ONLY;
  SI4 BeginProgress(PHIERAKI item, const IPMSG& header, F8 now, PHIERAKI* child) WORK_ONLY;
  SI4 BeginAnswer(PHIERAKI item, const IPMSG& header, F8 now, PHIERAKI* child) WORK_ONLY;

  /// CMDFEAT bits: the sender's side reads them, the work thread adds FCompPeer.
  std::atomic<UI4> Features{FNothing};
};
