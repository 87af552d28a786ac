// compression.h - streams in the formats of zlib (RFC 1950) and gzip (RFC 1952), on top of the zlib
// that the support library brings.
#pragma once

#include "kyrno/base/export.h"
#include "sys/linux/qlntypes.h"

// Bits of cflate's first argument.
constexpr bool OpDef(int op) { return (op & 1) == 0; }
constexpr bool OpInf(int op) { return (op & 1) != 0; }
constexpr bool OpLast(int op) { return (op & 2) != 0; }   ///< the last piece
constexpr bool OpAbort(int op) { return (op & 4) != 0; }  ///< drop the session
constexpr bool OpGZIP(int op) { return (op & 8) != 0; }

/// One step of a stream, for interpreters: include/kyrno.h tells all of it.
extern "C" KYRNO_EXPORT int cflate(int op, PVOID* session, const UI1* in, PUI4 inSize, PUI1 out,
                                   PUI4 outSize, UI4 level);

/// Replaces *file, open for reading, by an open temporary file that nobody else can reach, with the
/// same content compressed: gzip 1, else zlib format; level 0 to 9. The old descriptor is closed;
/// the new one stands at its end. On failure *file stays open and the caller's: ERR_NO_SSL_SUPPORT
/// without zlib, ERR_MEMORY_ALLOC, a result of zlib (negative), or errno.
[[nodiscard]] SI4 Compress(int* file, int level, int gzip);
