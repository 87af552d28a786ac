// peercheck.cpp - the decision on a peer's certificate.
#include "kyrno/tls/peercheck.h"

#include "kyrno/base/kyrnossl.h"

namespace {

struct TOLERABLE {
  UI4 reason;
  UI4 flag;
};
constexpr TOLERABLE tolerable[] = {
    {GNUTLS_CERT_SIGNER_NOT_FOUND, CertAcceptIfIssuerUnknown},
    {GNUTLS_CERT_SIGNER_NOT_CA, CertAcceptIfSignerNotCA},
    {GNUTLS_CERT_NOT_ACTIVATED, CertAcceptIfNotActivated},
    {GNUTLS_CERT_EXPIRED, CertAcceptIfExpired},
};

/// Every reason has its flag. Invalid without any is a signature that GnuTLS couldn't even check.
bool IsTolerated(const PEERCLAIM& claim) {
  UI4 reasons = claim.status & ~UI4{GNUTLS_CERT_INVALID};
  if (reasons == 0) return false;
  for (const TOLERABLE& one : tolerable)
    if (claim.flags & one.flag) reasons &= ~one.reason;
  return reasons == 0;
}

/// Deliberate: the times count modulo 2^32.
bool IsInTime(const PEERCLAIM& claim) {
  if (!(claim.flags & CertAcceptIfNotActivated) &&
      static_cast<UI4>(gnutls_x509_crt_get_activation_time(claim.certificate)) >= claim.now)
    return false;
  return (claim.flags & CertAcceptIfExpired) ||
         static_cast<UI4>(gnutls_x509_crt_get_expiration_time(claim.certificate)) > claim.now;
}

bool IsRightHost(const PEERCLAIM& claim) {
  if (!claim.host || !*claim.host || (claim.flags & CertAcceptIfIncorrectHostName)) return true;
  return gnutls_x509_crt_check_hostname(claim.certificate, claim.host) != 0;
}

}  // namespace

bool IsExempt(const PEERCLAIM& claim) {
  if (claim.flags & CertAcceptWithoutValidating) return true;
  const bool wasAsked = (claim.flags & (ReqestClientCertificate | NoClientCertificate)) != 0;
  const bool wasBound = (claim.flags & RequireClientCertificate) != 0;
  return wasAsked && !wasBound && !claim.isClient && !claim.certificate;
}

bool IsAccepted(const PEERCLAIM& claim) {
  if (claim.verified != 0 || !claim.certificate) return false;
  // A status of 0 stands for dates that GnuTLS has looked at.
  if (claim.status != 0 && !(IsTolerated(claim) && IsInTime(claim))) return false;
  return IsRightHost(claim);
}
