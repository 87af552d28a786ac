// kyrno_tls.h - the library as a secure server and client.
#pragma once

#include <memory>

#include "bench/peer.h"
#include "host/library.h"

namespace bench {

/// What makes a server or a client secure; nothing for a work without TLS. The client offers what
/// all clients of the benchmark offer, and trusts the authorities of the benchmark alone.
host::Options SecureServer(const Work& work);
host::Options SecureClient(const host::Session& session, const Work& work);

/// Takes handshakes, and lets every connection end with its peer.
std::unique_ptr<Server> MakeKyrnoHandshakeServer(const host::Session& session, const Work& work);
/// Creates a client for each command, which it neither sends nor awaits, and closes it.
std::unique_ptr<Client> MakeKyrnoConnectClient(const host::Session& session, int port,
                                               const Work& work);

}  // namespace bench
