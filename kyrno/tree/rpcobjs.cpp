// rpcobjs.cpp - the base of everything that a node owns.
#include "kyrno/tree/rpcobjs.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "Apl/vatrans.h"
#include "Apl/vaunicod.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/net/bufferfile.h"
#include "kyrno/tree/root.h"
#include "sys/linux/fdhold.h"
#include "util/freed.h"

static constexpr UI4 MODULE = 0x00000080;

const PCH10 modename[MMAX] = {"command", "raw",  "text", "blkraw",
                              "blktext", "http", "udp",  "websocket"};
const PCH10 eventname[EMAX] = {"Receive",   "Progress", "Block",     "Error",
                               "BlockLast", "Connect",  "Receive",   "Sent",
                               "Timeout",   "Closed",   "WSUpgrade", "WSReceive"};

namespace {

constexpr UI4 kFileNameSize = 512;

/// Whether a text would end before its last element.
bool HoldsZero(PAA text) {
  const UI1* const data = VAData(text);
  const UI4 width = VAsize[VAType(text)] / 8;
  for (UI4 i = 0; i < VACount(text); ++i) {
    UI4 c = 0;
    memcpy(&c, data + size_t{width} * i, width);
    if (c == 0) return true;
  }
  return false;
}

}  // namespace

RPCOBJS::RPCOBJS(OBJTYPE type, F8 now) : Type(type), timeReady(now), timeCreate(now) {}

RPCOBJS::~RPCOBJS() { LOG(2, ("Deleting RpcObject")); }

SI4 RPCOBJS::Close(PHIERAKI item) {
  for (;;) {
    const UI4 now = word.load(std::memory_order_acquire);
    const OBJSTATE state = ToState(now);
    if (state == SReceiving || state == SSending) return ERR_OBJECT_ACTIVITY;
    if (Type == TRoot || state == SMarkedForDeletion || Exchange(now, SFinished)) break;
  }
  return RootOf(item)->ChangedSoon(item);
}

void RPCOBJS::Finish() {
  for (;;) {
    const UI4 now = word.load(std::memory_order_acquire);
    const OBJSTATE state = ToState(now);
    if (state == SFinished || state == SMarkedForDeletion || Exchange(now, SFinished)) return;
  }
}

SI4 RPCOBJS::CleanUp(PHIERAKI) { return 0; }
bool RPCOBJS::ConnectionEnded(PHIERAKI) { return true; }
bool RPCOBJS::Abandon(PHIERAKI) { return true; }
void RPCOBJS::ChildFailed(PHIERAKI, SI4) {}
void RPCOBJS::ChildReady(PHIERAKI) {}

SI4 RPCOBJS::SendBuffer(PHIERAKI, PCH1, PBUFFER buffer, UI4) {
  delete buffer;
  return ERR_INVALID_OBJECT;
}

SI4 RPCOBJS::SendZ(PHIERAKI, PCH1, PUI4, UI4, UI4) { return ERR_INVALID_OBJECT; }

SI4 RPCOBJS::ComposeBuffer(PUI4 z, UI4 size, PBUFFER* out) {
  *out = nullptr;
  ZVIEW view;
  if (ViewZ(z, size, &view) && view.rank < 2 && view.count > 0 &&
      (view.type == VAC1 || view.type == VAI1 || view.type == VAI2)) {
    // The plain case: one copy, from the caller's block into the frame.
    SI4 code = ComposeBuffer(nullptr, view.count, -1, out);
    if (code) return code;
    code =
        ViewBytes(view, reinterpret_cast<PUI1>((*out)->Start()) + (*out)->TotalSize() - view.count);
    if (code) {
      delete *out;
      *out = nullptr;
    }
    return code;
  }
  const VAHOLD array(UnpackZ(z));
  if (!array.Get()) return ERR_ARCHITECTURE;
  if (VARank(array.Get()) >= 2) return ERR_RANK;

  PUI1 bytes = nullptr;
  UI4 n = 0;
  if (VAType(array.Get()) != VAPntr) {
    const SI4 code = GetBytes(array.Get(), &bytes, &n);
    const BYTES block(bytes);
    return code ? code : ComposeBuffer(bytes, n, -1, out);
  }

  if (VAElems(array.Get()) > 2) return ERR_LENGTH;
  PAA first = nullptr;
  SI4 code = VAGetpAA(array.Get(), 0, &first);
  if (code) return code;
  const VAHOLD head(first);
  if (!first) return ERR_DOMAIN;
  if (VAElems(first) != 0) code = GetBytes(first, &bytes, &n);
  if (code) return code;
  const BYTES block(bytes);
  int file = -1;
  code = OpenNamed(array.Get(), &file);
  return code ? code : ComposeBuffer(bytes, n, file, out);
}

SI4 RPCOBJS::ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out) {
  *out = nullptr;
  const PCH10 bytes = reinterpret_cast<PCH10>(data);
  std::unique_ptr<BUFFER> buffer;
  if (file == -1) {
    buffer.reset(bytes ? new (std::nothrow) BUFFER(n, bytes) : new (std::nothrow) BUFFER(n));
    if (buffer && !buffer->lError) buffer->lError = buffer->Reserve(n);
  } else {
    buffer.reset(new (std::nothrow) BUFFERFILE(n, bytes, file));
    if (!buffer) close(file);
  }
  if (!buffer) return ERR_MEMORY_ALLOC;
  if (buffer->lError) return buffer->lError;
  *out = buffer.release();
  return 0;
}

SI4 RPCOBJS::SetRPCProp(PHIERAKI, PCH10, PAA) { return ERR_OPTION; }

SI4 RPCOBJS::GetRPCProp(PCH10 name, PAA, PPAA out) {
  *out = nullptr;
  static const PCH10 words[] = {"PropList"};
  return strcasecmp(name, "PropList") == 0 ? PropWords(words, 1, out) : ERR_OPTION;
}

SI4 RPCOBJS::GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next, PUI4* ppZ) {
  *ppZ = nullptr;
  item->FullName(objname, kFullNameSize);
  EVENTS what;
  switch (LastState) {
    case SError:
      what = lErrorObj == ERR_CLOSED && RootOf(item)->EventMode == 1 ? EClose : EError;
      *next = SFinished;
      break;
    case SSent:
      what = ESent;
      *next = Mode == MCommand ? SProcessing : SFinished;
      break;
    case SIncoming:
      what = Mode == MWebSocket ? EWSUpgrade : EConnect;
      *next = SConnected;
      break;
    default:
      return ERR_INVALID_OBJECT;
  }
  strcpy(event, eventname[what]);
  *ppZ = ScalarZ(static_cast<UI4>(static_cast<SI4>(lErrorObj)));
  return 0;
}

void RPCOBJS::MakeReady(PHIERAKI item, OBJSTATE ready, F8 now) {
  timeReady = now;
  SetState(ready);
  Ready4Apl(item);
}

void RPCOBJS::SettleReady(PHIERAKI item, OBJSTATE seized, OBJSTATE ready, F8 now) {
  timeReady = now;
  if (Settle(seized, ready)) Ready4Apl(item);
}

void RPCOBJS::Ready4Apl(PHIERAKI item) {
  ROOT* const root = RootOf(item);
  if (root->UseFnsReady < 0) {
    AssumeWorkThread();  // nobody else makes anything ready on such a root
    root->Tell(item);
    return;
  }
  // Only servers have an order of arrival.
  for (PHIERAKI n = item->Parent(); n; n = n->Parent())
    if (RPCOBJS* const above = n->Obj(); above && above->Type == TServer) above->ChildReady(item);
  root->Waiters.Note(item);
}

ROOT* RPCOBJS::RootOf(PHIERAKI item) {
  ROOT* const root = item->pQueue ? item->pQueue->pRoot : nullptr;
  return root ? root : static_cast<ROOT*>(item->Top()->Obj());
}

SI4 GetBytes(PAA array, PUI1* bytes, PUI4 n) {
  *bytes = nullptr;
  *n = 0;
  SI4 code = VAGetBytes(array, nullptr, n);
  if (code || *n == 0) return code;
  BYTES block(static_cast<PUI1>(malloc(*n)));
  if (!block) return ERR_MEMORY_ALLOC;
  code = VAGetBytes(array, block.get(), n);
  if (code == 0) *bytes = block.release();
  return code;
}

SI4 OpenNamed(PAA array, int* file) {
  CH1 name[kFileNameSize] = {0};
  VAHOLD text;
  if (VAGetpAA(array, 1, text.Out()) == 0 && text.Get()) {
    const VATYPES type = VAType(text.Get());
    if ((type == VAC1 || type == VAC2 || type == VAC4) && HoldsZero(text.Get())) return ERR_FILE;
  }
  SI4 code = VAGetUnicode(array, 1, name, sizeof name, UTF8, VACHAR);
  if (code) return code;
  FDHOLD opened(open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat st;
  if (!opened || fstat(opened.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return ERR_FILE;
  *file = opened.Release();
  return 0;
}

SI4 PropSI4(SI4 value, PPAA out) {
  *out = VANew(VAI4, 0, nullptr);
  return *out ? VASetSI4(*out, 0, value) : ERR_MEMORY_ALLOC;
}

SI4 PropVector(const SI4* values, UI4 count, PPAA out) {
  *out = VANew(VAI4, 1, &count);
  if (!*out) return ERR_MEMORY_ALLOC;
  memcpy(VAData(*out), values, count * sizeof *values);
  return 0;
}

SI4 PropText(PCH10 text, PPAA out) {
  UI4 n = static_cast<UI4>(strlen(text));
  *out = VANew(VAC1, 1, &n);
  return *out ? VASetCH1(*out, 0, text, n, VACHAR) : ERR_MEMORY_ALLOC;
}

SI4 PropWords(const PCH10* words, UI4 count, PPAA out) {
  VAHOLD list(VANew(VAPntr, 1, &count));
  *out = nullptr;
  if (!list.Get()) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < count; ++i)
    if (VASetCH1(list.Get(), i, words[i], static_cast<UI4>(strlen(words[i])), VACHAR))
      return ERR_MEMORY_ALLOC;
  *out = list.Release();
  return 0;
}
