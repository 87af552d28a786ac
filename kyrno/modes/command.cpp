// command.cpp - messages of the command protocol, and the command itself.
#include "kyrno/modes/command.h"

#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/connection.h"
#include "util/blockstore.h"
#include "util/wire.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

// Where the fields stand.
constexpr UI4 kAtType = 4;
constexpr UI4 kAtMagic = 8;
constexpr UI4 kAtSecurity = 16;
constexpr UI4 kAtFeatures = 47;
constexpr UI4 kAtName = 48;
constexpr UI4 kAtSubname = 80;
constexpr UI4 kAtUnused = 112;

constexpr UI4 kCompHead = 4;          // the uncompressed length ahead of the stream
constexpr UI4 kWorthIt = 1025;        // bytes of a message from which on it may be compressed
constexpr int kLevel = 6;             // whatever CompLevel says: that only switches it on
constexpr UI4 kLentBytes = 32768;     // from here on a copy costs more than the care for it
constexpr UI4 kFirstPiece = 1 << 20;  // of an inflated payload; it grows as the stream yields

/// A field of 32 bytes as text, without the blanks behind it.
void GetName(const CH1* field, PCH1 name) {
  static constexpr CH1 blanks[] = "        ";
  constexpr UI4 eight = sizeof blanks - 1;
  UI4 n = MAXNAMELENGTH;
  while (n >= eight && memcmp(field + n - eight, blanks, eight) == 0) n -= eight;
  while (n > 0 && field[n - 1] == ' ') --n;
  memcpy(name, field, n);
  name[n] = 0;
}

void PutHeader(PCH1 p, UI4 length, MSGTYPE type, PCH10 name, PCH10 subname, UI4 features) {
  PutUI4(p, length);
  PutUI4(p + kAtType, type);
  memcpy(p + kAtMagic, MAGIC, kMagicSize);
  memset(p + kAtSecurity, ' ', 3 * MAXNAMELENGTH);
  memset(p + kAtUnused, 0, kIpMsgSize - kAtUnused);
  p[kAtFeatures] = static_cast<CH1>(features);
  memcpy(p + kAtName, name, strnlen(name, MAXNAMELENGTH));
  memcpy(p + kAtSubname, subname, strnlen(subname, MAXNAMELENGTH));
}

/// The compressed form; null when it can't be had, and the plain form will do.
PBUFFER Compressed(MSGTYPE type, PCH10 name, PCH10 subname, const UI4* data, UI4 length,
                   UI4 features) {
  if (!SslHas(kyrnossl.icompress2) || !SslHas(kyrnossl.icompressBound)) return nullptr;
  uLongf room = compressBound(length);
  if (room > UINT32_MAX - kIpMsgSize - kCompHead) return nullptr;
  const UI4 total = static_cast<UI4>(room) + kIpMsgSize + kCompHead;
  std::unique_ptr<BUFFER> buffer(new (std::nothrow) BUFFER(total));
  if (!buffer || buffer->lError || buffer->Reserve(total)) return nullptr;
  PCH1 const stream = buffer->Start() + kIpMsgSize + kCompHead;
  if (compress2(reinterpret_cast<Bytef*>(stream), &room, reinterpret_cast<const Bytef*>(data),
                length, kLevel) != Z_OK)
    return nullptr;
  const UI4 size = static_cast<UI4>(room) + kIpMsgSize + kCompHead;
  PutHeader(buffer->Start(), size, type == IPMCommand ? IPMCommandComp : IPMAnswerComp, name,
            subname, features);
  PutUI4(buffer->Start() + kIpMsgSize, length);
  buffer->Resize(size);
  return buffer.release();
}

/// Inflates a payload into a fresh block. The claimed length is only believed when the stream has
/// proved it.
SI4 Inflate(const CH1* payload, UI4 n, PUI4* ppZ) {
  if (n < kCompHead || !SslHas(kyrnossl.iinflateInit_) || !SslHas(kyrnossl.iinflate) ||
      !SslHas(kyrnossl.iinflateEnd))
    return ERR_RECV;
  const UI4 claimed = GetUI4(payload);
  z_stream s;
  memset(&s, 0, sizeof s);
  s.next_in = reinterpret_cast<Bytef*>(const_cast<PCH1>(payload + kCompHead));
  s.avail_in = n - kCompHead;
  if (inflateInit(&s) != Z_OK) return ERR_RECV;

  PCH1 out = nullptr;
  UI4 held = 0;
  SI4 code = 0;
  int state = Z_OK;
  while (state == Z_OK) {
    if (s.total_out == held) {
      if (held == claimed && held > 0) {
        // Full: only the end of the stream may follow.
        Bytef more;
        s.next_out = &more;
        s.avail_out = 1;
        state = inflate(&s, Z_FINISH);
        if (state != Z_STREAM_END || s.total_out != claimed) code = ERR_RECV;
        break;
      }
      const UI4 grown = held ? (held > claimed / 2 ? claimed : held * 2)
                             : (claimed < kFirstPiece ? claimed : kFirstPiece);
      PCH1 const larger = static_cast<PCH1>(BlockResize(out, grown ? grown : 1));
      if (!larger) {
        code = ERR_MEMORY_ALLOC;
        break;
      }
      out = larger;
      held = grown;
      s.next_out = reinterpret_cast<Bytef*>(out + s.total_out);
      s.avail_out = held - static_cast<UI4>(s.total_out);
      if (held == 0) break;
    }
    state = inflate(&s, Z_NO_FLUSH);
  }
  if (code == 0 && (state != Z_STREAM_END || s.total_out != claimed || s.avail_in != 0))
    code = ERR_RECV;
  inflateEnd(&s);
  if (code == 0) {
    *ppZ = reinterpret_cast<PUI4>(out);
  } else {
    BlockFree(out);
  }
  return code;
}

}  // namespace

SI4 ReadIpMsg(const CH1* bytes, IPMSG* header) {
  header->Length = GetUI4(bytes);
  header->MessageType = GetUI4(bytes + kAtType);
  header->Features = static_cast<UI1>(bytes[kAtFeatures]);
  GetName(bytes + kAtName, header->Name);
  GetName(bytes + kAtSubname, header->Subname);
  if (memcmp(bytes + kAtMagic, MAGIC, kMagicSize) != 0) return ERR_WRONG_MAGIC;
  return header->Length < kIpMsgSize ? ERR_WRONG_MAGIC : 0;
}

PBUFFER IPmsg(MSGTYPE type, PCH10 name, PCH10 subname, const UI4* data, UI4 length, UI4 features,
              UI4 compLevel, LENTBUFFER** lent) {
  if (lent) *lent = nullptr;
  if (length > UINT32_MAX - kIpMsgSize) return nullptr;
  const UI4 total = length + kIpMsgSize;
  const UI4 both = FCompLocal | FCompPeer;
  if (compLevel != 0 && (features & both) == both && total >= kWorthIt &&
      (type == IPMCommand || type == IPMAnswer))
    if (PBUFFER const small = Compressed(type, name, subname, data, length, features)) return small;

  if (lent && length >= kLentBytes) {
    CH1 header[kIpMsgSize];
    PutHeader(header, total, type, name, subname, features);
    std::unique_ptr<LENTBUFFER> large(
        new (std::nothrow) LENTBUFFER(header, kIpMsgSize, reinterpret_cast<PCH10>(data), length));
    if (!large || large->lError) return nullptr;
    return *lent = large.release();
  }

  PBUFFER const buffer = BUFFER::NewWhole(total);
  if (!buffer) return nullptr;
  PutHeader(buffer->Start(), total, type, name, subname, features);
  memcpy(buffer->Start() + kIpMsgSize, data, length);
  return buffer;
}

SI4 TakeZ(PBUFFER message, bool compressed, PUI4* ppZ) {
  *ppZ = nullptr;
  const UI4 n = message->TotalSize() - kIpMsgSize;
  UI4 size = n;
  PUI4 z = nullptr;
  if (compressed) {
    const CH1* const payload = message->Block();
    const SI4 code = Inflate(payload, n, &z);
    if (code) return code;
    size = GetUI4(payload);
  } else if (n >= 8) {
    z = reinterpret_cast<PUI4>(message->ReleaseBlock());
    if (!z) return ERR_MEMORY_ALLOC;
  }
  if (!z || size < 8 || GetUI4(z) != size) {
    BlockFree(z);
    return ERR_ARCHITECTURE;
  }
  *ppZ = z;
  return 0;
}

COMMAND::COMMAND(PBUFFER send) : RPCOBJS(TCommand), isLocal(true), pSend(send) {
  SetState(SReadyToSend);
}

COMMAND::COMMAND(const IPMSG& header, F8 now) : RPCOBJS(TCommand, now), isLocal(false) {
  AssumeWorkThread();
  lErrorObj = Open(header);
  SetState(SReceiving);
}

COMMAND::~COMMAND() {
  LOG(2, ("Deleting Command"));
  delete pSend.load(std::memory_order_acquire);
}

SI4 COMMAND::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next, PUI4* ppZ) {
  if (LastState == SError || LastState == SSent)
    return RPCOBJS::GetWaitReturns(item, objname, event, next, ppZ);
  item->FullName(objname, kFullNameSize);
  strcpy(event, eventname[EReceive]);
  const SI4 code = TakeZ(GetBuffer(), Compressed.load(std::memory_order_acquire), ppZ);
  if (code) return code;
  const OBJSTATE after = NextState.Exchange(SDoNotChange);
  if (after != SDoNotChange) *next = after;
  return 0;
}

SI4 COMMAND::Check(PFDSETS sets) {
  PHIERAKI const item = sets->pItem;
  CONNECTION* const connection = CONNECTION::Above(item);
  // The answer was complete while the command was with the application.
  if (received) Received(item, Micros());
  if (connection->HasEnded())
    connection->AskAgain(item);
  else if (GetState() == SReadyToSend)
    connection->Send(item);
  return 0;
}

SI4 COMMAND::Answer(PBUFFER message) {
  std::unique_ptr<BUFFER> owned(message);
  if (isLocal || !Seize(SProcessing)) return ERR_STATE;
  pSend.store(owned.release(), std::memory_order_release);
  NextState = SFinished;
  return Settle(SProcessing, SReadyToSend) ? 0 : ERR_STATE;
}

SI4 COMMAND::Open(const IPMSG& header) {
  body.emplace(kBodyPlace, header.Length);
  if (body->lError) return ERR_MEMORY_ALLOC;
  const bool isCompressed =
      header.MessageType == IPMCommandComp || header.MessageType == IPMAnswerComp;
  Compressed.store(isCompressed, std::memory_order_release);
  pRecv.store(&*body, std::memory_order_release);
  receiving = true;
  return 0;
}

SI4 COMMAND::BeginAnswer(const IPMSG& header, F8 now) {
  const OBJSTATE state = GetState();
  const bool waits = state == SProcessing || state == SSent;
  if (!isLocal || !waits || GetBuffer()) return ERR_UNKNOWN_ANSWER;
  if (const SI4 code = Open(header)) return code;
  timeCreate = now;
  Move(SProcessing, SReceiving);
  return 0;
}

void COMMAND::Received(PHIERAKI item, F8 now) {
  receiving = false;
  // A command that came in keeps what its message type said; an answer ends the command. In
  // SReceiving nobody else touches it.
  if (GetState() == SReceiving) {
    received = false;
    if (isLocal) NextState = SFinished;
    MakeReady(item, SAPL, now);
    return;
  }
  if (Seize(SProcessing)) {
    received = false;
    if (isLocal) NextState = SFinished;
    SettleReady(item, SProcessing, SAPL, now);
    return;
  }
  // "Sent" has to be delivered first. Delivering it wakes the work thread, which looks again.
  const OBJSTATE state = GetState();
  received = state == SSent || state == SProcessing;
}

bool COMMAND::ConnectionEnded(PHIERAKI item) {
  receiving = false;
  if (received) Received(item, Micros());
  if (received) return false;
  for (const OBJSTATE from : {SReadyToSend, SSending, SProcessing, SReadyToRecv, SReceiving}) {
    if (!Seize(from)) continue;
    lErrorObj = ERR_CLOSED;
    // The connection has its own event; what it would have become with this one no longer counts.
    NextPState = SDoNotChange;
    SettleReady(item, from, SError);
    return true;
  }
  // While "Sent" waits, or a command that came in, or the application has it in its hands, it is
  // too early: whoever ends that wakes the work thread.
  const OBJSTATE state = GetState();
  if (state == SSent || (state == SAPL && NextState == SProcessing)) return false;
  return state < SReadyToSend || state > SReceiving;
}

bool COMMAND::Abandon(PHIERAKI item) {
  CONNECTION* const connection = CONNECTION::Above(item);
  bool sending = connection->IsHalfSent(item);
  item->WalkSub([&](PHIERAKI report) {
    AssumeWorkThread();
    if (connection->IsHalfSent(report)) sending = true;
  });
  if (sending) return false;

  item->WalkSub([&](PHIERAKI report) {
    AssumeWorkThread();
    report->Obj()->Abandon(report);
  });
  if (receiving && connection->IsReceiving(item)) connection->SkipBytes(GetBuffer()->Remaining());
  receiving = false;
  return true;
}

void COMMAND::Leave(PHIERAKI item) { CONNECTION::Above(item)->Forget(item); }

bool COMMAND::IsSettled(PHIERAKI item) {
  if (received && GetState() == SProcessing && !IsSeized()) return false;
  return GetState() != SReadyToSend || isOut || !CONNECTION::Above(item)->IsOpen();
}
