// props.cpp - the commands ASetProp and AGetProp.
#include "kyrno/boundary/props.h"

#include <strings.h>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/boundary/certs.h"
#include "kyrno/net/address.h"

namespace {

constexpr UI4 kPathSize = 65;  // of a path and of a property's name, with their terminators

/// The lookup of a host and a service, which blocks.
SI4 TCPLookup(ROOTSHARE& share, PAA arg, PPAA value) {
  TEXT host, service;
  SI4 code = ReadText(arg, 2, &host);
  if (!code) code = ReadText(arg, 3, &service);
  if (code) return code;
  share.Leave();
  return IPLookup(host.get(), service.get(), PAny, value);
}

SI4 GetProp(ROOTSHARE& share, PCH10 path, PCH10 name, PAA arg, PPAA value) {
  PHIERAKI const node = share.Root()->FindLeaf(path);
  PRPCOBJS const object = node ? node->Obj() : nullptr;
  if (!object) return ERR_OBJECT_NOT_FOUND;
  const OBJSTATE state = object->GetState();
  if (state == SFinished || state == SMarkedForDeletion) return ERR_OBJECT_NOT_FOUND;
  if (object->Type == TRoot && strcasecmp(name, "TCPLookup") == 0)
    return TCPLookup(share, arg, value);
  if (object->Type == TRoot && strcasecmp(name, "DecodeCert") == 0) {
    share.Leave();
    return DecodeCert(arg, value);
  }
  return object->GetRPCProp(name, arg, value);
}

}  // namespace

PAA ASetProp(ROOTSHARE& share, PAA arg) {
  CH1 path[kPathSize] = {0};
  CH1 name[kPathSize] = {0};
  VAHOLD value;
  SI4 code = VAGetCH1(arg, 0, path, sizeof path, VACHAR);
  if (!code) code = VAGetCH1(arg, 1, name, sizeof name, VACHAR);
  if (!code) code = VAGetpAA(arg, 2, value.Out());

  // Deliberate: a missing object is told before an unreadable name or value.
  PHIERAKI const root = share.Root();
  PHIERAKI const node = root->FindLeaf(path);
  PRPCOBJS const object = node ? node->Obj() : nullptr;
  if (!object) return CodeResult(ERR_OBJECT_NOT_FOUND);
  if (!code) code = object->SetRPCProp(root, name, value.Get());
  return CodeResult(code);
}

PAA AGetProp(ROOTSHARE& share, PAA arg) {
  CH1 path[kPathSize] = {0};
  CH1 name[kPathSize] = {0};
  VAHOLD value;
  SI4 code = VAGetCH1(arg, 0, path, sizeof path, VACHAR);
  if (!code) code = VAGetCH1(arg, 1, name, sizeof name, VACHAR);
  if (!code) code = GetProp(share, path, name, arg, value.Out());
  return code ? CodeResult(code) : ValueResult(value.Release());
}
