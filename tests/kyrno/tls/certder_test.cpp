// certder_test.cpp - the parts of a certificate, from DER that is put together here.
#include "kyrno/tls/certder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using TEXTS = std::vector<std::string>;

std::string Element(int tag, const std::string& contents) {
  std::string length;
  for (size_t n = contents.size(); n > 0; n >>= 8) length.insert(0, 1, static_cast<char>(n));
  if (contents.size() >= 0x80) length.insert(0, 1, static_cast<char>(0x80 + length.size()));
  if (contents.empty()) length = std::string(1, '\0');
  return static_cast<char>(tag) + length + contents;
}
std::string Sequence(const TEXTS& elements) {
  std::string all;
  for (const std::string& element : elements) all += element;
  return Element(0x30, all);
}

const std::string kOid = Element(6, "\x2a\x86\x48");
const std::string kNull = Element(5, "");
const std::string kName = Sequence({});
const std::string kSign = Sequence({kOid, kNull});

/// A certificate of what may be in one; `after` stands behind the key.
std::string Certificate(const std::string& keyAlgorithm, const std::string& bits,
                        const std::string& after) {
  return Sequence(
      {Sequence({Element(0xA0, Element(2, "\2")), Element(2, "\x81"), kSign, kName, Sequence({}),
                 kName, Sequence({keyAlgorithm, Element(3, bits)}), after}),
       kSign, Element(3, std::string(300, '\0'))});
}

std::string Text(const DERPART& part) {
  return std::string(reinterpret_cast<const char*>(part.data), part.size);
}

/// Reads a copy of exactly its length.
bool Read(const std::string& der, CERTPARTS* parts, std::vector<UI1>* bytes) {
  *bytes = std::vector<UI1>(der.begin(), der.end());
  return ReadCertParts(bytes->data(), static_cast<UI4>(bytes->size()), parts);
}

TEST(CertParts, AreFoundWhereTheyStand) {
  const std::string extension = Sequence({kOid, Element(4, std::string(200, 'x'))});
  const std::string der =
      Certificate(Sequence({kOid, Element(4, "any")}), "\3\xAA\xF8",
                  Element(0x81, std::string("\0is", 3)) + Element(0x82, std::string("\0su", 3)) +
                      Element(0xA3, Sequence({extension, extension, extension})));
  CERTPARTS parts;
  std::vector<UI1> bytes;
  ASSERT_TRUE(Read(der, &parts, &bytes));
  EXPECT_EQ(Text(parts.signatureOid), "\x2a\x86\x48");
  EXPECT_EQ(Text(parts.signatureParameters), kNull);
  EXPECT_EQ(Text(parts.keyOid), "\x2a\x86\x48");
  EXPECT_EQ(Text(parts.keyParameters), Element(4, "any"));
  EXPECT_EQ(Text(parts.key), "\xAA\xF8");
  EXPECT_EQ(parts.keyBits, 13u);
  EXPECT_EQ(Text(parts.issuerUniqueId), "is");
  EXPECT_EQ(Text(parts.subjectUniqueId), "su");
  EXPECT_EQ(parts.extensions, 3u);

  // Cut anywhere, it is none.
  for (size_t n = 0; n < der.size(); ++n) EXPECT_FALSE(Read(der.substr(0, n), &parts, &bytes)) << n;
}

TEST(CertParts, ThatAreNotThereAreEmpty) {
  CERTPARTS parts;
  std::vector<UI1> bytes;
  ASSERT_TRUE(Read(Certificate(Sequence({kOid}), std::string("\0", 1), ""), &parts, &bytes));
  EXPECT_EQ(parts.keyParameters.data, nullptr);
  EXPECT_EQ(parts.key.size + parts.keyBits + parts.extensions, 0u);
  EXPECT_EQ(parts.subjectUniqueId.data, nullptr);
}

TEST(CertParts, OfWhatIsNoCertificateEndAtTheFault) {
  const std::string algorithm = Sequence({kOid});
  const std::string bits("\0k", 2);
  const struct {
    const char* what;
    std::string der;
    bool hasKey;
  } cases[] = {
      {"bytes behind it", Certificate(algorithm, bits, "") + '\0', true},
      {"more unused bits than there are", Certificate(algorithm, "\1", ""), false},
      {"nine unused bits", Certificate(algorithm, "\11k", ""), false},
      {"no bits at all", Certificate(algorithm, "", ""), false},
      {"parameters twice", Certificate(Sequence({kOid, kNull, kNull}), bits, ""), false},
      {"an unknown field", Certificate(algorithm, bits, Element(0x84, "x")), true},
      {"an extension that is none", Certificate(algorithm, bits, Element(0xA3, Sequence({kNull}))),
       true},
      {"a length that goes on for ever", "\x30\x80" + algorithm + std::string(2, '\0'), false},
      {"a length of five bytes", "\x30\x85" + std::string(5, '\0'), false},
      {"a length of 4 GiB", "\x30\x84\xff\xff\xff\xff" + algorithm, false},
      {"a tag of several bytes", "\x3f\x81\x01" + std::string(1, '\0'), false},
  };
  for (const auto& c : cases) {
    CERTPARTS parts;
    std::vector<UI1> bytes;
    EXPECT_FALSE(Read(c.der, &parts, &bytes)) << c.what;
    EXPECT_EQ(Text(parts.key) == "k", c.hasKey) << c.what;
  }
}

TEST(OidText, IsWholeOrEmpty) {
  const struct {
    std::string oid;
    UI4 room;
    const char* text;
  } cases[] = {
      {"\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b", 22, "1.2.840.113549.1.1.11"},
      {"\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b", 21, ""},
      {"\x55\x1d\x11", 100, "2.5.29.17"},
      {"\x27", 100, "0.39"},
      {"\x88\x37", 100, "2.999"},
      {"\x2a\x81\xff\xff\xff\xff\xff\xff\xff\xff\x7f", 100, "1.2.18446744073709551615"},
      {"\x2a\x82\x80\x80\x80\x80\x80\x80\x80\x80" + std::string(1, '\0'), 100, ""},
      {"\x2a\x86", 100, ""},
      {"", 100, ""},
  };
  for (const auto& c : cases) {
    std::vector<CH1> text(c.room, '#');
    const DERPART oid = {reinterpret_cast<const UI1*>(c.oid.data()),
                         static_cast<UI4>(c.oid.size())};
    EXPECT_EQ(OidText(oid, text.data(), c.room), *c.text != 0) << c.text;
    EXPECT_STREQ(text.data(), c.text);
  }
}

}  // namespace
