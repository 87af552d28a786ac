// httpconnection.cpp - mode "http": what is received, and the properties.
#include "kyrno/modes/httpconnection.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/httpmsg.h"
#include "kyrno/tree/root.h"
#include "util/itoa.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

constexpr UI4 kStep = 4096;  // of a header block that came in two reads, appended and searched

bool Is(PCH10 name, PCH10 word) { return strcasecmp(name, word) == 0; }

PCH10 PrefixOf(HTTPFRAMING::KIND kind) {
  switch (kind) {
    case HTTPFRAMING::Header:
      return "HTTPHeader";
    case HTTPFRAMING::Body:
      return "HTTPBody";
    case HTTPFRAMING::Chunk:
      return "HTTPChunk";
    case HTTPFRAMING::Trailer:
      return "HTTPTrailer";
    case HTTPFRAMING::More:
    case HTTPFRAMING::Upgrade:
    case HTTPFRAMING::Broken:
      break;
  }
  return "Blk";
}

/// Whether what ends a chunk's data is the same as what ended its line.
bool EndsLikeItsLine(PBUFFER chunk, UI4 lineEnd) {
  const UI4 n = chunk->TotalSize();
  PCH10 const end = chunk->Start() + n - lineEnd;
  return lineEnd == 1 ? *end == '\n' : memcmp(end, "\r\n", 2) == 0;
}

/// Sets the decoding of a piece that waits or is still coming in.
PHIERAKI SetDecode(PHIERAKI child, void* decode) {
  RPCOBJS* const obj = child->Obj();
  if (!obj || obj->Type != TMessage || obj->Mode != MHttp) return nullptr;
  // What is on its way out is never in one of these states, and what is left at the end is text.
  const OBJSTATE state = obj->GetState();
  if (state == SAPL || state == SReceiving)
    static_cast<HTTPMSG*>(obj)->decode = *static_cast<const UI4*>(decode);
  return nullptr;
}

}  // namespace

HTTPCONNECTION::HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode)
    : MaxBlockSize(maxBlockSize), framing(true) {
  Mode = mode;
}

HTTPCONNECTION::HTTPCONNECTION(UI4 maxBlockSize, OBJMODE mode, PRPCSOCK socket)
    : CONNECTION(socket), MaxBlockSize(maxBlockSize), framing(false) {
  Mode = mode;
}

HTTPCONNECTION::~HTTPCONNECTION() { free(pUserHeaders); }

PBUFFER HTTPCONNECTION::NewHeader() { return new (std::nothrow) BUFFER(MaxBlockSize); }

// ---- the interpreter's side

SI4 HTTPCONNECTION::SetRPCProp(PHIERAKI root, PCH10 name, PAA value) {
  if (Is(name, "WSUpgrade")) return WSUpgrade(value);
  if (Is(name, "WSAccept")) return WSAccept(value);
  if (Is(name, "UpgradeHeader")) return UpgradeHeader(value);
  const bool decode = Is(name, "DecodeBuffers");
  if (!decode && !Is(name, "WSFeatures")) return CONNECTION::SetRPCProp(root, name, value);

  SI4 n = 0;
  if (const SI4 code = VAGetSI4(value, 0, &n)) return code;
  if (decode)
    SetDecodeBuffers(pItem, static_cast<UI4>(n));
  else
    Features = static_cast<UI4>(n) & ~kInternalFeatures;
  return 0;
}

void HTTPCONNECTION::SetDecodeBuffers(PHIERAKI item, UI4 decode) {
  DecodeBuffers = decode;
  item->LoopSub(SetDecode, &decode);
}

// ---- what is received

SI4 HTTPCONNECTION::HeaderBytes(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) {
  *used = n;
  // What is kept goes first, also when the application has refused in the midst of this turn: its
  // message brings the turn that resumes.
  if (uncut || held) return Keep(data, n);
  if (pHeader && pHeader->SizeProcessed() > 0) return CutHeader(sets, item, data, n, used);

  // Pieces are cut where the bytes were read to: only a head that is not whole is kept.
  UI4 at = 0;
  while (GetState() == SConnected) {
    const UI4 left = n - at;
    const UI4 shown = std::min(left, MaxBlockSize);
    const HTTPFRAMING::PIECE piece = framing.Next(data + at, shown);
    if (piece.kind == HTTPFRAMING::More)
      return shown == MaxBlockSize ? ERR_MAX_BLOCK_SIZE : KeepHead(data + at, left);
    const UI4 have = std::min(left, piece.size);
    if (piece.kind == HTTPFRAMING::Upgrade)
      return Upgrade(sets, item, data + at, have, data + at + have, left - have);
    if (const SI4 code = Hand(sets, item, piece, data + at, have)) return code;
    at += have;
    if (have < piece.size) break;
  }
  return 0;
}

/// Goes on with the head that is in pHeader.
SI4 HTTPCONNECTION::CutHeader(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 n, PUI4 used) {
  const UI4 before = pHeader->SizeProcessed();
  const UI4 step = std::min({n, pHeader->Remaining(), kStep});
  pHeader->Append(data, step);
  if (pHeader->lError) return pHeader->lError;
  const HTTPFRAMING::PIECE piece = framing.Next(pHeader->Start(), before + step);
  if (piece.kind == HTTPFRAMING::More) {
    *used = step;
    return pHeader->Complete() ? ERR_MAX_BLOCK_SIZE : 0;
  }
  if (piece.kind == HTTPFRAMING::Broken) return ERR_HTTPDECODE;
  const UI4 have = std::min(before + step, piece.size);
  *used = have - before;
  if (piece.kind == HTTPFRAMING::Upgrade) {
    const UI4 cut = *used;
    *used = n;
    return Upgrade(sets, item, pHeader->Start(), have, data + cut, n - cut);
  }
  const SI4 code = Hand(sets, item, piece, pHeader->Start(), have);
  pHeader->Rewind();
  if (code || have < piece.size) return code;
  // Also with nothing behind it: a header block may have broken the stream.
  const UI4 cut = *used;
  *used = n;
  UI4 rest = 0;
  return HeaderBytes(sets, item, data + cut, n - cut, &rest);
}

SI4 HTTPCONNECTION::KeepHead(PCH10 data, UI4 n) {
  if (n == 0) return 0;
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  pHeader->Append(data, n);
  return pHeader->lError;
}

/// What has come behind an upgrade's header block waits for the application, or for the WEBSOCKET.
SI4 HTTPCONNECTION::Keep(PCH10 data, UI4 n) {
  if (n == 0) return 0;
  if (!pHeader) pHeader = NewHeader();
  if (!pHeader || pHeader->lError) return ERR_MEMORY_ALLOC;
  if (pHeader->Remaining() < n) pHeader->Resize(pHeader->SizeProcessed() + n);
  if (!pHeader->lError) pHeader->Append(data, n);
  uncut = true;
  return pHeader->lError;
}

bool HTTPCONNECTION::WantsBytes() const {
  // A peer that reads no answers piles no requests up.
  if ((Features & HTTPOneByOne) && CountWaiting() > 0) return false;
  return !uncut || pHeader->SizeProcessed() < MaxBlockSize;
}

void HTTPCONNECTION::Send(PHIERAKI child) {
  // Who sends anything else than an upgrade's answer goes on with HTTP, behind what is sent here.
  held = false;
  CONNECTION::Send(child);
}

SI4 HTTPCONNECTION::Resume(PFDSETS sets, PHIERAKI item) {
  if (!uncut || held) return 0;
  uncut = false;
  const std::unique_ptr<BUFFER> kept(std::exchange(pHeader, nullptr));
  return Feed(sets, item, kept->Start(), kept->SizeProcessed());
}

/// A piece of which `have` bytes are there goes to the application, or receives the others.
SI4 HTTPCONNECTION::Hand(PFDSETS sets, PHIERAKI item, const HTTPFRAMING::PIECE& piece, PCH10 data,
                         UI4 have) {
  if (piece.kind == HTTPFRAMING::Broken) return ERR_HTTPDECODE;
  if ((Features & HTTPOneByOne) && piece.size > MaxBlockSize) return ERR_MAX_BLOCK_SIZE;
  lineEnd = piece.kind == HTTPFRAMING::Chunk ? piece.lineEnd : 0;
  return ReturnBuffer(sets, item, data, have, piece.size, PrefixOf(piece.kind));
}

SI4 HTTPCONNECTION::ReturnBuffer(PFDSETS sets, PHIERAKI item, PCH10 data, UI4 have, UI4 size,
                                 PCH10 prefix) {
  // Received to the place where the application gets it.
  std::unique_ptr<BUFFER> bytes(new (std::nothrow) BUFFER(PlaceInZ(size), size));
  if (!bytes || bytes->lError) return ERR_MEMORY_ALLOC;
  bytes->Append(data, have);
  if (bytes->lError) return bytes->lError;
  std::unique_ptr<HTTPMSG> message(new (std::nothrow)
                                       HTTPMSG(bytes.get(), SReceiving, DecodeBuffers, sets->now));
  if (!message) return ERR_MEMORY_ALLOC;
  PBUFFER const buffer = bytes.release();
  message->Mode = OBJMODE{Mode};
  CH1 name[kMaxName];
  NumberedName(name, prefix, Count++);
  PHIERAKI const child = item->AddNew(name, message.get());
  if (!child) return ERR_NAME_IN_USE;
  (void)message.release();
  UnitAdded();
  LOG(4, ("HTTP piece %s of %u, %u here", name, size, have));
  if (have == size) return ReadComplete(sets, child);
  Receive(child, buffer);
  return 0;
}

SI4 HTTPCONNECTION::ReadComplete(PFDSETS sets, PHIERAKI child) {
  const bool well = lineEnd == 0 || EndsLikeItsLine(child->Obj()->GetBuffer(), lineEnd);
  child->Obj()->MakeReady(child, SAPL, sets->now);
  // Where this chunk ends, another reader might go on differently.
  return well ? 0 : ERR_HTTPDECODE;
}

SI4 HTTPCONNECTION::PassiveClose(PFDSETS sets, PHIERAKI item) {
  // Nobody has accepted or refused what waits here: then it is HTTP.
  while (uncut) {
    held = false;
    if (const SI4 code = Resume(sets, item)) return code;
    if (item->Obj() != this || GetState() != SConnected) return 0;
  }
  const UI4 n = pHeader ? pHeader->SizeProcessed() : 0;
  if (n > 0) {
    std::unique_ptr<BUFFER> rest(pHeader->Take(n));
    if (!rest) return ERR_MEMORY_ALLOC;
    std::unique_ptr<MESSAGE> message(new (std::nothrow) MESSAGE(rest.get(), SAPLLast, sets->now));
    if (!message) return ERR_MEMORY_ALLOC;
    (void)rest.release();
    message->Mode = OBJMODE{Mode};
    message->NextPState = SFinished;
    pHeader->Rewind();
    CH1 name[kMaxName];
    NumberedName(name, "Blk", Count++);
    PHIERAKI const child = item->AddNew(name, message.get());
    if (!child) return ERR_NAME_IN_USE;
    (void)message.release();
    Ready4Apl(child);
  }
  return CONNECTION::PassiveClose(sets, item);
}
