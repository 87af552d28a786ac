// certdecode_fuzz.cpp - any bytes as a certificate: the parts that are found lie within them, and
// what GnuTLS takes for one decodes in both forms to an array that can be handed out.
#include <cstring>
#include <vector>

#include "Apl/zblock.h"
#include "kyrno/base/error.h"
#include "kyrno/base/kyrnossl.h"
#include "kyrno/tls/certdecode.h"
#include "kyrno/tls/certder.h"

namespace {

using BYTEVECTOR = std::vector<UI1>;

void CheckWithin(const DERPART& part, const BYTEVECTOR& bytes) {
  if (!part.data && part.size == 0) return;
  const UI1* const end = bytes.data() + bytes.size();
  if (part.data < bytes.data() || part.data > end) __builtin_trap();
  if (part.size > static_cast<size_t>(end - part.data)) __builtin_trap();
}

void CheckOid(const DERPART& oid) {
  CH1 text[32];
  const bool isWhole = OidText(oid, text, sizeof text);
  if (!memchr(text, 0, sizeof text) || isWhole != (*text != 0)) __builtin_trap();
}

void CheckParts(const BYTEVECTOR& bytes) {
  CERTPARTS parts;
  const bool isOne = ReadCertParts(bytes.data(), static_cast<UI4>(bytes.size()), &parts);
  for (const DERPART& part :
       {parts.signatureOid, parts.signatureParameters, parts.keyOid, parts.keyParameters, parts.key,
        parts.issuerUniqueId, parts.subjectUniqueId})
    CheckWithin(part, bytes);
  if (isOne && (parts.keyBits + 7) / 8 != parts.key.size) __builtin_trap();
  CheckOid(parts.signatureOid);
  CheckOid(parts.keyOid);
}

void CheckDecoded(const BYTEVECTOR& bytes, SI4 decode) {
  VAHOLD pair;
  const SI4 code = DecodeCertGNU(bytes.data(), static_cast<UI4>(bytes.size()), decode, pair.Out());
  if (code != 0 && code != ERR_INVALID_CERTIFICATE) __builtin_trap();
  if (!pair || SizeAA(pair.Get()) == 0) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (LoadKyrnossl()) __builtin_trap();  // without it there is nothing to decode with
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const BYTEVECTOR bytes(data, data + size);
  CheckParts(bytes);
  for (const SI4 decode : {0, 1}) CheckDecoded(bytes, decode);
  return 0;
}
