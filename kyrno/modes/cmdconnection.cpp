// cmdconnection.cpp - a connection in mode "command".
#include "kyrno/modes/cmdconnection.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/message.h"
#include "kyrno/tree/root.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {
constexpr UI4 kMagicEnd = 16;  // where the magic ends in a header
}  // namespace

CMDCONNECTION::CMDCONNECTION() { Begin(); }
CMDCONNECTION::CMDCONNECTION(PRPCSOCK socket) : CONNECTION(socket) { Begin(); }

void CMDCONNECTION::Begin() {
  Mode = MCommand;
  if (KyrnosslLoaded() && CompLevel != 0) Features.store(FCompLocal, std::memory_order_release);
}

// ---- the interpreter's side

SI4 CMDCONNECTION::SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag) {
  if (Type == TConnection) return ERR_INVALID_OBJECT;
  if (!IsOpen()) return ERR_CLOSED;

  // The name goes into the header, so it is made here.
  CH1 own[kMaxName] = {0};
  if (!name) name = own;
  PCH10 leaf = name;
  if (!*name) leaf = CompleteName(name);

  const MSGTYPE type = flag == 2 ? IPMCommandNoAnswer : IPMCommand;
  LENTBUFFER* lent = nullptr;
  PBUFFER const message =
      IPmsg(type, leaf, "", z, size, Features.load(std::memory_order_acquire), CompLevel, &lent);
  if (!message) return ERR_MEMORY_ALLOC;
  COMMAND* const command = new (std::nothrow) COMMAND(message);
  if (!command) {
    delete message;
    return ERR_MEMORY_ALLOC;
  }
  command->NextState = flag == 0 ? SProcessing : flag == 3 ? SSent : SFinished;
  if (flag == 1) command->NextPState = SShutdown;
  return Queue(item, leaf, command, lent);
}

SI4 CMDCONNECTION::Respond(PHIERAKI node, PCH10 name, PUI4 z, UI4 size, bool complete) {
  if (!IsOpen()) return ERR_CLOSED;
  LOG(3, (complete ? "Respond to %s" : "Progress to %s", name));
  if (node->Obj()->Type != TCommand) return ERR_INVALID_OBJECT;
  COMMAND* const command = static_cast<COMMAND*>(node->Obj());
  const UI4 features = Features.load(std::memory_order_acquire);

  if (complete) {
    LENTBUFFER* lent = nullptr;
    PBUFFER const message = IPmsg(IPMAnswer, name, "", z, size, features, CompLevel, &lent);
    if (!message) return ERR_MEMORY_ALLOC;
    if (const SI4 code = command->Answer(message)) return code;
    const SI4 code = RootOf(node)->ChangedInBurst(node);
    if (lent) lent->Own();
    return code;
  }

  CH1 report[kMaxName];
  snprintf(report, sizeof report, "Progress%08u", command->NextProgress());
  std::unique_ptr<BUFFER> message(IPmsg(IPMMessage, name, report, z, size, features, CompLevel));
  if (!message) return ERR_MEMORY_ALLOC;
  std::unique_ptr<MESSAGE> child(new (std::nothrow) MESSAGE(message.get(), SReadyToSend));
  if (!child) return ERR_MEMORY_ALLOC;
  message.release();
  PHIERAKI const added = node->AddNew(report, child.get());
  if (!added) return node->IsLinked() ? ERR_NAME_IN_USE : ERR_CLOSED;
  child.release();
  return RootOf(node)->ChangedInBurst(added);
}

// ---- the turn

PBUFFER CMDCONNECTION::NewHeader() { return new (std::nothrow) BUFFER(kIpMsgSize); }

SI4 CMDCONNECTION::HeaderRecv(PFDSETS, PHIERAKI) {
  const UI4 n = pHeader->SizeProcessed();
  const UI4 at = kMagicEnd - kMagicSize;
  if (n <= at) return 0;
  const UI4 there = (n < kMagicEnd ? n : kMagicEnd) - at;
  return memcmp(pHeader->Start() + at, MAGIC, there) == 0 ? 0 : ERR_WRONG_MAGIC;
}

SI4 CMDCONNECTION::HeaderComplete(PFDSETS sets, PHIERAKI item) {
  pHeader->Rewind();
  IPMSG header;
  if (const SI4 code = ReadIpMsg(pHeader->Start(), &header)) return code;
  LOG(4, ("Connection %s received %d named %s.%s", item->GetName(), header.MessageType, header.Name,
          header.Subname));
  const UI4 features = Features.load(std::memory_order_acquire);
  if ((features & FCompLocal) && (header.Features & FCompLocal))
    Features.store(features | FCompPeer, std::memory_order_release);

  if (header.MessageType == IPMConnect || header.MessageType > IPMAnswerComp) {
    // Nothing that this side knows: its payload goes by.
    SkipBytes(header.Length - kIpMsgSize);
    return 0;
  }

  PHIERAKI child = nullptr;
  SI4 code = 0;
  switch (header.MessageType) {
    case IPMMessage:
      code = BeginProgress(item, header, sets->now, &child);
      break;
    case IPMAnswer:
    case IPMAnswerComp:
      code = BeginAnswer(item, header, sets->now, &child);
      break;
    default:
      code = BeginCommand(item, header, sets->now, &child);
  }
  if (code) return code;
  PBUFFER const body = child->Obj()->GetBuffer();
  // Without a payload there is nothing to wait for.
  if (body->Complete()) return ReadComplete(sets, child);
  Receive(child, body);
  return 0;
}

SI4 CMDCONNECTION::BeginCommand(PHIERAKI item, const IPMSG& header, F8 now, PHIERAKI* child) {
  // A dot would make it a path, and a name in use would make two commands one: of the longest names
  // AddNew doesn't see to that.
  const size_t len = strlen(header.Name);
  if (memchr(header.Name, '.', len) || (len == kMaxName && item->FindChild(header.Name, len)))
    return ERR_UNKNOWN_ANSWER;
  std::unique_ptr<COMMAND> command(new (std::nothrow) COMMAND(header, now));
  if (!command || command->lErrorObj) return ERR_MEMORY_ALLOC;
  command->NextState = header.MessageType == IPMCommandNoAnswer ? SFinished : SProcessing;
  *child = item->AddNew(header.Name, command.get());
  if (!*child) return ERR_UNKNOWN_ANSWER;
  command.release();
  return 0;
}

SI4 CMDCONNECTION::BeginProgress(PHIERAKI item, const IPMSG& header, F8 now, PHIERAKI* child) {
  PHIERAKI const command = item->FindChild(header.Name, strlen(header.Name));
  if (!command || command->Obj()->Type != TCommand || strchr(header.Subname, '.'))
    return ERR_UNKNOWN_ANSWER;
  std::unique_ptr<BUFFER> body(new (std::nothrow) BUFFER(kBodyPlace, header.Length));
  if (!body || body->lError) return ERR_MEMORY_ALLOC;
  std::unique_ptr<PROGRESS> progress(new (std::nothrow) PROGRESS(body.get(), SReceiving, now));
  if (!progress) return ERR_MEMORY_ALLOC;
  body.release();
  *child = command->AddNew(header.Subname, progress.get());
  if (!*child) return ERR_UNKNOWN_ANSWER;
  progress.release();
  return 0;
}

SI4 CMDCONNECTION::BeginAnswer(PHIERAKI item, const IPMSG& header, F8 now, PHIERAKI* child) {
  PHIERAKI const command = item->FindChild(header.Name, strlen(header.Name));
  if (!command || command->Obj()->Type != TCommand) return ERR_UNKNOWN_ANSWER;
  *child = command;
  return static_cast<COMMAND*>(command->Obj())->BeginAnswer(header, now);
}

SI4 CMDCONNECTION::ReadComplete(PFDSETS sets, PHIERAKI child) {
  if (child->Obj()->Type != TCommand) return CONNECTION::ReadComplete(sets, child);
  static_cast<COMMAND*>(child->Obj())->Received(child, sets->now);
  return 0;
}
