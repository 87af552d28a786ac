// kyrnossl.c - the support library: everything that needs GnuTLS, zlib and libtasn1, in one file
// that is opened at run time.
//
// Linked with: -Wl,--no-as-needed -lgnutls -lz -ltasn1
//
// Whoever opens this library finds the entries of the three behind its handle.

#include <stdio.h>

#include "kyrno/base/kyrnossllist.h"

#define SHOWN __attribute__((visibility("default")))

/// The versions of the three, cut to size. Result: the length of the text, 0 without room for any.
SHOWN int kyrnosslversion(char* ver, int size) {
  if (!ver || size < 2) return 0;
  const int length = snprintf(ver, (size_t)size, "GnuTLS %s, zlib %s, libtasn1 %s",
                              gnutls_check_version(NULL), zlibVersion(), asn1_check_version(NULL));
  return length < size ? length : size - 1;
}

// Two names that GnuTLS dropped.
SHOWN int gnutls_srp_base64_encode_alloc(const gnutls_datum_t* data, gnutls_datum_t* result) {
  return gnutls_srp_base64_encode2(data, result);
}

SHOWN int gnutls_srp_base64_decode_alloc(const gnutls_datum_t* b64_data, gnutls_datum_t* result) {
  return gnutls_srp_base64_decode2(b64_data, result);
}

// References to every entry: the linker refuses a library that lacks one, and keeps all three.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
typedef void (*ENTRY)(void);
#define FUNCTION(result, name, parameters, arguments) (ENTRY) name,
#define VARIABLE(result, name, parameters, arguments) &name,
__attribute__((used)) static const ENTRY functions[] = {DYNAMIC_FUNCTION(FUNCTION)};
__attribute__((used)) static const void* const variables[] = {DYNAMIC_VARIABLE(VARIABLE)};
