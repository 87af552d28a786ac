// kyrnossl.h - GnuTLS, zlib and libtasn1, opened at run time through one support library.
//
// This library works without them: no secure sockets then, and no compression. Every entry of
// kyrnossllist.h has a forwarder here that carries the entry's own name, so callers include the
// public headers, are written as if they were linked, and link nothing.
//
// A support library may lack an entry. Its forwarder then fails instead of jumping to nowhere: -1
// from those with a signed result (0 would mean success in all three libraries), 0 or null from the
// others, and nothing else happens.
#pragma once

#include <cstddef>

#include "kyrno/base/kyrnossllist.h"
#include "sys/linux/qlnplat.h"

#define KYRNOSSL_DECLARE(result, name, parameters, arguments) extern "C" result name parameters;
DYNAMIC_FUNCTION(KYRNOSSL_DECLARE)
#undef KYRNOSSL_DECLARE

/// What was found in the open library, null for the rest: for each function F a pointer iF of type
/// TF, for each allocator variable V the place iV of that variable.
///
/// Threads: written by LoadKyrnossl and UnloadKyrnossl, when no other thread of the library runs;
///          read by all.
#define KYRNOSSL_TYPE(result, name, parameters, arguments) using T##name = result(*) parameters;
#define KYRNOSSL_FIELD(result, name, parameters, arguments) T##name i##name;
#define KYRNOSSL_VARIABLE(result, name, parameters, arguments) T##name* i##name;
DYNAMIC_FUNCTION(KYRNOSSL_TYPE)
DYNAMIC_VARIABLE(KYRNOSSL_TYPE)
struct KYRNOSSL {
  PQLNLIB ikyrnossl;  // owned; null while unloaded
  DYNAMIC_FUNCTION(KYRNOSSL_FIELD)
  DYNAMIC_VARIABLE(KYRNOSSL_VARIABLE)
};
#undef KYRNOSSL_TYPE
#undef KYRNOSSL_FIELD
#undef KYRNOSSL_VARIABLE
extern KYRNOSSL kyrnossl;

/// Whether an optional entry is there: if (SslHas(kyrnossl.ignutls_hash_init)) ...
template <typename SLOT>
inline bool SslHas(SLOT* slot) {
  return slot != nullptr;
}

/// Opens the support library: the file that the environment's KYRNOSSL_LIBRARY names, else
/// "libkyrno32ssl64.so" beside this library. 0, also when it is open already; 1 when there is none.
/// A library that doesn't answer its version is kept open, and has no entries.
SI4 LoadKyrnossl();

/// Empties the table and closes the library. Always 0.
SI4 UnloadKyrnossl();

SI4 KyrnosslLoaded();

/// Whether the open library has the name at this moment.
SI4 IsFnLoaded(PCH10 name);

// GnuTLS's own allocators: what it handed out goes back through QLN_gnutls_free, never free.
void* QLN_gnutls_malloc(size_t size);
void* QLN_gnutls_calloc(size_t count, size_t size);
void* QLN_gnutls_realloc(void* p, size_t size);
void QLN_gnutls_free(void* p);
