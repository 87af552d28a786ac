// wsmsg.h - one data frame of a WebSocket on its way to the application, or a message whose
// fragments are joined.
//
//   |- lead -|---- own bytes of the frame ----|
//   |---------------- size -----------|- cut -|
//
// The lead is the beginning of a character that the frame before could not finish, and what is cut
// off belongs in front of the next frame. Both are empty unless characters may be split.
//
// A frame is received to its place in the Z that tells of it. Only text with other characters than
// those of ASCII is converted to another one.
#pragma once

#include "kyrno/modes/message.h"
#include "kyrno/modes/wsframe.h"

/// Owner and threads as MESSAGE.
class WSMSG : public MESSAGE {
 public:
  /// Where a frame of so many bytes is to be received.
  static BLOCKPLACE Place(UI4 n);
  /// What the buffer holds already is the lead.
  WSMSG(PBUFFER buffer, OBJSTATE state, const WSHEAD& head, bool text, F8 now);

  /// "WSReceive" of the connection: (data, Fin, Opcode); the data characters when Text, else
  /// one-byte integers.
  [[nodiscard]] SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                   PUI4* ppZ) override;
  UI4 DataSize() const override { return size; }
  void Leave(PHIERAKI item) override WORK_ONLY;
  /// Takes the peer's mask off what has come since the last time; *n bytes of it. A client never
  /// unmasks.
  const UI1* MaskBuf(PHIERAKI item, PUI4 n) WORK_ONLY;
  /// The next frame of the same message, not above `most` bytes together, is received behind what
  /// has come. Not for a buffer with a place.
  [[nodiscard]] SI4 Continue(const WSHEAD& head, UI4 most) WORK_ONLY;
  /// Sets the last bytes aside, of a frame that is whole.
  void Cut(UI4 bytes) WORK_ONLY { size -= bytes; }
  /// Counts the characters of the text; false when it is not UTF-8.
  bool Measure() WORK_ONLY;
  const UI1* Bytes() const { return reinterpret_cast<const UI1*>(pBuf->Start()); }
  UI4 Size() const { return size; }

  const bool Text;  // belongs to a text message
  const bool Fin;
  const UI1 Opcode;  // of this frame, or the first of those which are joined

 private:
  SI4 PutText(PCH1 to, VATYPES type) const;

  const bool masked;
  UI4 Mask = 0;  // the key, beginning with its byte for the one at `done`
  UI4 done;      // bytes without a mask
  UI4 size;
  UI4 count = 0;  // characters of a text
  UI1 width = 1;  // of the widest
};
