// beside.h - files that lie beside the running program, in the build directory.
#pragma once

#include <string>
#include <string_view>

namespace bench {

/// The path of a file there; of the program itself for an empty name.
std::string Beside(std::string_view name);

}  // namespace bench
