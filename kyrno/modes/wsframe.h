// wsframe.h - the bytes of a WebSocket frame's head (RFC 6455, section 5.2), and of a close payload
// (section 5.5.1). No socket, no clock, nothing kept.
//
//   0   FIN RSV1 RSV2 RSV3 opcode(4)
//   1   MASK length(7)            126: two bytes follow, 127: eight, in network order
//   ..  masking key, 4 bytes, with MASK
#pragma once

#include "sys/linux/qlntypes.h"

inline constexpr UI4 WSHEADERSIZE = 2;
inline constexpr UI4 kMaxFrameHead = 14;
inline constexpr UI4 kMaxControl = 125;  // bytes of a control frame's payload
inline constexpr UI4 kMaskSize = 4;

enum WSOPCODE : UI1 {
  WSCont = 0,
  WSText = 1,
  WSBin = 2,
  WSClose = 8,
  WSPing = 9,
  WSPong = 10,
};
/// Names by opcode; empty where there is none.
extern const PCH10 wsopcode[16];

constexpr bool IsControl(UI1 opcode) { return opcode >= WSClose; }
constexpr bool IsReserved(UI1 opcode) {
  return (opcode > WSBin && opcode < WSClose) || opcode > WSPong;
}

/// A frame's head, taken apart.
struct WSHEAD {
  UI4 size;    ///< bytes of the head itself
  UI8 length;  ///< of the payload, as it stands on the wire
  UI1 opcode;
  UI1 rsv;  ///< the three reserved bits, 0 to 7
  bool fin;
  bool masked;
  bool shortest;  ///< its length has the shortest form that it could have
  UI1 mask[kMaskSize];
};

/// False while the n bytes that have come do not hold the whole head.
bool ParseHead(PCH10 data, UI4 n, WSHEAD* head);
/// Bytes of the head that PutHead writes.
UI4 HeadSize(UI4 length, bool masked);
/// Writes the shortest head for so many bytes; mask null for none. The place behind it.
PCH1 PutHead(PCH1 to, bool fin, UI1 opcode, UI4 length, const UI1* mask);

// --- what ends a connection that is held to the RFC: the code of the close frame, 0 for no fault

enum WSCLOSECODE : UI2 {
  WSNormal = 1000,
  WSProtocolError = 1002,
  WSBadText = 1007,
  WSTooBig = 1009,
};

/// inMessage: the frame before belonged to a message that goes on. `most` bytes may a data frame
/// have.
UI2 HeadFault(const WSHEAD& head, bool fromClient, bool inMessage, UI4 most);
/// Whether an endpoint may put this code into a close frame (section 7.4).
bool IsCloseCode(UI2 code);
/// The code of a close payload of at least two bytes.
UI2 CloseCode(PCH10 payload);
/// The fault of a close payload.
UI2 CloseFault(PCH10 payload, UI4 n);
/// What the application hears of it.
SI4 ErrorOfClose(UI2 code);
