// blockstore.h - memory for large blocks, used again instead of going back to the system each time.
//
// The pages of a new large block cost more, fault by fault, than copying the data into them. So a
// few large blocks that were freed wait here, in memory already, for the next that needs one of
// about their size.
//
// All blocks are malloc's own: free() of one from here is legal, and so is BlockFree of one from
// malloc.
#pragma once

#include <cstddef>

#include "sys/linux/qlntypes.h"

/// Blocks below this are left to the pools, see pool.h, or to malloc and free.
inline constexpr size_t kLargeBlockBytes = 256u << 10;
/// The blocks that wait have no more than this together.
inline constexpr size_t kBlockStoreBytes = 256u << 20;

// Any thread; no operation waits for another one.

/// At least n bytes, not initialised. A large block may be a quarter larger than asked for: an
/// application that keeps many results should not pay for much more than it has. Null without
/// memory.
[[nodiscard]] PVOID BlockAlloc(size_t n);
/// The same, of a large size, but only if such a block waits here: memory that is there already.
/// Null otherwise.
[[nodiscard]] PVOID BlockStored(size_t n);
/// As realloc, but never frees: null leaves the block as it was. A null block is a new one.
[[nodiscard]] PVOID BlockResize(PVOID block, size_t n);
/// Null is nothing to free.
void BlockFree(PVOID block);

/// Frees the blocks that have waited since the call before the last one, so that those of a busy
/// store stay. For a timer, as long as the store is not empty.
void BlockPurge();
bool BlockStoreIsEmpty();
