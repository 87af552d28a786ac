// zephini.cpp - the configuration file of the link.
#include "kyrno/link/zephini.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

/// Looks for what would be passed over. Of the keys it knows those that keep somebody out.
class INICHECK {
 public:
  /// The next piece of a line. False when something of it would be lost.
  bool Take(PCH10 piece) {
    const size_t n = strlen(piece);
    const size_t line = strcspn(piece, "\r");
    const bool isOne = line + 1 >= n || piece[line + 1] == '\n';  // other ends of lines are none
    const bool good = isOne && (isWhole ? Begin(piece) : GoOn(piece));
    isWhole = n > 0 && piece[n - 1] == '\n';
    return good;
  }
  bool IsFilter() const { return section > 0; }

 private:
  static constexpr CH1 kByteOrderMark[] = "\xEF\xBB\xBF";
  static constexpr PCH10 kSections[] = {"Zeph", "AllowEndpoints", "DenyEndpoints"};
  static constexpr struct {
    int first, last;  // of the sections that have it
    PCH10 key;
  } kKeys[] = {{0, 0, "Secure"},        {0, 0, "AcceptCertDir"}, {0, 0, "RootCertDir"},
               {0, 0, "SSLValidation"}, {0, 0, "HttpDir"},       {0, 0, "Protocol"},
               {1, 2, "Ipv4"},          {1, 2, "Ipv6"}};
  static constexpr size_t kSectionCount = std::size(kSections);

  bool Begin(PCH10 line) {
    PCH10 at = line;
    if (strncmp(at, kByteOrderMark, sizeof kByteOrderMark - 1) == 0)
      at += sizeof kByteOrderMark - 1;
    at += strspn(at, " \t");
    isValue = false;
    if (*at == '[') return at == line && BeginSection(at + 1);
    isValue = *at != ';' && strchr(at, '=');
    return !isValue || section < 0 || Key(at, strcspn(at, " =\t"));
  }
  bool GoOn(PCH10 piece) const {
    if (*piece == '\r' || *piece == '\n') return true;
    if (*piece == '[') return false;
    return section < 0 || (!isValue && !strchr(piece, '='));
  }
  bool BeginSection(PCH10 name) {
    section = -1;
    for (size_t i = 0; i < kSectionCount; ++i) {
      const size_t n = strlen(kSections[i]);
      if (strncasecmp(name, kSections[i], n) == 0 && name[n] == ']') section = static_cast<int>(i);
    }
    memset(seen, 0, sizeof seen);
    return section < 0 || !std::exchange(seenSection[section], true);
  }
  bool Key(PCH10 key, size_t n) {
    for (size_t i = 0; i < std::size(kKeys); ++i) {
      const auto& row = kKeys[i];
      const size_t length = strlen(row.key);
      if (section < row.first || section > row.last || strncasecmp(key, row.key, length) != 0)
        continue;
      if (n != length || std::exchange(seen[i], true)) return false;
    }
    return true;
  }

  bool isWhole = true;   // the piece before ended its line
  bool isValue = false;  // the line is a key with its value
  int section = -1;      // of kSections
  bool seenSection[kSectionCount] = {};
  bool seen[std::size(kKeys)] = {};
};

}  // namespace

INIFILE::INIFILE(PCH10 name) : file(fopen(name, "re")) {
  mayLack = file || errno == ENOENT || errno == ENOTDIR;
}

SI4 INIFILE::Check(bool mustBe) const {
  if (!file) return mustBe || !mayLack ? ERR_ZEPH_INI_NOT_FOUND : 0;
  INICHECK check;
  CH1 piece[INISTRSIZE];
  while (fgets(piece, sizeof piece, file.get())) {
    if (check.Take(piece)) continue;
    LOG(1, ("This line would be lost: %s", piece));
    return check.IsFilter() ? ERR_INVALID_ADDR : ERR_ARG_INVALID;
  }
  return ferror(file.get()) ? ERR_ZEPH_INI_NOT_FOUND : 0;
}

PCH10 INIFILE::Text(PCH10 section, PCH10 key, PCH10 missing) {
  memset(text, 0, sizeof text);
  PLATIni(section, key, missing, text, sizeof text - 1, file.get());
  return text;
}

UI4 INIFILE::Number(PCH10 key, UI4 missing) {
  if (!*Text(key)) return missing;
  return static_cast<UI4>(
      std::clamp(strtol(text, nullptr, 10), static_cast<long>(INT32_MIN), long{UINT32_MAX}));
}
