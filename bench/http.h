// http.h - wrk and curl as the clients of all HTTP servers.
#pragma once

#include <memory>

#include "bench/peer.h"

namespace bench {

/// wrk with the connections of the work, or curl for a file; each run starts the program anew.
std::unique_ptr<Load> MakeHttpLoad(int port, const Work& work, pid_t server);

}  // namespace bench
