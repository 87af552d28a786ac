// httpmsg.h - one piece of an HTTP stream on its way to the application: as text, or, where the
// application has asked for it, taken apart when it is collected. Bodies as text go out in the
// block into which they were received.
//
//   word           bit              delivered
//   HTTPHeader     DecodeHeader     (first word, second word, rest of the line, header matrix)
//   HTTPTrailer    DecodeTrailer    a matrix of names and values
//   HTTPChunk      DecodeChunk      (data, an empty matrix of extensions)
//   HTTPBody       DecodeBody       the data
//   HTTPFail                        the whole text of a piece that could not be taken apart
#pragma once

#include "kyrno/modes/message.h"

inline constexpr UI4 DecodeHeader = 1;
inline constexpr UI4 DecodeTrailer = 2;
inline constexpr UI4 DecodeChunk = 4;
inline constexpr UI4 DecodeBody = 8;
inline constexpr UI4 DecodeInts = 0x01000000;   // data as VAI2 instead of characters
inline constexpr UI4 DecodeChars = 0x02000000;  // the default

/// Owner and threads as MESSAGE. The buffer is placed for a Z of text (PlaceInZ).
class HTTPMSG : public MESSAGE {
 public:
  HTTPMSG(PBUFFER buffer, OBJSTATE state, UI4 bits, F8 now = Micros())
      : MESSAGE(buffer, state, now), decode(bits) {}

  /// The event word is the node's own name up to its first digit.
  [[nodiscard]] SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                   PUI4* ppZ) override;
  void Leave(PHIERAKI item) override WORK_ONLY;

  WORD<UI4> decode;  // Decode bits; any thread may change them while the piece waits
};

// --- the decoders, for a piece of n bytes. The Z is the caller's, for free(); null on failure:
// ERR_HTTPDECODE for a piece that is not of its form, ERR_MEMORY_ALLOC. They write it in one go, of
// a size in proportion to the piece; an array would take two allocations for every line.
[[nodiscard]] SI4 DecodeHttpHeader(PCH10 piece, UI4 n, PUI4* ppZ);
[[nodiscard]] SI4 DecodeHttpTrailer(PCH10 piece, UI4 n, PUI4* ppZ);
/// The data as VAI2 with DecodeInts in `decode`.
[[nodiscard]] SI4 DecodeHttpChunk(PCH10 piece, UI4 n, UI4 decode, PUI4* ppZ);
