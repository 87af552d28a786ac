// certder.cpp - the parts of a certificate's DER for which GnuTLS has no accessor.
#include "kyrno/tls/certder.h"

namespace {

// The tags that a certificate is made of. Those of its optional fields are of the context.
constexpr UI1 kBitString = 0x03;
constexpr UI1 kInteger = 0x02;
constexpr UI1 kOid = 0x06;
constexpr UI1 kSequence = 0x30;
constexpr UI1 kVersion = 0xA0;
constexpr UI1 kIssuerUniqueId = 0x81;
constexpr UI1 kSubjectUniqueId = 0x82;
constexpr UI1 kExtensions = 0xA3;

struct ELEMENT {
  UI1 tag = 0;
  DERPART whole;
  DERPART contents;
};

/// The elements of some bytes, one after the other.
class DERREADER {
 public:
  explicit DERREADER(const DERPART& bytes) : at(bytes.data), left(bytes.size) {}

  bool IsAtEnd() const { return left == 0; }

  /// False at the end, and for what is no element of one byte's tag and a definite length.
  bool Next(ELEMENT* element) {
    const UI1* const start = at;
    UI1 tag = 0, first = 0;
    if (!Byte(&tag) || (tag & 0x1F) == 0x1F || !Byte(&first)) return false;
    UI4 size = first;
    if (first >= 0x80) {
      if (first == 0x80 || first > 0x84) return false;
      size = 0;
      for (UI4 n = first & 0x7F; n > 0; --n) {
        UI1 next = 0;
        if (!Byte(&next)) return false;
        size = size << 8 | next;
      }
    }
    if (size > left) return false;
    element->tag = tag;
    element->contents = {at, size};
    at += size;
    left -= size;
    element->whole = {start, static_cast<UI4>(at - start)};
    return true;
  }
  /// Takes the next element if it has this tag.
  bool Skip(UI1 tag, DERPART* contents = nullptr) {
    if (left == 0 || *at != tag) return false;
    ELEMENT element;
    if (!Next(&element)) return false;
    if (contents) *contents = element.contents;
    return true;
  }

 private:
  bool Byte(UI1* byte) {
    if (left == 0) return false;
    *byte = *at++;
    --left;
    return true;
  }

  const UI1* at;
  UI4 left;
};

/// An algorithm and the parameters that it may have.
bool ReadAlgorithm(DERREADER* from, DERPART* oid, DERPART* parameters) {
  DERPART contents;
  if (!from->Skip(kSequence, &contents)) return false;
  DERREADER algorithm(contents);
  if (!algorithm.Skip(kOid, oid)) return false;
  if (algorithm.IsAtEnd()) return true;
  ELEMENT any;
  if (!algorithm.Next(&any) || !algorithm.IsAtEnd()) return false;
  *parameters = any.whole;
  return true;
}

/// The bits behind the byte that says how many of the last byte don't count.
bool ReadBits(const DERPART& contents, DERPART* bits, PUI4 count) {
  if (contents.size == 0) return false;
  const UI1 unused = contents.data[0];
  if (unused > 7 || (unused > 0 && contents.size == 1)) return false;
  if (contents.size - 1 > UINT32_MAX / 8) return false;
  *bits = {contents.data + 1, contents.size - 1};
  *count = 8 * bits->size - unused;
  return true;
}

bool ReadKey(DERREADER* from, CERTPARTS* parts) {
  DERPART contents, bits;
  if (!from->Skip(kSequence, &contents)) return false;
  DERREADER key(contents);
  return ReadAlgorithm(&key, &parts->keyOid, &parts->keyParameters) &&
         key.Skip(kBitString, &bits) && ReadBits(bits, &parts->key, &parts->keyBits) &&
         key.IsAtEnd();
}

/// One of the two optional identifiers.
bool ReadUniqueId(DERREADER* from, UI1 tag, DERPART* id) {
  DERPART contents;
  UI4 bits = 0;
  return !from->Skip(tag, &contents) || ReadBits(contents, id, &bits);
}

bool CountExtensions(DERREADER* from, PUI4 count) {
  DERPART contents, list;
  if (!from->Skip(kExtensions, &contents)) return true;
  DERREADER outer(contents);
  if (!outer.Skip(kSequence, &list) || !outer.IsAtEnd()) return false;
  for (DERREADER extensions(list); !extensions.IsAtEnd(); ++*count)
    if (!extensions.Skip(kSequence)) return false;
  return true;
}

bool ReadSigned(const DERPART& contents, CERTPARTS* parts) {
  DERREADER from(contents);
  from.Skip(kVersion);
  if (!from.Skip(kInteger)) return false;
  if (!ReadAlgorithm(&from, &parts->signatureOid, &parts->signatureParameters)) return false;
  // Issuer, validity, subject.
  if (!from.Skip(kSequence) || !from.Skip(kSequence) || !from.Skip(kSequence)) return false;
  return ReadKey(&from, parts) && ReadUniqueId(&from, kIssuerUniqueId, &parts->issuerUniqueId) &&
         ReadUniqueId(&from, kSubjectUniqueId, &parts->subjectUniqueId) &&
         CountExtensions(&from, &parts->extensions) && from.IsAtEnd();
}

/// One number of an object identifier, seven bits a byte.
bool NextNumber(const DERPART& oid, PUI4 at, UI8* number) {
  *number = 0;
  while (*at < oid.size && *number <= UINT64_MAX >> 7) {
    const UI1 byte = oid.data[(*at)++];
    *number = *number << 7 | (byte & 0x7F);
    if (byte < 0x80) return true;
  }
  return false;
}

/// Puts a number behind a text, if there is room for it and a NUL.
bool Append(PCH1 text, UI4 room, PUI4 length, UI8 number) {
  CH1 digits[20];
  UI4 n = 0;
  do {
    digits[n++] = static_cast<CH1>('0' + number % 10);
    number /= 10;
  } while (number > 0);
  const UI4 dot = *length > 0;
  if (dot + n >= room - *length) return false;
  if (dot) text[(*length)++] = '.';
  while (n > 0) text[(*length)++] = digits[--n];
  return true;
}

bool PutOid(const DERPART& oid, PCH1 text, UI4 room, PUI4 length) {
  UI4 at = 0;
  UI8 number = 0;
  if (!NextNumber(oid, &at, &number)) return false;
  // The first two numbers share one, in which the first is 0, 1 or 2.
  const UI8 first = number < 80 ? number / 40 : 2;
  if (!Append(text, room, length, first) || !Append(text, room, length, number - 40 * first))
    return false;
  while (at < oid.size)
    if (!NextNumber(oid, &at, &number) || !Append(text, room, length, number)) return false;
  return true;
}

}  // namespace

bool ReadCertParts(const UI1* der, UI4 size, CERTPARTS* parts) {
  *parts = {};
  DERPART certificate, contents;
  DERREADER outer({der, size});
  if (!outer.Skip(kSequence, &certificate)) return false;
  DERREADER from(certificate);
  if (!from.Skip(kSequence, &contents) || !ReadSigned(contents, parts)) return false;
  // The signature's algorithm once more, and the signature.
  return from.Skip(kSequence) && from.Skip(kBitString) && from.IsAtEnd() && outer.IsAtEnd();
}

bool OidText(const DERPART& oid, PCH1 text, UI4 room) {
  if (room == 0) return false;
  UI4 length = 0;
  const bool whole = PutOid(oid, text, room, &length);
  text[whole ? length : 0] = 0;
  return whole;
}

UI4 RsaExponentBytes(const DERPART& key) {
  DERPART contents, exponent;
  DERREADER outer(key);
  if (!outer.Skip(kSequence, &contents)) return 0;
  DERREADER numbers(contents);
  return numbers.Skip(kInteger) && numbers.Skip(kInteger, &exponent) ? exponent.size : 0;
}
