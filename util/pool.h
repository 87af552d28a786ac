// pool.h - memory for small objects that come and go in thousands, often freed by another thread
// than the one that made them, which malloc pays for with its slow path.
//
// Freed pieces of about one size wait in a list for the next that needs one. A list that another
// thread is using just now is passed over in favour of malloc, so nobody ever waits, and in a
// forked child a list that was in use stays passed over for good.
//
// All pieces are malloc's own: free() of one from here is legal, and so is PoolFree of one from
// malloc.
#pragma once

#include <cstddef>
#include <new>

#include "sys/linux/qlntypes.h"

/// False where the address sanitizer is to see each use of freed memory: all is left to malloc
/// then.
#ifndef __has_feature
#define __has_feature(feature) 0  // only clang has it
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
inline constexpr bool kPooled = false;
#else
inline constexpr bool kPooled = true;
#endif
/// Pieces above this are left to malloc and free.
inline constexpr size_t kPoolPieceBytes = 1016;
/// What waits of one size has no more than this together, and is no more than this many.
inline constexpr size_t kPoolBytes = 256u << 10;
inline constexpr UI4 kPoolPieces = 1024;

// Any thread; no operation waits for another one.

/// At least n bytes, not initialised; null without memory.
[[nodiscard]] PVOID PoolAlloc(size_t n);
/// Null is nothing to free.
void PoolFree(PVOID piece);

/// Frees the pieces that nobody has needed since the call before, so that those of a busy pool
/// stay. For a timer, as long as the pools are not empty.
void PoolPurge();
bool PoolsAreEmpty();

/// Base of a class whose objects are such pieces. Where they are derived further, or made in a
/// larger piece than they need, the size of the piece itself tells where it goes.
class POOLED {
 public:
  static PVOID operator new(size_t n, const std::nothrow_t&) noexcept { return PoolAlloc(n); }
  static PVOID operator new(size_t n) noexcept { return PoolAlloc(n); }
  static PVOID operator new(size_t, PVOID at) noexcept { return at; }
  static void operator delete(PVOID piece) noexcept { PoolFree(piece); }

 protected:
  POOLED() = default;
  ~POOLED() = default;
};
