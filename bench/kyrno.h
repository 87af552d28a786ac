// kyrno.h - the library as one of the measured systems.
#pragma once

#include <memory>

#include "bench/peer.h"

namespace bench {

/// Opens the library, with one root. Throws what host/library.h throws.
std::unique_ptr<System> MakeKyrno();

}  // namespace bench
