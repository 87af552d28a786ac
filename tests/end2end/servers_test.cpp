// servers_test.cpp - servers as objects: pausing, address filters, properties, and what happens
// when a port or the descriptors run out.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "tests/support/rawpeer.h"
#include "tests/support/session.h"

namespace support {
namespace {

using host::Options;
using host::ZValue;
using Lines = std::vector<std::string>;

constexpr int kListen = 3;
constexpr int kListenPaused = 20;

int SetPause(const TestRoot& root, int value) {
  return root.Code("ASetProp", Args({"S", "Pause", value}));
}

TEST(ServerPause, KeepsPeersInTheKernelUntilItEnds) {
  const TestRoot root;
  const int port = root.Serve("command");
  EXPECT_EQ(SetPause(root, 1), 0);
  const RawPeer peer(port);
  EXPECT_EQ(root.State("S"), kListenPaused);
  EXPECT_EQ(root.Port("S"), port);
  EXPECT_EQ(root.Wait("S", 0).code, 100);
  EXPECT_EQ(SetPause(root, 0), 0);
  EXPECT_EQ(root.Told("S"), "Connect S.CON00000000 0");
}

TEST(ServerPause, MayGiveUpThePortAndListensAnew) {
  const TestRoot root;
  const int port = root.Serve("command");
  RawPeer early(port);
  EXPECT_EQ(root.Next("S").event, "Connect");
  EXPECT_EQ(SetPause(root, 2), 0);
  EXPECT_TRUE(Eventually([&] { return root.State("S") == kListenPaused; }));
  EXPECT_EQ(root.Code("AGetProp", Args({"S", "LocalAddr"})), 1132);
  EXPECT_THROW(RawPeer{port}, std::exception);
  early.Send(Ipm{kIpmCommand, "a", ZBytes(1), ""}.Bytes());
  EXPECT_EQ(root.Told("S"), "Receive S.CON00000000.a 1") << "connections stay";

  EXPECT_EQ(SetPause(root, 0), 0);
  EXPECT_EQ(root.State("S"), kListen);
  const RawPeer late(root.Port("S"));
  EXPECT_EQ(root.Told("S"), "Connect S.CON00000001 0");
}

TEST(ServerPause, RefusesValuesAndStatesThatItDoesNotKnow) {
  const TestRoot root;
  root.Serve("text");
  EXPECT_EQ(SetPause(root, 0), 1103);
  EXPECT_EQ(SetPause(root, 1), 0);
  EXPECT_EQ(SetPause(root, 3), 1037);
  EXPECT_EQ(SetPause(root, -1), 1037);
  EXPECT_EQ(root.GetProp("S", "Pause").Integer(), 1) << "the last one that was taken";
}

/// A filter and two peers: whether each of them gets through.
struct Filter {
  const char* what;
  Options options;
  bool one;  // 127.0.0.1
  bool two;  // 127.0.0.2
};

ZValue V4(const char* text) { return Args({Args({"ipv4", text})}); }
ZValue V6(const char* text) { return Args({Args({"ipv6", text})}); }

TEST(ServerFilter, LetsThroughWhomItAllowsAndDoesNotDeny) {
  const Filter filters[] = {
      {"none", {}, true, true},
      {"allow one", {{"AllowEndpoints", V4("127.0.0.1")}}, true, false},
      {"allow a range", {{"AllowEndpoints", V4("10.0.0.0/8,127.0.0.0/31")}}, true, false},
      {"allow others", {{"AllowEndpoints", V4("10.0.0.0/8")}}, false, false},
      {"deny one", {{"DenyEndpoints", V4("127.0.0.2/32")}}, true, false},
      {"deny all", {{"DenyEndpoints", V4("0.0.0.0/0")}}, false, false},
      {"deny wins",
       {{"AllowEndpoints", V4("127.0.0.0/8")}, {"DenyEndpoints", V4("127.0.0.1")}},
       false,
       true},
      {"allow nobody in particular", {{"AllowEndpoints", V4("")}}, true, true},
      {"allow IPv6 only says nothing of IPv4", {{"AllowEndpoints", V6("::1")}}, true, true},
      {"both families",
       {{"AllowEndpoints", Args({Args({"IPv6", "::1"}), Args({"IPv4", "127.0.0.2"})})}},
       false,
       true},
  };
  for (const Filter& f : filters)
    for (const char* protocol : {"ipv4", "ip"}) {  // the second sees its peers as mapped addresses
      const TestRoot root;
      Options options{{"Name", "S"},
                      {"Address", "127.0.0.1"},
                      {"Port", "0"},
                      {"Protocol", protocol},
                      {"Mode", "text"}};
      options.insert(options.end(), f.options.begin(), f.options.end());
      root.Server(options);
      std::vector<RawPeer> peers;
      for (const auto& [from, passes] : {std::pair{"127.0.0.1", f.one}, {"127.0.0.2", f.two}}) {
        const std::string name = "S.CON0000000" + std::to_string(peers.size());
        peers.emplace_back(root.Port("S"), from);
        if (passes)
          EXPECT_EQ(root.Told("S"), "Connect " + name + " 0") << f.what;  // refused ones leave gaps
        else
          EXPECT_EQ(peers.back().ReceiveAll(), "") << f.what;
      }
      EXPECT_EQ(root.Wait("S", 0).code, 100) << f.what;
    }
}

TEST(ServerFilter, ThatCannotBeReadCreatesNothing) {
  const struct {
    ZValue value;
    int code;
  } cases[] = {
      {V4("127.0.0"), 1132},
      {V4("localhost"), 1132},
      {V4("127.0.0.1 "), 1132},
      {V4("127.0.0.1,,10.0.0.1"), 1132},
      {V4("127.0.0.1,bad"), 1132},
      {V4("127.0.0.1/"), 1132},
      {V4("127.0.0.1/x"), 1132},
      {V4("127.0.0.1/8x"), 1132},
      {V4("127.0.0.1/-1"), 1132},
      {V4("::1"), 1132},
      {V6("127.0.0.1"), 1132},
      {V6("::g"), 1132},
      {Args({Args({"ipv4", "127.0.0.1"}), Args({"ipv6", "bad"})}), 1132},
      {"127.0.0.1", 1037},
      {7, 1037},
      {Args({Args({"ipx", "127.0.0.1"})}), 1037},
      {Args({Args({"ipv4", "127.0.0.1", "more"})}), 1037},
      {Args({Args({"ipv4"})}), 1037},
      {Args({"ipv4"}), 1037},
  };
  const TestRoot root;
  for (const auto& c : cases)
    for (const char* option : {"AllowEndpoints", "DenyEndpoints"}) {
      EXPECT_EQ(
          root.Code("ASrv", host::OptionList({{"Name", "S"}, {"Port", "0"}, {option, c.value}})),
          c.code);
      EXPECT_EQ(root.Children("."), Lines{});
    }
}

Lines Words(const ZValue& value) {
  Lines words;
  for (const ZValue& item : value.Items()) words.push_back(item.Text());
  return words;
}

TEST(Properties, AreListedInTheirOrder) {
  const TestRoot root;
  root.Dial("command", root.Serve("command"));
  const std::string peer = root.Next("S").name;
  root.Send("C.cmd", 1);
  const Lines connection{"CompLevel", "LocalAddr", "Magic",   "OwnCert",
                         "PeerAddr",  "PeerCert",  "PropList"};
  const struct {
    std::string name;
    Lines words;
  } cases[] = {{".",
                {"CompLevel", "DecodeCert", "ErrorText", "HttpDate", "PropList", "Protocol",
                 "ReadyStrategy", "RootCertDir", "TCPLookup", "EventMode"}},
               {"S",
                {"CompLevel", "ConnectionOnly", "Hostname", "LocalAddr", "KeepAlive", "OwnCert",
                 "Pause", "PropList"}},
               {"C", connection},
               {peer, connection},
               {"C.cmd", {"PropList"}}};
  for (const auto& c : cases) {
    EXPECT_EQ(Words(root.GetProp(c.name, "pROPlIST")), c.words) << c.name;
    EXPECT_EQ(root.Code("AGetProp", Args({c.name, "NoSuch"})), 1037) << c.name;
    EXPECT_EQ(root.Code("ASetProp", Args({c.name, "NoSuch", 1})), 1037) << c.name;
  }
}

TEST(Properties, OfAServerTellAboutIt) {
  const TestRoot root;
  const int port = root.Serve("command");
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  EXPECT_EQ(root.GetProp("S", "HostName").Text(), name);
  EXPECT_EQ(root.GetProp("S", "CompLevel").Rank(), 0U);
  EXPECT_EQ(root.Code("ASetProp", Args({"S", "CompLevel", 1})), 1037);
  const ZValue address = root.GetProp("S", "LocalAddr");
  EXPECT_EQ(address.At(0).Text(), "IPv4");
  EXPECT_EQ(address.At(1).Text(), "127.0.0.1:" + std::to_string(port));
  EXPECT_EQ(address.At(2).Integer(3), 1);

  EXPECT_EQ(root.Code("ASetProp", Args({"S", "FIFOMode", 1})), 1005);
  EXPECT_EQ(root.GetProp("S", "FIFOMode").Integer(), 0);

  EXPECT_EQ(root.GetProp(".", "ReadyStrategy").Integer(), 2);
  root.SetProp("S", "ConnectionOnly", 1);
  EXPECT_EQ(root.GetProp("S", "ConnectionOnly").Integer(), 1);
  EXPECT_EQ(root.GetProp(".", "ReadyStrategy").Integer(), 4);
  root.SetProp("S", "ConnectionOnly", 0);
  EXPECT_EQ(root.GetProp(".", "ReadyStrategy").Integer(), 4) << "it is not put back";
}

TEST(Properties, OfAConnectionTellAboutItsEnds) {
  const TestRoot root;
  const int port = root.Serve("blkraw", {{"Magic", 17}});
  root.Dial("blkraw", port, {{"Magic", 17}});
  const std::string peer = root.Next("S").name;
  EXPECT_EQ(root.GetProp("C", "PeerAddr"), root.GetProp(peer, "LocalAddr"));
  EXPECT_EQ(root.GetProp("C", "LocalAddr"), root.GetProp(peer, "PeerAddr"));
  EXPECT_EQ(root.GetProp("C", "PeerAddr").At(3).Integer(), port);
  EXPECT_EQ(root.GetProp(peer, "Magic").Integer(), 17);
  root.SetProp("C", "CompLevel", 1000);
  EXPECT_EQ(root.GetProp("C", "CompLevel").Integer(), 9);
  for (const char* none : {"Token", "IWA"})
    EXPECT_EQ(root.Code("AGetProp", Args({"C", none})), 1005) << none;
  for (const char* none : {"IWA", "Token", "Impersonate", "MakeFile"})
    EXPECT_EQ(root.Code("ASetProp", Args({"C", none, 1})), 1005) << none;
}

TEST(Properties, KeepAliveReachesTheSocketsOfLaterPeersAndOfOnesOwn) {
  const TestRoot root;
  const int port = root.Serve("text");
  const auto idle = [](const RawPeer& peer) {
    int on = 0;
    int seconds = 0;
    socklen_t size = sizeof on;
    getsockopt(peer.OtherEnd(), SOL_SOCKET, SO_KEEPALIVE, &on, &size);
    getsockopt(peer.OtherEnd(), IPPROTO_TCP, TCP_KEEPIDLE, &seconds, &size);
    return on ? seconds : 0;
  };
  const RawPeer early(port);
  const std::string earlyName = root.Next("S").name;
  root.SetProp("S", "KeepAlive", ZValue::Vector<std::int32_t>(host::ZType::I4, {30000, 5000}));
  const ZValue kept = root.GetProp("S", "KeepAlive");
  EXPECT_EQ(kept.Integer(0), 30000);
  EXPECT_EQ(kept.Integer(1), 5000);
  const RawPeer late(port);
  EXPECT_EQ(root.Next("S").event, "Connect");
  EXPECT_EQ(idle(early), 0);
  EXPECT_EQ(idle(late), 30);

  root.SetProp(earlyName, "KeepAlive", 12000);
  EXPECT_EQ(idle(early), 12);
}

TEST(Creation, RefusesWhatItCannotMakeAndLeavesNothing) {
  const TestRoot root;
  root.Serve("command", {}, "taken");
  const RawListener busy;
  const struct {
    Options options;
    int code;
  } cases[] = {
      {{{"Name", "X"}, {"Mode", "websocket"}}, 1125},
      {{{"Name", "X"}, {"Mode", "http"}}, 1015},
      {{{"Name", "X"}, {"Mode", "udp"}}, 1015},
      {{{"Name", "X"}, {"PublicCertFile", "some.pem"}}, 1205},
      {{{"Name", "X"}, {"PublicCertData", "some"}}, 1205},
      {{{"Name", "a.b"}}, 1008},
      {{{"Name", "taken"}}, 1009},
      {{{"Port", "0"}}, 1046},
      {{{"Name", "X"}, {"Protocol", "tcp"}}, 1045},
      {{{"Name", "X"}, {"Port", std::to_string(busy.Port())}, {"Address", "127.0.0.1"}},
       EADDRINUSE},
      {{{"Name", "X"}, {"Port", "nosuchservice"}}, 1107},
      {{{"Name", "X"}, {"Address", "no.such.host.invalid"}}, 1106},
  };
  int i = 0;
  for (const auto& c : cases) {
    EXPECT_EQ(root.Code("ASrv", host::OptionList(c.options)), c.code) << "case " << i;
    EXPECT_EQ(root.Children("."), Lines{"taken"}) << "case " << i++;
  }
  EXPECT_EQ(root.Code("AClt", host::OptionList({{"Name", "taken"}, {"Address", "127.0.0.1"}})),
            1009);
  root.Serve("command", {{"SSLValidation", 32}, {"Priority", "NORMAL"}}, "plain");
}

TEST(Creation, ServersAndClientsCountTheirNamesTogether) {
  const TestRoot root;
  const Options any{{"Name", ""}, {"Address", "127.0.0.1"}, {"Port", "0"}};
  EXPECT_EQ(root.Server(any), "SRV00000000");
  EXPECT_EQ(root.Server(any), "SRV00000001");
  const int port = root.Port("SRV00000000");
  EXPECT_EQ(root.Dial("websocket", port, {}, ""), "CLT00000002");  // one of mode "command"
  EXPECT_EQ(root.Told("SRV00000000"), "Connect SRV00000000.CON00000000 0");
  root.Send("CLT00000002.a", 1);
  EXPECT_EQ(root.Told("SRV00000000"), "Receive SRV00000000.CON00000000.a 1");
  // Options stand for themselves as well, in their order.
  EXPECT_EQ(root.Code("AClt", Args({"D", "127.0.0.1", std::to_string(port)})), 0);
}

TEST(Creation, AClientLearnsThatNobodyListens) {
  const TestRoot root;
  const int port = RawListener().Port();
  EXPECT_EQ(root.Code("AClt", host::OptionList({{"Name", "X"},
                                                {"Address", "127.0.0.1"},
                                                {"Port", std::to_string(port)}})),
            1111);
  EXPECT_EQ(root.Children("."), Lines{});
}

TEST(Descriptors, ThatRunOutNeitherStopNorSpinTheServerAndItRecovers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    const TestRoot root;
    const int port = root.Serve("command");
    RawPeer first(port);
    if (root.Next("S").event != "Connect") _exit(1);

    std::vector<std::unique_ptr<Descriptor>> spare;
    rlimit limit{200, 200};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = dup(0); fd >= 0; fd = dup(0)) spare.push_back(std::make_unique<Descriptor>(fd));
    spare.pop_back();
    RawPeer second(port);  // takes the last one, so that the server has none

    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    if (root.Wait("S", 1000).code != 100) _exit(2);
    getrusage(RUSAGE_SELF, &after);
    const auto micros = [](const rusage& r) {
      return (r.ru_utime.tv_sec + r.ru_stime.tv_sec) * 1000000 + r.ru_utime.tv_usec +
             r.ru_stime.tv_usec;
    };
    if (micros(after) - micros(before) > 300000) _exit(3);

    first.Send(Ipm{kIpmCommand, "a", ZBytes(1), ""}.Bytes());
    if (root.Told("S") != "Receive S.CON00000000.a 1") _exit(4);
    spare.clear();
    if (root.Next("S").event != "Connect") _exit(5);
    _exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace support
