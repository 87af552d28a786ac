// httpserver.cpp - a server of mode "http".
#include "kyrno/modes/httpserver.h"

#include <strings.h>

#include <new>

#include "Apl/vaget.h"
#include "kyrno/modes/httpconnection.h"

namespace {

PHIERAKI SetDecodeCon(PHIERAKI child, void* decode) {
  RPCOBJS* const obj = child->Obj();
  if (obj && obj->Type == TConnection && obj->Mode == MHttp)
    static_cast<PHTTPCONNECTION>(obj)->SetDecodeBuffers(child, *static_cast<const UI4*>(decode));
  return nullptr;
}

}  // namespace

SI4 HTTPSERVER::SetRPCProp(PHIERAKI root, PCH10 name, PAA value) {
  const bool decode = strcasecmp(name, "DecodeBuffers") == 0;
  if (!decode && strcasecmp(name, "WSFeatures") != 0) return SERVER::SetRPCProp(root, name, value);
  SI4 n = 0;
  if (const SI4 code = VAGetSI4(value, 0, &n)) return code;
  if (!decode) {
    Features = static_cast<UI4>(n) & ~kInternalFeatures;
    return 0;
  }
  UI4 bits = static_cast<UI4>(n);
  DecodeBuffers = bits;
  PHIERAKI const item = pItem;
  item->LoopSub(SetDecodeCon, &bits);
  return 0;
}

RPCOBJS* HTTPSERVER::NewConnection(PRPCSOCK socket) {
  HTTPCONNECTION* const c = new (std::nothrow) HTTPCONNECTION(MaxBlockSize, Mode, socket);
  if (!c) return nullptr;
  c->Features = UI4{Features};
  c->DecodeBuffers = UI4{DecodeBuffers};
  c->pOOSfn = pOOSfn;
  return c;
}
