// servers_test.cpp - servers as objects: pausing, address filters, creation, and what happens when
// a port or the descriptors run out.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <ctime>

#include "tests/support/session.h"

namespace support {
namespace {

constexpr int kListen = 3;
constexpr int kListenPaused = 20;

int SetPause(const TestRoot& root, int value) {
  return root.Code("ASetProp", Args({"S", "Pause", value}));
}

TEST(ServerPause, KeepsPeersInTheKernelUntilItEnds) {
  const TestRoot root;
  const int port = root.Serve("command");
  EXPECT_EQ(SetPause(root, 0), 1103) << "nothing is paused";
  EXPECT_EQ(SetPause(root, 1), 0);
  EXPECT_EQ(SetPause(root, 3), 1037);
  const RawPeer peer(port);
  EXPECT_EQ(root.State("S"), kListenPaused);
  EXPECT_EQ(root.Wait("S", 0).code, 100);
  EXPECT_EQ(SetPause(root, 0), 0);
  EXPECT_EQ(root.Told("S"), "Connect S.CON00000000 0");
}

TEST(ServerPause, MayGiveUpThePortAndListensAnew) {
  Served t("command");
  EXPECT_EQ(SetPause(t.root, 2), 0);
  EXPECT_TRUE(Eventually([&] { return t.root.State("S") == kListenPaused; }));
  EXPECT_EQ(t.root.Code("AGetProp", Args({"S", "LocalAddr"})), 1132);
  EXPECT_THROW(RawPeer{t.port}, std::exception);
  t.peer.Send(Ipm{kIpmCommand, "a", ZBytes(1)}.Bytes());
  EXPECT_EQ(t.root.Told("S"), "Receive S.CON00000000.a 1") << "connections stay";

  EXPECT_EQ(SetPause(t.root, 0), 0);
  EXPECT_EQ(t.root.State("S"), kListen);
  const RawPeer late(t.root.Port("S"));
  EXPECT_EQ(t.root.Told("S"), "Connect S.CON00000001 0");
}

ZValue V4(const char* text) { return Args({Args({"ipv4", text})}); }
ZValue V6(const char* text) { return Args({Args({"ipv6", text})}); }

TEST(ServerFilter, LetsThroughWhomItAllowsAndDoesNotDeny) {
  const ZValue both = Args({Args({"IPv6", "::1"}), Args({"IPv4", "127.0.0.2"})});
  const struct {
    const char* what;
    Options options;
    bool one;  // whether 127.0.0.1 gets through
    bool two;  // 127.0.0.2
  } filters[] = {
      {"allow a range", {{"AllowEndpoints", V4("10.0.0.0/8,127.0.0.0/31,")}}, true, false},
      {"allow others", {{"AllowEndpoints", V4("10.0.0.0/8")}}, false, false},
      {"deny one", {{"DenyEndpoints", V4("127.0.0.2/32")}}, true, false},
      {"deny all", {{"DenyEndpoints", V4("0.0.0.0/0")}}, false, false},
      {"deny wins",
       {{"AllowEndpoints", V4("127.0.0.0/8")}, {"DenyEndpoints", V4("127.0.0.1")}},
       false,
       true},
      {"allow IPv6 only says nothing of IPv4", {{"AllowEndpoints", V6("::1")}}, true, true},
      {"both families", {{"AllowEndpoints", both}}, false, true},
  };
  for (const auto& f : filters)
    for (const char* protocol : {"ipv4", "ip"}) {  // the second sees its peers as mapped addresses
      const TestRoot root;
      Options options = f.options;
      options.emplace_back("Protocol", protocol);
      const int port = root.Serve("text", options);
      std::vector<RawPeer> peers;
      for (const auto& [from, passes] : {std::pair{"127.0.0.1", f.one}, {"127.0.0.2", f.two}}) {
        const std::string name = "S.CON0000000" + std::to_string(peers.size());
        peers.emplace_back(port, from);
        if (passes)
          EXPECT_EQ(root.Told("S"), "Connect " + name + " 0") << f.what;  // refused ones leave gaps
        else
          EXPECT_EQ(peers.back().ReceiveAll(), "") << f.what;
      }
      EXPECT_EQ(root.Wait("S", 0).code, 100) << f.what;
    }
}

TEST(Properties, KeepAliveReachesTheSocketsOfLaterPeersAndOfOnesOwn) {
  const Served early("text");
  const auto idle = [](const RawPeer& peer) {
    int on = 0;
    int seconds = 0;
    socklen_t size = sizeof on;
    getsockopt(peer.OtherEnd(), SOL_SOCKET, SO_KEEPALIVE, &on, &size);
    getsockopt(peer.OtherEnd(), IPPROTO_TCP, TCP_KEEPIDLE, &seconds, &size);
    return on ? seconds : 0;
  };
  early.root.SetProp("S", "KeepAlive", ZValue::Vector<std::int32_t>(ZType::I4, {30000, 5000}));
  const RawPeer late(early.port);
  EXPECT_EQ(early.root.Next("S").event, "Connect");
  EXPECT_EQ(idle(early.peer), 0);
  EXPECT_EQ(idle(late), 30);
  early.root.SetProp(early.name, "KeepAlive", 12000);
  EXPECT_EQ(idle(early.peer), 12);
}

TEST(Creation, RefusesWhatItCannotMakeAndSaysWhy) {
  const RawListener busy;
  const int free = RawListener().Port();
  const struct {
    const char* command;
    Options options;
    int code;
    Lines left{};
  } cases[] = {
      {"ASrv", {{"Mode", "websocket"}}, 1125},
      {"ASrv", {{"Mode", "nosuch"}}, 1045},
      {"ASrv", {{"NoSuch", 1}}, 1045},
      {"ASrv", {{"Name", "a.b"}}, 1008},
      {"ASrv", {{"Protocol", "tcp"}}, 1045},
      {"ASrv", {{"Port", std::to_string(busy.Port())}}, EADDRINUSE},
      {"ASrv", {{"Port", "nosuchservice"}}, 1107},
      {"ASrv", {{"Port", "65536"}}, 1107},
      {"ASrv", {{"Address", "no.such.host.invalid"}}, 1106},
      {"AClt", {{"Port", std::to_string(free)}}, 1111},
      {"ASrv", {{"Mode", "raw"}, {"BufferSize", 0}}, 1045},
      {"AClt", {{"Mode", "raw"}, {"BufferSize", "many"}}, 1045},
      // With a wrong stop list the object is there all the same, for the application to close.
      {"ASrv", {{"Mode", "raw"}, {"EOM", Args({"a", 7})}}, 1047, {"X"}},
      {"AClt", {{"Mode", "raw"}, {"EOM", 7}}, 1047, {"X"}},
      {"AClt", {{"Mode", "raw"}, {"EOM", "a"}, {"IgnoreCase", std::string(60, 'y')}}, 1045, {"X"}},
      {"AClt", {{"Mode", "blktext"}, {"EOM", "a"}}, 1008, {"X"}},
      {"ASrv", {{"AllowEndpoints", V4("127.0.0.1,bad")}}, 1132},
      {"ASrv", {{"DenyEndpoints", V4("127.0.0.1/8x")}}, 1132},
      {"ASrv", {{"AllowEndpoints", V6("127.0.0.1")}}, 1132},
      {"ASrv", {{"DenyEndpoints", Args({Args({"ipv6", "::1"}), Args({"ipv4", "x"})})}}, 1132},
      {"ASrv", {{"AllowEndpoints", V4("10.0.0.0/33")}}, 1132},
      {"ASrv", {{"AllowEndpoints", V4("10.0.0.0/99999999999999999999")}}, 1132},
      {"ASrv", {{"DenyEndpoints", V4("10.0.0.0/ 8")}}, 1132},
      {"ASrv", {{"AllowEndpoints", V4(",")}}, 1132},
      {"ASrv", {{"AllowEndpoints", "127.0.0.1"}}, 1037},
      {"ASrv", {{"AllowEndpoints", Args({Args({"ipx", "127.0.0.1"})})}}, 1037},
      {"ASrv", {{"DenyEndpoints", Args({Args({"ipv4", "127.0.0.1", "more"})})}}, 1037},
      {"ASrv", {{"AllowEndpoints", Args({"ipv4"})}}, 1037},
  };
  for (const auto& c : cases) {
    const TestRoot root;
    const int port = c.command == std::string("AClt") ? busy.Port() : 0;
    EXPECT_EQ(root.Code(c.command, OptionList(AtPort(port, "command", "X", c.options))), c.code);
    EXPECT_EQ(root.Children("."), c.left) << "case " << &c - cases;
  }
}

TEST(Descriptors, ThatRunOutNeitherStopNorSpinTheServerAndItRecovers) {
  RunApart([] {
    Served t("command");
    std::vector<Descriptor> spare;
    const rlimit limit{200, 200};
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = dup(0); fd >= 0; fd = dup(0)) spare.emplace_back(fd);
    spare.pop_back();
    const RawPeer second(t.port);  // takes the last one, so that the server has none

    const std::clock_t before = std::clock();
    EXPECT_EQ(t.root.Wait("S", 1000).code, 100);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC * 3 / 10);

    t.peer.Send(Ipm{kIpmCommand, "a", ZBytes(1)}.Bytes());
    EXPECT_EQ(t.root.Told("S"), "Receive S.CON00000000.a 1");
    spare.clear();
    EXPECT_EQ(t.root.Told("S"), "Connect S.CON00000001 0");
  });
}

}  // namespace
}  // namespace support
