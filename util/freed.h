// freed.h - owners of what malloc has given.
#pragma once

#include <cstdlib>
#include <memory>

#include "sys/linux/qlntypes.h"

struct FREE {
  void operator()(PVOID p) const { free(p); }
};
using TEXT = std::unique_ptr<CH1, FREE>;   ///< with its NUL
using BYTES = std::unique_ptr<UI1, FREE>;  ///< without
