// interfaces_test.cpp - everything that others know the library by is there and has an effect: its
// entries, commands, magic values, files and settings. What each does in full is for other tests.
#include <cmath>
#include <ctime>
#include <filesystem>
#include <functional>
#include <regex>

#include "tests/support/link.h"
#include "tests/support/zcode.h"

namespace support {
namespace {

constexpr char kRoot[] = "R";

/// The names that the library is linked to export.
std::set<std::string> Exported() {
  const std::string map = Content(KYRNO_SOURCES "/kyrno.map");
  const std::regex name(R"(\n +(\w+);)");
  std::set<std::string> names;
  for (std::sregex_iterator at(map.begin(), map.end(), name), end; at != end; ++at)
    names.insert((*at)[1]);
  return names;
}

/// What a command on a root answers to a text; `classic`: in the caller's own character set.
int Ask(const FreshLibrary& library, const char* command, const std::string& text,
        bool classic = false) {
  const zcode::Bytes bytes =
      classic ? zcode::Block(zcode::Simple(zcode::CHAR, {1}, {text.begin(), text.end()}), 0xA0)
              : zcode::Block(zcode::Text(text));
  std::vector<std::uint32_t> z(bytes.size() / 4);
  memcpy(z.data(), bytes.data(), bytes.size());
  host::ZBlock result;
  const int code = library.Call(kRoot, command, z.data(), &result);
  return code != 0 ? code : result.Code();
}

/// One piece of a stream through cflate, 0 to compress and 1 to decompress.
std::string Cflate(const FreshLibrary& library, int op, const std::string& text) {
  std::string out(1000, '\0');
  void* session = nullptr;
  auto inSize = static_cast<std::uint32_t>(text.size());
  auto outSize = static_cast<std::uint32_t>(out.size());
  const int code = library.Entry<decltype(::cflate)>("cflate")(
      op + 2, &session, reinterpret_cast<const std::uint8_t*>(text.data()), &inSize,
      reinterpret_cast<std::uint8_t*>(out.data()), &outSize, 6);
  return code == 0 ? out.substr(0, outSize) : "code " + std::to_string(code);
}

TEST(Interfaces, EveryEntryIsThereAndWorks) {
  const FreshLibrary library;
  const auto init = library.Entry<decltype(::Init)>("Init");
  const auto kick = library.Entry<decltype(::KickStart)>("KickStart");
  using CALL = decltype(::Call);
  const auto calls = [&](const char* name) {
    auto z = ZValue(".").Encode();
    std::uint32_t* right = z.data();
    std::uint32_t* left = nullptr;
    EXPECT_EQ(library.Entry<CALL>(name)(kRoot, "ATree", &right, &left), 0) << name;
    EXPECT_NE(right, z.data()) << name;
    const auto give = library.Entry<decltype(::FreeUsedTessorResult)>("FreeUsedTessorResult");
    give(right);
    give(left);
  };
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"onLoad", [&] { library.Entry<decltype(::onLoad)>("onLoad")(); }},
      {"Version",
       [&] {
         std::uint32_t v[3];
         EXPECT_EQ(library.Entry<decltype(::Version)>("Version")(v), 30201503);
         EXPECT_EQ(v[2], 1503U);
       }},
      {"Init", [&] { EXPECT_EQ(init(kRoot, ""), 0); }},
      {"Call", [&] { calls("Call"); }},
      {"Call1", [&] { calls("Call1"); }},
      {"Call2", [&] { calls("Call2"); }},
      {"FreeUsedTessorResult", [&] { calls("Call"); }},
      {"ErrorText", [&] { EXPECT_EQ(library.Error("", 1503).name, "ERR_ZEPH_INI_NOT_FOUND"); }},
      {"SetXLate",
       [&] {
         std::string same(256, '\0');
         for (int i = 0; i < 256; ++i) same[static_cast<std::size_t>(i)] = static_cast<char>(i);
         std::string other = same;
         std::swap(other['#'], other['.']);
         EXPECT_EQ(Ask(library, "ATree", "#", true), 1010);
         const auto set = library.Entry<decltype(::SetXLate)>("SetXLate");
         EXPECT_EQ(set("APL", "HOST", other.data(), other.data()), 0);
         EXPECT_EQ(Ask(library, "ATree", "#", true), 0);
         set("APL", "HOST", same.data(), same.data());
       }},
      {"GetXLate",
       [&] {
         std::string there(256, '\0');
         std::string back = there;
         const auto get = library.Entry<decltype(::GetXLate)>("GetXLate");
         EXPECT_EQ(get("SAME", "SAME", there.data(), back.data()), 0);
         EXPECT_EQ(there['A'], 'A');
         EXPECT_EQ(get("SAME", "OTHER", there.data(), back.data()), 1091) << "no translate file";
       }},
      {"KickStart", [&] { EXPECT_EQ(kick(kRoot), 0); }},
      {"Micros",
       [&] {
         const double seconds = library.Entry<decltype(::Micros)>("Micros")() / 1e6;
         EXPECT_LT(std::abs(seconds - static_cast<double>(std::time(nullptr))), 10);
       }},
      {"cflate",
       [&] { EXPECT_EQ(Cflate(library, 1, Cflate(library, 0, "some text")), "some text"); }},
      {"Zeph2Init",
       [&] {
         const auto zeph = library.Entry<decltype(::Zeph2Init)>("Zeph2Init");
         const TKYRNOFNS* const table = zeph(nullptr);
         ASSERT_TRUE(table);
         EXPECT_EQ(table->pZeph2Enable(0), 0);
         EXPECT_EQ(table->pZeph2Enable(1), 1503) << "without settings there is no file";
         EXPECT_EQ(table->pZeph2Send(nullptr, 0), 1008);
         EXPECT_EQ(init(kZephRoot, ""), 1043) << "it has a root of its own";
         EXPECT_EQ(zeph(nullptr), table);
       }},
      {"onUnload",
       [&] {
         library.Entry<decltype(::onUnload)>("onUnload")();
         EXPECT_EQ(kick(kRoot), 1006);
         library.Entry<decltype(::onLoad)>("onLoad")();
       }},
  };
  std::set<std::string> names;
  for (const auto& [name, works] : rows) {
    SCOPED_TRACE(name);
    names.insert(name);
    works();
  }
  EXPECT_EQ(names, Exported());
}

TEST(Interfaces, EveryCommandIsThere) {
  const FreshLibrary library;
  EXPECT_EQ(library.Init(kRoot), 0);
  EXPECT_EQ(Ask(library, "NoSuch", "x"), 1003);
  for (const char* command : {"AWaitZ", "ASrv", "AClt", "ASendZ", "ARespondZ", "AClose", "ATree",
                              "ASetProp", "AGetProp", "ASetRelay", "ACerts"}) {
    const int code = Ask(library, command, "x");
    EXPECT_NE(code, 1003) << command;
    EXPECT_GE(code, 1000) << command << " refuses what it is given";
  }
}

TEST(Interfaces, EveryProtocolBeginsAsOthersKnowIt) {
  Link link({{"ZEPH\\INIT", "http:127.0.0.1:0"}}, "");
  ASSERT_EQ(link.Enable(1), 0);
  RawPeer web(link.Port("HttpServer"));
  web.Send(kWebSocketRequest);
  const std::string upgrade = web.Receive(129);
  EXPECT_EQ(upgrade.find("HTTP/1.1 101 "), 0U);
  EXPECT_NE(upgrade.find("s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"), std::string::npos);
  EXPECT_EQ(web.Receive(22), "\x81\x14SupportedProtocols=2");

  RawListener listener;
  const host::Session root(link.library, kRoot);
  root.Client(AtPort(listener.Port(), "command", "C", {}));
  RawPeer peer = listener.Accept();
  root.Send("C", "x");
  EXPECT_EQ(peer.Receive(16).substr(8), "Kyrno000");
}

TEST(Interfaces, EveryFileAndSettingCounts) {
  const TempFolder home;
  const std::string log = home.File("other.log", "");
  home.File("kyrno.log", "");
  home.File("zeph.ini",
            "[Zeph]\nDirection=listen\naddress=127.0.0.1\nport=0\nTrace=4098\n"
            "Logfilename=" +
                log + "\n");
  std::filesystem::create_directory(home.path + "/.tessor");
  const std::string was = std::getenv("HOME");
  setenv("HOME", home.path.c_str(), 1);

  // "kyrno.ini" names the log and its level; without a name it is "kyrno.log" where we are.
  const auto here = std::filesystem::current_path();
  for (const std::string& name : {log, home.path + "/kyrno.log"}) {
    const std::string file = name == log ? "File=" + log + "\n" : "";
    home.File(".tessor/kyrno.ini", "[Logging]\n" + file + "Option=/M0xfffffff0/T1\n");
    std::filesystem::current_path(home.path);
    { const FreshLibrary library; }
    EXPECT_NE(Content(name).find("Kyrno loaded"), std::string::npos) << name;
  }
  std::filesystem::current_path(here);
  std::filesystem::remove(home.path + "/.tessor/kyrno.ini");

  {  // The link's settings, and its file under the name that it has unless it is told another.
    Link link({{"ZEPH\\INIT", "config"}, {"TESSORUSERDIR", home.path}, {"TESSOR", "/tmp/x"}});
    EXPECT_EQ(link.Enable(1), 0);
    EXPECT_NE(Content(log).find("3.2.1503.0"), std::string::npos);
  }
  setenv("KYRNOSSL_LIBRARY", "/nonexistent/library.so", 1);
  {
    Link link({});
    EXPECT_EQ(Cflate(link.library, 0, "x"), "code 1205");
    EXPECT_EQ(link.Enable(1), 1503);
    const std::set<std::string> asked{"TESSOR", "ZEPH\\INIT", "ZEPH\\LISTEN", "ZEPH\\CONNECT"};
    for (const std::string& key : asked) EXPECT_EQ(link.Asked().count(key), 1U) << key;
  }
  unsetenv("KYRNOSSL_LIBRARY");
  setenv("HOME", was.c_str(), 1);
}

}  // namespace
}  // namespace support
