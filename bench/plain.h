// plain.h - a client of bare sockets that speaks to the library's server as well as to that of bare
// sockets. What a server does with connections is measured with the same client for both.
#pragma once

#include <memory>
#include <string_view>

#include "bench/peer.h"

namespace bench {

inline constexpr std::string_view kPlainKyrno = "plain-kyrno";
inline constexpr std::string_view kPlainSockets = "plain-sockets";

/// A system of clients alone; the name is one of the two above.
std::unique_ptr<System> MakePlain(std::string_view name);

}  // namespace bench
