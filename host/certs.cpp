// certs.cpp - the certificates of a file, decoded by the library and set out for people.
#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

#include "host/commands.h"

namespace host {

namespace {

/// Where the parts of a decoded certificate stand.
enum Part { Version, Serial, Signature, Issuer, Validity, Subject, Key, IssuerId, SubjectId, More };

// The extensions that the library takes apart.
constexpr char kConstraints[] = "2.5.29.19";
constexpr char kUsage[] = "2.5.29.15";
constexpr char kPurposes[] = "2.5.29.37";
constexpr char kNames[] = "2.5.29.17";

struct Known {
  const char* oid;
  const char* name;
};
constexpr Known kKnown[] = {
    {kConstraints, "basic constraints"},
    {kUsage, "key usage"},
    {kPurposes, "extended key usage"},
    {kNames, "subject alternative names"},
    {"2.5.29.14", "subject key identifier"},
    {"2.5.29.35", "authority key identifier"},
    {"2.5.29.31", "CRL distribution points"},
    {"2.5.29.32", "certificate policies"},
    {"1.3.6.1.5.5.7.1.1", "authority information access"},
    {"1.3.6.1.5.5.7.3.1", "TLS server"},
    {"1.3.6.1.5.5.7.3.2", "TLS client"},
};

struct Usage {
  int bit;
  const char* name;
};
constexpr Usage kUsages[] = {
    {128, "digital signature"}, {64, "non repudiation"}, {32, "key encipherment"},
    {16, "data encipherment"},  {8, "key agreement"},    {4, "certificate signing"},
    {2, "CRL signing"},         {1, "encipher only"},    {32768, "decipher only"},
};

std::string NameOf(const std::string& oid) {
  for (const Known& known : kKnown)
    if (oid == known.oid) return known.name;
  return oid;
}

std::string Hex(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (!text.empty()) text += ':';
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

/// A peer's text, which could be anything: what a terminal would not show as it stands is replaced.
std::string Shown(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
  return text;
}

/// A subject alternative name; an address comes as its bytes.
std::string AltName(const std::string& name) {
  const bool isText =
      std::all_of(name.begin(), name.end(), [](unsigned char c) { return c > ' ' && c < 0x7F; });
  char text[INET6_ADDRSTRLEN];
  const int family = name.size() == 4 ? AF_INET : name.size() == 16 ? AF_INET6 : 0;
  if (isText) return name;
  return family && inet_ntop(family, name.data(), text, sizeof text) ? text : Hex(name);
}

Json Usages(std::int64_t bits) {
  Json names = Json::array();
  for (const Usage& usage : kUsages)
    if (bits & usage.bit) names.push_back(usage.name);
  return names;
}

Json ExtensionValue(const std::string& oid, const ZValue& value) {
  if (oid == kUsage) return Usages(value.Integer());
  if (oid == kConstraints) {
    Json limits = {{"ca", value.Integer(0) != 0}};
    if (value.Integer(1) >= 0) limits["pathLength"] = value.Integer(1);
    return limits;
  }
  if (oid != kPurposes && oid != kNames) return Hex(value.Text());
  Json list = Json::array();
  for (const ZValue& item : value.Items())
    list.push_back(oid == kNames ? AltName(item.Text()) : item.Text());
  return list;
}

std::string WithoutNewline(std::string text) {
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

Json ToObject(const ZValue& info) {
  const ZValue key = info.At(Key);
  Json object = {{"subject", Shown(info.At(Subject).Text())},
                 {"issuer", Shown(info.At(Issuer).Text())},
                 {"serial", info.At(Serial).Text()},
                 {"notBefore", WithoutNewline(info.At(Validity).At(0).Text())},
                 {"notAfter", WithoutNewline(info.At(Validity).At(1).Text())},
                 {"key", {{"algorithm", key.At(0).Text()}, {"bits", key.Integer(2)}}},
                 {"signature", info.At(Signature).At(0).Text()},
                 {"version", info.Integer(Version)}};
  for (const Part id : {IssuerId, SubjectId})
    if (const std::string bits = info.At(id).Text(); !bits.empty())
      object[id == IssuerId ? "issuerUniqueId" : "subjectUniqueId"] = Hex(bits);
  Json extensions = Json::array();
  const ZValue matrix = info.At(More);
  for (std::uint64_t i = 0; i < matrix.Count(); i += 3) {
    const std::string oid = matrix.At(i).Text();
    extensions.push_back({{"oid", oid},
                          {"name", NameOf(oid)},
                          {"critical", matrix.Integer(i + 1) != 0},
                          {"value", ExtensionValue(oid, matrix.At(i + 2))}});
  }
  object["extensions"] = std::move(extensions);
  return object;
}

/// What a value of the object looks like on its line.
std::string OneLine(const Json& value) {
  if (value.is_string()) return NameOf(value.get<std::string>());
  if (value.is_array()) {
    std::string all;
    for (const Json& item : value) all += (all.empty() ? "" : ", ") + OneLine(item);
    return all;
  }
  if (!value.is_object()) return Print(value);
  if (value.contains("bits"))
    return OneLine(value["algorithm"]) + ", " + Print(value["bits"]) + " bits";
  const std::string kind = value["ca"] ? "CA" : "no CA";
  return value.contains("pathLength") ? kind + ", path length " + Print(value["pathLength"]) : kind;
}

/// The object as lines, one for each part and each extension.
std::string ToLines(const Json& object) {
  constexpr std::size_t kWidth = 30;
  std::string text;
  const auto add = [&](std::string name, const std::string& value) {
    name.resize(std::max(kWidth, name.size() + 1), ' ');
    text += name + value + '\n';
  };
  for (const auto& [name, value] : object.items())
    if (name != "extensions") add(name, OneLine(value));
  for (const Json& extension : object["extensions"])
    add(OneLine(extension["name"]) + (extension["critical"] ? " (critical)" : ""),
        OneLine(extension["value"]));
  return text;
}

}  // namespace

int Certs(const Console& console, const Settings& settings, const std::string& file) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  const ZValue all = session.Certs({{"Type", "DER"}, {"Source", file}});
  if (all.Count() == 0) throw std::runtime_error("no certificate in " + file);
  for (const ZValue& der : all.Items()) {
    const ZValue decoded =
        session.Certs({{"Type", "Decode"}, {"Source", der}, {"Details", 1}}).At(1);
    const Json object = ToObject(decoded);
    console.Say(ToLines(object), object);
  }
  return 0;
}

}  // namespace host
