// newsock.h - the factory for stream sockets.
#pragma once

#include "kyrno/net/socket.h"
#include "kyrno/tls/certdata.h"

/// A plain socket, or with a certificate a secure one; blocks as their constructors do. The caller
/// owns the result and tests *error, which is the socket's lError; null without memory, and with
/// ERR_NO_SSL_SUPPORT without the support library. giveUp as RPCSOCK.
PRPCSOCK NewSock(PCH10 name, PCH10 service, bool server, const REF<CERTDATA>& cert, PROTOCOL prot,
                 PSI4 error, int giveUp = -1);
