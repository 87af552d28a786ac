// certoptions.h - the options of ASrv and AClt that ask for TLS.
#pragma once

#include "Apl/vapl.h"
#include "kyrno/tls/certdata.h"

/// What the options say; null when none of them asks for TLS. Whoever asks never gets null with 0:
/// a certificate that is there, isn't the word "No" and yields nothing usable, a server without
/// any, and a key without a certificate are ERR_INVALID_CERTIFICATE. A client may ask without a
/// certificate of its own, by an empty file name. ERR_NO_SSL_SUPPORT without the support library;
/// the code of the read for a value of the wrong shape.
/// Passwords and the key that stand in the options themselves are overwritten there.
[[nodiscard]] SI4 GetCert(PAA options, bool server, REF<CERTDATA>* out);
