// certdata.cpp - certificates and keys from arrays and files.
#include "kyrno/tls/certdata.h"

#include <fcntl.h>
#include <gnutls/pkcs12.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/tls/tlscredentials.h"
#include "sys/linux/fdhold.h"

static constexpr UI4 MODULE = 0x04000000;

const PCH10 certname[CDTMAX] = {"No", "RAW", "DER", "PK#12", "MSStore", "URL"};

namespace {

constexpr UI4 kMaxFileBytes = 16 << 20;

struct DELETEKEY {
  void operator()(gnutls_privkey_t key) const { gnutls_privkey_deinit(key); }
};
using KEYHOLD = std::unique_ptr<gnutls_privkey_st, DELETEKEY>;

struct DELETEPKCS12 {
  void operator()(gnutls_pkcs12_t file) const { gnutls_pkcs12_deinit(file); }
};
using PKCS12HOLD = std::unique_ptr<gnutls_pkcs12_int, DELETEPKCS12>;

/// Null without memory.
KEYHOLD NewKey() {
  gnutls_privkey_t key = nullptr;
  return KEYHOLD(gnutls_privkey_init(&key) < 0 ? nullptr : key);
}

/// Certificates on their way from a file to a CERTDATA, with room for the longest chain.
struct CERTSHOLD {
  CERTSHOLD()
      : certs(
            static_cast<gnutls_pcert_st*>(QLN_gnutls_malloc(kMaxChain * sizeof(gnutls_pcert_st)))) {
  }
  CERTSHOLD(const CERTSHOLD&) = delete;
  ~CERTSHOLD() { Free(certs, count); }

  static void Free(gnutls_pcert_st* certs, UI4 count) {
    for (UI4 i = 0; i < count; ++i) gnutls_pcert_deinit(&certs[i]);
    QLN_gnutls_free(certs);
  }

  gnutls_pcert_st* certs;  // owned; null without memory
  UI4 count = 0;
};

/// What a PKCS #12 file holds, the certificate of the key first and its issuers behind it.
struct PKCS12CONTENT {
  PKCS12CONTENT() = default;
  PKCS12CONTENT(const PKCS12CONTENT&) = delete;
  ~PKCS12CONTENT() {
    if (key) gnutls_x509_privkey_deinit(key);
    for (UI4 i = 0; i < count; ++i) gnutls_x509_crt_deinit(chain[i]);
    QLN_gnutls_free(chain);
  }

  /// GnuTLS puts the chain in order, wherever the file has its parts.
  int Read(gnutls_pkcs12_t file, PCH10 password) {
    // Behind a failure nothing of these is to be released, whatever they hold.
    gnutls_x509_privkey_t foundKey = nullptr;
    gnutls_x509_crt_t* found = nullptr;
    UI4 n = 0;
    int code = gnutls_pkcs12_verify_mac(file, password);
    if (code < 0) return code;
    code = gnutls_pkcs12_simple_parse(file, password, &foundKey, &found, &n, nullptr, nullptr,
                                      nullptr, 0);
    if (code < 0) return code;
    key = foundKey;
    chain = found;
    count = n;
    return 0;
  }

  gnutls_x509_privkey_t key = nullptr;  // owned, all
  gnutls_x509_crt_t* chain = nullptr;
  UI4 count = 0;
};

/// The result for what GnuTLS doesn't take.
SI4 Refused(PCH10 what, int status) {
  const PCH10 text = gnutls_strerror(status);
  LOG(1, ("%s not usable: %d %s", what, status, text ? text : ""));
  return status == GNUTLS_E_MEMORY_ERROR ? ERR_MEMORY_ALLOC : ERR_INVALID_CERTIFICATE;
}

bool ReadAll(int fd, PUI1 to, UI4 size, PUI4 got) {
  *got = 0;
  while (*got < size) {
    const ssize_t n = read(fd, to + *got, size - *got);
    if (n == 0) return true;
    if (n > 0) *got += static_cast<UI4>(n);
    if (n < 0 && errno != EINTR) return false;
  }
  return true;
}

}  // namespace

void WIPETEXT::operator()(PCH1 text) const {
  explicit_bzero(text, strlen(text));
  free(text);
}

// ---- bytes

CERTBYTES CERTBYTES::OfFile(PCH10 name) {
  CERTBYTES bytes;
  // A pipe must not hold the caller up: it is opened without a wait, and refused.
  const FDHOLD file(open(name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat about;
  if (!file || fstat(file.Get(), &about) != 0) {
    LOG(1, ("open %s: %d", name, errno));
    return bytes;
  }
  if (!S_ISREG(about.st_mode) || about.st_size < 1 || about.st_size > off_t{kMaxFileBytes}) {
    LOG(1, ("%s is no file of 1 to %u bytes", name, kMaxFileBytes));
    return bytes;
  }
  const UI4 size = static_cast<UI4>(about.st_size);
  bytes.datum.data = static_cast<PUI1>(QLN_gnutls_malloc(size));
  if (bytes.datum.data && !ReadAll(file.Get(), bytes.datum.data, size, &bytes.datum.size)) {
    LOG(1, ("read %s: %d", name, errno));
    return CERTBYTES();
  }
  return bytes;
}

CERTBYTES CERTBYTES::OfArray(PAA item) {
  CERTBYTES bytes;
  LOG(4, ("Rank %d Type %d", VARank(item), VAType(item)));
  if (VARank(item) != 1) return bytes;
  const UI4 n = VACount(item);
  const VATYPES type = VAType(item);
  LOG(4, ("Shape %d", n));
  if (n == 0 || (type != VAC1 && type != VAI1 && type != VAI2)) return bytes;
  bytes.datum.data = static_cast<PUI1>(QLN_gnutls_malloc(n));
  if (!bytes.datum.data) return bytes;
  bytes.datum.size = n;
  if (type != VAI2) {
    memcpy(bytes.datum.data, VAData(item), n);
  } else {
    for (UI4 i = 0; i < n; ++i) {
      UI2 element;
      memcpy(&element, VAData(item) + sizeof element * i, sizeof element);
      bytes.datum.data[i] = static_cast<UI1>(element & 0xff);
    }
  }
  LOG(4, ("Cert Data %d", n));
  return bytes;
}

CERTBYTES::CERTBYTES(CERTBYTES&& other) noexcept
    : datum(std::exchange(other.datum, gnutls_datum_t{nullptr, 0})) {}

CERTBYTES& CERTBYTES::operator=(CERTBYTES&& other) noexcept {
  std::swap(datum, other.datum);
  return *this;
}

CERTBYTES::~CERTBYTES() {
  if (datum.data) explicit_bzero(datum.data, datum.size);
  QLN_gnutls_free(datum.data);
}

// ---- certificates and keys

CERTDATA::CERTDATA() = default;

CERTDATA::~CERTDATA() {
  CERTSHOLD::Free(certs, certsCount);
  if (key) gnutls_privkey_deinit(key);
}

void CERTDATA::ReplaceCerts(gnutls_pcert_st** fresh, UI4* count) {
  std::swap(certs, *fresh);
  std::swap(certsCount, *count);
}

void CERTDATA::ReplaceKey(gnutls_privkey_t fresh) {
  if (key) gnutls_privkey_deinit(key);
  key = fresh;
}

SI4 CERTDATA::AddRawCert(const gnutls_datum_t& der) {
  if (certsCount >= kMaxChain) return 0;
  if (!certs) {
    CERTSHOLD room;
    if (!room.certs) return ERR_MEMORY_ALLOC;
    ReplaceCerts(&room.certs, &room.count);
  }
  const int status = gnutls_pcert_import_x509_raw(&certs[certsCount], &der, GNUTLS_X509_FMT_DER, 0);
  if (status < 0) return Refused("Certificate", status);
  ++certsCount;
  pubCert = CDTRawCert;
  return 0;
}

SI4 CERTDATA::LoadCertFile(PCH10 name) {
  const CERTBYTES file = CERTBYTES::OfFile(name);
  if (file.IsEmpty()) return ERR_INVALID_CERTIFICATE;
  CERTSHOLD list;
  if (!list.certs) return ERR_MEMORY_ALLOC;
  UI4 n = kMaxChain;
  int status =
      gnutls_pcert_list_import_x509_raw(list.certs, &n, &file.Get(), GNUTLS_X509_FMT_PEM, 0);
  if (status == GNUTLS_E_NO_CERTIFICATE_FOUND) {
    n = kMaxChain;
    status = gnutls_pcert_list_import_x509_raw(list.certs, &n, &file.Get(), GNUTLS_X509_FMT_DER, 0);
  }
  if (status < 0 || n == 0) return Refused(name, status);
  list.count = n;
  ReplaceCerts(&list.certs, &list.count);
  pubCert = CDTDERFile;
  return 0;
}

SI4 CERTDATA::LoadRawKey(const gnutls_datum_t& der) {
  KEYHOLD fresh = NewKey();
  if (!fresh) return ERR_MEMORY_ALLOC;
  const int status =
      gnutls_privkey_import_x509_raw(fresh.get(), &der, GNUTLS_X509_FMT_DER, nullptr, 0);
  if (status < 0) return Refused("Key", status);
  ReplaceKey(fresh.release());
  privCert = CDTRawCert;
  return 0;
}

SI4 CERTDATA::LoadKeyFile(PCH10 name) {
  const CERTBYTES file = CERTBYTES::OfFile(name);
  if (file.IsEmpty()) return ERR_INVALID_CERTIFICATE;
  KEYHOLD fresh = NewKey();
  if (!fresh) return ERR_MEMORY_ALLOC;
  const PCH10 password = HasPassword() ? pprivPass.get() : nullptr;
  const int asPem =
      gnutls_privkey_import_x509_raw(fresh.get(), &file.Get(), GNUTLS_X509_FMT_PEM, password, 0);
  if (asPem < 0 && gnutls_privkey_import_x509_raw(fresh.get(), &file.Get(), GNUTLS_X509_FMT_DER,
                                                  password, 0) < 0)
    return Refused(name, asPem);
  ReplaceKey(fresh.release());
  privCert = CDTDERFile;
  return 0;
}

SI4 CERTDATA::LoadPkcs12(PCH10 name) {
  const CERTBYTES bytes = CERTBYTES::OfFile(name);
  if (bytes.IsEmpty()) return ERR_INVALID_CERTIFICATE;
  gnutls_pkcs12_t made = nullptr;
  if (gnutls_pkcs12_init(&made) < 0) return ERR_MEMORY_ALLOC;
  const PKCS12HOLD file(made);
  int status = gnutls_pkcs12_import(file.get(), &bytes.Get(), GNUTLS_X509_FMT_PEM, 0);
  if (status < 0) status = gnutls_pkcs12_import(file.get(), &bytes.Get(), GNUTLS_X509_FMT_DER, 0);
  if (status < 0) return Refused(name, status);

  // The format knows two ways to have no password, and programs write either.
  PKCS12CONTENT content;
  status = content.Read(file.get(), HasPassword() ? pprivPass.get() : "");
  if (status < 0 && !HasPassword()) status = content.Read(file.get(), nullptr);
  if (status < 0) return Refused(name, status);

  CERTSHOLD list;
  KEYHOLD fresh = NewKey();
  if (!list.certs || !fresh) return ERR_MEMORY_ALLOC;
  for (; list.count < content.count && list.count < kMaxChain; ++list.count) {
    status = gnutls_pcert_import_x509(&list.certs[list.count], content.chain[list.count], 0);
    if (status < 0) return Refused(name, status);
  }
  status = gnutls_privkey_import_x509(fresh.get(), content.key, GNUTLS_PRIVKEY_IMPORT_AUTO_RELEASE);
  if (status < 0) return Refused(name, status);
  content.key = nullptr;  // the other key releases it
  ReplaceCerts(&list.certs, &list.count);
  ReplaceKey(fresh.release());
  pubCert = privCert = CDTPk12File;
  return 0;
}

SI4 CERTDATA::LoadKeyUrl(PCH10 url) {
  KEYHOLD fresh = NewKey();
  if (!fresh) return ERR_MEMORY_ALLOC;
  const int status = gnutls_privkey_import_url(fresh.get(), url, 0);
  // A URL may hold a PIN: it isn't told.
  if (status < 0) return Refused("Key URL", status);
  ReplaceKey(fresh.release());
  privCert = CDTUrl;
  return 0;
}
