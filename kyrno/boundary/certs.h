// certs.h - the commands that say what certificates are: ACerts, and the root property DecodeCert.
#pragma once

#include "kyrno/boundary/roots.h"

PAA ACerts(ROOTSHARE& share, PAA arg);

/// The value of "DecodeCert": "Cert" a certificate as an array, "Info" whether it is to be decoded
/// for people, "Api" the word "gnu". ERR_NO_SSL_SUPPORT without the support library.
[[nodiscard]] SI4 DecodeCert(PAA args, PPAA out);
