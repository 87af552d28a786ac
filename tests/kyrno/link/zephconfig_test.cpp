// zephconfig_test.cpp - the settings of the interpreter, the file, and what they give together.
#include "kyrno/link/zephconfig.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "kyrno/base/error.h"
#include "kyrno/tls/tlscredentials.h"
#include "tests/kyrno/tls/certtexts.h"

namespace {

namespace fs = std::filesystem;
using SETTINGS = std::map<std::string, std::string>;

/// A folder with a file and an interpreter with settings.
class ZephConfig : public ::testing::Test {
 protected:
  ZephConfig() { settings = {{"TESSORUSERDIR", folder}}; }
  ~ZephConfig() override {
    ClearConfig(&config);
    fs::remove_all(folder);
  }

  std::string File(const std::string& name, const std::string& content) const {
    const std::string path = folder + "/" + name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << content;
    return path;
  }
  /// Reads what the file says below [Zeph], into a fresh record.
  SI4 Read(const std::string& content) {
    settings["ZEPH\\CONFIGURATION"] = File("my.ini", "[Zeph]\n" + content);
    return Read();
  }
  SI4 Read() {
    ClearConfig(&config);
    config.CommConfig = [](PCH1 key, PCH1 out, size_t size) {
      return snprintf(out, size, "%s", settings[key].c_str());
    };
    return Zeph2ReadConfigfile(&config, roots, sessions);
  }
  static inline SETTINGS settings;
  char pattern[32] = "/tmp/kyrno_zephconfig_XXXXXX";
  const std::string folder = mkdtemp(pattern);
  tZeph2Config config{};
  const REF<RootCerts> roots{new RootCerts};
  const REF<SessionCache2> sessions{new SessionCache2(1)};
};

TEST_F(ZephConfig, TheFirstSettingThatIsThereGivesTheDirectionAndTheFile) {
  File("my.ini", "[Zeph]\nDirection=poll\naddress=far\nport=7\nProtocol=ipv4\n");
  File("zeph.ini", "[Zeph]\nMagic=5\n");
  const std::string my = folder + "/my.ini", zeph = folder + "/zeph.ini";
  const struct {
    SETTINGS settings;
    TDirection direction;
    std::string address, file;
    UI4 port;
  } rows[] = {
      {{{"INIT", "serve:*:1"}, {"LISTEN", "b:2"}, {"CONFIGURATION", my}}, DIRListen, "*", zeph, 1},
      {{{"INIT", "config:" + my}, {"CONNECT", "c:3"}}, DIRPoll, "far", my, 7},
      {{{"LISTEN", "b:2[ipv6]"}, {"CONNECT", "c:3"}, {"CONFIGURATION", my}}, DIRListen, "b", my, 2},
      {{{"CONNECT", "c"}}, DIRConnect, "c", "", kZephPort},
      {{{"CONFIGURATION", my}}, DIRPoll, "far", my, 7},
  };
  for (const auto& row : rows) {
    settings = {{"TESSORUSERDIR", folder}};
    for (const auto& [key, value] : row.settings) settings["ZEPH\\" + key] = value;
    SCOPED_TRACE(row.file);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(config.Direction, row.direction);
    EXPECT_STREQ(config.pAddress, row.address.c_str());
    EXPECT_EQ(config.ConfigFile, row.file);
    EXPECT_EQ(config.Port, row.port);
    EXPECT_EQ(config.Protocol, row.file == my ? PIPv4 : PAny);  // the file's, whatever came before
    EXPECT_EQ(config.Magic, row.file == zeph ? 5 : ZEPHMAGIC);
  }
}

TEST_F(ZephConfig, AMistakeInASettingRefusesEveryLaterOne) {
  settings["ZEPH\\INIT"] = "serve:*:1x";
  EXPECT_EQ(Read(), ERR_PARSE_ZEPH_INIT);  // text that is left over is none
  settings["ZEPH\\INIT"] = "serve:*:1";
  EXPECT_EQ(Read(), 0);
  const auto readBad = [this] {
    settings["ZEPH\\INIT"] = "serve::70000";
    bool good = Read() == ERR_PARSE_ZEPH_INIT && config.Port == UINT32_MAX;
    settings["ZEPH\\LISTEN"] = "b:2";
    good = good && Read() == 1506;
    settings["ZEPH\\CONNECT"] = "c:3";
    return good && Read() == 1507 && config.Direction == DIRUndefined;
  };
  // In a process of its own: nothing takes a mistake back.
  EXPECT_EXIT(std::exit(readBad() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(ZephConfig, ReadsTheFileWithItsDefaultsAndMovesTheRecord) {
  ASSERT_EQ(Read("Direction=LISTEN\n"), 0);
  EXPECT_EQ(config.Direction, DIRListen);
  EXPECT_EQ(config.Port, kZephPort);
  EXPECT_EQ(config.MaxBlockSize, ZEPHMAXBLOCKSIZE);
  EXPECT_STREQ(config.pHttpDir, kZephHttpDir);
  ASSERT_EQ(Read("Direction=http\naddress=h\nMaxBlockSize=9\nSSLValidation=3\nProtocol=IPv6\n"
                 "PublicCertData=a\nPublicCertFile=b\nPrivateKeyData=c\nPrivateKeyFile=d\n"
                 "RootCertDir=e\nPriority=f\nLogfilename=g\nHttpDir=/pages\nMagic=0\nTrace=-1\n"
                 "AcceptCertDir=/none\nKeepAliveTime=10\nKeepAliveInterval=20\n"),
            0);
  tZeph2Config moved{};
  moved.lError = 5;
  ASSERT_TRUE(SetText(&moved.pAddress, "former"));
  MoveConfig(&moved, &config);
  const std::vector<UI4> numbers = {moved.Direction, moved.MaxBlockSize, moved.SSLValidation,
                                    moved.Protocol,  moved.Magic,        moved.Trace,
                                    moved.KAtime,    moved.KAint};
  EXPECT_EQ(numbers, (std::vector<UI4>{DIRHttp, 9, 3, PIPv6, 0, UINT32_MAX, 10, 20}));
  std::string texts;
  for (const PCH1 text : {moved.pAddress, moved.pPublicCertData, moved.pPublicCertFile,
                          moved.pPrivateKeyData, moved.pPrivateKeyFile, moved.pRootCertDir,
                          moved.pPriority, moved.pLogfilename, moved.pHttpDir})
    texts += text;
  EXPECT_EQ(texts, "habcdefg/pages");
  EXPECT_EQ(moved.pAcceptCertDir, nullptr);  // it is for secure links
  EXPECT_EQ(moved.lError, 5);
  EXPECT_EQ(config.pHttpDir, nullptr);
  ClearConfig(&moved);
}

TEST_F(ZephConfig, FailsForWhatItCannotMeanAndReadsAnew) {
  SslUnload();
  UnloadKyrnossl();
  // 131 bytes of a line are read. Cut there, the last range would hold half the world.
  const std::string tail = "=10.0.0.1,1.2.3.4/1";
  const std::string line = "Ipv4" + std::string(131 - 4 - tail.size(), ' ') + tail;
  const struct {
    std::string content;
    SI4 code;
  } rows[] = {
      {"", ERR_ZEPH_INI_NOT_FOUND},
      {"Direction=http\nMaxBlockSize=8\n", ERR_ARG_INVALID},
      {"Direction=http\nMaxBlockSize=-1\n", ERR_ARG_INVALID},
      {"Direction=http\nSecure= secure\n", ERR_ARG_INVALID},
      {"Direction=http\nSecure=secure\n", ERR_NO_SSL_SUPPORT},
      {"Direction=http\n[AllowEndpoints]\nIpv6=10.0.0.1\n", ERR_INVALID_ADDR},
      {"Direction=http\n[DenyEndpoints]\nIpv6=::1\nIpv4=10.0.0.0/33\n", ERR_INVALID_ADDR},
      {"Direction=http\n[DenyEndpoints]\n" + line + "6\n", ERR_INVALID_ADDR},
      {"Direction=http\n[DenyEndpoints]\n" + line, 0},
      {"Direction=http\n[DenyEndpoints]\n" + line + "\r\n", 0},
      // What would be passed over: the end of a long line, a second section or key, one that begins
      // like the key, and heads that do not stand in front.
      {"Direction=http\n;" + std::string(130, ';') + "[x]\nSecure=secure\n", ERR_ARG_INVALID},
      {"Direction=http\nAcceptCertDir=" + std::string(117, '/') + "x\n", ERR_ARG_INVALID},
      {"Direction=http\n[Zeph]\nSecure=secure\n", ERR_ARG_INVALID},
      {"Direction=http\nSecured=no\nSecure=secure\n", ERR_ARG_INVALID},
      {"Direction=http\n [AllowEndpoints]\nIpv4=10.0.0.1\n", ERR_ARG_INVALID},
      {"Direction=http\n[DenyEndpoints]\nIpv4=10.0.0.1\nIpv4=10.0.0.2\n", ERR_INVALID_ADDR},
      {"Direction=http\n[ContentTypes]\njson=a/b\njs=a/c\n;" + std::string(200, ' ') + "\n", 0},
      {"Direction=http\nport=-1\n", 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content);
    EXPECT_EQ(Read(row.content), row.code);
    EXPECT_EQ(config.Direction, row.code ? DIRUndefined : DIRHttp);
    EXPECT_EQ(config.pAllow, nullptr);
    EXPECT_EQ(config.pDeny != nullptr, !row.code && row.content.find(line) != std::string::npos);
  }
  EXPECT_EQ(config.Port, UINT32_MAX);  // no server can have it

  settings["ZEPH\\CONFIGURATION"] = folder + "/nowhere.ini";
  EXPECT_EQ(Read(), ERR_ZEPH_INI_NOT_FOUND);
  settings["ZEPH\\CONNECT"] = "c:3";
  EXPECT_EQ(Read(), 0);
  settings["ZEPH\\CONFIGURATION"] = folder;  // it is there, and cannot be read
  EXPECT_EQ(Read(), ERR_ZEPH_INI_NOT_FOUND);
  settings["ZEPH\\INIT"] = "connect:c:3,config:" + folder + "/nowhere.ini";
  EXPECT_EQ(Read(), ERR_ZEPH_INI_NOT_FOUND);  // who names a file wants what it says
}

/// What was made with GnuTLS goes before that does.
class SecureZephConfig : private GNUTLSHOLD, public ZephConfig {};

TEST_F(SecureZephConfig, ASecureLinkHasItsCertificateAndItsPeersOrFails) {
  const std::string cert = File("cert", Pem(kLeaf)),
                    key = File("key", Pem(kLeafKey, "EC PRIVATE KEY"));
  File("peers/a.pem", Pem(kLeaf));
  fs::create_directory(folder + "/empty");
  const std::string own = "PublicCertFile=" + cert + "\nPrivateKeyFile=" + key + "\n";
  const std::string peers = "AcceptCertDir=" + folder + "/peers\n";

  ASSERT_EQ(Read("Direction=listen\nSecure=Secure\nSSLValidation=1\n" + own + peers), 0);
  EXPECT_EQ(config.pCert->flagOption.load(), 1u | 64 | 128);
  EXPECT_TRUE(config.pCert->saved);  // shared by all that is made of it
  EXPECT_EQ(config.pCert->pRootCerts.Get(), roots.Get());
  EXPECT_EQ(config.pAcceptCertList->CertCount(), 1);
  ASSERT_EQ(Read("Direction=listen\nSecure=anonymous\nSSLValidation=195\n" + own + peers), 0);
  EXPECT_EQ(config.pCert->flagOption.load(), 3u | 256);  // asks nobody
  EXPECT_EQ(config.pAcceptCertList, nullptr);
  ASSERT_EQ(Read("Direction=poll\nSecure=anonymous\nSSLValidation=195\n"), 0);
  EXPECT_EQ(config.pCert->flagOption.load(), 3u);
  EXPECT_EQ(config.pCert->saved->Sessions(), sessions.Get());
  ASSERT_EQ(Read("Direction=http\nSecure=secure\n"), 0);
  EXPECT_FALSE(config.pCert->saved);  // its server says that it has no certificate

  const struct {
    std::string content;
    SI4 code;
  } rows[] = {
      {"PublicCertFile=" + folder + "/none\n", ERR_INVALID_CERTIFICATE},
      {"PublicCertFile=" + cert + "\nPrivateKeyFile=" + cert + "\n", ERR_INVALID_CERTIFICATE},
      {"PrivateKeyFile=" + key + "\n", ERR_INVALID_CERTIFICATE},
      {"PublicCertFile=" + cert + "\nPrivateKeyFile=URL:none\n", ERR_INVALID_CERTIFICATE},
      {own + "RootCertDir=" + folder + "/empty\n", ERR_ZERO_CERTS_FOUND},
      {own + "AcceptCertDir=" + folder + "/empty\n", ERR_ZERO_CERTS_FOUND},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.content);
    EXPECT_EQ(Read("Direction=connect\nSecure=secure\n" + row.content), row.code);
    EXPECT_EQ(config.Direction, row.code ? DIRUndefined : DIRConnect);
  }
}

}  // namespace
