// zephsession.cpp - the one session with a remote development environment.
#include "kyrno/link/zephsession.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/link/zephpages.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/message.h"
#include "kyrno/tree/root.h"

static constexpr UI4 MODULE = 0x00001000;

constinit TKYRNOFNS Zeph2Functions = {};
constinit ZEPHBLOCKS ZephBlocks;
constinit MUTEX ZephLock;

namespace {

constexpr CH1 kSupported[] = "SupportedProtocols=";
constexpr UI4 kSupportedSize = sizeof kSupported - 1;
constexpr CH1 kUsing[] = "UsingProtocol=";
constexpr UI4 kLineSize = 48;     // of either with a number
constexpr int kLoggedBytes = 50;  // of a handshake
constexpr UI4 kReportSent = 3;
constexpr UI4 kMostOffers = 16;  // of a peer; each is worth an answer, which it may not read

constinit UI4 Offers GUARDED_BY(ZephLock) = 0;  // that the session's peer has made

PZeph2Config Config() { return Zeph2Functions.pZeph2Config; }

/// A block of the handshake, with this side's version.
struct LINE {
  explicit LINE(PCH10 word)
      : size(static_cast<UI4>(snprintf(text, sizeof text, "%s%d", word, ZEPHPROTOCOLVERSION))) {}
  CH1 text[kLineSize];
  const UI4 size;
};

SI4 SendLine(PHIERAKI connection, const LINE& line) {
  PBUFFER block = nullptr;
  const SI4 code = ComposeBlock(connection, line.text, line.size, &block);
  return code ? code : connection->Obj()->SendBuffer(connection, nullptr, block, 0);
}

/// The object's part is over; the work thread takes it out.
void Free(PHIERAKI node) {
  node->Obj()->Finish();
  RPCOBJS::RootOf(node)->Changed(node);
}

/// With no lock held.
void Notify(UI4 code, PVOID number) {
  TCommNotify notify;
  {
    MUTEXHOLD hold(ZephLock);
    notify = Config()->CommNotify;
  }
  if (notify) notify(code, number);
}

TZeph2State RestingState() TSA(requires_capability(ZephLock)) {
  switch (Config()->Direction) {
    case DIRListen:
      return Zeph2Listening;
    case DIRConnect:
    case DIRPoll:
      return Zeph2Idle;
    case DIRHttp:
      return Zeph2HttpSrv;
    case DIRUndefined:
    case DIRConfig:
      break;
  }
  return Published(Zeph2Functions.Zeph2State);
}

bool IsSessions(PHIERAKI connection) TSA(requires_capability(ZephLock)) {
  CH1 name[kFullNameSize + 1] = {0};
  PCH10 const current = Config()->pCurrentConnection;
  return current && connection->FullName(name, kFullNameSize) > 0 && strcmp(name, current) == 0;
}

/// This connection is not the session's any more: the link rests. False if it was not the
/// session's.
bool LeaveSession(PHIERAKI connection) {
  MUTEXHOLD hold(ZephLock);
  if (!IsSessions(connection)) return false;
  EndSession(RestingState());
  return true;
}

/// The session is over, and the interpreter hears of it.
void LoseSession(PHIERAKI connection) {
  const bool was = LeaveSession(connection);
  Free(connection);
  if (was) Notify(kConnectionGone, ZephBlocks.NewNumber());
}

// ---- a new connection

/// Takes it as the session's if there is none and the peer will do. False to let it go.
bool Accept(PHIERAKI node, CONNECTION* connection) {
  const bool known = connection->IsPeerIn(Config()->pAcceptCertList);
  MUTEXHOLD hold(ZephLock);
  if (Config()->pCurrentConnection || connection->Type != TConnection || !known) return false;
  const TZeph2State state = Published(Zeph2Functions.Zeph2State);
  const bool isWeb = state == Zeph2HttpSrv && connection->Mode == MWebSocket;
  if (state != Zeph2Listening && !isWeb) return false;
  if (Config()->KAtime && Config()->KAint)
    connection->SetKeepalive(Config()->KAtime, Config()->KAint);
  return connection->Move(SIncoming, SConnected) && BeginSession(node) == 0;
}

void Incoming(PHIERAKI node) {
  LOG(2, ("New Connection %s", node->GetName()));
  CONNECTION* const connection = static_cast<CONNECTION*>(node->Obj());
  const bool accepted = Accept(node, connection);
  // What asks for pages is served whether there is a session or not.
  const bool isPage = connection->Mode == MHttp;
  if (accepted || (isPage && connection->Move(SIncoming, SConnected)))
    RPCOBJS::RootOf(node)->Changed(node);
  else
    Free(node);
}

// ---- a block or a request

/// Whether a list of versions, "2" or "1,2", has this side's. A part that is no number is none.
bool OffersVersion(PCH10 list, UI4 size) {
  constexpr SI4 kNone = -1;
  constexpr SI4 kMost = 100'000'000;
  SI4 version = 0;
  for (UI4 i = 0; i <= size; ++i) {
    if (i == size || list[i] == ',') {
      if (version == ZEPHPROTOCOLVERSION) return true;
      version = 0;
    } else if (version != kNone) {
      const bool isDigit = list[i] >= '0' && list[i] <= '9';
      version = isDigit && version < kMost ? version * 10 + (list[i] - '0') : kNone;
    }
  }
  return false;
}

/// A block of the handshake. False when it has failed.
bool Negotiate(PHIERAKI connection, PCH10 text, UI4 size) {
  LOG(5, ("%.*s", static_cast<int>(size) < kLoggedBytes ? static_cast<int>(size) : kLoggedBytes,
          text));
  const LINE answer(kUsing);
  if (size > kSupportedSize && memcmp(text, kSupported, kSupportedSize) == 0) {
    LOG(2, ("Supported protocol received"));
    {
      MUTEXHOLD hold(ZephLock);
      if (++Offers > kMostOffers) return false;
    }
    if (!OffersVersion(text + kSupportedSize, size - kSupportedSize)) return false;
    const SI4 code = SendLine(connection, answer);
    LOG(3, ("Error %d sending %s", code, answer.text));
    return true;
  }
  if (size != answer.size || memcmp(text, answer.text, size) != 0) return false;
  LOG(3, ("UsingProtocol received"));
  MUTEXHOLD hold(ZephLock);
  if (IsSessions(connection)) Publish(Zeph2Functions.Zeph2State, Zeph2Connected);
  return true;
}

/// The interpreter's from now on.
void Deliver(PHIERAKI node, MESSAGE* message) {
  PVOID const number = ZephBlocks.Put(message->GetBuffer(), message->DataSize());
  PHIERAKI const connection = node->Parent();
  Free(node);
  if (number)
    Notify(kBlockArrived, number);
  else
    LoseSession(connection);
}

bool IsRequest(PHIERAKI node) {
  static constexpr CH1 kHeader[] = "HTTPHeader";
  return memcmp(node->GetName(), kHeader, sizeof kHeader - 1) == 0;
}

/// What waits on a page connection: the oldest request, unless an answer is on its way.
struct PAGEWORK {
  PHIERAKI request = nullptr;
  bool isBusy = false;

  static PHIERAKI Look(PHIERAKI child, void* work) {
    PAGEWORK* const own = static_cast<PAGEWORK*>(work);
    const OBJSTATE state = child->Obj()->GetState();
    if (state == SAPL && !own->request && IsRequest(child)) own->request = child;
    own->isBusy = state == SReadyToSend || state == SSending || state == SSent;
    return own->isBusy ? child : nullptr;
  }
};

/// One answer at a time: each holds a file open, and its peer may ask for thousands at once.
void AnswerNext(PHIERAKI connection) {
  PAGEWORK work;
  connection->LoopSub(PAGEWORK::Look, &work);
  if (work.isBusy || !work.request) return;
  const PAGES pages = {Config()->pHttpDir ? Config()->pHttpDir : "", Config()->ConfigFile};
  RPCOBJS* const server = connection->Obj();
  PBUFFER const answer = HandleHttpRequest(pages, connection, work.request->Obj()->GetBuffer());
  Free(work.request);
  if (!answer || server->SendBuffer(connection, nullptr, answer, kReportSent)) Free(connection);
}

/// A piece of what a browser asks for: the answer to a header block is a page, bodies are dropped.
void PageArrived(PHIERAKI node, const MESSAGE& message) {
  PHIERAKI const connection = node->Parent();
  if (connection->Obj()->Mode == MHttp && IsRequest(node)) return AnswerNext(connection);
  // A stream's last piece takes its connection along.
  if (message.NextPState == SFinished) Free(connection);
  Free(node);
}

void AnswerSent(PHIERAKI node) {
  PHIERAKI const connection = node->Parent();
  Free(node);
  if (connection->Obj()->Mode == MHttp) AnswerNext(connection);
}

void Arrived(PHIERAKI node) {
  MESSAGE* const message = static_cast<MESSAGE*>(node->Obj());
  PHIERAKI const connection = node->Parent();
  TZeph2State state;
  bool isSessions;
  {
    MUTEXHOLD hold(ZephLock);
    state = Published(Zeph2Functions.Zeph2State);
    isSessions = IsSessions(connection);
  }
  if (!isSessions) return PageArrived(node, *message);
  if (state == Zeph2Connected) return Deliver(node, message);
  if (state == Zeph2Negotiate &&
      !Negotiate(connection, message->GetBuffer()->Start(), message->DataSize())) {
    Free(connection);
    LeaveSession(connection);
  }
  Free(node);
}

}  // namespace

void OOSfn2(PHIERAKI node) {
  RPCOBJS* const object = node ? node->Obj() : nullptr;
  if (!object) return;
  switch (object->GetState()) {
    case SIncoming:
      return Incoming(node);
    case SAPL:
    case SAPLLast:
      return Arrived(node);
    case SError:
    case SSocketClosed:
      return LoseSession(node);
    case SSent:
      return AnswerSent(node);
    default:
      return;
  }
}

SI4 BeginSession(PHIERAKI node) {
  CH1 name[kFullNameSize + 1] = {0};
  node->FullName(name, kFullNameSize);
  Config()->pCurrentConnection = strdup(name);
  if (!Config()->pCurrentConnection) return ERR_MEMORY_ALLOC;
  Publish(Zeph2Functions.Zeph2State, Zeph2Negotiate);
  Offers = 0;
  const SI4 code = SendLine(node, LINE(kSupported));
  if (code) EndSession(RestingState());
  return code;
}

void EndSession(TZeph2State state) {
  free(Config()->pCurrentConnection);
  Config()->pCurrentConnection = nullptr;
  Publish(Zeph2Functions.Zeph2State, state);
}

bool SessionName(CH1 (&name)[kFullNameSize + 1]) {
  PCH10 const current = Config() ? Config()->pCurrentConnection : nullptr;
  if (current) snprintf(name, sizeof name, "%s", current);
  return current != nullptr;
}

SI4 ComposeBlock(PHIERAKI node, PCH10 data, UI4 length, PBUFFER* block) {
  *block = nullptr;
  RPCOBJS* const object = node->Obj();
  // The bytes are only copied.
  PUI1 const bytes = reinterpret_cast<PUI1>(const_cast<PCH1>(data));
  return object ? object->ComposeBuffer(bytes, length, -1, block) : ERR_INVALID_OBJECT;
}

SI4 SendInSession(PHIERAKI node, PBUFFER block, bool last) {
  std::unique_ptr<BUFFER> owned(block);
  MUTEXHOLD hold(ZephLock);
  // Another connection may have the name by now, whose handshake this would break.
  if (!node->IsLinked() || !IsSessions(node)) return ERR_INVALID_OBJECT;
  const SI4 code = node->Obj()->SendBuffer(node, nullptr, owned.release(), last ? 1 : 0);
  if (!code && last) EndSession(RestingState());
  return code;
}
