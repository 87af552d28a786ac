// fdhold.h - the guard of a file descriptor.
#pragma once

#include <unistd.h>

/// Owns a descriptor and closes it on every way out of the block. A negative one stands for a
/// failed open.
class FDHOLD {
 public:
  explicit FDHOLD(int descriptor) : fd(descriptor) {}
  ~FDHOLD() {
    if (fd >= 0) close(fd);
  }
  FDHOLD(const FDHOLD&) = delete;
  FDHOLD& operator=(const FDHOLD&) = delete;

  explicit operator bool() const { return fd >= 0; }
  int Get() const { return fd; }

  /// Passes the descriptor on: from now on the caller closes it.
  [[nodiscard]] int Release() {
    const int released = fd;
    fd = -1;
    return released;
  }

 private:
  int fd;
};
