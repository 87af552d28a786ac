// peercheck_test.cpp - which peers are taken unseen. Whom else is for the table of certificates.
#include "kyrno/tls/peercheck.h"

#include <gtest/gtest.h>

#include "kyrno/tls/certdata.h"

namespace {

TEST(PeerCheck, ExemptsByFlag32AndAClientThatWasOnlyAsked) {
  int any = 0;  // it is only asked whether there is one
  const auto certificate = reinterpret_cast<gnutls_x509_crt_t>(&any);
  for (UI4 flags = 0; flags < 256; ++flags) {
    for (const bool isClient : {false, true}) {
      for (const bool hasCert : {false, true}) {
        PEERCLAIM claim;
        claim.flags = flags;
        claim.isClient = isClient;
        claim.certificate = hasCert ? certificate : nullptr;
        const bool onlyAsked = (flags & (64 + 128)) == 64;
        EXPECT_EQ(IsExempt(claim), (flags & 32) || (onlyAsked && !isClient && !hasCert)) << flags;
      }
    }
  }
}

}  // namespace
