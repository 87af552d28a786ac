// linkconfig.h - the settings that an interpreter has for the link, from the command line.
//
//   --init, --listen, --connect   "ZEPH\\INIT", "ZEPH\\LISTEN", "ZEPH\\CONNECT"
//   --config, --user-dir          "ZEPH\\CONFIGURATION", "TESSORUSERDIR": where the file is
//   neither of these two          a file "zeph.ini" of this program's own, with the other options
//                                 as its keys, in a folder that goes when the program ends
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace host {

struct LinkOptions {
  std::string init{};
  std::string listen{};
  std::string connect{};
  std::string config{};
  std::string userDir{};

  // Keys of the file that is made.
  std::string pages{};
  bool secure = false;
  bool anonymous = false;
  std::string cert{};
  std::string key{};  ///< empty: in the file of the certificate
  std::string caDir{};
  std::string accept{};
  std::optional<std::uint32_t> maxBlock{};
  std::optional<std::uint32_t> magic{};
  std::optional<std::pair<std::uint32_t, std::uint32_t>> keepAlive{};  ///< time, interval
};

/// Throws std::invalid_argument with what is missing, or what contradicts.
void CheckLink(const LinkOptions& options);

/// The file that is made. Throws std::invalid_argument for what no line of it can hold.
std::string LinkFile(const LinkOptions& options);

/// Owner:  the command; the file is there as long as this is.
/// Errors: std::system_error when the file cannot be made.
class LinkConfig {
 public:
  LinkConfig(const LinkOptions& o, std::string loadPath);
  ~LinkConfig();
  LinkConfig(const LinkConfig&) = delete;
  LinkConfig& operator=(const LinkConfig&) = delete;

  /// What the link gets when it asks for a setting; empty for one that is not known.
  std::string Setting(const std::string& name) const;

 private:
  const LinkOptions options;
  const std::string loadPath;
  std::string folder;  // of the own file; empty without one
};

}  // namespace host
