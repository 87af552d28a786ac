// newsock.cpp - the factory for stream sockets.
#include "kyrno/tls/newsock.h"

#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/securesocket.h"

PRPCSOCK NewSock(PCH10 name, PCH10 service, bool server, const REF<CERTDATA>& cert, PROTOCOL prot,
                 PSI4 error, int giveUp) {
  if (cert && !KyrnosslLoaded()) {
    *error = ERR_NO_SSL_SUPPORT;
    return nullptr;
  }
  const PRPCSOCK made =
      cert ? new (std::nothrow) RPCSECURE(name, service, server, prot, cert, giveUp)
           : new (std::nothrow) RPCSOCK(name, service, server, prot, SOCK_STREAM, giveUp);
  *error = made ? made->lError : ERR_MEMORY_ALLOC;
  return made;
}
