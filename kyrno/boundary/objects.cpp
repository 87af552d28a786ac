// objects.cpp - servers and clients of every mode.
#include "kyrno/boundary/objects.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "kyrno/base/log.h"
#include "kyrno/modes/blkconnection.h"
#include "kyrno/modes/cmdconnection.h"
#include "kyrno/modes/httpconnection.h"
#include "kyrno/modes/httpserver.h"
#include "kyrno/modes/rawconnection.h"
#include "kyrno/modes/udp.h"
#include "kyrno/net/address.h"

static constexpr UI4 MODULE = 0x00000010;

namespace {

/// Completes an empty name. A new object lies right below the root.
SI4 CheckName(PHIERAKI root, ROOT* object, PCH10 prefix, PCH1 name) {
  if (!*name) snprintf(name, kObjectNameSize, "%s%08u", prefix, object->NextNumber());
  if (strchr(name, '.')) return ERR_INVALID_OBJECT;
  return root->FindLeaf(name) ? ERR_NAME_IN_USE : 0;
}

SI4 ServerOf(OBJECTPLAN* plan, std::unique_ptr<SERVER>* server) {
  switch (plan->mode) {
    case MCommand:
      server->reset(new (std::nothrow) CMDSERVER);
      break;
    case MRaw:
    case MAscii: {
      RAWSERVER* const raw = new (std::nothrow) RAWSERVER(plan->size, plan->mode);
      server->reset(raw);
      if (raw && plan->stop) raw->SetStop(plan->stop.release(), plan->ignoreCase);
      break;
    }
    case MBlkRaw:
    case MBlkAscii:
      server->reset(new (std::nothrow) BLKSERVER(plan->magic, plan->size, plan->mode));
      break;
    case MHttp: {
      HTTPSERVER* const http = new (std::nothrow) HTTPSERVER(plan->size, plan->mode);
      server->reset(http);
      if (http) http->SetFeatures(plan->features);
      break;
    }
    default:
      return ERR_NEW;
  }
  LOG(2, ("Server New %p", static_cast<void*>(server->get())));
  return *server ? 0 : ERR_MEMORY_ALLOC;
}

SI4 ClientOf(OBJECTPLAN* plan, std::unique_ptr<CONNECTION>* client) {
  switch (plan->mode) {
    case MRaw:
    case MAscii: {
      RAWCONNECTION* const raw = new (std::nothrow) RAWCONNECTION(plan->size, plan->mode);
      client->reset(raw);
      if (raw && plan->stop) raw->SetStop(plan->stop.release(), plan->ignoreCase);
      break;
    }
    case MBlkRaw:
    case MBlkAscii:
      client->reset(new (std::nothrow) BLKCONNECTION(plan->magic, plan->size, plan->mode));
      break;
    case MHttp:
      client->reset(new (std::nothrow) HTTPCONNECTION(plan->size, plan->mode));
      break;
    default:
      // Deliberate: nobody starts in WebSocket mode, it is what an HTTP connection becomes.
      client->reset(new (std::nothrow) CMDCONNECTION);
      break;
  }
  return *client ? SI4{(*client)->lErrorObj} : ERR_MEMORY_ALLOC;
}

void LogServer(const OBJECTPLAN& plan) {
  LOG(1, ("Server called %s %s", plan.name, plan.port ? plan.port.get() : ""));
}

void LogClient(const OBJECTPLAN& plan) {
  LOG(1, ("Client called %s %s %s", plan.name, plan.address ? plan.address.get() : "",
          plan.port ? plan.port.get() : ""));
}

PROTOCOL ProtocolOf(const OBJECTPLAN& plan, ROOT* root) {
  return plan.prot == PAny ? PROTOCOL{root->DefProt} : plan.prot;
}

SI4 UdpServer(ROOTSHARE& share, OBJECTPLAN* plan) {
  LogServer(*plan);
  SI4 code = CheckName(share.Root(), share.Object(), "SRV", plan->name);
  if (code) return code;
  const PROTOCOL prot = ProtocolOf(*plan, share.Object());
  std::unique_ptr<UDP> udp(new (std::nothrow) UDP(plan->size));
  if (!udp) return ERR_MEMORY_ALLOC;
  udp->SetFilters(plan->allow, plan->deny);
  share.Leave();
  code = udp->Bind(plan->address.get(), plan->port.get(), prot);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  if (!code) code = LinkObject(share, plan->name, std::move(udp));
  LOG(1, ("UDP added %d", code));
  return code;
}

/// Makes the peer as well, and completes the name with its.
SI4 UdpClient(ROOTSHARE& share, OBJECTPLAN* plan) {
  LogClient(*plan);
  SI4 code = CheckName(share.Root(), share.Object(), "CLT", plan->name);
  if (code) return code;
  const PROTOCOL prot = ProtocolOf(*plan, share.Object());
  std::unique_ptr<UDP> udp(new (std::nothrow) UDP(plan->size));
  if (!udp) return ERR_MEMORY_ALLOC;
  QLNSOCKADDR address{};
  share.Leave();
  code = udp->Init(prot);
  if (!code)
    code = GetIPAddr(plan->address.get(), plan->port.get(), SOCK_DGRAM, udp->Reaches(), false,
                     &address);
  if (!share.Enter()) return ERR_ROOT_NOT_FOUND;
  if (code) return code;

  PHIERAKI const node = share.Root()->AddNew(plan->name, udp.get());
  if (!node) return ERR_NAME_IN_USE;
  UDP* const object = udp.release();
  PHIERAKI const peer = object->Peer(node, address);
  if (!peer) {
    (void)object->Close(node);
    return ERR_MEMORY_ALLOC;
  }
  strcat(plan->name, ".");
  strcat(plan->name, peer->GetName());
  LOG(1, ("UDP added"));
  return share.Object()->Changed(node);
}

}  // namespace

SI4 MakeServer(ROOTSHARE& share, OBJECTPLAN* plan, std::unique_ptr<SERVER>* server) {
  LogServer(*plan);
  ROOT* const root = share.Object();
  SI4 code = CheckName(share.Root(), root, "SRV", plan->name);
  if (!code) code = ServerOf(plan, server);
  if (code) return code;
  (*server)->pOOSfn = plan->callback;
  (*server)->SetFilters(plan->allow, plan->deny);
  (*server)->CompLevel = UI4{root->CompLevel};
  if (plan->cert && !plan->cert->pRootCerts) plan->cert->pRootCerts = root->TrustedCerts();
  (*server)->SetCert(plan->cert);
  const PROTOCOL prot = ProtocolOf(*plan, root);

  share.Leave();
  code = (*server)->Listen(plan->port.get(), plan->address.get(), prot);
  LOG(1, ("Server Listen %d", code));
  return share.Enter() ? code : ERR_ROOT_NOT_FOUND;
}

SI4 MakeClient(ROOTSHARE& share, OBJECTPLAN* plan, std::unique_ptr<CONNECTION>* client) {
  LogClient(*plan);
  ROOT* const root = share.Object();
  SI4 code = CheckName(share.Root(), root, "CLT", plan->name);
  if (!code) code = ClientOf(plan, client);
  if (code) return code;
  (*client)->pOOSfn = plan->callback;
  (*client)->CompLevel = UI4{root->CompLevel};
  if (plan->cert && !plan->cert->pRootCerts) plan->cert->pRootCerts = root->TrustedCerts();
  if (plan->cert && !plan->cert->pClientSessions)
    plan->cert->pClientSessions = root->ClientSessions();
  const PROTOCOL prot = ProtocolOf(*plan, root);

  share.Leave();
  code = (*client)->Connect(plan->address.get(), plan->port.get(), prot, plan->cert, plan->giveUp);
  return share.Enter() ? code : ERR_ROOT_NOT_FOUND;
}

SI4 NewServer(ROOTSHARE& share, OBJECTPLAN* plan) {
  if (plan->mode == MUdp) return UdpServer(share, plan);
  std::unique_ptr<SERVER> server;
  SI4 code = MakeServer(share, plan, &server);
  if (!code) code = LinkObject(share, plan->name, std::move(server));
  LOG(1, ("Server returned %d", code));
  return code;
}

SI4 NewClient(ROOTSHARE& share, OBJECTPLAN* plan) {
  if (plan->mode == MUdp) return UdpClient(share, plan);
  std::unique_ptr<CONNECTION> client;
  const SI4 code = MakeClient(share, plan, &client);
  return code ? code : LinkObject(share, plan->name, std::move(client));
}
