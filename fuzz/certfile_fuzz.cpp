// certfile_fuzz.cpp - files and bytes that are said to be certificates and keys: each is taken or
// refused, and nothing is left of one that is refused.
//
// The low bits of the first byte say what the rest is: certificates, a key, a PKCS #12 file, one
// certificate in DER, a key in DER, or a file of trusted certificates. Bit 3 gives a password.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/certdata.h"
#include "kyrno/tls/rootcerts.h"
#include "sys/linux/fdhold.h"

namespace {

constexpr int kCerts = 0, kKey = 1, kPkcs12 = 2, kRawCert = 3, kRawKey = 4, kTrusted = 5;
constexpr int kKinds = 7, kPassword = 8;

/// A file may ask for any number of rounds in the making of a key from a password: whoever names a
/// file waits for it. An integer of the size in which that takes seconds.
bool TakesLong(const UI1* data, size_t size) {
  for (size_t i = 0; i + 5 < size; ++i)
    if (data[i] == 2 && data[i + 1] == 4 && data[i + 2] < 0x80) return true;
  for (size_t i = 0; i + 4 < size; ++i)
    if (data[i] == 2 && data[i + 1] == 3 && data[i + 2] >= 8 && data[i + 2] < 0x80) return true;
  return false;
}

SI4 Load(int kind, PCH10 path, const gnutls_datum_t& bytes, CERTDATA* into) {
  switch (kind) {
    case kCerts:
      return into->LoadCertFile(path);
    case kKey:
      return into->LoadKeyFile(path);
    case kPkcs12:
      return into->LoadPkcs12(path);
    case kRawCert:
      return into->AddRawCert(bytes);
    case kRawKey:
      return into->LoadRawKey(bytes);
    default:
      return ERR_INVALID_CERTIFICATE;
  }
}

void Check(int kind, SI4 code, const CERTDATA& data) {
  const bool hasCerts = code == 0 && kind != kKey && kind != kRawKey;
  const bool hasKey = code == 0 && kind != kCerts && kind != kRawCert;
  if (code != 0 && code != ERR_INVALID_CERTIFICATE && code != ERR_MEMORY_ALLOC) abort();
  if ((data.certsCount > 0) != hasCerts || data.certsCount > kMaxChain) abort();
  if ((data.key != nullptr) != hasKey) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool loaded = LoadKyrnossl() == 0 && KyrnosslLoaded();
  if (!loaded) abort();
  if (size < 1) return 0;
  const int kind = *data & kKinds;
  const std::unique_ptr<UI1[]> exact(new UI1[size]);  // so that a byte too much shows
  memcpy(exact.get(), data + 1, --size);
  if (kind != kCerts && kind != kTrusted && TakesLong(exact.get(), size)) return -1;
  const FDHOLD file(memfd_create("cert", MFD_CLOEXEC));
  if (!file || write(file.Get(), exact.get(), size) < 0) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(file.Get());

  if (kind == kTrusted) {
    const std::unique_ptr<CertCollection> list(new CertCollection);
    const SI4 n = list->LoadCertsFromFile(path.c_str());
    if ((n > 0 ? n : 0) != list->CertCount() || n > SI4{kMaxCertsOfFile}) abort();
    return 0;
  }
  CERTDATA cert;
  if (*data & kPassword) cert.pprivPass.reset(strdup("secret"));
  Check(kind, Load(kind, path.c_str(), {exact.get(), static_cast<UI4>(size)}, &cert), cert);
  return 0;
}
