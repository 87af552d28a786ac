// websocket.h - a client of many WebSocket connections, the same for the servers of all systems.
#pragma once

#include <memory>

#include "bench/peer.h"

namespace bench {

/// Opens the connections of the work; each has at most one message on its way.
std::unique_ptr<Client> MakeWebSocketClient(int port, const Work& work);

}  // namespace bench
