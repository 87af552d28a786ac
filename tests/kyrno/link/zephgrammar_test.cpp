// zephgrammar_test.cpp - the texts that say where the link connects or listens.
#include "kyrno/link/zephgrammar.h"

#include <gtest/gtest.h>

#include <string>

#include "kyrno/link/zephconfig.h"

namespace {

using std::string;
using namespace std::string_literals;

/// Reads one text by both grammars' names, into a record that goes with it.
struct RECORD {
  RECORD(bool isInit, const string& text) {
    config.Direction = isInit ? DIRUndefined : DIRListen;
    const string more = text + ":1[ipv6]";  // behind the end, and not looked at
    if (isInit)
      ParseZephInit(text.c_str(), &config, &mistake);
    else
      rs_parse(more.data(), more.data() + text.size(), &config, &mistake);
  }
  ~RECORD() { ClearConfig(&config); }

  tZeph2Config config{};
  bool mistake = false;
};

constexpr bool kInit = true, kEndpoint = false;
const string long512(512, 'a'), path1023(1023, 'p');

TEST(ZephGrammar, ReadsDirectionAddressPortProtocolAndFile) {
  const struct {
    bool isInit;
    string text;
    TDirection direction;
    string address{};
    UI4 port = kZephPort;
    PROTOCOL protocol = PAny;
    string file{};
  } rows[] = {
      {kInit, "serve::4502", DIRListen},
      {kInit, "serve:*:4502", DIRListen, "*"},
      {kInit, "http:*:8080", DIRHttp, "*", 8080},
      {kInit, "CONNECT:[::1]:4502", DIRConnect, "::1"},
      {kInit, "connect::", DIRConnect},  // and not "localhost"
      {kInit, "poll: h o s t :65535", DIRPoll, "host", 65535},
      {kInit, "poll:[ fe80 :: 1 ]:", DIRPoll, "fe80::1"},
      {kInit, "serve:a,b:0", DIRListen, "a,b", 0},
      {kInit, "connect:" + long512 + ":1", DIRConnect, long512, 1},
      {kInit, "config", DIRConfig, "", 0, PIPv4},
      {kInit, "Config:/x y/z.ini", DIRConfig, "", 0, PIPv4, "/x y/z.ini"},
      {kInit, "config,http::1,config:" + path1023, DIRHttp, "", 1, PAny, path1023},
      {kEndpoint, "", DIRListen},
      {kEndpoint, "host", DIRListen, "host"},
      {kEndpoint, "*:0", DIRListen, "*", 0},
      {kEndpoint, "[::1]:1", DIRListen, "::1", 1},
      {kEndpoint, ":1[ipv6]", DIRListen, "", 1, PIPv6},
      {kEndpoint, "host:[ipv4]", DIRListen, "host", kZephPort, PIPv4},
      {kEndpoint, "host:1[dual]", DIRListen, "host", 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 40));
    const RECORD record(row.isInit, row.text);
    EXPECT_EQ(record.config.Direction, row.direction);
    EXPECT_STREQ(record.config.pAddress, row.address.empty() ? nullptr : row.address.c_str());
    EXPECT_EQ(record.config.Port, row.port);
    EXPECT_EQ(record.config.Protocol, row.protocol);
    EXPECT_EQ(record.config.ConfigFile, row.file);
    EXPECT_FALSE(record.mistake);
  }
}

TEST(ZephGrammar, RefusesWhatItCannotReadAndTellsMistakesFromTextThatIsLeftOver) {
  const auto expect = [](bool isInit, const string& text, bool mistake) {
    SCOPED_TRACE(text.substr(0, 40));
    const RECORD record(isInit, text);
    EXPECT_EQ(record.config.Direction, DIRUndefined);
    EXPECT_EQ(record.config.pAddress, nullptr);
    EXPECT_EQ(record.config.ConfigFile[0], 0);
    EXPECT_EQ(record.mistake, mistake);
    EXPECT_EQ(record.config.Port == UINT32_MAX, text.find(":7") != string::npos);
  };
  for (const char* left : {"serve:*:45x", "configz"}) expect(kInit, left, false);
  for (const char* left : {"host:1[dual]x", "host:1x"}) expect(kEndpoint, left, false);
  for (const string& bad :
       {""s, " serve::1"s, "listen::1"s, "poll"s, "poll,config:z"s, "poll:host"s, "poll:[::1]"s,
        "poll:[::1"s, "poll:[[::1]:1"s, "poll:a]b:1"s, "poll: [::1]:1"s, "serve::1,"s,
        "serve::1,http::2"s, "config:a,config:b"s, "config:a[b"s, "serve::70000"s,
        "serve:[[]:7294967297"s, "connect:" + long512 + "a:1", "config:" + path1023 + "p"})
    expect(kInit, bad, true);
  for (const string& bad : {"[::1]"s, "host[ipv6]"s, "host:1[ipv5]"s, "host:1[ipx6]"s, "host:1[ip"s,
                            "host:1[ipv6"s, "host:70000"s, long512 + "a"})
    expect(kEndpoint, bad, true);
}

}  // namespace
