// peercheck.h - the decision on a peer's certificate: what GnuTLS says of it, and what the flags
// tolerate.
#pragma once

#include <gnutls/x509.h>

#include "kyrno/tls/certdata.h"

/// What is known of a peer when its handshake is through.
struct PEERCLAIM {
  UI4 flags = 0;                            // CERTFLAGS
  bool isClient = false;                    // this side is the client
  gnutls_x509_crt_t certificate = nullptr;  // borrowed; null for none, or one that can't be read
  PCH10 host = nullptr;                     // who it has to be; null or empty: anybody
  SI4 verified = 0;                         // the result of the verification
  UI4 status = 0;                           // gnutls_certificate_status_t, 0 for trusted
  UI4 now = 0;                              // seconds since 1970
};

/// Whether no verification is needed: without validating, or a client that wasn't bound to send a
/// certificate and has none.
bool IsExempt(const PEERCLAIM& claim);

/// The decision where it is needed. Of a status that says invalid only unknown signer, signer
/// without CA, not activated and expired may be tolerated, each by its flag; any other reason, such
/// as a bad signature or a revocation, never.
bool IsAccepted(const PEERCLAIM& claim);
