// command.h - the command protocol: whole arrays as remote calls with answers.
//
// A message, 115 bytes of header in network byte order and the payload:
//
//     0  Length       4   of the whole message
//     4  MessageType  4
//     8  Magic        8   "Kyrno000"
//    16  Security    32   31 blanks, and in the last byte what the sender can do (CMDFEAT)
//    48  Name        32   the command, padded with blanks
//    80  Subname     32   the progress report, padded with blanks
//   112  -            3
//   115  Data             a Z; compressed: its length in 4 bytes, then a zlib stream
//
// A COMMAND is one call in flight, on either side, child of its connection:
//
//   client   SReadyToSend -> SSending -> SProcessing -> SReceiving -> SAPL -> SFinished
//                               flag 3:  SSent -> SProcessing -> ...
//                               flags 1 and 2:  SFinished
//   server   SReceiving -> SAPL -> SProcessing -> (answer) SReadyToSend -> SSending -> SFinished
//
// An answer that meets a command in SSent, or in the hands of a waiting thread, is received all the
// same; the command becomes ready once "Sent" has been delivered.
#pragma once

#include <optional>

#include "kyrno/net/lentbuffer.h"
#include "kyrno/tree/rpcobjs.h"
#include "util/pool.h"

enum MSGTYPE : UI4 {
  IPMConnect,
  IPMCommand,
  IPMMessage,
  IPMAnswer,
  IPMCommandNoAnswer,
  IPMCommandComp,
  IPMAnswerComp
};

/// What a side can do and knows of the other.
enum CMDFEAT : UI4 { FNothing = 0, FCompLocal = 1, FCompPeer = 2, FCompOld = 32 };

inline constexpr UI4 kIpMsgSize = 115;  // header bytes
inline constexpr UI4 MAXNAMELENGTH = 32;
inline constexpr CH1 MAGIC[] = "Kyrno000";
inline constexpr UI4 kMagicSize = 8;

/// A header, read.
struct IPMSG {
  UI4 Length;
  UI4 MessageType;
  UI1 Features;
  CH1 Name[MAXNAMELENGTH + 1];  // terminated, without the padding
  CH1 Subname[MAXNAMELENGTH + 1];
};

/// Reads the 115 bytes of a header. 1130 (ERR_WRONG_MAGIC) for another magic or a Length that can't
/// be.
[[nodiscard]] SI4 ReadIpMsg(const CH1* bytes, IPMSG* header);

/// The payload comes straight into the block that the application gets.
inline constexpr BLOCKPLACE kBodyPlace = {kIpMsgSize, 0, 0};

/// A complete message as a buffer ready to send, owned by the caller; null without memory. Names
/// are cut at 32 bytes. It is compressed when both sides can, compLevel is not 0, the message is a
/// command or an answer, and it is large enough to be worth it. With `lent`, a large one that is
/// not compressed refers to the data; *lent is that message then, and null otherwise.
PBUFFER IPmsg(MSGTYPE type, PCH10 name, PCH10 subname, const UI4* data, UI4 length, UI4 features,
              UI4 compLevel, LENTBUFFER** lent = nullptr);

/// The payload of a received message as a Z that the caller owns, or a code: 1131 when the Z's own
/// length is another one than the payload's, 1105 for a stream that does not inflate to what it
/// claims, 1012.
[[nodiscard]] SI4 TakeZ(PBUFFER message, bool compressed, PUI4* ppZ);

/// Owner:   its node. Owns its buffers.
/// Threads: in SProcessing it is the interpreter's, otherwise the work thread's.
class COMMAND : public RPCOBJS, public POOLED {
 public:
  /// One to be sent: owns the message.
  explicit COMMAND(PBUFFER send);
  /// One that is received, whose header has come in now. No memory leaves ERR_MEMORY_ALLOC in
  /// lErrorObj.
  COMMAND(const IPMSG& header, F8 now);
  ~COMMAND() override;

  /// "Receive" with the payload, or what RPCOBJS tells.
  [[nodiscard]] SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                   PUI4* ppZ) override;
  PBUFFER GetBuffer() override { return pRecv.load(std::memory_order_acquire); }
  PBUFFER Outgoing() override { return pSend.load(std::memory_order_acquire); }
  SI4 Check(PFDSETS sets) override WORK_ONLY;
  bool ConnectionEnded(PHIERAKI item) override WORK_ONLY;
  bool Abandon(PHIERAKI item) override WORK_ONLY;
  void Leave(PHIERAKI item) override WORK_ONLY;
  bool IsSettled(PHIERAKI item) override WORK_ONLY;

  /// The final answer, which it owns from here on. 1103 when the command does not wait for one.
  [[nodiscard]] SI4 Answer(PBUFFER message);
  /// The header of the answer has come in now: receives the payload into GetBuffer. 1126 when no
  /// answer is waited for, 1012.
  [[nodiscard]] SI4 BeginAnswer(const IPMSG& header, F8 now) WORK_ONLY;
  /// The payload is complete.
  void Received(PHIERAKI item, F8 now) WORK_ONLY;
  /// Number of the next progress report.
  UI4 NextProgress() { return ProgressCnt.fetch_add(1, std::memory_order_relaxed); }

 private:
  SI4 Open(const IPMSG& header) WORK_ONLY;

  const bool isLocal;                   // this side asked
  std::optional<BUFFER> body;           // of what is received; made once
  std::atomic<PBUFFER> pRecv{nullptr};  // the same for all threads, once it is whole
  std::atomic<PBUFFER> pSend{nullptr};  // owned; stored once
  std::atomic<bool> Compressed{false};  // the payload in pRecv
  std::atomic<UI4> ProgressCnt{0};      // tally
  bool receiving WORK_DATA = false;     // the payload is coming in
  bool received WORK_DATA = false;      // it is in, and the command is not ready yet
};
