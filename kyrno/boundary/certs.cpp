// certs.cpp - the commands that say what certificates are.
#include "kyrno/boundary/certs.h"

#include <sys/stat.h>

#include <cstring>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/boundary/arrays.h"
#include "kyrno/boundary/options.h"
#include "kyrno/tls/certdata.h"
#include "kyrno/tls/certdecode.h"
#include "kyrno/tls/rootcerts.h"
#include "kyrno/tls/sslcontrol.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

enum CertOptions : SI4 {
  CEType,
  CESource,
  CEIssuer,
  CESubject,
  CEDetails,
  CEApi,
  CEPassword,
  CEMAX
};
const PCH10 CertOptionNames[CEMAX] = {"Type",    "Source",    "Issuer",  "Subject",
                                      "Details", "DecodeApi", "Password"};

enum CertTypeOptions : SI4 { CETFolder, CETDER, CETPK12, CETDecode, CETUrls, CETMAX };
const PCH10 CertTypeOptionNames[CETMAX] = {"Folder", "DER", "PK#12", "Decode", "URLs"};

// The first two are those of AGetProp itself.
enum CertInfoOptions : SI4 { CIObj, CIProp, CICert, CIInfo, CIApi, CIMAX };
const PCH10 CertInfoOptionNames[CIMAX] = {"Name", "Prop", "Cert", "Info", "Api"};

enum API : SI4 { APIGnu, APIMAX };
const PCH10 apiname[APIMAX] = {"gnu"};

constexpr UI4 kFileNameSize = 251;  // with its terminator

/// Decodes the certificate that one option holds, with the flag and the word of two others.
SI4 Decode(PAA args, SI4 n, const PCH10* names, SI4 certOption, SI4 flagOption, SI4 apiOption,
           PPAA out) {
  VAHOLD cert;
  SI4 decode = 0;
  UI4 apiCode = 0;
  SI4 code = GetOptionpAA(args, certOption, n, names, cert.Out());
  if (!code) code = GetSI4(args, flagOption, n, names, 0, &decode);
  if (code) return code;
  GetEnum(args, apiOption, n, names, APIMAX, apiname, APIGnu, &apiCode);
  if (apiCode) return static_cast<SI4>(apiCode);

  const CERTBYTES bytes = CERTBYTES::OfArray(cert.Get());
  LOG(4, ("cert size %u data %p", bytes.Get().size, static_cast<const void*>(bytes.Get().data)));
  return DecodeCertGNU(bytes.Get().data, bytes.Get().size, decode, out);
}

SI4 CertDecode(PAA args, PPAA out) {
  return Decode(args, CEMAX, CertOptionNames, CESource, CEDetails, CEApi, out);
}

/// Whether the name, in UTF-8, is all of a text: a zero within would cut it.
bool IsWhole(PCH10 name, const VARRAY* text) {
  const VATYPES type = VAType(text);
  if (type != VAC1 && type != VAC2 && type != VAC4) return true;
  UI4 n = 0;
  for (; *name; ++name) n += (*name & 0xC0) != 0x80;
  return n == VACount(text);
}

/// The name of the file to read. ERR_OPTION without one, ERR_FILE for what can be none.
SI4 SourceFile(PAA args, PCH1 name, UI4 size) {
  VAHOLD source;
  SI4 code = GetOptionpAA(args, CESource, CEMAX, CertOptionNames, source.Out());
  if (code) return code == ERR_ARG_MISSING ? ERR_OPTION : code;
  code = VAGetUnicode(source.Get(), 0, name, size, UTF8, VACHAR);
  if (code) return code;
  struct stat st;
  const bool isOther = stat(name, &st) == 0 && !S_ISREG(st.st_mode);
  return isOther || !IsWhole(name, source.Get()) ? ERR_FILE : 0;
}

SI4 ReadCert(PAA args, PPAA out) {
  CH1 name[kFileNameSize] = {0};
  CertCollection certs;
  SI4 code = SourceFile(args, name, sizeof name);
  if (code) return code;
  const SI4 got = certs.LoadCertsFromFile(name);
  if (got < 0) return ERR_INVALID_CERTIFICATE;

  const UI4 n = static_cast<UI4>(got);
  VAHOLD list(VANew(n ? VAPntr : VAI4, 1, &n));
  if (!list) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; !code && i < n; ++i) {
    PAA cert = nullptr;
    code = ReturnCert(certs.CertList()[i], &cert);
    if (!code) VASetOwned(list.Get(), i, cert);
  }
  if (!code) *out = list.Release();
  return code;
}

/// Goes through the certificates of the system's key store.
class KEYSTORE {
 public:
  KEYSTORE() = default;
  ~KEYSTORE() {
    if (iter) gnutls_system_key_iter_deinit(iter);
  }
  KEYSTORE(const KEYSTORE&) = delete;
  KEYSTORE& operator=(const KEYSTORE&) = delete;

  /// False behind the last one. What is wanted comes in blocks for QLN_gnutls_free.
  bool Next(PCH1* certUrl, PCH1* keyUrl, PCH1* label, gnutls_datum_t* der) {
    return gnutls_system_key_iter_get_info(&iter, GNUTLS_CRT_X509, certUrl, keyUrl, label, der,
                                           0) >= 0;
  }

 private:
  gnutls_system_key_iter_t iter = nullptr;  // owned
};

/// Three texts and the bytes of one certificate, all of which are given back.
SI4 PutEntry(PAA matrix, UI4 row, PCH1 (&texts)[3], const gnutls_datum_t& der) {
  const UI4 first = row * 4;
  PAA bytes = nullptr;
  SI4 code = 0;
  for (UI4 i = 0; i < 3; ++i) {
    const PCH10 text = texts[i] ? texts[i] : "";
    if (!code) code = VASetCH1(matrix, first + i, text, static_cast<UI4>(strlen(text)), VACHAR);
    QLN_gnutls_free(texts[i]);
  }
  if (!code) code = ReturnCert(der.data, der.size, &bytes);
  if (!code) VASetOwned(matrix, first + 3, bytes);
  QLN_gnutls_free(der.data);
  return code;
}

SI4 SystemURLs(PPAA out) {
  UI4 shape[] = {0, 4};
  for (KEYSTORE store; store.Next(nullptr, nullptr, nullptr, nullptr);) ++shape[0];
  VAHOLD matrix(VANew(VAPntr, 2, shape));
  if (!matrix) return ERR_MEMORY_ALLOC;

  KEYSTORE store;
  for (UI4 row = 0; row < shape[0]; ++row) {
    PCH1 texts[3] = {nullptr, nullptr, nullptr};
    gnutls_datum_t der = {nullptr, 0};
    // One that has gone meanwhile leaves an empty row.
    store.Next(&texts[0], &texts[1], &texts[2], &der);
    if (const SI4 code = PutEntry(matrix.Get(), row, texts, der); code) return code;
  }
  *out = matrix.Release();
  return 0;
}

SI4 Certs(PAA arg, PPAA out) {
  const SI4 code = CheckArgList(arg, CEMAX, CertOptionNames);
  if (code) return code;
  const SSLUSE use;
  if (!KyrnosslLoaded()) return ERR_NO_SSL_SUPPORT;
  UI4 typeCode = 0;
  const SI4 type =
      GetEnum(arg, CEType, CEMAX, CertOptionNames, CETMAX, CertTypeOptionNames, CETMAX, &typeCode);
  if (typeCode) return static_cast<SI4>(typeCode);
  if (type == CETDecode) return CertDecode(arg, out);
  if (type == CETUrls) return SystemURLs(out);
  return type == CETDER ? ReadCert(arg, out) : ERR_NONCE;
}

}  // namespace

PAA ACerts(ROOTSHARE& share, PAA arg) {
  share.Leave();  // files and key stores may take their time
  VAHOLD value;
  const SI4 code = Certs(arg, value.Out());
  return code ? CodeResult(code) : ValueResult(value.Release());
}

SI4 DecodeCert(PAA args, PPAA out) {
  *out = nullptr;
  const SI4 code = CheckArgList(args, CIMAX, CertInfoOptionNames);
  if (code) return code;
  const SSLUSE use;
  if (!KyrnosslLoaded()) return ERR_NO_SSL_SUPPORT;
  return Decode(args, CIMAX, CertInfoOptionNames, CICert, CIInfo, CIApi, out);
}
