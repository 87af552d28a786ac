// zephconfig_fuzz.cpp - the settings of the link and its configuration file.
//
// The first line of the input is read as "ZEPH_INIT" and as an address with a port, the rest as the
// file. Without GnuTLS: a secure link ends before it opens what the file names.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "kyrno/base/kyrnossl.h"
#include "kyrno/link/zephconfig.h"
#include "kyrno/link/zephgrammar.h"
#include "sys/linux/fdhold.h"

namespace {

std::string path;  // of the file

/// A mistake gives no direction, and a port is one or marks a mistake.
void Check(tZeph2Config* config, bool mistake) {
  const bool refused = config->Direction == DIRUndefined;
  if (mistake && !refused) abort();
  if (config->Port > 65535 && !(refused && config->Port == UINT32_MAX)) abort();
  if (config->pAddress && (refused || strlen(config->pAddress) > 512)) abort();
  if (!memchr(config->ConfigFile, 0, sizeof config->ConfigFile)) abort();
  ClearConfig(config);
}

void ReadTexts(const std::string& text) {
  tZeph2Config config{};
  bool mistake = false;
  ParseZephInit(text.c_str(), &config, &mistake);
  Check(&config, mistake);

  const std::unique_ptr<CH1[]> exact(new CH1[text.size()]);  // so that a byte too much shows
  memcpy(exact.get(), text.data(), text.size());
  config.Direction = DIRListen;
  mistake = false;
  rs_parse(exact.get(), exact.get() + text.size(), &config, &mistake);
  Check(&config, mistake);
}

void ReadFile(const REF<RootCerts>& roots, const REF<SessionCache2>& sessions) {
  tZeph2Config config{};
  config.CommConfig = [](PCH1 key, PCH1 out, size_t size) {
    return strcmp(key, "ZEPH\\CONFIGURATION") == 0 ? snprintf(out, size, "%s", path.c_str()) : 0;
  };
  const SI4 code = Zeph2ReadConfigfile(&config, roots, sessions);
  if (code && config.Direction != DIRUndefined) abort();
  if (code == 0 && (config.Secure != SECPlain || config.MaxBlockSize < 9)) abort();
  ClearConfig(&config);
}

/// Before the library is loaded, which looks for it then: taken away later, the counters that
/// libFuzzer has of it would go too.
__attribute__((constructor(101))) void LeaveOutTls() { setenv("KYRNOSSL_LIBRARY", "none", 1); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  const size_t line = all.find('\n');
  ReadTexts(all.substr(0, line));
  if (line == std::string::npos) return 0;

  const FDHOLD file(memfd_create("zeph", MFD_CLOEXEC));
  if (!file || write(file.Get(), all.data() + line + 1, size - line - 1) < 0) return 0;
  path = "/proc/self/fd/" + std::to_string(file.Get());
  if (KyrnosslLoaded()) abort();
  static const REF<RootCerts> roots(new RootCerts);
  static const REF<SessionCache2> sessions(new SessionCache2(1));
  ReadFile(roots, sessions);
  return 0;
}
