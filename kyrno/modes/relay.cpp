// relay.cpp - one connection's bytes out through another.
#include "kyrno/modes/relay.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/modes/connection.h"
#include "kyrno/modes/message.h"
#include "kyrno/tree/root.h"

static constexpr UI4 MODULE = 0x00000080;

namespace {

/// The object of a relay's end, or a code.
SI4 EndOf(PHIERAKI root, PCH10 path, PHIERAKI* node) {
  *node = root->FindLeaf(path);
  if (!*node || !(*node)->Obj()) return ERR_OBJECT_NOT_FOUND;
  const OBJTYPE type = (*node)->Obj()->Type;
  return type == TClient || type == TConnection ? 0 : ERR_INVALID_OBJECT;
}

SI4 AddRelay(ROOT* root, PHIERAKI from, PHIERAKI to, UI4 blockSize) {
  std::unique_ptr<BUFFER> buffer(new (std::nothrow) BUFFER(blockSize));
  if (!buffer || buffer->lError) return ERR_MEMORY_ALLOC;
  std::unique_ptr<RELAY> relay(new (std::nothrow) RELAY(to, buffer.get()));
  if (!relay) return ERR_MEMORY_ALLOC;
  (void)buffer.release();
  if (const SI4 code = relay->lErrorObj) return code;
  relay->Mode = OBJMODE{from->Obj()->Mode};
  // A second relay on the same source finds the name taken and goes again.
  PHIERAKI const node = from->AddNew("RELAY", relay.get());
  if (!node) return 0;
  (void)relay.release();
  root->Mark(node);
  return 0;
}

}  // namespace

RELAY::RELAY(PHIERAKI to, PBUFFER buffer)
    : RPCOBJS(TRelay), pBuf(buffer), pToName(static_cast<PCH1>(calloc(1, kFullNameSize + 1))) {
  if (!pToName) lErrorObj = ERR_MEMORY_ALLOC;
  if (pToName) to->FullName(pToName, kFullNameSize);
  SetState(SReadyToRecv);
}

RELAY::~RELAY() {
  free(pToName);
  delete pBuf;
}

PHIERAKI RELAY::Target(PHIERAKI item) {
  PHIERAKI node = nullptr;
  return EndOf(item->Top(), pToName, &node) == 0 ? node : nullptr;
}

SI4 RELAY::Check(PFDSETS sets) {
  const OBJSTATE state = GetState();
  if (state == SReadyToRecv || state == SReceiving)
    CONNECTION::Above(sets->pItem)->SetRelay(sets->pItem);
  return 0;
}

void RELAY::Leave(PHIERAKI item) {
  if (phHeldBy) static_cast<PCONNECTION>(phHeldBy->Obj())->Unhold(item);
  CONNECTION::Above(item)->Forget(item);
}

SI4 RELAY::RelayBuf(PHIERAKI item, PBUFFER header) {
  const UI4 n = pBuf->SizeProcessed();
  pBuf->Rewind();
  return Forward(item, header, pBuf->Start(), n);
}

SI4 RELAY::Forward(PHIERAKI item, PBUFFER header, PCH10 data, UI4 n) {
  // What the framing had read ahead goes first, so that nothing is lost or overtaken.
  if (header && header->SizeProcessed() > 0) {
    const UI4 ahead = header->SizeProcessed();
    header->Rewind();
    if (const SI4 code = RelayBytes(item, header->Start(), ahead)) return code;
  }
  return n > 0 ? RelayBytes(item, data, n) : 0;
}

SI4 RELAY::RelayBytes(PHIERAKI item, PCH10 data, UI4 n) {
  std::unique_ptr<BUFFER> copy(new (std::nothrow) BUFFER(n, data));
  if (!copy || copy->lError) return ERR_MEMORY_ALLOC;
  std::unique_ptr<MESSAGE> message(new (std::nothrow) MESSAGE(copy.get(), SReadyToSend));
  if (!message) return ERR_MEMORY_ALLOC;
  (void)copy.release();
  message->Mode = OBJMODE{Mode};

  Bytes += n;
  CH1 name[kMaxName];
  snprintf(name, sizeof name, "Bytes%010u", Bytes);
  PHIERAKI const to = Target(item);
  PCONNECTION const target = to ? static_cast<PCONNECTION>(to->Obj()) : nullptr;
  if (!target || !target->IsOpen()) return ERR_SEND;
  PHIERAKI const unit = to->AddNew(name, message.get());
  if (!unit) return ERR_SEND;
  (void)message.release();
  target->Send(unit);
  RootOf(item)->MakeDue(to);
  if (target->CountOut() >= kMostQueued && !IsHeld()) target->Hold(item);
  LOG(4, ("Relay %u to %s", n, pToName));
  return 0;
}

SI4 SetRelay(PHIERAKI root, PCH10 from, PCH10 to, UI4 blockSize, bool oneWay) {
  PHIERAKI source = nullptr;
  PHIERAKI target = nullptr;
  SI4 code = EndOf(root, from, &source);
  if (!code) code = EndOf(root, to, &target);
  if (code) return code;
  if (blockSize == 0) return ERR_ARG_INVALID;
  ROOT* const object = static_cast<ROOT*>(root->Obj());
  const auto add = [&] {
    const SI4 first = AddRelay(object, source, target, blockSize);
    return first || oneWay ? first : AddRelay(object, target, source, blockSize);
  };
  if (object->IsOwnProcess()) {
    // Both ways at once: what goes out on one and is answered would meet no relay on the other.
    object->TakeRoleFromCall();
    code = add();
    object->GiveRoleFromCall();
  } else {
    code = add();
  }
  return code ? code : object->Changed(source);
}
