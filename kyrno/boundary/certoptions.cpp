// certoptions.cpp - the certificate options of servers and clients.
#include "kyrno/boundary/certoptions.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/boundary/create.h"
#include "kyrno/boundary/options.h"

namespace {

/// ("DER", file, 0): a word of certname, the name of a file or a key, and a number.
struct GIVENNAME {
  CERTDATATYPE type = CDTNoCert;
  TEXT name;
  UI4 index = 0;
};

/// The values that ask for TLS; null for one that isn't there.
struct GIVEN {
  VAHOLD certData, certFile, keyData, keyFile;
};

/// The value of an option; null when it is absent.
SI4 ReadOption(PAA options, SI4 option, VAHOLD* value) {
  const SI4 code = GetOptionpAA(options, option, COMAX, KyrnoOptionNames, value->Out());
  return code == ERR_ARG_MISSING ? 0 : code;
}

/// The same for a certificate or key: null for the word "No" as well, alone or as first element.
SI4 ReadGiven(PAA options, SI4 option, VAHOLD* value) {
  const SI4 code = ReadOption(options, option, value);
  if (code || !*value) return code;
  CH1 word[8] = {0};
  const bool isNo = VAGetCH1(value->Get(), 0, word, sizeof word, VACHAR) == 0 &&
                    strcasecmp(word, certname[CDTNoCert]) == 0;
  if (isNo) value->Reset();
  return 0;
}

/// A text; null when the option is absent.
template <typename OWNER>
SI4 ReadWord(PAA options, SI4 option, OWNER* text) {
  VAHOLD value;
  SI4 code = ReadOption(options, option, &value);
  if (code || !value) return code;
  TEXT read;
  code = ReadText(value.Get(), 0, &read);
  text->reset(read.release());
  return code;
}

SI4 ReadName(PAA value, GIVENNAME* given) {
  TEXT word;
  SI4 code = ReadText(value, 0, &word);
  if (!code) code = ReadText(value, 1, &given->name);
  SI4 index = 0;
  if (!code && VAElems(value) > 2) code = VAGetSI4(value, 2, &index);
  UI4 size = 0;
  if (!code) code = VAGetLen(value, 1, &size, VACHAR);
  if (code) return code;
  const SI4 type = Lookup(word.get(), CDTMAX, certname);
  // A name with a NUL inside would be that of another file.
  if (type == CDTMAX || strlen(given->name.get()) + 1 != size) return ERR_INVALID_CERTIFICATE;
  given->type = static_cast<CERTDATATYPE>(type);
  given->index = static_cast<UI4>(index);
  return 0;
}

SI4 AddCert(PAA item, CERTDATA* cert) {
  const CERTBYTES der = item ? CERTBYTES::OfArray(item) : CERTBYTES();
  return der.IsEmpty() ? ERR_INVALID_CERTIFICATE : cert->AddRawCert(der.Get());
}

/// One certificate, or a vector of them.
SI4 ReadCertData(PAA value, CERTDATA* cert) {
  if (VAType(value) != VAPntr) return AddCert(value, cert);
  const UI4 n = std::min(VACount(value), kMaxChain);
  SI4 code = n == 0 ? ERR_INVALID_CERTIFICATE : 0;
  for (UI4 i = 0; i < n && !code; ++i) code = AddCert(VAOwned(value, i), cert);
  return code;
}

SI4 ReadCertFile(PAA value, CERTDATA* cert) {
  GIVENNAME given;
  const SI4 code = ReadName(value, &given);
  if (code) return code;
  cert->lpubIndex = given.index;
  if (*given.name) return cert->LoadCertFile(given.name.get());
  cert->pubCert = given.type;  // a client's, without a certificate of its own
  return 0;
}

SI4 ReadKeyFile(PAA value, CERTDATA* cert) {
  GIVENNAME given;
  const SI4 code = ReadName(value, &given);
  if (code) return code;
  const PCH10 name = given.name.get();
  cert->lprivIndex = given.index;
  if (!*name) {
    // Who has no certificate needs no key, and may say so.
    const bool isAnonymous = cert->pubCert != CDTNoCert && cert->certsCount == 0;
    return isAnonymous ? 0 : ERR_INVALID_CERTIFICATE;
  }
  switch (given.type) {
    case CDTDERFile:
      return cert->LoadKeyFile(name);
    case CDTPk12File:
      return cert->LoadPkcs12(name);
    case CDTUrl:
      return cert->LoadKeyUrl(name);
    case CDTMSStore:
      cert->privCert = CDTMSStore;
      cert->pprivCertData = std::move(given.name);
      return 0;
    case CDTNoCert:
    case CDTRawCert:
    case CDTMAX:
      break;
  }
  return ERR_INVALID_CERTIFICATE;
}

SI4 ReadKeyData(PAA value, CERTDATA* cert) {
  const CERTBYTES der = CERTBYTES::OfArray(value);
  return der.IsEmpty() ? ERR_INVALID_CERTIFICATE : cert->LoadRawKey(der.Get());
}

SI4 Fill(PAA options, bool server, const GIVEN& given, CERTDATA* cert) {
  SI4 flags = 0;
  SI4 code = ReadWord(options, COPubCertPass, &cert->ppubPass);
  if (!code) code = ReadWord(options, COPrivKeyPass, &cert->pprivPass);
  if (!code && given.certData)
    code = ReadCertData(given.certData.Get(), cert);
  else if (!code && given.certFile)
    code = ReadCertFile(given.certFile.Get(), cert);
  if (!code && given.keyData)
    code = ReadKeyData(given.keyData.Get(), cert);
  else if (!code && given.keyFile)
    code = ReadKeyFile(given.keyFile.Get(), cert);
  const bool needsCert = server || cert->privCert != CDTNoCert || cert->pubCert == CDTNoCert;
  if (!code && needsCert && cert->certsCount == 0) code = ERR_INVALID_CERTIFICATE;

  if (!code) code = GetSI4(options, COSSLCheckFlags, COMAX, KyrnoOptionNames, 0, &flags);
  cert->flagOption.store(static_cast<UI4>(flags), std::memory_order_relaxed);
  if (!code) code = ReadWord(options, COPriority, &cert->ppriority);
  if (cert->ppriority && !*cert->ppriority) cert->ppriority.reset();
  return code;
}

SI4 MakeCert(PAA options, bool server, REF<CERTDATA>* out) {
  GIVEN given;
  SI4 code = ReadGiven(options, COPubCertData, &given.certData);
  if (!code) code = ReadGiven(options, COPubCertFile, &given.certFile);
  if (!code) code = ReadGiven(options, COPrivKeyData, &given.keyData);
  if (!code) code = ReadGiven(options, COPrivKeyFile, &given.keyFile);
  if (code) return code;
  if (!given.certData && !given.certFile && !given.keyData && !given.keyFile) return 0;
  if (!KyrnosslLoaded()) return ERR_NO_SSL_SUPPORT;

  REF<CERTDATA> cert(new (std::nothrow) CERTDATA);
  if (!cert) return ERR_MEMORY_ALLOC;
  code = Fill(options, server, given, cert.Get());
  if (!code) *out = std::move(cert);
  return code;
}

/// The array was made from the caller's block and goes with the call.
void Wipe(PAA options, SI4 option) {
  VAHOLD value;
  if (ReadOption(options, option, &value) || !value) return;
  if (IsPointerLike(VAType(value.Get()))) return;
  explicit_bzero(VAData(value.Get()), VADataLength(value.Get()));
}

}  // namespace

SI4 GetCert(PAA options, bool server, REF<CERTDATA>* out) {
  *out = REF<CERTDATA>();
  const SI4 code = MakeCert(options, server, out);
  for (const SI4 option : {COPrivKeyPass, COPubCertPass, COPrivKeyData}) Wipe(options, option);
  return code;
}
