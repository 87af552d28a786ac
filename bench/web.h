// web.h - the works in which servers speak HTTP or WebSocket: the clients that all of them get, and
// nginx and Node as servers.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "bench/peer.h"

namespace bench {

inline constexpr std::string_view kWebClients = "web-clients";

inline constexpr std::string_view kNginx = "nginx";
inline constexpr std::string_view kNginxSendfile = "nginx-sendfile";
inline constexpr std::string_view kNode = "node";

/// The path of the file in a request for it.
inline constexpr std::string_view kFilePath = "/file";
/// Makes the file that the servers hand out, of the size that the work says; returns where it lies.
std::string MakeFileToServe(const Work& work);

/// A system of clients alone.
std::unique_ptr<System> MakeWebClients();
/// A system of servers alone; the name is one of the above.
std::unique_ptr<System> MakeProgram(std::string_view name);

}  // namespace bench
