// linkconfig_test.cpp - the settings of the link from the command line, and the file that is made.
#include "host/linkconfig.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

using host::LinkConfig;
using host::LinkOptions;

std::string Content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(LinkConfig, MakesAFileOfTheOptionsAndTakesItAwayAgain) {
  const std::string head = "[Zeph]\nDirection=listen\n";
  const struct {
    LinkOptions options;
    std::string lines;
  } kCases[] = {
      {{.init = "serve:*:4502"}, ""},
      {{.init = "http::0", .pages = "site"}, "HttpDir=site\n"},
      {{.connect = "h", .secure = true, .cert = "c", .caDir = "t", .accept = "a"},
       "Secure=secure\nPublicCertFile=c\nPrivateKeyFile=c\nRootCertDir=t\nAcceptCertDir=a\n"},
      {{.listen = "*", .anonymous = true, .cert = "c", .key = "URL:pkcs11:x"},
       "Secure=anonymous\nPublicCertFile=c\nPrivateKeyFile=URL:pkcs11:x\n"},
      {{.init = "serve::", .maxBlock = 1000, .magic = 0, .keepAlive = {{60000, 1000}}},
       "MaxBlockSize=1000\nMagic=0\nKeepAliveTime=60000\nKeepAliveInterval=1000\n"},
  };
  for (const auto& c : kCases) {
    std::string path;
    {
      const LinkConfig config(c.options, "/lib");
      path = config.Setting("ZEPH\\CONFIGURATION");
      EXPECT_EQ(config.Setting("TESSORUSERDIR") + "/zeph.ini", path);
      EXPECT_EQ(Content(path), head + c.lines);
      EXPECT_EQ(config.Setting("ZEPH\\INIT"), c.options.init);
    }
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path).parent_path()));
  }
}

TEST(LinkConfig, LeavesAFileThatIsNamedToItsOwner) {
  const struct {
    LinkOptions options;
    const char *init, *userDir, *file;
  } kCases[] = {
      {{.init = "serve::", .config = "f"}, "serve::,config:f", "", "f"},
      {{.listen = "*", .config = "f"}, "", "", "f"},
      {{.init = "poll::", .userDir = "u"}, "poll::", "u", "u/zeph.ini"},
      {{.init = "poll::,CONFIG:f"}, "poll::,CONFIG:f", "", ""},
  };
  for (const auto& c : kCases) {
    const LinkConfig config(c.options, "/lib");
    EXPECT_EQ(config.Setting("ZEPH\\INIT"), c.init);
    EXPECT_EQ(config.Setting("TESSORUSERDIR"), c.userDir);
    EXPECT_EQ(config.Setting("ZEPH\\CONFIGURATION"), c.file);
  }
}

TEST(LinkConfig, RefusesOptionsThatWouldBeWithoutEffect) {
  const LinkOptions kBad[] = {
      {},
      {.init = "serve::", .config = "f", .secure = true},
      {.init = "serve::,config:f", .pages = "site"},
      {.init = "config", .secure = true, .cert = "c"},
      {.init = "serve::", .userDir = "u", .magic = 1},
      {.init = "serve::", .secure = true, .anonymous = true},
      {.init = "serve::", .cert = "c"},
      {.init = "serve::", .anonymous = true, .accept = "a"},
      {.init = "serve::", .secure = true, .key = "k"},
  };
  for (const LinkOptions& options : kBad)
    EXPECT_THROW(host::CheckLink(options), std::invalid_argument)
        << options.init << ' ' << &options - kBad;
  EXPECT_NO_THROW(host::CheckLink({.init = "serve:*:4502"}));
  EXPECT_NO_THROW(host::CheckLink({.init = "connect:config:4502", .pages = "site"}));
  EXPECT_NO_THROW(host::CheckLink({.config = "f"}));

  EXPECT_THROW(host::LinkFile({.pages = std::string(123, 'x')}), std::invalid_argument);
  EXPECT_NO_THROW(host::LinkFile({.pages = std::string(122, 'x')}));
  EXPECT_THROW(host::LinkFile({.pages = "a\nSecure=no"}), std::invalid_argument);
}

}  // namespace
