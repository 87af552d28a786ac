// linkconfig.cpp - the settings that an interpreter has for the link.
#include "host/linkconfig.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace host {

namespace {

constexpr char kOwnFile[] = "/zeph.ini";
/// The library reads longer lines in pieces, each as a line of its own.
constexpr std::size_t kMaxLine = 130;

/// Whether the text has an item "config", with a file or without: the file is not ours then.
bool NamesConfig(const std::string& init) {
  constexpr char kWord[] = "config";
  constexpr std::size_t kLength = sizeof kWord - 1;
  for (std::size_t begin = 0; begin <= init.size();) {
    const std::size_t end = std::min(init.find(',', begin), init.size());
    if (strncasecmp(init.c_str() + begin, kWord, kLength) == 0 &&
        (begin + kLength == end || init[begin + kLength] == ':'))
      return true;
    begin = end + 1;
  }
  return false;
}

bool HasOwnFile(const LinkOptions& options) {
  return options.config.empty() && options.userDir.empty() && !NamesConfig(options.init);
}

bool HasKeys(const LinkOptions& o) {
  return !o.pages.empty() || o.secure || o.anonymous || !o.cert.empty() || !o.key.empty() ||
         !o.caDir.empty() || !o.accept.empty() || o.maxBlock || o.magic || o.keepAlive;
}

void AddLine(std::string* file, const std::string& key, const std::string& value) {
  if (value.empty()) return;
  const std::string line = key + '=' + value;
  if (line.size() > kMaxLine || line.find('\n') != std::string::npos)
    throw std::invalid_argument("\"" + value + "\" does not fit a line of the configuration");
  *file += line + '\n';
}

}  // namespace

void CheckLink(const LinkOptions& options) {
  const LinkOptions& o = options;
  const bool anyDirection = !o.init.empty() || !o.listen.empty() || !o.connect.empty();
  if (!anyDirection && HasOwnFile(o))
    throw std::invalid_argument("say where: --init TEXT, --listen TEXT, --connect TEXT, or a file");
  if (HasKeys(o) && !HasOwnFile(o))
    throw std::invalid_argument("the file has keys for the link: leave out the options for them");
  if (o.secure && o.anonymous) throw std::invalid_argument("--secure or --anonymous, not both");
  const bool isTls = o.secure || o.anonymous;
  if (!isTls && !(o.cert.empty() && o.key.empty() && o.caDir.empty() && o.accept.empty()))
    throw std::invalid_argument("certificates are for --secure or --anonymous");
  if (!o.accept.empty() && !o.secure)
    throw std::invalid_argument("--accept needs --secure: nobody is asked otherwise");
  if (o.cert.empty() && !o.key.empty())
    throw std::invalid_argument("--key needs the certificate that it belongs to: --cert FILE");
}

std::string LinkFile(const LinkOptions& options) {
  // A file without a direction counts as none. The one that the settings name goes before it.
  std::string file = "[Zeph]\nDirection=listen\n";
  AddLine(&file, "HttpDir", options.pages);
  AddLine(&file, "Secure", options.secure ? "secure" : options.anonymous ? "anonymous" : "");
  AddLine(&file, "PublicCertFile", options.cert);
  AddLine(&file, "PrivateKeyFile", options.key.empty() ? options.cert : options.key);
  AddLine(&file, "RootCertDir", options.caDir);
  AddLine(&file, "AcceptCertDir", options.accept);
  if (options.maxBlock) AddLine(&file, "MaxBlockSize", std::to_string(*options.maxBlock));
  if (options.magic) AddLine(&file, "Magic", std::to_string(*options.magic));
  if (options.keepAlive) {
    AddLine(&file, "KeepAliveTime", std::to_string(options.keepAlive->first));
    AddLine(&file, "KeepAliveInterval", std::to_string(options.keepAlive->second));
  }
  return file;
}

LinkConfig::LinkConfig(const LinkOptions& o, std::string path)
    : options(o), loadPath(std::move(path)) {
  if (!HasOwnFile(options)) return;
  std::string made = std::filesystem::temp_directory_path() / "kyrno-link-XXXXXX";
  if (!mkdtemp(made.data())) throw std::system_error(errno, std::generic_category(), made);
  folder = made;
  std::ofstream file(folder + kOwnFile);
  file << LinkFile(options) << std::flush;
  if (file) return;
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  throw std::runtime_error("cannot write " + folder + kOwnFile);
}

LinkConfig::~LinkConfig() {
  std::error_code ignored;
  if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
}

std::string LinkConfig::Setting(const std::string& name) const {
  if (name == "TESSOR") return loadPath;
  if (name == "TESSORUSERDIR") return folder.empty() ? options.userDir : folder;
  // "ZEPH\\INIT" looks for its file elsewhere than under "ZEPH\\CONFIGURATION".
  if (name == "ZEPH\\INIT")
    return options.init.empty() || options.config.empty()
               ? options.init
               : options.init + ",config:" + options.config;
  if (name == "ZEPH\\LISTEN") return options.listen;
  if (name == "ZEPH\\CONNECT") return options.connect;
  if (name != "ZEPH\\CONFIGURATION") return "";
  if (!options.config.empty()) return options.config;
  // Without "ZEPH\\INIT" nobody looks in the user's folder.
  const std::string& dir = folder.empty() ? options.userDir : folder;
  return dir.empty() ? "" : dir + kOwnFile;
}

}  // namespace host
