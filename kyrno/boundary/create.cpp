// create.cpp - the commands ASrv and AClt.
#include "kyrno/boundary/create.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/boundary/certoptions.h"
#include "kyrno/boundary/options.h"
#include "kyrno/modes/blkconnection.h"
#include "kyrno/modes/cmdconnection.h"
#include "kyrno/modes/httpconnection.h"
#include "kyrno/modes/httpserver.h"
#include "kyrno/modes/rawconnection.h"
#include "kyrno/modes/server.h"
#include "kyrno/modes/udp.h"
#include "kyrno/net/address.h"
#include "kyrno/tls/sslcontrol.h"

static constexpr UI4 MODULE = 0x00000010;

const PCH10 KyrnoOptionNames[COMAX] = {"Name",
                                       "Address",
                                       "Port",
                                       "Mode",
                                       "BufferSize",
                                       "SSLValidation",
                                       "EOM",
                                       "IgnoreCase",
                                       "Protocol",
                                       "PublicCertData",
                                       "PrivateKeyFile",
                                       "PrivateKeyPass",
                                       "PublicCertFile",
                                       "PublicCertPass",
                                       "PrivateKeyData",
                                       "Priority",
                                       "Magic",
                                       "AllowEndpoints",
                                       "DenyEndpoints"};

namespace {

constexpr UI4 kNameSize = 65;         // of the option "Name", with its terminator
constexpr UI4 kFamilySize = 20;       // of the word in an address filter
constexpr UI4 kAddressesSize = 1024;  // of the text in an address filter

struct DELETELIST {
  void operator()(PLIST list) const { FreeList(list); }
};

/// What the options ask for.
struct WANTED {
  CH1 name[kNameSize + kPeerNameSize] = {0};  // a UDP client's has that of its peer behind it
  TEXT address;                               // null for none
  TEXT port;                                  // null for none
  OBJMODE mode = MCommand;
  UI4 size = 0;
  UI4 magic = 0;
  PROTOCOL prot = PAny;
  std::unique_ptr<RANGES> allow, deny;
  std::unique_ptr<LIST, DELETELIST> stop;
  REF<CERTDATA> cert;  // null for a plain object
  bool ignoreCase = true;
  SI4 stopError = 0;  // told when the object is there, which it doesn't undo
};

/// A text that may be absent; an empty one counts as absent too.
SI4 ReadOptional(PAA arg, SI4 option, TEXT* text) {
  VAHOLD value;
  const SI4 code = GetOptionpAA(arg, option, COMAX, KyrnoOptionNames, value.Out());
  if (code == ERR_ARG_MISSING) return 0;
  if (code) return code;
  if (VAElems(value.Get()) == 0) return 0;
  if (ReadText(value.Get(), 0, text)) return ERR_ARG_INVALID;
  if (!**text) text->reset();
  return 0;
}

template <typename ENUM>
SI4 ReadEnum(PAA arg, SI4 option, SI4 words, const PCH10* table, ENUM* value) {
  UI4 code = 0;
  *value = static_cast<ENUM>(
      GetEnum(arg, option, COMAX, KyrnoOptionNames, words, table, static_cast<SI4>(*value), &code));
  return static_cast<SI4>(code);
}

SI4 ReadNumber(PAA arg, SI4 option, UI4* value) {
  SI4 n = 0;
  const SI4 code = GetSI4(arg, option, COMAX, KyrnoOptionNames, static_cast<SI4>(*value), &n);
  *value = static_cast<UI4>(n);
  return code;
}

void ReadStop(PAA arg, WANTED* w) {
  PLIST list = nullptr;
  const SI2 translate = w->mode == MAscii ? VACHAR : VABIN;
  w->stopError = GetList(arg, COStopList, COMAX, KyrnoOptionNames, translate, &list);
  w->stop.reset(list);
  SI1 ignore = 1;
  const SI4 code = GetBool(arg, COIgnoreCase, COMAX, KyrnoOptionNames, 1, &ignore);
  w->ignoreCase = ignore > 0;
  if (!w->stopError) w->stopError = code;
  const bool takesList = w->mode == MRaw || w->mode == MAscii;
  if (!w->stopError && w->stop && !takesList) w->stopError = ERR_INVALID_OBJECT;
  if (w->stopError) w->stop.reset();
}

/// Name to buffer size, which both commands read first and in this order.
SI4 ReadFirst(PAA arg, WANTED* w) {
  SI4 code = CheckArgList(arg, COMAX, KyrnoOptionNames);
  if (code) return code;
  if (!GetPCH10(arg, COName, COMAX, KyrnoOptionNames, w->name, kNameSize)) return ERR_ARG_MISSING;
  code = ReadOptional(arg, COAddress, &w->address);
  if (!code) code = ReadOptional(arg, COPort, &w->port);
  if (!code) code = ReadEnum(arg, COMode, MMAX, modename, &w->mode);
  if (code) return code;
  w->size = BufferBlkSize.load(std::memory_order_relaxed);
  code = ReadNumber(arg, COMaxSize, &w->size);
  return !code && w->size == 0 ? ERR_ARG_INVALID : code;
}

SI4 ReadFilter(PAA arg, SI4 option, std::unique_ptr<RANGES>* filter) {
  RANGES* ranges = nullptr;
  const SI4 code = GetRanges(arg, option, COMAX, KyrnoOptionNames, &ranges);
  filter->reset(ranges);
  return code;
}

/// Files are read and keys asked for outside the gate: that may block.
SI4 ReadCert(ROOTSHARE& share, PAA arg, bool server, WANTED* w) {
  share.Leave();
  const SI4 code = GetCert(arg, server, &w->cert);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  // Whoever asks for a secure object doesn't get a plain one, and datagrams have no secure form.
  return !code && w->cert && w->mode == MUdp ? ERR_NO_SSL_SUPPORT : code;
}

SI4 ReadServer(ROOTSHARE& share, PAA arg, WANTED* w) {
  SI4 code = ReadFirst(arg, w);
  if (!code) code = ReadNumber(arg, COMagic, &w->magic);
  if (!code) code = ReadCert(share, arg, true, w);
  if (!code) code = ReadFilter(arg, COAllowEndpoint, &w->allow);
  if (!code) code = ReadFilter(arg, CODenyEndpoint, &w->deny);
  if (!code) code = ReadEnum(arg, COProtocol, PMAX, protocolname, &w->prot);
  if (!code) ReadStop(arg, w);
  return code;
}

SI4 ReadClient(ROOTSHARE& share, PAA arg, WANTED* w) {
  SI4 code = ReadFirst(arg, w);
  if (!code) code = ReadCert(share, arg, false, w);
  if (!code) code = ReadEnum(arg, COProtocol, PMAX, protocolname, &w->prot);
  if (!code) code = ReadNumber(arg, COMagic, &w->magic);
  if (!code) ReadStop(arg, w);
  return code;
}

/// Completes an empty name. A new object lies right below the root.
SI4 CheckName(PHIERAKI root, ROOT* object, PCH10 prefix, PCH1 name) {
  if (!*name) snprintf(name, kNameSize, "%s%08u", prefix, object->NextNumber());
  if (strchr(name, '.')) return ERR_INVALID_OBJECT;
  return root->FindLeaf(name) ? ERR_NAME_IN_USE : 0;
}

SI4 NewServer(WANTED* w, std::unique_ptr<SERVER>* server) {
  switch (w->mode) {
    case MCommand:
      server->reset(new (std::nothrow) CMDSERVER);
      break;
    case MRaw:
    case MAscii: {
      RAWSERVER* const raw = new (std::nothrow) RAWSERVER(w->size, w->mode);
      server->reset(raw);
      if (raw && w->stop) raw->SetStop(w->stop.release(), w->ignoreCase);
      break;
    }
    case MBlkRaw:
    case MBlkAscii:
      server->reset(new (std::nothrow) BLKSERVER(w->magic, w->size, w->mode));
      break;
    case MHttp:
      server->reset(new (std::nothrow) HTTPSERVER(w->size, w->mode));
      break;
    default:
      return ERR_NEW;
  }
  LOG(2, ("Server New %p", static_cast<void*>(server->get())));
  return *server ? 0 : ERR_MEMORY_ALLOC;
}

SI4 NewClient(WANTED* w, std::unique_ptr<CONNECTION>* client) {
  switch (w->mode) {
    case MRaw:
    case MAscii: {
      RAWCONNECTION* const raw = new (std::nothrow) RAWCONNECTION(w->size, w->mode);
      client->reset(raw);
      if (raw && w->stop) raw->SetStop(w->stop.release(), w->ignoreCase);
      break;
    }
    case MBlkRaw:
    case MBlkAscii:
      client->reset(new (std::nothrow) BLKCONNECTION(w->magic, w->size, w->mode));
      break;
    case MHttp:
      client->reset(new (std::nothrow) HTTPCONNECTION(w->size, w->mode));
      break;
    default:
      // Deliberate: nobody starts in WebSocket mode, it is what an HTTP connection becomes.
      client->reset(new (std::nothrow) CMDCONNECTION);
      break;
  }
  return *client ? SI4{(*client)->lErrorObj} : ERR_MEMORY_ALLOC;
}

/// Links an object that works, which the tree then owns.
template <typename OBJECT>
SI4 Link(ROOTSHARE& share, PCH10 name, std::unique_ptr<OBJECT> object) {
  PHIERAKI const node = share.Root()->AddNew(name, object.get());
  if (!node) return ERR_NAME_IN_USE;
  static_cast<void>(object.release());
  return share.Object()->Changed(node);
}

SI4 UdpServer(ROOTSHARE& share, WANTED* w, PROTOCOL prot) {
  std::unique_ptr<UDP> udp(new (std::nothrow) UDP(w->size));
  if (!udp) return ERR_MEMORY_ALLOC;
  udp->SetFilters(w->allow.release(), w->deny.release());
  share.Leave();
  SI4 code = udp->Bind(w->address.get(), w->port.get(), prot);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  if (!code) code = Link(share, w->name, std::move(udp));
  LOG(1, ("UDP added %d", code));
  return code;
}

/// Makes the peer as well, and completes the name with its.
SI4 UdpClient(ROOTSHARE& share, WANTED* w, PROTOCOL prot) {
  std::unique_ptr<UDP> udp(new (std::nothrow) UDP(w->size));
  if (!udp) return ERR_MEMORY_ALLOC;
  QLNSOCKADDR address{};
  share.Leave();
  SI4 code = udp->Init(prot);
  if (!code)
    code = GetIPAddr(w->address.get(), w->port.get(), SOCK_DGRAM, udp->Reaches(), false, &address);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  if (code) return code;

  PHIERAKI const node = share.Root()->AddNew(w->name, udp.get());
  if (!node) return ERR_NAME_IN_USE;
  UDP* const object = udp.release();
  PHIERAKI const peer = object->Peer(node, address);
  if (!peer) {
    (void)object->Close(node);
    return ERR_MEMORY_ALLOC;
  }
  strcat(w->name, ".");
  strcat(w->name, peer->GetName());
  LOG(1, ("UDP added"));
  return share.Object()->Changed(node);
}

SI4 Server(ROOTSHARE& share, WANTED* w) {
  LOG(1, ("Server called %s %s", w->name, w->port ? w->port.get() : ""));
  ROOT* const root = share.Object();
  SI4 code = CheckName(share.Root(), root, "SRV", w->name);
  if (code) return code;
  const PROTOCOL prot = w->prot == PAny ? PROTOCOL{root->DefProt} : w->prot;
  if (w->mode == MUdp) return UdpServer(share, w, prot);
  std::unique_ptr<SERVER> server;
  code = NewServer(w, &server);
  if (code) return code;
  server->SetFilters(w->allow.release(), w->deny.release());
  server->CompLevel = UI4{root->CompLevel};
  if (w->cert) w->cert->pRootCerts = root->TrustedCerts();
  server->SetCert(w->cert);

  share.Leave();
  code = server->Listen(w->port.get(), w->address.get(), prot);
  LOG(1, ("Server Listen %d", code));
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  if (!code) code = Link(share, w->name, std::move(server));
  LOG(1, ("Server returned %d", code));
  return code;
}

SI4 Client(ROOTSHARE& share, WANTED* w) {
  LOG(1, ("Client called %s %s %s", w->name, w->address ? w->address.get() : "",
          w->port ? w->port.get() : ""));
  ROOT* const root = share.Object();
  SI4 code = CheckName(share.Root(), root, "CLT", w->name);
  if (code) return code;
  const PROTOCOL prot = w->prot == PAny ? PROTOCOL{root->DefProt} : w->prot;
  if (w->mode == MUdp) return UdpClient(share, w, prot);
  std::unique_ptr<CONNECTION> client;
  code = NewClient(w, &client);
  if (code) return code;
  client->CompLevel = UI4{root->CompLevel};
  if (w->cert) {
    w->cert->pRootCerts = root->TrustedCerts();
    w->cert->pClientSessions = root->ClientSessions();
  }

  share.Leave();
  code = client->Connect(w->address.get(), w->port.get(), prot, w->cert);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  return code ? code : Link(share, w->name, std::move(client));
}

/// (code, what GnuTLS says of the peer's certificate).
PAA RefusedPeer(SI4 code, UI4 status) {
  const UI4 two = 2;
  VAHOLD result(VANew(VAPntr, 1, &two));
  if (!result || VASetSI4(result.Get(), 0, code) ||
      VASetSI4(result.Get(), 1, static_cast<SI4>(status)))
    return CodeResult(ERR_MEMORY_ALLOC);
  return result.Release();
}

PAA Created(SI4 code, const WANTED& w) {
  if (!code) code = w.stopError;
  if (!code) return ValueResult(TextValue(w.name));
  const bool isClients = w.cert && w.cert->firstStatus;
  return isClients ? RefusedPeer(code, w.cert->firstStatus) : CodeResult(code);
}

/// One entry of a filter: a family and its addresses.
SI4 AddRange(PAA entry, RANGES* ranges) {
  if (!entry || VAType(entry) != VAPntr || VARank(entry) != 1 || VACount(entry) != 2)
    return ERR_OPTION;
  CH1 family[kFamilySize] = {0};
  CH1 addresses[kAddressesSize] = {0};
  SI4 code = VAGetCH1(entry, 0, family, sizeof family, VACHAR);
  if (!code) code = VAGetCH1(entry, 1, addresses, sizeof addresses, VACHAR);
  if (code) return code;
  if (strcasecmp(family, "ipv4") == 0) return ranges->SetAddr4(addresses);
  if (strcasecmp(family, "ipv6") == 0) return ranges->SetAddr6(addresses);
  return ERR_OPTION;
}

}  // namespace

SI4 GetRanges(PAA arg, SI4 option, SI4 n, const PCH10* names, RANGES** out) {
  *out = nullptr;
  VAHOLD value;
  SI4 code = GetOptionpAA(arg, option, n, names, value.Out());
  if (code == ERR_ARG_MISSING) return 0;
  if (code) return code;
  const UI4 entries = VACount(value.Get());
  if (entries == 0) return 0;
  if (VAType(value.Get()) != VAPntr) return ERR_OPTION;

  std::unique_ptr<RANGES> ranges(new (std::nothrow) RANGES);
  if (!ranges) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < entries && !code; ++i) code = AddRange(VAOwned(value.Get(), i), ranges.get());
  if (!code) *out = ranges.release();
  return code;
}

PAA ASrv(ROOTSHARE& share, PAA arg) {
  const SSLUSE use;
  WANTED w;
  SI4 code = ReadServer(share, arg, &w);
  if (!code) code = Server(share, &w);
  return Created(code, w);
}

PAA AClt(ROOTSHARE& share, PAA arg) {
  const SSLUSE use;
  WANTED w;
  SI4 code = ReadClient(share, arg, &w);
  if (!code) code = Client(share, &w);
  return Created(code, w);
}
