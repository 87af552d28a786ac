// zephconfig.cpp - how the link is to run, from four settings of the interpreter and a file.
#include "kyrno/link/zephconfig.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "kyrno/link/zephcert.h"
#include "kyrno/link/zephgrammar.h"
#include "kyrno/link/zephini.h"
#include "util/freed.h"

static constexpr UI4 MODULE = 0x00001000;

namespace {

constexpr SI4 kBadListen = 1506;
constexpr SI4 kBadConnect = 1507;
constexpr size_t kMaxValue = 2048;
constexpr size_t kMaxKey = 32;  // of a setting
constexpr SI4 kLeastBlock = 9;  // a header and one byte
constexpr UI4 kMaxPort = 65535;
constexpr CH1 kNotFound[] = "notfound";  // of "Direction"

using TEXTFIELD = PCH1 tZeph2Config::*;
using NUMBERFIELD = UI4 tZeph2Config::*;

constexpr struct {
  PCH10 key;
  TEXTFIELD field;
  PCH10 missing;
} kTexts[] = {
    {"PublicCertData", &tZeph2Config::pPublicCertData, ""},
    {"PublicCertFile", &tZeph2Config::pPublicCertFile, ""},
    {"PrivateKeyData", &tZeph2Config::pPrivateKeyData, ""},
    {"PrivateKeyFile", &tZeph2Config::pPrivateKeyFile, ""},
    {"RootCertDir", &tZeph2Config::pRootCertDir, ""},
    {"Priority", &tZeph2Config::pPriority, ""},
    {"Logfilename", &tZeph2Config::pLogfilename, ""},
    {"HttpDir", &tZeph2Config::pHttpDir, kZephHttpDir},
};

constexpr struct {
  PCH10 key;
  NUMBERFIELD field;
  UI4 missing;
} kNumbers[] = {
    {"MaxBlockSize", &tZeph2Config::MaxBlockSize, ZEPHMAXBLOCKSIZE},
    {"SSLValidation", &tZeph2Config::SSLValidation, 0},
    {"Magic", &tZeph2Config::Magic, ZEPHMAGIC},
    {"Trace", &tZeph2Config::Trace, 0},
    {"KeepAliveTime", &tZeph2Config::KAtime, 0},
    {"KeepAliveInterval", &tZeph2Config::KAint, 0},
};

template <typename VALUE>
struct WORD {
  PCH10 word;
  VALUE value;
};
constexpr WORD<TDirection> kDirections[] = {
    {"listen", DIRListen}, {"connect", DIRConnect}, {"poll", DIRPoll}, {"http", DIRHttp}};
constexpr WORD<PROTOCOL> kProtocols[] = {{"ipv4", PIPv4}, {"ipv6", PIPv6}};
constexpr WORD<TSecure> kSecure[] = {
    {"", SECPlain},  {"plain", SECPlain},   {"none", SECPlain},         {"no", SECPlain},
    {"0", SECPlain}, {"secure", SECSecure}, {"anonymous", SECAnonymous}};

/// False for a word that isn't there; *value stays.
template <typename VALUE, size_t N>
bool FindWord(const WORD<VALUE> (&words)[N], PCH10 text, VALUE* value) {
  const auto* const found = std::find_if(
      words, words + N, [text](const auto& one) { return strcasecmp(text, one.word) == 0; });
  if (found == words + N) return false;
  *value = found->value;
  return true;
}

// ---- the settings

/// The file beside the user's own ones. False when its name is too long.
bool UseUsersFile(tZeph2Config* config) {
  CH1 folder[kMaxValue];
  ReadSetting(config->CommConfig, "TESSORUSERDIR", folder, sizeof folder);
  const size_t n = strlen(folder);
  constexpr size_t kSize = sizeof config->ConfigFile;
  const int length = snprintf(config->ConfigFile, kSize, "%s%szeph.ini", folder,
                              n == 0 || folder[n - 1] == '/' ? "" : "/");
  return length >= 0 && static_cast<size_t>(length) < kSize;
}

/// Only where nothing has given a direction yet.
SI4 ReadEndpoint(tZeph2Config* config, PCH10 key, TDirection direction, SI4 refusal) {
  CH1 text[kMaxValue];
  ReadSetting(config->CommConfig, key, text, sizeof text);
  if (!*text || config->Direction != DIRUndefined) return 0;
  config->Direction = direction;
  rs_parse(text, text + strlen(text), config);
  return config->Direction == DIRUndefined ? refusal : 0;
}

/// *isNamed: "ZEPH\\INIT" has given the file. The others are where one may be.
SI4 ReadSettings(tZeph2Config* config, bool* isNamed) {
  SI4 code = 0;
  CH1 text[kMaxValue];
  ReadSetting(config->CommConfig, "ZEPH\\INIT", text, sizeof text);
  if (*text) {
    ParseZephInit(text, config);
    if (config->Direction == DIRUndefined) code = ERR_PARSE_ZEPH_INIT;
    *isNamed = *config->ConfigFile;
    if (!*isNamed && !UseUsersFile(config) && !code) code = ERR_ZEPH_INI_NOT_FOUND;
  }
  // The last refusal counts.
  if (const SI4 refusal = ReadEndpoint(config, "ZEPH\\LISTEN", DIRListen, kBadListen))
    code = refusal;
  if (const SI4 refusal = ReadEndpoint(config, "ZEPH\\CONNECT", DIRConnect, kBadConnect))
    code = refusal;
  if (!*config->ConfigFile)
    ReadSetting(config->CommConfig, "ZEPH\\CONFIGURATION", config->ConfigFile,
                sizeof config->ConfigFile);
  return code;
}

// ---- the file

SI4 ReadDirection(INIFILE* ini, tZeph2Config* config) {
  const PCH10 word = ini->Text("Zeph", "Direction", kNotFound);
  const SI4 code = strcmp(word, kNotFound) == 0 ? ERR_ZEPH_INI_NOT_FOUND : 0;
  FindWord(kDirections, word, &config->Direction);  // any other word changes nothing
  if (!SetText(&config->pAddress, ini->Text("address"))) return ERR_MEMORY_ALLOC;
  const UI4 port = ini->Number("port", kZephPort);
  config->Port = port <= kMaxPort ? port : UINT32_MAX;
  return code;
}

SI4 ReadFile(INIFILE* ini, bool isNamed, tZeph2Config* config) {
  SI4 code = ini->Check(isNamed);
  const auto note = [&code](SI4 other) {
    if (!code) code = other;
  };
  // What comes behind a failure is read as well: the log is among it.
  if (config->Direction == DIRUndefined || config->Direction == DIRConfig)
    note(ReadDirection(ini, config));
  for (const auto& one : kTexts)
    if (!SetText(&(config->*one.field), ini->Text("Zeph", one.key, one.missing)))
      note(ERR_MEMORY_ALLOC);
  for (const auto& one : kNumbers) config->*one.field = ini->Number(one.key, one.missing);
  if (static_cast<SI4>(config->MaxBlockSize) < kLeastBlock) note(ERR_ARG_INVALID);

  config->Protocol = PAny;
  FindWord(kProtocols, ini->Text("Protocol"), &config->Protocol);
  // Whoever writes another word asks for something, and never gets a plain link for it.
  config->Secure = SECPlain;
  if (!FindWord(kSecure, ini->Text("Secure"), &config->Secure)) note(ERR_ARG_INVALID);
  if (config->Secure == SECSecure && !SetText(&config->pAcceptCertDir, ini->Text("AcceptCertDir")))
    note(ERR_MEMORY_ALLOC);
  return code;
}

/// A field that holds a count gets another.
template <typename T>
void Replace(T** field, REF<T> fresh) {
  const REF<T> former(*field);
  *field = fresh.Release();
}

SI4 ReadPeers(INIFILE* ini, PCH10 section, PRANGES* out) {
  static constexpr struct {
    PCH10 key;
    SI4 (RANGES::*load)(PCH10);
  } families[] = {{"Ipv6", &RANGES::SetAddr6}, {"Ipv4", &RANGES::SetAddr4}};

  REF<RANGES> ranges;
  for (const auto& family : families) {
    const PCH10 text = ini->Text(section, family.key);
    if (!*text) continue;
    if (!ranges) ranges = REF<RANGES>(new (std::nothrow) RANGES);
    if (!ranges) return ERR_MEMORY_ALLOC;
    const SI4 code = (ranges.Get()->*family.load)(text);
    if (!code) continue;
    LOG(1, ("%s %s isn't usable: %d", section, family.key, code));
    return code;
  }
  Replace(out, std::move(ranges));
  return 0;
}

SI4 ReadFilters(INIFILE* ini, tZeph2Config* config) {
  const SI4 code = ReadPeers(ini, "AllowEndpoints", &config->pAllow);
  return code ? code : ReadPeers(ini, "DenyEndpoints", &config->pDeny);
}

SI4 ReadAccepted(tZeph2Config* config) {
  if (!config->pAcceptCertDir) return 0;
  std::unique_ptr<CertCollection> list(new (std::nothrow) CertCollection);
  if (!list) return ERR_MEMORY_ALLOC;
  const SI4 count = list->LoadCertsFromDir(config->pAcceptCertDir);
  config->pAcceptCertList = list.release();
  return count < 1 ? ERR_ZERO_CERTS_FOUND : 0;
}

/// Another's values, but for what isn't read.
void Assign(tZeph2Config* to, const tZeph2Config& from) {
  const tZeph2Config kept = *to;
  *to = from;
  to->CommNotify = kept.CommNotify;
  to->CommConfig = kept.CommConfig;
  to->pCurrentConnection = kept.pCurrentConnection;
  to->pConnectThread = kept.pConnectThread;
  to->lError = kept.lError;
}

SI4 Read(tZeph2Config* config, const REF<RootCerts>& roots, const REF<SessionCache2>& sessions) {
  bool isNamed = false;
  SI4 code = ReadSettings(config, &isNamed);
  if (code) return code;
  INIFILE ini(config->ConfigFile);
  code = ReadFile(&ini, isNamed, config);
  if (!code) code = ReadFilters(&ini, config);
  if (!code && !ini.IsWhole()) code = ERR_ZEPH_INI_NOT_FOUND;
  if (!code && config->Secure != SECPlain) code = Zeph2Cert(config, roots, sessions);
  if (!code) code = ReadAccepted(config);
  return code;
}

}  // namespace

void ReadSetting(TCommConfig ask, PCH10 key, PCH1 out, size_t size) {
  memset(out, 0, size);
  CH1 own[kMaxKey];
  snprintf(own, sizeof own, "%s", key);
  if (ask) ask(own, out, size);
  out[size - 1] = 0;
}

SI4 Zeph2ReadConfigfile(tZeph2Config* config, const REF<RootCerts>& roots,
                        const REF<SessionCache2>& sessions) {
  const SI4 code = Read(config, roots, sessions);
  if (code) config->Direction = DIRUndefined;
  return code;
}

SI4 Zeph2Peers(tZeph2Config* config) {
  INIFILE ini(config->ConfigFile);
  const SI4 code = ini.Check(false);
  return code ? code : ReadFilters(&ini, config);
}

bool SetText(PCH1* field, PCH10 text) {
  const bool isEmpty = !text || !*text;
  const TEXT former(*field);
  *field = isEmpty ? nullptr : strdup(text);
  return isEmpty || *field;
}

void MoveConfig(tZeph2Config* to, tZeph2Config* from) {
  ClearConfig(to);
  Assign(to, *from);
  Assign(from, tZeph2Config{});
}

void ClearConfig(tZeph2Config* config) {
  for (const auto& one : kTexts) (void)SetText(&(config->*one.field), nullptr);
  (void)SetText(&config->pAddress, nullptr);
  (void)SetText(&config->pAcceptCertDir, nullptr);
  Replace(&config->pCert, {});
  Replace(&config->pAllow, {});
  Replace(&config->pDeny, {});
  delete config->pAcceptCertList;
  Assign(config, tZeph2Config{});
}
