// certs_test.cpp - ACerts and the root property "DecodeCert": what they say of certificates that
// openssl has made.
#include <ctime>
#include <map>
#include <sstream>

#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {
namespace {

enum { kVersion, kSerial, kSignature, kIssuer, kValidity, kSubject, kKey, kExtensions = 9 };

ZValue Bytes(const std::string& bytes) {
  return {ZType::I1, {static_cast<std::uint32_t>(bytes.size())}, {bytes.begin(), bytes.end()}};
}

/// Text as it is, bytes as hexadecimal digits, numbers with blanks between, nested items in
/// parentheses.
std::string Say(const ZValue& value) {
  if (value.Type() == ZType::C1) return value.Text();
  std::ostringstream text;
  if (value.Type() == ZType::I1) {
    for (const int byte : value.Data()) text << std::hex << (byte >> 4) << (byte & 15);
    return text.str();
  }
  const char* between = "";
  for (std::uint64_t i = 0; i < value.Count(); ++i, between = value.IsNested() ? "," : " ") {
    text << between;
    value.IsNested() ? text << Say(value.At(i)) : text << value.Integer(i);
  }
  return value.IsNested() ? "(" + text.str() + ")" : text.str();
}

ZValue Decode(const TestRoot& root, const std::string& der, int details) {
  const ZValue pair =
      root.Certs({{"Type", "Decode"}, {"Source", Bytes(der)}, {"Details", details}});
  EXPECT_EQ(pair.At(0), ZValue(der)) << "the bytes as characters";
  EXPECT_EQ(pair.At(1).Count(), 10u);
  return pair.At(1);
}

/// OID, critical flag and value of each row.
std::map<std::string, std::string> Rows(const ZValue& matrix) {
  std::map<std::string, std::string> rows;
  EXPECT_EQ(matrix.Shape().at(1), 3u);
  for (std::uint64_t i = 0; i < matrix.Count(); i += 3)
    rows[matrix.At(i).Text()] = Say(matrix.At(i + 1)) + " " + Say(matrix.At(i + 2));
  return rows;
}

/// What openssl says of a certificate, behind the first '=' of each line.
Lines Asked(const Pki& pki, const std::string& name, const Lines& questions) {
  Words words{"x509", "-in", pki.Cert(name), "-noout", "-nameopt", "RFC2253"};
  for (const std::string& question : questions) words.push_back("-" + question);
  pki.OpenSsl(words);
  std::istringstream said(Content(pki.folder + "/said"));
  Lines answers;
  for (std::string line; std::getline(said, line);)
    answers.push_back(line.substr(line.find('=') + 1));
  return answers;
}

/// A date of openssl in local time: as text, and as numbers.
std::pair<std::string, std::string> LocalTime(const std::string& gmt) {
  tm parts{};
  strptime(gmt.c_str(), "%b %d %H:%M:%S %Y", &parts);
  const time_t when = timegm(&parts);
  char text[26];
  localtime_r(&when, &parts);
  std::string numbers;
  for (const int n : {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                      parts.tm_min, parts.tm_sec})
    numbers += std::to_string(n) + " ";
  return {asctime_r(&parts, text), numbers + "0"};
}

TEST(DecodedCertificates, SayWhatOpensslSays) {
  const Pki pki;
  pki.Make("ca2", {.issuer = "ca2",
                   .subject = "/O=Kyrno/CN=Authority",
                   .isCa = true,
                   .more = "basicConstraints = critical,CA:TRUE,pathlen:2\n"
                           "subjectKeyIdentifier = 0A0B0C"});
  pki.Make("leaf", {.issuer = "ca2",
                    .subject = "/C=DE/O=Gr\xC3\xB6\xC3\x9F"
                               "e, Inc/CN=a.example",
                    .names = "DNS:a.example,IP:10.1.2.3,email:x@y.z,URI:https://a/",
                    .serial = "12345678",
                    .more = "subjectKeyIdentifier = 010203\n"
                            "keyUsage = critical,digitalSignature,keyAgreement,decipherOnly\n"
                            "extendedKeyUsage = serverAuth,1.2.3.4\n"
                            "crlDistributionPoints = URI:http://c\n"
                            "nsComment = note"});
  const TestRoot root;
  const std::string der = pki.Der("leaf");
  const ZValue people = Decode(root, der, 1);
  const ZValue raw = Decode(root, der, 0);
  const Lines said = Asked(pki, "leaf", {"subject", "issuer", "startdate", "enddate"});

  EXPECT_EQ(Say(people.At(kVersion)) + Say(raw.At(kVersion)), "33");
  EXPECT_EQ(Say(people.At(kSerial)), "305419896");
  EXPECT_EQ(Say(raw.At(kSerial)), "12345678");
  EXPECT_EQ(Say(people.At(kSignature)), "(ECDSA-SHA256,)");
  EXPECT_EQ(Say(raw.At(kSignature)), "(1.2.840.10045.4.3.2,)");
  EXPECT_EQ(Say(people.At(kIssuer)), "O=Kyrno,CN=Authority");
  EXPECT_EQ(Say(people.At(kSubject)),
            "C=DE,O=Gr\xC3\xB6\xC3\x9F"
            "e\\, Inc,CN=a.example");
  for (const std::uint64_t name : {std::uint64_t{kIssuer}, std::uint64_t{kSubject}}) {
    EXPECT_EQ(raw.At(name).Type(), ZType::I1);
    EXPECT_NE(der.find(raw.At(name).Bytes()), std::string::npos);
    EXPECT_EQ(raw.At(name).Bytes().substr(0, 1), "0");
  }
  for (const std::size_t end : {0U, 1U}) {
    const auto& [text, numbers] = LocalTime(said.at(2 + end));
    EXPECT_EQ(Say(people.At(kValidity).At(end)), text);
    EXPECT_EQ(Say(raw.At(kValidity).At(end)), numbers);
  }

  const std::string curve("\x06\x08\x2a\x86\x48\xce\x3d\x03\x01\x07");
  for (const bool isRaw : {false, true}) {
    const ZValue key = (isRaw ? raw : people).At(kKey);
    EXPECT_EQ(Say(key.At(0)), isRaw ? "1.2.840.10045.2.1" : "EC/ECDSA");
    EXPECT_EQ(Say(key.At(1)), curve);
    EXPECT_EQ(key.Integer(2), 256);
    const ZValue bits = key.At(3);
    const std::string point(bits.Data().begin(), bits.Data().end());
    EXPECT_EQ(bits.Type(), ZType::Bit);
    EXPECT_EQ(bits.Count(), 8u * 65);
    EXPECT_NE(der.find(std::string("\x03\x42\0", 3) + point), std::string::npos);
  }

  using Expected = std::map<std::string, std::string>;
  EXPECT_EQ(
      Rows(people.At(kExtensions)),
      (Expected{{"2.5.29.14", "0 \1\2\3"},
                {"2.5.29.35", "0 \x0A\x0B\x0C"},
                {"2.5.29.15", "1 32904"},
                {"2.5.29.37", "0 (1.3.6.1.5.5.7.3.1,1.2.3.4)"},
                {"2.5.29.17", "0 (a.example,\x0A\1\2\3,x@y.z,https://a/)"},
                {"2.5.29.31", std::string("0 0\x10") + "0\x0E\xA0\x0C\xA0\x0A\x86\x08http://c"},
                {"2.16.840.1.113730.1.13", "0 \x16\4note"}}));
  EXPECT_EQ(Rows(raw.At(kExtensions)),
            (Expected{{"2.5.29.14", "0 0403010203"},
                      {"2.5.29.35", "0 300580030a0b0c"},
                      {"2.5.29.15", "1 0303078880"},
                      {"2.5.29.37", "0 300f06082b0601050507030106032a0304"},
                      {"2.5.29.17",
                       "0 30248209612e6578616d706c6587040a010203810578"
                       "40792e7a860a68747470733a2f2f612f"},
                      {"2.5.29.31", "0 3010300ea00ca00a8608687474703a2f2f63"},
                      {"2.16.840.1.113730.1.13", "0 16046e6f7465"}}));
  EXPECT_EQ(Rows(Decode(root, pki.Der("ca2"), 1).At(kExtensions))["2.5.29.19"], "1 1 2");
}

TEST(DecodedCertificates, ComeWholeHoweverLargeAPartIs) {
  const Pki pki;
  std::string names, subject;
  for (int i = 0; i < 400; ++i)
    names += (i ? ",DNS:host" : "DNS:host") + std::to_string(1000 + i) + ".example";
  for (int i = 0; i < 80; ++i) subject += "/OU=" + std::string(60, static_cast<char>('a' + i % 26));
  const std::string comment(5000, 'c');
  pki.Make("large", {.subject = subject + "/CN=large",
                     .key = "rsa:4096",
                     .names = names,
                     .more = "nsComment = " + comment});
  const TestRoot root;
  const std::string der = pki.Der("large");
  ASSERT_GT(der.size(), 4096u * 4);

  const ZValue read = root.Certs({{"Type", "DER"}, {"Source", pki.Cert("large")}});
  EXPECT_EQ(read, Args({Bytes(der)}));
  const ZValue people = Decode(root, der, 1);
  EXPECT_EQ(people.At(kKey).Integer(2), 4096);
  EXPECT_EQ(people.At(kKey).At(3).Count(), 8u * 526);
  EXPECT_EQ(people.At(kSubject).Text().size(), 80 * 64 + std::string("CN=large").size());
  const ZValue matrix = people.At(kExtensions);
  EXPECT_NE(Rows(matrix)["2.5.29.17"].find(",host1399.example)"), std::string::npos);
  EXPECT_NE(Rows(matrix)["2.16.840.1.113730.1.13"].find(comment), std::string::npos);
  EXPECT_EQ(Decode(root, der, 0).At(kSubject).Count(), 80u * 71 + 20);
}

TEST(DecodedCertificates, OfUnusualFormAreReadAllTheSame) {
  const Pki pki;
  pki.Make("bare", {.extensions = false, .serial = "1122334455667788"});
  const TestRoot root;
  std::string der = pki.Der("bare");
  const ZValue bare = Decode(root, der, 1);
  EXPECT_EQ(bare.At(kExtensions).Shape(), (std::vector<std::uint32_t>{0, 3}));
  EXPECT_EQ(bare.At(7), ZValue("")) << "no unique identifier";
  EXPECT_EQ(bare.At(8), ZValue(""));

  const std::size_t at = der.find("\x02\x08\x11\x22") + 2;
  for (const auto& [serial, text] : std::map<std::string, std::string>{
           {"ff22334455667788", "-62431076246194296"}, {"0000000000000000", "0"}}) {
    for (std::size_t i = 0; i < 8; ++i)
      der[at + i] = static_cast<char>(std::stoi(serial.substr(2 * i, 2), nullptr, 16));
    EXPECT_EQ(Say(Decode(root, der, 1).At(kSerial)), text);
    EXPECT_EQ(Say(Decode(root, der, 0).At(kSerial)), serial);
  }
}

TEST(ACerts, ReadsAllCertificatesOfAFile) {
  const Pki pki;
  pki.Make("leaf");
  const TestRoot root;
  const ZValue both = Args({Bytes(pki.Der("leaf")), Bytes(pki.Der("ca"))});
  EXPECT_EQ(root.Certs({{"Type", "der"}, {"Source", pki.Chain("both", {"leaf", "ca"})}}), both);
  pki.Der("leaf");
  EXPECT_EQ(root.Run("ACerts", Args({"DER", pki.folder + "/der"})), Args({0, Args({both.At(0)})}));
  for (const char* none : {"nothing", ""})
    EXPECT_EQ(root.Certs({{"Type", "DER"}, {"Source", *none ? pki.folder + none : none}}),
              ZValue());
  EXPECT_EQ(root.Certs({{"Type", "URLs"}}).Shape(), (std::vector<std::uint32_t>{0, 4}));
}

TEST(ACerts, TellsWhatIsWrong) {
  const Pki pki;
  const std::string der = pki.Der("ca");
  const TestRoot root;
  const ZValue cut = Bytes(der.substr(0, der.size() - 1));
  const struct {
    const char* what;
    Options options;
    int code;
  } cases[] = {
      {"no type", {{"Source", pki.Cert("ca")}}, 1005},
      {"a type that isn't served", {{"Type", "Folder"}}, 1005},
      {"the other", {{"Type", "PK#12"}}, 1005},
      {"no such type", {{"Type", "PEM"}}, 1045},
      {"no such option", {{"Kind", "DER"}}, 1045},
      {"no file", {{"Type", "DER"}}, 1037},
      {"a file of something else", {{"Type", "DER"}, {"Source", pki.Key("ca")}}, 1207},
      {"a folder", {{"Type", "DER"}, {"Source", pki.folder}}, 1039},
      {"a zero in the name", {{"Type", "DER"}, {"Source", std::string("a\0b", 3)}}, 1039},
      {"a name of 251", {{"Type", "DER"}, {"Source", std::string(251, 'n')}}, 1081},
      {"no text", {{"Type", "DER"}, {"Source", ZValue(ZType::C1, {1, 1}, {'a'})}}, 1082},
      {"no certificate", {{"Type", "Decode"}}, 1046},
      {"one cut", {{"Type", "Decode"}, {"Source", cut}}, 1207},
      {"PEM", {{"Type", "Decode"}, {"Source", Content(pki.Cert("ca"))}}, 1207},
      {"a number", {{"Type", "Decode"}, {"Source", 7}}, 1207},
      {"details by name", {{"Type", "Decode"}, {"Source", cut}, {"Details", "some"}}, 1045},
      {"another decoder", {{"Type", "Decode"}, {"Source", cut}, {"DecodeApi", "other"}}, 1045},
  };
  for (const auto& c : cases)
    EXPECT_EQ(root.Code("ACerts", host::OptionList(c.options)), c.code) << c.what;
}

TEST(DecodeCert, AnswersLikeACertsInAnyFormOfTheBytes) {
  const Pki pki;
  const std::string der = pki.Der("ca");
  const TestRoot root;
  std::vector<std::int16_t> wide;
  for (const char c : der) wide.push_back(static_cast<unsigned char>(c));
  const ZValue forms[] = {Bytes(der), der, ZValue::Vector(ZType::I2, wide)};
  for (const int details : {0, 1}) {
    const ZValue expected = Args({der, Decode(root, der, details)});
    for (const ZValue& form : forms)
      EXPECT_EQ(root.GetProp(".", "DecodeCert", {Args({"Cert", form}), Args({"Info", details})}),
                expected);
    EXPECT_EQ(root.GetProp(".", "decodecert", {forms[0], details, "GNU"}), expected);
  }
  EXPECT_EQ(root.Code("AGetProp", Args({".", "DecodeCert"})), 1046);
  EXPECT_EQ(root.Code("AGetProp", Args({".", "DecodeCert", Bytes("0")})), 1207);
  EXPECT_EQ(root.Code("AGetProp", Args({".", "DecodeCert", forms[0], 1, "other"})), 1045);
  EXPECT_EQ(root.Code("AGetProp", Args({".", "DecodeCert", Args({"Certificate", forms[0]})})),
            1045);
}

TEST(Certificates, AreNotLookedAtWithoutTheSupportLibrary) {
  RunApart([] {
    setenv("KYRNOSSL_LIBRARY", "/nonexistent/library.so", 1);
    const TestRoot root;
    for (const char* type : {"DER", "Decode", "URLs", "Folder"})
      EXPECT_EQ(root.Code("ACerts", host::OptionList({{"Type", type}})), 1205) << type;
    EXPECT_EQ(root.Code("AGetProp", Args({".", "DecodeCert", Bytes("0")})), 1205);
  });
}

}  // namespace
}  // namespace support
