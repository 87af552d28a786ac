// kyrno_web.h - the library as a server of HTTP, WebSocket and UDP, and as a client of UDP.
#pragma once

#include <memory>

#include "bench/peer.h"
#include "host/library.h"

namespace bench {

std::unique_ptr<Server> MakeKyrnoWebServer(const host::Session& session, const Work& work);
std::unique_ptr<Client> MakeKyrnoDatagramClient(const host::Session& session, int port);

}  // namespace bench
