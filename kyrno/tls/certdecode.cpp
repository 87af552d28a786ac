// certdecode.cpp - what a certificate says, as an array.
#include "kyrno/tls/certdecode.h"

#include <cstring>
#include <ctime>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/base/log.h"
#include "kyrno/tls/certder.h"
#include "util/freed.h"
#include "util/intbig.h"

static constexpr UI4 MODULE = 0x00000400;

namespace {

constexpr size_t kFirstTry = 4096;  // bytes; what is longer takes a second one
constexpr UI4 kOidRoom = 1024;
constexpr UI4 kSerialDigits = 3;  // more than a byte of a serial takes
constexpr UI4 kParts = 10;
constexpr UI4 kColumns = 3;

/// Bytes that GnuTLS has handed out.
class DATUM {
 public:
  DATUM() = default;
  ~DATUM() { QLN_gnutls_free(datum.data); }
  DATUM(const DATUM&) = delete;
  DATUM& operator=(const DATUM&) = delete;

  gnutls_datum_t* Out() { return &datum; }
  const UI1* Data() const { return datum.data; }
  UI4 Size() const { return datum.size; }

 private:
  gnutls_datum_t datum = {nullptr, 0};  // owned
};

/// What an accessor of GnuTLS writes into its caller's buffer.
///
/// Errors:  ERR_MEMORY_ALLOC. An accessor that fails for a reason of its own leaves nothing.
class ANSWER {
 public:
  /// Calls read(to, &size), again with more room where it wants that. What it gave at last goes to
  /// *result.
  template <typename READ>
  SI4 Read(READ read, int* result = nullptr) {
    size_t used = 0;
    int got = GNUTLS_E_SHORT_MEMORY_BUFFER;
    // One more, as not every accessor counts the terminator when it says how much it wants.
    for (size_t want = kFirstTry; got == GNUTLS_E_SHORT_MEMORY_BUFFER; want = used + 1) {
      if (want > room || !bytes) {
        bytes.reset(static_cast<PUI1>(malloc(want)));
        if (!bytes) return ERR_MEMORY_ALLOC;
        room = want;
      }
      used = room;
      got = read(bytes.get(), &used);
      if (got == GNUTLS_E_SHORT_MEMORY_BUFFER && used <= room) break;
    }
    size = got < 0 || used > room ? 0 : static_cast<UI4>(used);
    if (result) *result = got;
    return 0;
  }
  const UI1* Data() const { return bytes.get(); }
  UI4 Size() const { return size; }
  /// Without the terminator that some accessors count.
  UI4 TextSize() const { return static_cast<UI4>(strnlen(Text(), size)); }
  PCH10 Text() const { return reinterpret_cast<PCH10>(bytes.get()); }

 private:
  BYTES bytes;
  size_t room = 0;
  UI4 size = 0;
};

/// A new vector of nested items.
VAHOLD Nested(UI4 n) { return VAHOLD(VANew(VAPntr, 1, &n)); }

/// Stores an array as a nested item; null is no memory.
SI4 Put(PAA to, UI4 index, VAHOLD item) {
  if (!item) return ERR_MEMORY_ALLOC;
  VASetOwned(to, index, item.Release());
  return 0;
}

/// Text of the certificate's own characters; null is empty.
SI4 PutText(PAA to, UI4 index, PCH10 text) {
  return VASetCH1(to, index, text ? text : "", text ? static_cast<UI4>(strlen(text)) : 0, VACHAR);
}

/// Bytes as characters.
SI4 PutCharacters(PAA to, UI4 index, const UI1* data, UI4 size) {
  return VASetCH1(to, index, reinterpret_cast<PCH10>(data), size, VABIN);
}
SI4 PutCharacters(PAA to, UI4 index, const DERPART& part) {
  return PutCharacters(to, index, part.data, part.size);
}

/// Bytes as integers.
SI4 PutBytes(PAA to, UI4 index, const UI1* data, UI4 size) {
  VAHOLD bytes;
  const SI4 code = ReturnCert(data, size, bytes.Out());
  return code ? code : Put(to, index, std::move(bytes));
}

SI4 PutOid(PAA to, UI4 index, const DERPART& oid) {
  CH1 text[kOidRoom];
  OidText(oid, text, sizeof text);
  return PutText(to, index, text);
}

SI4 PutIntegers(PAA to, UI4 index, const SI4* values, UI4 count) {
  VAHOLD vector(VANew(VAI4, 1, &count));
  if (!vector) return ERR_MEMORY_ALLOC;
  memcpy(VAData(vector.Get()), values, count * sizeof *values);
  return Put(to, index, std::move(vector));
}

SI4 PutBits(PAA to, UI4 index, const DERPART& part, UI4 count) {
  VAHOLD bits(VANew(VABit, 1, &count));
  if (!bits) return ERR_MEMORY_ALLOC;
  if (part.size == 0) return Put(to, index, std::move(bits));
  memcpy(VAData(bits.Get()), part.data, part.size);
  // What stands behind the last bit is the peer's.
  VAData(bits.Get())[part.size - 1] &= static_cast<UI1>(0xFF << (8 * part.size - count));
  return Put(to, index, std::move(bits));
}

/// The decoding of one certificate, an operation for each element of its array.
class DECODER {
 public:
  DECODER(gnutls_x509_crt_t certificate, bool forPeople) : crt(certificate), decode(forPeople) {}

  SI4 Decode(PAA to);

 private:
  SI4 Serial(PAA to, UI4 index);
  SI4 Signature(PAA to, UI4 index);
  SI4 Issuer(PAA to, UI4 index);
  SI4 Subject(PAA to, UI4 index);
  SI4 Validity(PAA to, UI4 index);
  SI4 Time(PAA to, UI4 index, time_t when);
  SI4 Key(PAA to, UI4 index);
  SI4 Extensions(PAA to, UI4 index);
  SI4 Extension(PAA matrix, UI4 row);
  SI4 ExtensionValue(PAA matrix, UI4 index, UI4 row, PCH10 oid);
  SI4 Constraints(PAA to, UI4 index);
  template <typename READ>
  SI4 All(PAA to, UI4 index, READ read);

  const gnutls_x509_crt_t crt;  // borrowed
  const bool decode;
  DATUM der;
  CERTPARTS parts;  // of der
  ANSWER answer;
};

SI4 DECODER::Decode(PAA to) {
  LOG(4, ("DecodeCertInfo"));
  // Parts of what can't be exported are missing, like those that can't be read.
  if (gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_DER, der.Out()) < 0 ||
      !ReadCertParts(der.Data(), der.Size(), &parts))
    LOG(1, ("A certificate of %u bytes is decoded in parts", der.Size()));

  const int version = gnutls_x509_crt_get_version(crt);
  SI4 code = VASetSI4(to, 0, version < 0 ? 0 : version);
  LOG(4, ("Version ok"));
  if (!code) code = Serial(to, 1);
  LOG(4, ("gnutls_x509_crt_get_serial ok"));
  if (!code) code = Signature(to, 2);
  LOG(4, ("Issuer"));
  if (!code) code = Issuer(to, 3);
  LOG(4, ("Validity"));
  if (!code) code = Validity(to, 4);
  LOG(4, ("Subject"));
  if (!code) code = Subject(to, 5);
  if (!code) code = Key(to, 6);
  if (!code) code = PutCharacters(to, 7, parts.issuerUniqueId);
  if (!code) code = PutCharacters(to, 8, parts.subjectUniqueId);
  if (!code) code = Extensions(to, 9);
  LOG(4, ("DecodeCertInfo ends"));
  return code;
}

SI4 DECODER::Serial(PAA to, UI4 index) {
  const SI4 code = answer.Read(
      [&](void* at, size_t* size) { return gnutls_x509_crt_get_serial(crt, at, size); });
  if (code) return code;
  if (!decode) return PutBytes(to, index, answer.Data(), answer.Size());
  if (answer.Size() == 0) return PutText(to, index, nullptr);
  const UI4 room = kSerialDigits * answer.Size() + 2;
  const TEXT digits(static_cast<PCH1>(malloc(room)));
  if (!digits || FmtIntBig(answer.Data(), answer.Size(), digits.get(), room, 1) == 0)
    return ERR_MEMORY_ALLOC;
  return PutText(to, index, digits.get());
}

SI4 DECODER::Signature(PAA to, UI4 index) {
  VAHOLD pair = Nested(2);
  if (!pair) return ERR_MEMORY_ALLOC;
  SI4 code = 0;
  if (decode) {
    const int algorithm = gnutls_x509_crt_get_signature_algorithm(crt);
    code = PutText(pair.Get(), 0,
                   algorithm < 0
                       ? nullptr
                       : gnutls_sign_get_name(static_cast<gnutls_sign_algorithm_t>(algorithm)));
  } else {
    code = PutOid(pair.Get(), 0, parts.signatureOid);
  }
  if (!code) code = PutCharacters(pair.Get(), 1, parts.signatureParameters);
  return code ? code : Put(to, index, std::move(pair));
}

SI4 DECODER::Issuer(PAA to, UI4 index) {
  if (!decode) {
    DATUM name;
    if (gnutls_x509_crt_get_raw_issuer_dn(crt, name.Out()) < 0) return PutBytes(to, index, {}, 0);
    return PutBytes(to, index, name.Data(), name.Size());
  }
  const SI4 code = answer.Read([&](void* at, size_t* size) {
    return gnutls_x509_crt_get_issuer_dn(crt, static_cast<PCH1>(at), size);
  });
  return code ? code : PutCharacters(to, index, answer.Data(), answer.Size());
}

SI4 DECODER::Subject(PAA to, UI4 index) {
  if (!decode) {
    DATUM name;
    if (gnutls_x509_crt_get_raw_dn(crt, name.Out()) < 0) return PutBytes(to, index, {}, 0);
    return PutBytes(to, index, name.Data(), name.Size());
  }
  const SI4 code = answer.Read([&](void* at, size_t* size) {
    return gnutls_x509_crt_get_dn(crt, static_cast<PCH1>(at), size);
  });
  return code ? code : PutCharacters(to, index, answer.Data(), answer.Size());
}

SI4 DECODER::Validity(PAA to, UI4 index) {
  VAHOLD pair = Nested(2);
  if (!pair) return ERR_MEMORY_ALLOC;
  SI4 code = Time(pair.Get(), 0, gnutls_x509_crt_get_activation_time(crt));
  if (!code) code = Time(pair.Get(), 1, gnutls_x509_crt_get_expiration_time(crt));
  return code ? code : Put(to, index, std::move(pair));
}

SI4 DECODER::Time(PAA to, UI4 index, time_t when) {
  const bool known = when != static_cast<time_t>(-1);
  // Deliberate: narrowed to 32 bits, as everywhere where such a time is looked at.
  const time_t narrow = static_cast<UI4>(when);
  tm local = {};
  CH1 text[26] = {0};  // what asctime_r writes until the year 9999
  if (known) localtime_r(&narrow, &local);
  if (decode) return PutText(to, index, known ? asctime_r(&local, text) : nullptr);
  const SI4 numbers[] = {known ? local.tm_year + 1900 : 0,
                         known ? local.tm_mon + 1 : 0,
                         local.tm_mday,
                         local.tm_hour,
                         local.tm_min,
                         local.tm_sec,
                         0};
  return PutIntegers(to, index, numbers, sizeof numbers / sizeof *numbers);
}

SI4 DECODER::Key(PAA to, UI4 index) {
  VAHOLD key = Nested(4);
  if (!key) return ERR_MEMORY_ALLOC;
  unsigned bits = 0;
  const int algorithm = gnutls_x509_crt_get_pk_algorithm(crt, &bits);
  const bool known = algorithm >= 0;
  SI4 code = 0;
  if (decode) {
    code =
        PutText(key.Get(), 0,
                known ? gnutls_pk_algorithm_get_name(static_cast<gnutls_pk_algorithm_t>(algorithm))
                      : nullptr);
  } else {
    code = PutOid(key.Get(), 0, parts.keyOid);
  }
  if (!code) code = PutCharacters(key.Get(), 1, parts.keyParameters);
  if (!code) code = VASetSI4(key.Get(), 2, known ? static_cast<SI4>(bits) : 0);
  if (!code) code = PutBits(key.Get(), 3, parts.key, parts.keyBits);
  return code ? code : Put(to, index, std::move(key));
}

SI4 DECODER::Extensions(PAA to, UI4 index) {
  LOG(4, ("Extensions %d", static_cast<SI4>(parts.extensions)));
  const UI4 shape[] = {parts.extensions, kColumns};
  VAHOLD matrix(VANew(VAPntr, 2, shape));
  if (!matrix) return ERR_MEMORY_ALLOC;
  for (UI4 row = 0; row < parts.extensions; ++row)
    if (const SI4 code = Extension(matrix.Get(), row); code) return code;
  return Put(to, index, std::move(matrix));
}

SI4 DECODER::Extension(PAA matrix, UI4 row) {
  LOG(4, ("Extension %d", static_cast<SI4>(row)));
  const UI4 first = row * kColumns;
  unsigned critical = 0;
  SI4 code = answer.Read([&](void* at, size_t* size) {
    return gnutls_x509_crt_get_extension_info(crt, row, at, size, &critical);
  });
  if (code) return code;
  CH1 oid[kOidRoom] = {0};
  if (answer.TextSize() < sizeof oid) memcpy(oid, answer.Text(), answer.TextSize());
  code = PutText(matrix, first, oid);
  if (!code) code = VASetSI4(matrix, first + 1, critical != 0);
  LOG(4, ("Extension %d %d", static_cast<SI4>(row), critical != 0));
  return code ? code : ExtensionValue(matrix, first + 2, row, oid);
}

SI4 DECODER::ExtensionValue(PAA matrix, UI4 index, UI4 row, PCH10 oid) {
  const auto is = [oid](PCH10 known) { return strcmp(oid, known) == 0; };
  if (decode && is("2.5.29.19")) return Constraints(matrix, index);
  if (decode && is("2.5.29.37")) {
    return All(matrix, index, [&](unsigned i, void* at, size_t* size) {
      return gnutls_x509_crt_get_key_purpose_oid(crt, i, at, size, nullptr);
    });
  }
  if (decode && is("2.5.29.17")) {
    return All(matrix, index, [&](unsigned i, void* at, size_t* size) {
      return gnutls_x509_crt_get_subject_alt_name2(crt, i, at, size, nullptr, nullptr);
    });
  }
  if (decode && is("2.5.29.15")) {
    unsigned usage = 0;
    if (gnutls_x509_crt_get_key_usage(crt, &usage, nullptr) < 0) usage = 0;
    return VASetSI4(matrix, index, static_cast<SI4>(usage));
  }

  SI4 code = 0;
  if (decode && is("2.5.29.14")) {
    code = answer.Read([&](void* at, size_t* size) {
      return gnutls_x509_crt_get_subject_key_id(crt, at, size, nullptr);
    });
  } else if (decode && is("2.5.29.35")) {
    code = answer.Read([&](void* at, size_t* size) {
      return gnutls_x509_crt_get_authority_key_id(crt, at, size, nullptr);
    });
  } else {
    // Deliberate: the CRL distribution points, "2.5.29.31", have no form of their own. Programs
    // have always been given these bytes and take them apart themselves.
    code = answer.Read([&](void* at, size_t* size) {
      return gnutls_x509_crt_get_extension_data(crt, row, at, size);
    });
  }
  if (code) return code;
  return decode ? PutCharacters(matrix, index, answer.Data(), answer.Size())
                : PutBytes(matrix, index, answer.Data(), answer.Size());
}

SI4 DECODER::Constraints(PAA to, UI4 index) {
  unsigned isCa = 0;
  int length = 0;
  const bool known = gnutls_x509_crt_get_basic_constraints(crt, nullptr, &isCa, &length) >= 0;
  const SI4 both[] = {known ? static_cast<SI4>(isCa) : 0, known ? length : 0};
  return PutIntegers(to, index, both, 2);
}

/// The items that read(i, to, &size) gives for 0 upward until it fails.
template <typename READ>
SI4 DECODER::All(PAA to, UI4 index, READ read) {
  UI4 at = 0;
  int got = 0;
  const auto next = [&] {
    return answer.Read([&](void* bytes, size_t* size) { return read(at, bytes, size); }, &got);
  };
  SI4 code = next();
  while (!code && got >= 0) {
    ++at;
    code = next();
  }
  if (code) return code;
  if (at == 0) return Put(to, index, VAHOLD(VANew(VAI4, 1, &at)));

  VAHOLD list = Nested(at);
  if (!list) return ERR_MEMORY_ALLOC;
  const UI4 n = at;
  for (at = 0; !code && at < n; ++at) {
    code = next();
    if (!code) code = PutCharacters(list.Get(), at, answer.Data(), answer.Size());
  }
  return code ? code : Put(to, index, std::move(list));
}

/// An imported certificate, which goes with it.
class IMPORTED {
 public:
  IMPORTED() = default;
  ~IMPORTED() {
    if (crt) gnutls_x509_crt_deinit(crt);
  }
  IMPORTED(const IMPORTED&) = delete;
  IMPORTED& operator=(const IMPORTED&) = delete;

  bool Import(const void* data, UI4 size) {
    // GnuTLS takes the bytes as not to be written to, though the type doesn't say so.
    const gnutls_datum_t der = {static_cast<PUI1>(const_cast<PVOID>(data)), size};
    return gnutls_x509_crt_init(&crt) >= 0 && crt &&
           gnutls_x509_crt_import(crt, &der, GNUTLS_X509_FMT_DER) >= 0;
  }
  gnutls_x509_crt_t Get() const { return crt; }

 private:
  gnutls_x509_crt_t crt = nullptr;  // owned
};

/// (bytes as characters, decoded).
SI4 DecodedPair(gnutls_x509_crt_t crt, const void* data, UI4 size, SI4 decode, PPAA out) {
  VAHOLD pair = Nested(2);
  VAHOLD info;
  if (!pair) return ERR_MEMORY_ALLOC;
  SI4 code = PutCharacters(pair.Get(), 0, static_cast<const UI1*>(data), size);
  if (!code) code = DecodeCertInfo(crt, decode, info.Out());
  if (!code) code = Put(pair.Get(), 1, std::move(info));
  if (!code) *out = pair.Release();
  return code;
}

}  // namespace

SI4 ReturnCert(gnutls_x509_crt_t crt, PPAA out) {
  *out = nullptr;
  DATUM der;
  if (gnutls_x509_crt_export2(crt, GNUTLS_X509_FMT_DER, der.Out()) < 0)
    return ERR_INVALID_CERTIFICATE;
  return ReturnCert(der.Data(), der.Size(), out);
}

SI4 ReturnCert(const void* data, UI4 size, PPAA out) {
  *out = VANew(VAI1, 1, &size);
  if (!*out) return ERR_MEMORY_ALLOC;
  if (size) memcpy(VAData(*out), data, size);
  return 0;
}

SI4 DecodeCertGNU(const void* data, UI4 size, SI4 decode, PPAA out) {
  *out = nullptr;
  LOG(4, ("DecodeCertGNU 1"));
  IMPORTED certificate;
  SI4 code = 0;
  if (certificate.Import(data, size)) {
    LOG(4, ("DecodeCertGNU 2"));
    code = DecodedPair(certificate.Get(), data, size, decode, out);
  } else {
    LOG(4, ("DecodeCertGNU 3"));
    const UI4 none = 0;
    *out = VANew(VAI4, 1, &none);
    code = *out ? ERR_INVALID_CERTIFICATE : ERR_MEMORY_ALLOC;
  }
  LOG(4, ("DecodeCertGNU 4"));
  return code;
}

SI4 DecodeCertInfo(gnutls_x509_crt_t crt, SI4 decode, PPAA out) {
  *out = nullptr;
  VAHOLD info = Nested(kParts);
  if (!info) return ERR_MEMORY_ALLOC;
  const SI4 code = DECODER(crt, decode != 0).Decode(info.Get());
  if (!code) *out = info.Release();
  return code;
}
