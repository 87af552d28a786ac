// certdecode.h - what a certificate says, as an array.
#pragma once

#include <gnutls/x509.h>

#include "Apl/vapl.h"

/// The bytes of a certificate in DER, however long, as a vector of one-byte integers.
[[nodiscard]] SI4 ReturnCert(gnutls_x509_crt_t crt, PPAA out);
[[nodiscard]] SI4 ReturnCert(const void* data, UI4 size, PPAA out);

/// (bytes as characters, DecodeCertInfo) of a certificate in DER. ERR_INVALID_CERTIFICATE, and an
/// empty vector of integers, for what is none.
[[nodiscard]] SI4 DecodeCertGNU(const void* data, UI4 size, SI4 decode, PPAA out);

/// Ten elements: version, serial, signature algorithm, issuer, validity, subject, public key, the
/// issuer's and the subject's unique ID, extensions. With `decode` as text and numbers for people,
/// else as bytes. A part that can't be read is empty, or 0. ERR_MEMORY_ALLOC.
[[nodiscard]] SI4 DecodeCertInfo(gnutls_x509_crt_t crt, SI4 decode, PPAA out);
