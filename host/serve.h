// serve.h - what the words that serve have in common.
#pragma once

#include <functional>

#include "host/commands.h"

namespace host {

/// Does what an event asks for, and returns a remark for its line, which may be empty.
using Handler = std::function<std::string(const Event&)>;

/// Tells the port of the server, then handles its events until the program is interrupted. What the
/// handler cannot do for one peer is reported, and the others are served on. A client that has
/// shown a certificate is named by it.
int RunServer(const Console& console, const Session& session, const std::string& server,
              const std::string& mode, const Tls& tls, const Handler& handle);

}  // namespace host
