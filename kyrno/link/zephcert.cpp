// zephcert.cpp - the certificates of a secure link.
#include "kyrno/link/zephcert.h"

#include <cstring>
#include <new>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/tls/tlscredentials.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

bool IsServer(const tZeph2Config& config) {
  return config.Direction == DIRListen || config.Direction == DIRHttp;
}

SI4 LoadFiles(const tZeph2Config& config, CERTDATA* cert) {
  static constexpr CH1 kUrl[] = "URL:";
  constexpr size_t kUrlLen = sizeof kUrl - 1;
  if (config.pPublicCertFile)
    if (const SI4 code = cert->LoadCertFile(config.pPublicCertFile)) return code;
  PCH10 const key = config.pPrivateKeyFile;
  if (!key && !config.pPublicCertFile) return 0;
  // One without the other is none: the link would be there without what was asked for.
  if (!key || cert->certsCount == 0) return ERR_INVALID_CERTIFICATE;
  return strncmp(key, kUrl, kUrlLen) == 0 ? cert->LoadKeyUrl(key + kUrlLen)
                                          : cert->LoadKeyFile(key);
}

UI4 Flags(const tZeph2Config& config) {
  constexpr UI4 kWantCert = ReqestClientCertificate | RequireClientCertificate;
  if (config.Secure == SECSecure) return config.SSLValidation | kWantCert;
  // A server with none of the three would ask its peers from the third on.
  const UI4 flags = config.SSLValidation & ~kWantCert;
  return IsServer(config) ? flags | NoClientCertificate : flags;
}

}  // namespace

SI4 Zeph2Cert(tZeph2Config* config, const REF<RootCerts>& roots,
              const REF<SessionCache2>& sessions) {
  if (!KyrnosslLoaded()) return ERR_NO_SSL_SUPPORT;
  REF<CERTDATA> cert(new (std::nothrow) CERTDATA);
  if (!cert) return ERR_MEMORY_ALLOC;
  SI4 code = LoadFiles(*config, cert.Get());
  if (!code && config->pRootCertDir) code = CacheNewRootDir(roots.Get(), config->pRootCertDir);
  if (code) return code;

  cert->pRootCerts = roots;
  cert->pClientSessions = sessions;
  cert->flagOption.store(Flags(*config), std::memory_order_relaxed);
  // Deliberate: what doesn't do is told by the server or client that is made of it.
  const SI4 made = TLSCREDENTIALS::Make(cert.Get(), IsServer(*config), &cert->saved);
  LOG(2, ("Credentials of the link: %d", made));
  // A client would go without a certificate that its key does not fit.
  if (!IsServer(*config) && cert->certsCount > 0) return ERR_INVALID_CERTIFICATE;
  config->pCert = cert.Release();
  return 0;
}
