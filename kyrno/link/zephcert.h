// zephcert.h - the certificates of a secure link.
#pragma once

#include "kyrno/link/zeph2.h"

/// Makes pCert of pPublicCertFile, pPrivateKeyFile, pRootCertDir, SSLValidation and Secure, which
/// is above SECPlain. ERR_INVALID_CERTIFICATE, ERR_MEMORY_ALLOC, ERR_NO_SSL_SUPPORT and the codes
/// of CacheNewRootDir; pCert is null then. The credentials are made here and shared by every server
/// and every client of the link.
[[nodiscard]] SI4 Zeph2Cert(tZeph2Config* config, const REF<RootCerts>& roots,
                            const REF<SessionCache2>& sessions);
