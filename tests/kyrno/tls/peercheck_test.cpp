// peercheck_test.cpp - which peers are taken, by status, flags, dates and host.
#include "kyrno/tls/peercheck.h"

#include <gtest/gtest.h>

#include "tests/kyrno/tls/certtexts.h"

namespace {

constexpr UI4 kInvalid = GNUTLS_CERT_INVALID;
constexpr UI4 kNow = kBegin2020 + 1000;
constexpr UI4 kAllFlags = 1 + 2 + 4 + 8 + 16;

class PeerCheck : public ::testing::Test {
 protected:
  const GNUTLSHOLD loaded;
  const CERT leaf{kLeaf};
};

TEST_F(PeerCheck, ToleratesEachOfFourReasonsByItsFlagAndNoOther) {
  const UI4 flagOf[][2] = {
      {GNUTLS_CERT_SIGNER_NOT_FOUND, CertAcceptIfIssuerUnknown},
      {GNUTLS_CERT_SIGNER_NOT_CA, CertAcceptIfSignerNotCA},
      {GNUTLS_CERT_NOT_ACTIVATED, CertAcceptIfNotActivated},
      {GNUTLS_CERT_EXPIRED, CertAcceptIfExpired},
  };
  PEERCLAIM claim;
  claim.isClient = true;
  claim.certificate = leaf.Get();
  claim.host = "localhost";
  claim.now = kNow;
  const auto isTaken = [&](UI4 status, UI4 flags) {
    claim.status = status;
    claim.flags = flags;
    return IsAccepted(claim);
  };
  for (UI4 reasons = 1; reasons < 16; ++reasons) {
    UI4 status = kInvalid;
    UI4 needed = 0;
    for (UI4 i = 0; i < 4; ++i) {
      if (!(reasons >> i & 1)) continue;
      status |= flagOf[i][0];
      needed |= flagOf[i][1];
    }
    for (UI4 flags = 0; flags < 16; ++flags)
      EXPECT_EQ(isTaken(status, flags), (flags & needed) == needed) << status << ' ' << flags;
  }
  for (UI4 bit = 0; bit < 32; ++bit) {
    const UI4 reason = UI4{1} << bit;
    bool isNamed = reason == kInvalid;
    for (const auto& one : flagOf) isNamed = isNamed || one[0] == reason;
    if (isNamed) continue;
    EXPECT_FALSE(isTaken(kInvalid | reason, kAllFlags)) << "bit " << bit;
    EXPECT_FALSE(isTaken(reason, kAllFlags)) << "bit " << bit;
    EXPECT_FALSE(isTaken(kInvalid | GNUTLS_CERT_EXPIRED | reason, kAllFlags)) << "bit " << bit;
  }
  EXPECT_FALSE(isTaken(kInvalid, kAllFlags));  // a signature that couldn't be read
  EXPECT_TRUE(isTaken(0, 0));
  claim.verified = GNUTLS_E_MEMORY_ERROR;
  EXPECT_FALSE(isTaken(0, kAllFlags));
}

TEST_F(PeerCheck, LooksAtDatesAndHostAsItsFlagsSay) {
  const UI4 unknown = kInvalid | GNUTLS_CERT_SIGNER_NOT_FOUND;
  const struct {
    UI4 status;
    UI4 flags;
    UI4 now;
    PCH10 host;
    bool isTaken;
  } rows[] = {
      // Who is verified has had his dates looked at.
      {0, 0, 0, "localhost", true},
      {unknown, 1, kBegin2020, "localhost", false},
      {unknown, 1, kBegin2020 + 1, "localhost", true},
      {unknown, 1 + 4, kBegin2020, "localhost", true},
      {unknown, 1, kBegin2100 - 1, "localhost", true},
      {unknown, 1, kBegin2100, "localhost", false},
      {unknown, 1 + 8, kBegin2100, "localhost", true},
      {0, 0, kNow, "127.0.0.1", true},
      {0, 0, kNow, "elsewhere", false},
      {0, 1 + 2 + 4 + 8, kNow, "elsewhere", false},
      {0, 16, kNow, "elsewhere", true},
      {0, 0, kNow, "", true},
      {0, 0, kNow, nullptr, true},
      {unknown, 1, kNow, "elsewhere", false},
      {unknown, 1 + 16, kNow, "elsewhere", true},
      {unknown, 1, kNow, nullptr, true},
  };
  for (const auto& row : rows) {
    PEERCLAIM claim;
    claim.flags = row.flags;
    claim.certificate = leaf.Get();
    claim.host = row.host;
    claim.status = row.status;
    claim.now = row.now;
    EXPECT_EQ(IsAccepted(claim), row.isTaken) << &row - rows;
    claim.certificate = nullptr;
    EXPECT_FALSE(IsAccepted(claim)) << &row - rows;
  }
}

TEST_F(PeerCheck, ExemptsByFlag32AndAClientThatWasOnlyAsked) {
  for (UI4 flags = 0; flags < 256; ++flags) {
    for (const bool isClient : {false, true}) {
      for (const bool hasCert : {false, true}) {
        PEERCLAIM claim;
        claim.flags = flags;
        claim.isClient = isClient;
        claim.certificate = hasCert ? leaf.Get() : nullptr;
        const bool onlyAsked = (flags & (64 + 128)) == 64;
        EXPECT_EQ(IsExempt(claim), (flags & 32) || (onlyAsked && !isClient && !hasCert)) << flags;
      }
    }
  }
}

}  // namespace
