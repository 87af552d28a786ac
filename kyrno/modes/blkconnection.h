// blkconnection.h - modes "blkraw" and "blktext": each side gets exactly the blocks that the other
// sent.
//
//   0  length   4   of the whole block, network byte order
//   4  magic    4   only when Magic was not 0 when the connection was made
//      payload
#pragma once

#include "kyrno/modes/connection.h"

class BLKCONNECTION : public CONNECTION {
 public:
  BLKCONNECTION(UI4 magic, UI4 maxBlockSize, OBJMODE mode);
  BLKCONNECTION(UI4 magic, UI4 maxBlockSize, OBJMODE mode, PRPCSOCK socket);

  using CONNECTION::ComposeBuffer;
  [[nodiscard]] SI4 ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) override;
  PBUFFER NewHeader() override WORK_ONLY;
  SI4 HeaderComplete(PFDSETS sets, PHIERAKI item) override WORK_ONLY;

 protected:
  UI4 GetMagic() override { return Magic; }
  /// Deliberate: the size of the header that is received stays as it was.
  void SetMagic(UI4 magic) override { Magic = magic; }

 private:
  void Begin(OBJMODE mode);

  WORD<UI4> Magic;
  const UI4 MaxBlockSize;   // of a whole block
  UI4 headSize = 0;         // constant; of a header that is received
  UI4 Count WORK_DATA = 0;  // names of blocks
};
