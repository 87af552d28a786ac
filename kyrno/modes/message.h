// message.h - one unit of data on its way in or out: a block received, a buffer being sent.
//
//   out:  SReadyToSend -> SSending -> SFinished, or SSent ("Sent") -> SFinished
//   in:   SAPL or SAPLLast -> SProcessing -> SFinished         whole when it is made
//         SReceiving -> SAPL -> SProcessing -> SFinished       filled from the socket
#pragma once

#include "kyrno/tree/rpcobjs.h"
#include "util/pool.h"

/// Owner:   its node. Owns the buffer.
/// Threads: the work thread's until it is ready, then the waiting thread's.
class MESSAGE : public RPCOBJS, public POOLED {
 public:
  MESSAGE(PBUFFER buffer, OBJSTATE state, F8 now = Micros());
  ~MESSAGE() override;

  /// "Block" or "BlockLast" of the connection, in mode "http" a word of the piece's own; with the
  /// data as a vector: 2-byte integers from 0 to 255 in the raw modes, characters in the others.
  [[nodiscard]] SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                   PUI4* ppZ) override;
  PBUFFER GetBuffer() override { return pBuf; }
  PBUFFER Outgoing() override { return pBuf; }
  /// Bytes of the data, which begin at GetBuffer()->Start(). Who has picked the message may take
  /// them out with the memory around them: BUFFER::ReleaseBlock.
  virtual UI4 DataSize() const { return pBuf->TotalSize(); }
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  bool Abandon(PHIERAKI item) override WORK_ONLY;
  void Leave(PHIERAKI item) override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;

 protected:
  /// The connection's full name, and the event word.
  void Describe(PHIERAKI item, PCH1 objname, PCH1 event) const;
  /// The data as a Z. The buffer may be empty afterwards.
  [[nodiscard]] SI4 TakeData(PUI4* ppZ);

  PBUFFER const pBuf;  // owned
};

/// A report on the way to an answer: child of its COMMAND, the payload behind a message header.
class PROGRESS : public MESSAGE {
 public:
  using MESSAGE::MESSAGE;
  /// "Progress" with the full name of the report.
  [[nodiscard]] SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                   PUI4* ppZ) override;
};

/// Where the n bytes of a text are to be received, so that the Z needs only its head.
BLOCKPLACE PlaceInZ(UI4 n);

/// Received bytes as the elements of a vector of VAI2, each byte one, or of VAC1, in the
/// interpreter's own character set.
void PutData(PCH1 to, const CH1* bytes, UI4 n, VATYPES type);
/// The same as a Z that the caller owns. Null without memory.
PUI4 Data2Z(const CH1* bytes, UI4 n, VATYPES type);
