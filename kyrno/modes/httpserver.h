// httpserver.h - a server of mode "http".
#pragma once

#include "kyrno/modes/server.h"

class HTTPSERVER : public SERVER {
 public:
  HTTPSERVER(UI4 maxBlockSize, OBJMODE mode) : SERVER(mode), MaxBlockSize(maxBlockSize) {}
  /// "WSFeatures" for connections to come; "DecodeBuffers" also for those that are there.
  [[nodiscard]] SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value) override;
  /// Those of "WSFeatures" and the internal ones. Before the object is linked.
  void SetFeatures(UI4 features) { Features = features; }

 protected:
  RPCOBJS* NewConnection(PRPCSOCK socket) override WORK_ONLY;

 private:
  const UI4 MaxBlockSize;
  WORD<UI4> DecodeBuffers{0};
  WORD<UI4> Features{0};
};
