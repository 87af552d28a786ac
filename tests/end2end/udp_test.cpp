// udp_test.cpp - mode "udp": peers by their addresses, datagrams both ways, and that nobody on the
// network can end a server.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "tests/support/session.h"

namespace support {
namespace {

constexpr int kCannotSend = 1104;

/// A datagram socket of the test on a free loopback port.
class Peer {
 public:
  explicit Peer(int of = AF_INET) : family(of), socket(::socket(of, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_storage own = At(of, 0);
    const timeval bound{kBoundMillis / 1000, 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    if (bind(socket.Get(), reinterpret_cast<sockaddr*>(&own), sizeof own) != 0)
      throw std::runtime_error("bind");
    socklen_t size = sizeof own;
    getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&own), &size);
    port = ntohs(reinterpret_cast<sockaddr_in*>(&own)->sin_port);
  }

  int Port() const { return port; }
  std::string PortText() const { return std::to_string(port); }
  /// Of the library's node, without a family's base64 in front.
  std::string PortName() const {
    char text[8];
    snprintf(text, sizeof text, ":%04x", port);
    return text;
  }

  void Send(int to, std::string_view bytes) {
    const sockaddr_storage target = At(family, to);
    ASSERT_EQ(sendto(socket.Get(), bytes.data(), bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&target), sizeof target),
              static_cast<ssize_t>(bytes.size()));
  }
  /// The next datagram; *from is the port that it came from.
  std::string Receive(int* from = nullptr) {
    char bytes[65536];
    sockaddr_storage source{};
    socklen_t size = sizeof source;
    const ssize_t n =
        recvfrom(socket.Get(), bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&source), &size);
    if (n < 0) throw std::runtime_error("no datagram");
    if (from) *from = ntohs(reinterpret_cast<sockaddr_in*>(&source)->sin_port);
    return std::string(bytes, static_cast<std::size_t>(n));
  }

 private:
  static sockaddr_storage At(int of, int to) {
    sockaddr_storage at{};
    at.ss_family = static_cast<sa_family_t>(of);
    auto* const four = reinterpret_cast<sockaddr_in*>(&at);
    four->sin_port = htons(static_cast<std::uint16_t>(to));
    if (of == AF_INET)
      four->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    else
      reinterpret_cast<sockaddr_in6*>(&at)->sin6_addr = in6addr_loopback;
    return at;
  }

  const int family;
  Descriptor socket;
  int port;
};

const std::string kFour = "fwAAAQ==";                    // 127.0.0.1
const std::string kSix = "AAAAAAAAAAAAAAAAAAAAAQ==";     // ::1
const std::string kMapped = "AAAAAAAAAAAAAP//fwAAAQ==";  // 127.0.0.1 at an IPv6 socket

Options Any(const char* protocol, const char* address) {
  return {{"Protocol", protocol}, {"Address", address}};
}

/// A server "S" and a peer that the test plays.
struct Pair {
  TestRoot root;
  const int port;
  Peer peer;
  const std::string name = "S." + kFour + peer.PortName();

  explicit Pair(const Options& more = {}) : port(root.Serve("udp", more)) {}
};

TEST(UdpServer, NamesEachPeerByItsAddressAndAnswersIt) {
  const struct {
    const char* protocol;
    const char* address;
    int family;
    std::string name;
  } families[] = {{"ipv4", "127.0.0.1", AF_INET, kFour},
                  {"ipv6", "::1", AF_INET6, kSix},
                  {"ip", "*", AF_INET, kMapped},
                  {"ip", "*", AF_INET6, kSix}};
  for (const auto& f : families) {
    const TestRoot root;
    const int port = root.Serve("udp", Any(f.protocol, f.address));
    Peer one(f.family), two(f.family);
    const std::string first = "S." + f.name + one.PortName();
    one.Send(port, "a");
    EXPECT_EQ(root.Told("S"), "Block " + first + " a");
    two.Send(port, "2");
    EXPECT_EQ(root.Told("S"), "Block S." + f.name + two.PortName() + " 2");
    one.Send(port, "again");
    EXPECT_EQ(root.Told(first), "Block " + first + " again") << "the same peer";

    EXPECT_EQ(root.Send(first, "to one"), first + ".Udp00000002");
    root.Respond("S." + f.name + two.PortName(), "to two", host::kSendPlain);
    int from = 0;
    EXPECT_EQ(one.Receive(&from), "to one");
    EXPECT_EQ(from, port);
    EXPECT_EQ(two.Receive(), "to two");
    EXPECT_EQ(root.Children(first), Lines());

    const ZValue address = root.GetProp(first, "LocalAddr");
    EXPECT_EQ(address.At(0).Text(), f.name == kFour ? "IPv4" : "IPv6");
    EXPECT_EQ(address.At(3).Integer(), one.Port());
    EXPECT_EQ(root.Code("AGetProp", Args({first, "MaxOld"})), 1037);
  }
}

TEST(UdpClient, SendsAndHearsUnderTheNameThatItReturned) {
  for (const char* protocol : {"ipv4", "ip"}) {
    const TestRoot root;
    Peer peer;
    const std::string name = root.Dial("udp", peer.Port(), {{"Protocol", protocol}});
    EXPECT_EQ(name, "C." + kFour + peer.PortName());
    EXPECT_EQ(root.Send(name + ".mine", "ask"), name + ".mine");
    int from = 0;
    EXPECT_EQ(peer.Receive(&from), "ask");
    EXPECT_EQ(root.Port("C"), from);
    peer.Send(from, "answer");
    EXPECT_EQ(root.Told("C"), "Block " + name + " answer");
  }
}

TEST(UdpServer, SendsToAnyAddressAndReturnsThePeersName) {
  for (const char* protocol : {"ipv4", "ip"}) {
    Pair t({{"Protocol", protocol}, {"Address", "*"}});
    const auto send = [&](std::vector<ZValue> target) { return t.root.Send("S", Args(target)); };
    EXPECT_EQ(send({"127.0.0.1", t.peer.PortText()}), t.name);
    EXPECT_EQ(t.root.Children("S"), Lines{kFour + t.peer.PortName()}) << "a peer and no datagram";
    EXPECT_EQ(send({"127.0.0.1", t.peer.Port(), "one"}), t.name);
    EXPECT_EQ(t.peer.Receive(), "one");
    t.root.Respond("S", Args({"localhost", t.peer.PortText(), "two"}), host::kSendPlain);
    t.root.Send("S", Args({"127.0.0.1", t.peer.PortText(), ""}));
    t.peer.Send(t.port, "back");
    EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " back") << "the peer that was addressed";
  }
}

TEST(UdpServer, TellsWhatIsWrongWithATarget) {
  Pair t;
  const struct {
    const char* path;
    ZValue target;
    int code;
  } wrong[] = {{"S", "text", 1004},
               {"S", Args({"127.0.0.1", "1", "a", "b"}), 1001},
               {"S", Args({"127.0.0.1", "1", Args({"a", "/etc/hostname"})}), 1001},
               {"S", ZValue({1, 2}, {"127.0.0.1", "1"}), 1002},
               {"S", Args({"127.0.0.1"}), 1081},
               {"S.none", "text", 1010}};
  for (const auto& w : wrong)
    EXPECT_EQ(t.root.Code("ASendZ", Args({w.path, 0}), w.target), w.code) << w.path;
}

TEST(UdpServer, CutsLongDatagramsAndPassesOverEmptyOnes) {
  Pair t({{"BufferSize", 4}});
  for (const char* bytes : {"", "abcdef", "", "g"}) t.peer.Send(t.port, bytes);
  EXPECT_EQ(t.root.Told("S", 2), (Lines{"Block " + t.name + " abcd", "Block " + t.name + " g"}));
}

TEST(UdpServer, KeepsOneDatagramMoreThanMaxOldUntilSomeAreCollected) {
  Pair t;
  t.root.SetProp("S", "MaxOld", 3);
  EXPECT_EQ(t.root.Code("ASetProp", Args({"S", "MaxOld", -1})), 1037);
  Peer other;
  for (int i = 0; i < 7; ++i) t.peer.Send(t.port, std::to_string(i));
  other.Send(t.port, "4");
  ASSERT_TRUE(Eventually([&] { return t.root.Children("S").size() == 2; }));
  for (const char* i : {"0", "1", "2", "3"})
    EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " " + i);
  EXPECT_EQ(t.root.Told("S"), "Block S." + kFour + other.PortName() + " 4");
  t.peer.Send(t.port, "5");
  EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " 5");
}

TEST(UdpServer, HearsOnlyWhomItsFiltersLetThrough) {
  // One socket hears both peers, in order: when the second is told of, the first has been judged.
  const ZValue four = Args({Args({"ipv4", "127.0.0.1"}), Args({"ipv6", "::2/127"})});
  const ZValue six = Args({Args({"ipv4", "127.0.0.2"}), Args({"ipv6", "::/127"})});
  for (const auto& [option, list] : {std::pair{"AllowEndpoints", six}, {"DenyEndpoints", four}}) {
    Pair t({{"Protocol", "ip"}, {"Address", "*"}, {option, list}});
    Peer passes(AF_INET6);
    t.peer.Send(t.port, "no");
    passes.Send(t.port, "yes");
    EXPECT_EQ(t.root.Told("S"), "Block S." + kSix + passes.PortName() + " yes") << option;
    EXPECT_EQ(t.root.Children("S"), Lines{kSix + passes.PortName()}) << option;
  }
}

TEST(UdpServer, IsNotMadeAtAPortInUse) {
  const TestRoot root;
  const Peer other;
  EXPECT_EQ(root.Code("ASrv", host::OptionList(AtPort(other.Port(), "udp", "S", {}))), EADDRINUSE);
  EXPECT_EQ(root.Children("."), Lines());
}

TEST(UdpServer, EndsWithOneErrorBehindWhatHasComeWhenADatagramIsTooLong) {
  for (const int strategy : {0, 1, 2, 3}) {
    Pair t;
    t.root.SetProp(".", "ReadyStrategy", strategy);
    t.peer.Send(t.port, "first");
    ASSERT_TRUE(Eventually([&] { return !t.root.Children("S").empty(); }));
    t.root.Send(t.name, std::string(70000, 'x'));
    EXPECT_EQ(t.root.Told("S", 3), (Lines{"Block " + t.name + " first",
                                          "Error S " + std::to_string(kCannotSend), "code 1010"}));
  }
}

TEST(UdpServer, OutlivesDatagramsThatCannotGoToTheirAddress) {
  Pair t;
  // Port 0 is one that anybody can send from, and nobody can send to.
  const std::string nowhere = t.root.Send("S", Args({"127.0.0.1", "0", "lost"}));
  EXPECT_EQ(t.root.Told("S"), "Error " + nowhere + ".Udp00000000 " + std::to_string(kCannotSend));
  {
    // A port that nobody listens at any more: the system hears of it.
    const Peer gone;
    t.root.Send("S", Args({"127.0.0.1", gone.PortText(), "before"}));
  }
  for (int i = 0; i < 3; ++i) {
    t.peer.Send(t.port, "still");
    EXPECT_EQ(t.root.Told("S"), "Block " + t.name + " still");
  }
}

TEST(UdpPeer, SendsAFileBehindItsHead) {
  Pair t;
  const TempFile file("file");
  t.root.Send("S", Args({"127.0.0.1", t.peer.PortText()}));
  t.root.Send(t.name, Args({"head ", file.path}));
  EXPECT_EQ(t.peer.Receive(), "head file");
  EXPECT_EQ(t.root.Code("ASendZ", Args({t.name, 0}), Args({"", "/no such"})), 1039);
  const std::string most(65507, 'm');
  t.root.Send(t.name, most);
  EXPECT_EQ(t.peer.Receive(), most);
}

TEST(UdpObjects, SendAllThatIsQueuedInOrderBeforeTheyAreClosed) {
  constexpr int kDatagrams = 70;  // more than one turn sends
  Pair t;
  const std::string port = t.peer.PortText();
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(t.root.Send("S", Args({"127.0.0.1", port})), t.name);
    for (int i = 0; i < kDatagrams; ++i) t.root.Send(t.name, std::to_string(i));
    t.root.Close(t.name);
    for (int i = 0; i < kDatagrams; ++i) EXPECT_EQ(t.peer.Receive(), std::to_string(i));
    EXPECT_EQ(t.root.Told(t.name), "code 1010");
  }
  t.root.Send("S", Args({"127.0.0.1", port, "last"}));
  t.root.Close("S");
  EXPECT_EQ(t.peer.Receive(), "last");
  EXPECT_EQ(t.root.Told("S"), "code 1010");
}

TEST(UdpObjects, AnswerManyThreadsAtOnce) {
  constexpr int kThreads = 3;
  const TestRoot root;
  const int port = root.Serve("udp");
  std::vector<std::jthread> servers;
  for (int i = 0; i < kThreads; ++i)
    servers.emplace_back([&](const std::stop_token& stop) {
      while (!stop.stop_requested())
        if (const Event e = root.Wait("S", 20); e.code == 0) root.Send(e.name, e.value.Text());
    });
  std::vector<std::jthread> clients;
  for (int i = 0; i < kThreads; ++i)
    clients.emplace_back([&, i] {
      const std::string name = root.Dial("udp", port, {}, "C" + std::to_string(i));
      for (int n = 0; n < 400; ++n) {
        root.Send(name, std::to_string(n));
        ASSERT_EQ(root.Told(name), "Block " + name + " " + std::to_string(n));
      }
    });
  clients.clear();
}

}  // namespace
}  // namespace support
