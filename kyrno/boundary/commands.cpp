// commands.cpp - the commands that send, answer, close and couple.
#include "kyrno/boundary/commands.h"

#include <cstring>

#include "Apl/vaget.h"
#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/modes/cmdconnection.h"
#include "kyrno/modes/relay.h"
#include "kyrno/modes/udp.h"

static constexpr UI4 MODULE = 0x00000010;

namespace {

constexpr UI4 kPathSize = 97;  // of ASendZ, with its terminator
constexpr UI4 kNameRoom = 64;  // what an object may append to a path
constexpr UI4 kMinZ = 8;

/// A block that says of itself what it is and how long.
SI4 CheckZ(PUI4 z, UI4* size) {
  *size = ZLength(z);
  return *size < kMinZ || !IsZHeader(ZHeaderWord(z)) ? ERR_ARCHITECTURE : 0;
}

/// A datagram to any address, which is looked up outside the gate: that may block.
SI4 SendDatagram(ROOTSHARE& share, const UDP* object, PCH1 path, PUI4 z) {
  const PROTOCOL prot = object->Reaches();
  UDPTARGET to;
  SI4 code = to.Read(z);
  if (code) return code;
  share.Leave();
  code = to.LookUp(prot);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  if (code) return code;
  PHIERAKI const node = share.Root()->FindLeaf(path);
  if (!node || node->Obj()->Type != TUdp) return ERR_OBJECT_NOT_FOUND;
  return static_cast<UDP*>(node->Obj())->SendTo(node, path + strlen(path), to);
}

/// Hands a block to the object at a path, or to the one above, which then gets the last part as a
/// name. The object may append to the path.
SI4 Send(ROOTSHARE& share, PCH1 path, PUI4 z, UI4 size, UI4 flag) {
  PHIERAKI node = share.Root()->FindLeaf(path);
  PCH1 leaf = path + strlen(path);
  if (!node) {
    node = share.Root()->FindParent(path);
    if (!node) return ERR_PARENT_NOT_FOUND;
    PCH1 const dot = strrchr(path, '.');
    leaf = dot ? dot + 1 : path;
  }
  PRPCOBJS const object = node->Obj();
  if (!object) return ERR_OBJECT_NOT_FOUND;
  if (object->Type != TUdp) return object->SendZ(node, leaf, z, size, flag);
  // A peer is named by its address alone: this one isn't there.
  if (*leaf) return ERR_OBJECT_NOT_FOUND;
  return SendDatagram(share, static_cast<UDP*>(object), path, z);
}

/// (0, path).
PUI4 PathZ(PCH10 path) {
  const UI4 n = static_cast<UI4>(strlen(path));
  ZWRITER result(ZWRITER::kNestedBytes + ZWRITER::kIntBytes + ZWRITER::VectorBytes(VAC1, n));
  if (!result) return CodeZ(ERR_MEMORY_ALLOC);
  result.Nested(2);
  result.Int(0);
  result.Text(path, n);
  return result.Finish();
}

SI4 RespondCommand(PHIERAKI node, PCH10 path, PUI4 z, UI4 size, bool complete) {
  PRPCOBJS const above = node->Parent()->Obj();
  SI4 code = 0;
  if (above->GetState() != SConnected) {
    code = ERR_CLOSED;
  } else if (node->Obj()->Type != TCommand) {
    code = ERR_INVALID_OBJECT;
  } else {
    LOG(2, (complete ? "Respond to %s" : "Progress to %s", path));
    code = static_cast<CMDCONNECTION*>(above)->Respond(node, node->GetName(), z, size, complete);
  }
  if (code) LOG(1, ("ERROR %d Obj: %s datasize %u complete %d ", code, path, size, complete));
  return code;
}

SI4 Respond(ROOTSHARE& share, PCH10 path, PUI4 z, UI4 size, SI4 flag) {
  PHIERAKI const node = share.Root()->FindLeaf(path);
  if (!node || !node->Obj() || node == share.Root()) return ERR_OBJECT_NOT_FOUND;
  if (node->Obj()->Mode == MCommand) return RespondCommand(node, path, z, size, flag != 0);

  const size_t n = strlen(path);
  TEXT copy(static_cast<PCH1>(malloc(n + 1 + kNameRoom)));
  if (!copy) return ERR_MEMORY_ALLOC;
  memcpy(copy.get(), path, n + 1);
  return Send(share, copy.get(), z, size, static_cast<UI4>(flag));
}

SI4 CloseObject(ROOTSHARE& share, PCH10 path) {
  if (strcmp(path, ".") == 0) return RPCUnload(&share);
  if (!*path || *path == '.') return ERR_OBJECT_NOT_FOUND;
  PHIERAKI const node = share.Root()->FindLeaf(path);
  if (!node || !node->Obj()) return ERR_OBJECT_NOT_FOUND;
  LOG(1, ("Close object %s", path));
  return node->Obj()->Close(node);
}

}  // namespace

PUI4 ASendZ(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg) {
  CH1 path[kPathSize + kNameRoom] = {0};
  SI4 flag = 0;
  UI4 size = 0;
  SI4 code = arg.GetPath(path, kPathSize);
  if (!code && arg.Count() > 1) code = arg.GetNumber(&flag);
  if (!code) code = CheckZ(*ppZ, &size);
  if (!code) code = Send(share, path, *ppZ, size, static_cast<UI4>(flag));
  return code ? CodeZ(code) : PathZ(path);
}

PUI4 ARespondZ(ROOTSHARE& share, PUI4* ppZ, ARGUMENT& arg) {
  PATH path;
  SI4 flag = 0;
  UI4 size = 0;
  SI4 code = arg.GetPath(&path);
  if (!code) code = arg.GetNumber(&flag);
  if (!code) code = CheckZ(*ppZ, &size);
  if (!code) code = Respond(share, path.Get(), *ppZ, size, flag);
  return CodeZ(code);
}

PAA AClose(ROOTSHARE& share, PAA arg) {
  TEXT path;
  SI4 code = ReadText(arg, 0, &path);
  if (!code) code = CloseObject(share, path.get());
  return CodeResult(code);
}

PAA ASetRelay(ROOTSHARE& share, PAA arg) {
  TEXT from, to;
  SI4 size = static_cast<SI4>(BufferBlkSize.load(std::memory_order_relaxed));
  SI4 oneWay = 0;
  SI4 code = ReadText(arg, 0, &from);
  if (!code) code = ReadText(arg, 1, &to);
  if (!code && ItemCount(arg) > 2) code = VAGetSI4(arg, 2, &size);
  if (!code && ItemCount(arg) > 3) code = VAGetSI4(arg, 3, &oneWay);
  if (!code && size == 0) code = ERR_ARG_INVALID;
  if (!code)
    code = SetRelay(share.Root(), from.get(), to.get(), static_cast<UI4>(size), oneWay != 0);
  return CodeResult(code);
}
