// beside.cpp - files that lie beside the running program.
#include "bench/beside.h"

#include <unistd.h>

#include <climits>
#include <stdexcept>

namespace bench {

std::string Beside(std::string_view name) {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self);
  if (n <= 0) throw std::runtime_error("cannot find the own program");
  const std::string path(self, static_cast<std::size_t>(n));
  if (name.empty()) return path;
  return path.substr(0, path.rfind('/') + 1).append(name);
}

}  // namespace bench
