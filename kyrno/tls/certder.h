// certder.h - the parts of a certificate's DER for which GnuTLS has no accessor.
//
// A walk over the fields of RFC 5280, section 4.1, that reads nothing twice and nothing outside the
// bytes that it is given.
#pragma once

#include "sys/linux/qlntypes.h"

/// Lent bytes of the certificate; null and 0 for a part that isn't there.
struct DERPART {
  const UI1* data = nullptr;
  UI4 size = 0;
};

struct CERTPARTS {
  DERPART signatureOid;         ///< contents of tbsCertificate.signature.algorithm
  DERPART signatureParameters;  ///< whole element of tbsCertificate.signature.parameters
  DERPART keyOid;               ///< contents of subjectPublicKeyInfo.algorithm.algorithm
  DERPART keyParameters;        ///< whole element of subjectPublicKeyInfo.algorithm.parameters
  DERPART key;                  ///< subjectPublicKey, the bits
  UI4 keyBits = 0;              ///< how many there are in key
  DERPART issuerUniqueId;       ///< the bits
  DERPART subjectUniqueId;
  UI4 extensions = 0;  ///< how many
};

/// False for what is no certificate; the parts up to the fault are set.
[[nodiscard]] bool ReadCertParts(const UI1* der, UI4 size, CERTPARTS* parts);

/// The dotted text of an object identifier's contents, NUL-terminated. False, and the empty text,
/// for contents that are none, for a number above 64 bits and for a text without room.
bool OidText(const DERPART& oid, PCH1 text, UI4 room);

/// What an operation with a public key in DER costs whoever does it: bytes of an RSA key's
/// exponent; 0 for what is no RSA key.
UI4 RsaExponentBytes(const DERPART& key);
