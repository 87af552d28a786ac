// link_test.cpp - the link through its table: each direction, the bytes on the wire, the handshake,
// what the interpreter is told, and what becomes of peers that break.
#include "tests/support/link.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "tests/support/pki.h"

namespace support {
namespace {

using namespace std::string_literals;

constexpr char kInit[] = "ZEPH\\INIT";
constexpr char kListen[] = "ZEPH\\LISTEN";
constexpr char kConnect[] = "ZEPH\\CONNECT";
const std::string kLocal = "address=127.0.0.1\nport=0\n";
const std::string kListenFile = "[Zeph]\nDirection=listen\n" + kLocal;
const std::string kHandshake =
    Block("SupportedProtocols=2", kZephMagic) + Block("UsingProtocol=2", kZephMagic);

/// A block in each direction.
void ExpectTalk(Link& link, Remote& remote) {
  remote.Say("in");
  EXPECT_EQ(link.Told(), "block in");
  EXPECT_EQ(link.State(), Zeph2Connected);
  EXPECT_EQ(link.Send("out"), 0);
  EXPECT_EQ(remote.Hear(), "out");
}

/// A session from beginning to end.
void ExpectSession(Link& link, Remote remote) {
  remote.Shake();
  ExpectTalk(link, remote);
  remote.peer.Close();
  EXPECT_EQ(link.Told(), "gone");
}

/// The same once a session can be had: a peer before it may still be on its way out.
void ExpectSessionSoon(Link& link, int port) {
  std::optional<Remote> remote;
  EXPECT_TRUE(Eventually([&] {
    try {
      remote.emplace(port).Shake();
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }));
  remote->Say("now");
  std::string told;
  do told = link.Told();
  while (told == "gone");
  EXPECT_EQ(told, "block now");
  remote->peer.Close();
  EXPECT_EQ(link.Told(), "gone");
}

TEST(Link, ListensWhereItsSettingsOrItsFileSay) {
  struct Row {
    Link::Settings settings;
    std::string file;
    const char* v4;  // the server that takes IPv4, and IPv6
    const char* v6;
  };
  const Row rows[] = {
      {{{kInit, "serve::0"}}, "", "ZephServer4", "ZephServer"},
      {{{kInit, "SERVE:[::1]:0"}}, "", "ZephServer4", "ZephServer"},
      {{{kInit, "serve:*:0"}}, "", "ZephServer", "ZephServer"},
      {{{kInit, "serve:127.0.0.1:0"}}, "", "ZephServer", nullptr},
      {{{kListen, "127.0.0.1:0"}}, "", "ZephServer", nullptr},
      {{{kListen, "127.0.0.1:0[ipv6]"}}, "[Zeph]\nProtocol=ipv4\n", "ZephServer", nullptr},
      {{}, kListenFile, "ZephServer", nullptr},
      {{{kInit, "config"}}, kListenFile, "ZephServer", nullptr},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    Link link(row.settings, row.file);
    ASSERT_EQ(link.Enable(1), 0);
    EXPECT_EQ(link.State(), Zeph2Listening);
    ExpectSession(link, Remote(link.Port(row.v4)));
    EXPECT_TRUE(link.Reaches(Zeph2Listening));
    if (row.v6) ExpectSession(link, Remote(PeerOverIpv6(link.Port(row.v6))));
    EXPECT_EQ(link.Enable(0), 0);
    EXPECT_EQ(link.State(), Zeph2Idle);
    EXPECT_THROW(link.Port(row.v4), std::runtime_error);
  }
}

TEST(Link, ConnectsWhereItsSettingsOrItsFileSay) {
  RawListener listener;
  const std::string to = "127.0.0.1:" + std::to_string(listener.Port());
  const std::string inFile = "address=127.0.0.1\nport=" + std::to_string(listener.Port()) + "\n";
  const struct {
    Link::Settings settings;
    std::string file;
  } rows[] = {
      {{{kInit, "connect:" + to}}, ""},
      {{{kInit, "poll:" + to}}, ""},
      {{{kConnect, to}}, ""},
      {{}, "[Zeph]\nDirection=Connect\n" + inFile},
      {{}, "[Zeph]\nDirection=poll\nProtocol=ipv4\n" + inFile},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Link link(row.settings, row.file);
    ASSERT_EQ(link.Enable(1), 0);
    Remote remote(listener.Accept());
    remote.Shake();
    ExpectTalk(link, remote);
    EXPECT_EQ(link.Enable(0), 0);
    EXPECT_EQ(remote.peer.ReceiveAll(), "");
    EXPECT_EQ(link.State(), Zeph2Idle);
    EXPECT_EQ(link.table->pZeph2Config->Direction, 3U) << "it polls from its first session on";
  }
}

TEST(Link, ThatPollsComesBackWithinItsBeatAlsoWhenNothingIsFreed) {
  RawListener listener;
  Link link({{kInit, "poll:127.0.0.1:" + std::to_string(listener.Port())}});
  using Clock = std::chrono::steady_clock;
  auto before = Clock::now();
  const auto took = [&] { return Clock::now() - std::exchange(before, Clock::now()); };
  ASSERT_EQ(link.Enable(1), 0);
  std::vector<void*> kept;
  for (const auto atMost : {std::chrono::seconds(3), std::chrono::seconds(8)}) {
    Remote remote(listener.Accept());
    EXPECT_LT(took(), atMost);
    remote.Shake();
    remote.Say("kept");
    const Link::Event event = link.Next();
    EXPECT_EQ(event.text, "block kept");
    kept.push_back(event.node);
    before = Clock::now();
    remote.peer.Reset();
    EXPECT_EQ(link.Next().text, "gone");
    EXPECT_TRUE(link.Reaches(Zeph2Idle));
  }
  for (void* const node : kept) link.Free(node);
}

TEST(Link, WritesABlockAsLengthAndMagicAndBytes) {
  const struct {
    const char* file;
    std::string head;
  } rows[] = {
      {"", "\0\0\0\x1cZEPH"s},
      {"[Zeph]\nMagic=0\n", "\0\0\0\x18"s},
      {"[Zeph]\nMagic=16909060\n", "\0\0\0\x1c\1\2\3\4"s},
  };
  for (const auto& row : rows) {
    Listening link(row.file);
    RawPeer peer(link.Port());
    EXPECT_EQ(peer.Receive(row.head.size() + 20), row.head + "SupportedProtocols=2") << row.file;
  }
  Listening link("[Zeph]\nMagic=0\n");
  ExpectSession(link, Remote(RawPeer(link.Port()), 0));
}

TEST(Link, ReadsBlocksInPiecesOfAnySizeAndEndsWithWrongOnes) {
  Listening link("[Zeph]\nMaxBlockSize=64\n");
  const auto zeph = [](const std::string& text) { return Block(text, kZephMagic); };
  const std::string most(64 - 8, 'm');
  const std::string odd("\0\xff\n", 3);
  const struct {
    const char* what;
    std::string bytes;
    Lines told;
    std::size_t piece = 1 << 20;
  } rows[] = {
      {"byte by byte", zeph("one") + zeph("two"), {"block one", "block two"}, 1},
      {"at once", zeph("one") + zeph("") + zeph(odd), {"block one", "block ", "block " + odd}},
      {"the largest", zeph(most), {"block " + most}},
      {"magic 0", Block("x", 0), {"block x"}},
      {"one more", zeph("a") + zeph(most + "m"), {"block a", "gone"}},
      {"a huge length", zeph("a") + Word(0xFFFFFFFF) + "ZEPH", {"block a", "gone"}},
      {"another magic", zeph("a") + Block("x", kZephMagic + 1), {"block a", "gone"}},
      {"shorter than its header", zeph("a") + Word(7) + "ZEPH", {"block a", "gone"}},
      {"length 0", zeph("a") + Word(0) + "ZEPH", {"block a", "gone"}},
      {"half a block", zeph("a") + zeph("half").substr(0, 10), {"block a"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_TRUE(link.Reaches(Zeph2Listening));
    Remote remote(link.Port());
    remote.Shake();
    remote.peer.SendApart(row.bytes, row.piece);
    for (const std::string& line : row.told) EXPECT_EQ(link.Told(), line);
    if (row.told.back() == "gone") {
      EXPECT_EQ(remote.peer.ReceiveAll(), "");
    } else {
      remote.peer.Close();
      EXPECT_EQ(link.Told(), "gone");
    }
  }
}

TEST(Link, LosesNothingThatComesWithTheHandshakeOrBeforeTheEnd) {
  Listening link;
  for (int i = 0; i < 20; ++i) {
    RawPeer peer(link.Port());
    peer.Send(kHandshake + Block("first", kZephMagic) + Block("last", kZephMagic));
    peer.EndSending();
    for (const char* line : {"block first", "block last", "gone"}) EXPECT_EQ(link.Told(), line);
    EXPECT_TRUE(link.Reaches(Zeph2Listening));
  }
}

TEST(Link, TalksToPeersThatSupportItsProtocolAndDropsOthersInSilence) {
  const struct {
    std::string says;
    bool fits;
  } rows[] = {
      {"SupportedProtocols=2", true},
      {"SupportedProtocols=2,1", true},
      {"SupportedProtocols=1,2", true},
      {"SupportedProtocols=10,3,2,1", true},
      {"SupportedProtocols=,2", true},
      {"SupportedProtocols=1", false},
      {"SupportedProtocols=", false},
      {"SupportedProtocols=,", false},
      {"SupportedProtocols=1,", false},
      {"SupportedProtocols=12,22", false},
      {"SupportedProtocols=2x,x2,-2", false},
      {"SupportedProtocols=4294967298,18446744073709551618", false},
      {"SupportedProtocols=" + std::string(100000, ','), false},
      {"supportedprotocols=2", false},
      {"UsingProtocol=1", false},
      {"UsingProtocol=2 ", false},
      {"", false},
      {std::string(20, '\xff'), false},
  };
  Listening link;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says.substr(0, 60));
    EXPECT_TRUE(link.Reaches(Zeph2Listening));
    Remote remote(link.Port());
    EXPECT_EQ(remote.Hear(), "SupportedProtocols=2");
    remote.Say(row.says);
    if (row.fits) {
      EXPECT_EQ(remote.Hear(), "UsingProtocol=2");
      EXPECT_EQ(link.State(), Zeph2Negotiate);
      remote.Say("UsingProtocol=2");
      ExpectTalk(link, remote);
      remote.peer.Close();
      EXPECT_EQ(link.Told(), "gone");
    } else {
      EXPECT_TRUE(remote.IsTurnedAway());
      EXPECT_TRUE(link.Reaches(Zeph2Listening));
      EXPECT_EQ(link.Send("x"), 1008);
    }
  }
}

TEST(Link, HasOneSessionAtATime) {
  Listening link;
  Remote remote(link.Port());
  EXPECT_EQ(remote.Hear(), "SupportedProtocols=2");
  for (const bool inHandshake : {true, false}) {
    EXPECT_TRUE(Remote(link.Port()).IsTurnedAway());
    if (!inHandshake) break;
    remote.peer.Send(kHandshake);
    EXPECT_EQ(remote.Hear(), "UsingProtocol=2");
  }
  ExpectTalk(link, remote);
}

TEST(Link, SendsOnlyInASessionAndEndsItWithOneBlock) {
  Listening link;
  EXPECT_EQ(link.Send("x"), 1008);
  const std::string end("[\"Disconnect\0", 13);
  for (const std::string& last : {end, end + "more"}) {
    EXPECT_TRUE(link.Reaches(Zeph2Listening));
    Remote remote(link.Port());
    remote.Shake();
    const std::string large(3 << 20, 'l');
    for (const std::string& block : {""s, "[\"Disconnect\",{}]"s, large, last}) {
      EXPECT_EQ(link.Send(block), 0);
      EXPECT_EQ(remote.Hear(), block);
    }
    EXPECT_EQ(remote.peer.ReceiveAll(), "");
    remote.peer.Close();
    EXPECT_TRUE(Eventually([&] { return link.Send("x") == 1008; }));
    link.Forget();
  }
  EXPECT_EQ(link.Enable(0), 0);
  EXPECT_EQ(link.Send("x"), 1008);
}

TEST(Link, KeepsABlockUntilItIsFreedAndKnowsNoOtherNode) {
  Listening link;
  Remote remote(link.Port());
  remote.Shake();
  remote.Say("one");
  remote.Say("two");
  const Link::Event one = link.Next();
  const Link::Event two = link.Next();
  remote.peer.Close();
  const Link::Event gone = link.Next();
  EXPECT_EQ(link.Look(one.node), "one") << "also behind the session's end";
  link.Free(one.node);
  int local = 0;
  void* const strangers[] = {one.node, gone.node, nullptr, &local, link.table->pZephRoot};
  for (void* const node : strangers) {
    link.Free(node);
    EXPECT_EQ(link.Look(node), "none");
  }
  EXPECT_EQ(link.Enable(0), 0);
  EXPECT_EQ(link.Look(two.node), "two") << "and when the link is off";
  link.Free(two.node);
  EXPECT_EQ(link.Look(two.node), "none");
}

TEST(Link, SaysWhyItCannotBeTurnedOnAndWorksOnceItIsMended) {
  const RawListener taken;
  const std::string port = std::to_string(taken.Port());
  const std::string nowhere = std::to_string(FreePort());
  const std::string noName(70, 'n');  // longer than a label may be: nobody is asked for it
  const struct {
    const char* what;
    Link::Settings settings;
    std::string file;
    int code;
    std::string text;
    int mended;  // the code with a good file and no settings
  } rows[] = {
      {"no file", {}, "", 1503, "cannot find configuration file (*zeph.ini)", 0},
      {"no direction",
       {},
       "[Zeph]\nport=0\n",
       1503,
       "cannot find configuration file (*zeph.ini)",
       0},
      {"filter",
       {},
       kListenFile + "[DenyEndpoints]\nIpv4=1.2.3\n",
       1132,
       "ZEPH communication failed; Error 1132",
       0},
      {"certificate",
       {},
       kListenFile + "Secure=secure\nPublicCertFile=/none\n",
       1207,
       "ZEPH communication failed; Error 1207",
       0},
      {"no certificate",
       {},
       kListenFile + "Secure=anonymous\nPrivateKeyFile=/none\n",
       1207,
       "ZEPH communication failed; Error 1207",
       0},
      {"word", {{kInit, "listen::0"}}, "", 1500, "ZEPH_INIT setting (listen::0) is invalid ", 1500},
      {"port",
       {{kInit, "serve::70000"}},
       kListenFile,
       1500,
       "ZEPH_INIT setting (serve::70000) is invalid ",
       1500},
      {"listen", {{kListen, "[::1"}}, "", 1506, "ZEPH communication failed; Error 1506", 1506},
      {"connect", {{kConnect, "a:b"}}, "", 1507, "ZEPH communication failed; Error 1507", 1507},
      {"nobody there",
       {{kInit, "connect:127.0.0.1:" + nowhere}},
       "",
       1501,
       "it cannot connect to specified ZEPH instance; Error 1111",
       -1111},
      {"no such host",
       {{kInit, "connect:" + noName + ":1"}},
       "",
       1501,
       "ZEPH cannot resolve the address",
       -1106},
      {"port taken",
       {{kInit, "serve:127.0.0.1:" + port}},
       "",
       1502,
       "the specified port (" + port + ") is not available",
       -98},
      {"not here",
       {{kInit, "serve:203.0.113.1:0"}},
       "",
       1502,
       "it is unable to receive connections from ZEPH instances; Error 99 (Cannot assign "
       "requested address)",
       -99},
      {"serve no such host",
       {{kInit, "serve:" + noName + ":0"}},
       "",
       1502,
       "ZEPH cannot resolve the address",
       -1106},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    Link link(row.settings, row.file);
    EXPECT_EQ(link.Enable(1), row.code);
    EXPECT_EQ(link.State(), Zeph2Idle);
    EXPECT_THROW(link.Port(), std::runtime_error);
    const std::size_t star = row.text.find('*');
    std::string text = row.text;
    if (star != std::string::npos) text.replace(star, 1, link.folder.path + "/");
    EXPECT_EQ(link.Error(row.code), text);
    EXPECT_EQ(link.Error(row.code, 10), text.substr(0, 9));
    if (row.mended < 0) {
      EXPECT_EQ(link.table->pZeph2Config->lError, -row.mended);
      continue;
    }
    EXPECT_EQ(link.table->Zeph2Enabled, 0);
    EXPECT_EQ(link.table->pZeph2Config->Direction, 0U);
    EXPECT_EQ(link.Enable(0), 0) << "it is off";
    // A text that did not parse condemns each later text, but asks for none.
    for (const auto& [key, value] : row.settings) link.Set(key, key == kInit ? "serve::0" : "::0");
    link.Configure(kListenFile);
    EXPECT_EQ(link.Enable(1), row.mended);
    if (row.mended == 0) ExpectSession(link, Remote(link.Port()));
    EXPECT_EQ(link.Error(EIO), "ZEPH communication failed; Error 5 (Input/output error)");
    EXPECT_EQ(link.table->pZeph2Errortext(row.code, nullptr, 100), -1);
  }
}

TEST(Link, CanBeTurnedOffAndOnAgainAtEveryStage) {
  Listening link;
  std::vector<Remote> peers;
  const std::function<void()> stages[] = {
      [] {},
      [&] { EXPECT_EQ(peers.emplace_back(link.Port()).Hear(), "SupportedProtocols=2"); },
      [&] {
        peers.emplace_back(link.Port()).Shake();
        peers.back().Say("x");
        EXPECT_EQ(link.Told(), "block x");
      },
      [&] {  // one that takes nothing, and has not ended its block
        peers.emplace_back(link.Port()).Shake();
        peers.back().peer.Send(Block("x", kZephMagic) + Word(100));
        EXPECT_EQ(link.Told(), "block x");
        EXPECT_EQ(link.Send(std::string(15 << 20, 'x')), 0);
      },
  };
  for (const auto& stage : stages) {
    SCOPED_TRACE(&stage - stages);
    stage();
    EXPECT_EQ(link.Enable(1), 0) << "on already";
    EXPECT_EQ(link.Enable(0), 0);
    EXPECT_EQ(link.State(), Zeph2Idle);
    EXPECT_EQ(link.Send("x"), 1008);
    EXPECT_EQ(link.Enable(0), 0);
    if (!peers.empty()) peers.back().peer.ReceiveAll();
    EXPECT_EQ(link.Enable(1), 0);
    ExpectSessionSoon(link, link.Port());
  }
  EXPECT_EQ(link.Late(), 0) << "no event comes when it is off";
  EXPECT_EQ(link.Threads().size(), 1U) << "all come on one thread";
  EXPECT_EQ(link.Threads().count(std::this_thread::get_id()), 0U);
}

TEST(Link, LetsOutWhatWasSentBeforeItIsTurnedOff) {
  RawListener listener;
  Link link({{kInit, "poll:127.0.0.1:" + std::to_string(listener.Port())}});
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(link.Enable(1), 0);
    Remote remote(listener.Accept());
    remote.Shake();
    ExpectTalk(link, remote);
    EXPECT_EQ(link.Send("last"), 0);
    EXPECT_EQ(link.Enable(0), 0);
    EXPECT_EQ(remote.Hear(), "last");
  }
}

TEST(Link, IsItsParentsAloneAfterAFork) {
  RawListener listener;
  Link link({{kInit, "poll:127.0.0.1:" + std::to_string(listener.Port())}});
  ASSERT_EQ(link.Enable(1), 0);
  Remote remote(listener.Accept());
  remote.Shake();
  remote.Say("kept");
  const Link::Event kept = link.Next();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(kBoundMillis / 1000);  // a child that hangs is a failure as well
    const bool has = link.Look(kept.node) == "kept";
    link.Send("from the child");
    link.Free(kept.node);
    link.Enable(0);
    _exit(has ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(link.Send("from the parent"), 0);
  EXPECT_EQ(remote.Hear(), "from the parent");
  remote.peer.Close();
  EXPECT_EQ(link.Told(), "gone");
  Remote(listener.Accept()).Shake();
  link.Free(kept.node);
}

TEST(Link, HasNothingToTurnOffWhereNobodyWasReached) {
  const std::string nobody = "127.0.0.1:" + std::to_string(FreePort());
  for (const auto& [word, code] : {std::pair{"connect:", 1501}, {"poll:", 0}}) {
    Link link({{kInit, word + nobody}});
    EXPECT_EQ(link.Enable(1), code) << word;
    EXPECT_EQ(link.table->Zeph2Enabled, 1);
    EXPECT_EQ(link.Enable(0), 1008);
    EXPECT_EQ(link.State(), Zeph2Idle);
  }
}

TEST(Link, TurnsAwayWhomItsFiltersRefuse) {
  Listening link("[AllowEndpoints]\nIpv4=127.0.0.0/29\n[DenyEndpoints]\nIpv4=127.0.0.3\n");
  const int port = link.Port();
  for (const char* from : {"127.0.0.3", "127.0.0.9"})
    EXPECT_TRUE(Remote(RawPeer(port, from)).IsTurnedAway()) << from;
  ExpectSession(link, Remote(RawPeer(port, "127.0.0.2")));
}

TEST(Link, KeepsItsSessionAliveAsItsFileSays) {
  Listening link("[Zeph]\nKeepAliveTime=20000\nKeepAliveInterval=3000\n");
  Remote remote(link.Port());
  remote.Shake();
  const auto option = [&](int level, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(remote.peer.OtherEnd(), level, name, &value, &size), 0);
    return value;
  };
  EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 20);
  EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 3);
}

TEST(Link, SurvivesPeersThatBreakAtAnyMoment) {
  Listening link;
  const int port = link.Port();
  const std::string all = kHandshake + Block("last", kZephMagic);
  for (std::size_t size = 0; size < all.size(); size += 3)
    for (const auto end : {&RawPeer::Reset, &RawPeer::Close}) {
      RawPeer peer(port);
      peer.Send(all.substr(0, size));
      (peer.*end)();
    }
  ExpectSessionSoon(link, port);
  RawPeer silent(port);
  EXPECT_TRUE(link.Reaches(Zeph2Negotiate));
  silent.EndSending();
  EXPECT_EQ(link.Told(), "gone");
  ExpectSessionSoon(link, port);
}

/// Clients of the same library with certificates, which speak the block form.
struct SecurePeers {
  SecurePeers(const Link& link, const Pki& certificates)
      : pki(certificates), root(link.library, "PEERS"), port(link.Port()) {
    root.SetProp(".", "RootCertDir", pki.Trust({"ca"}));
  }
  std::string Dial(const std::string& who) const {
    const Options magic{{"Magic", static_cast<int>(kZephMagic)}};
    const bool isKnown = who != "anybody";
    root.Client(AtPort(port, "blkraw", who, isKnown ? pki.As(who, magic) : Pki::Anonymous(magic)));
    return Tell(root.Wait(who, kBoundMillis));
  }

  const Pki& pki;
  const host::Session root;
  const int port;
};

std::string SecureFile(const Pki& pki, const std::string& secure) {
  return "[Zeph]\nSecure=" + secure + "\nPublicCertFile=" + pki.Cert("peer") +
         "\nPrivateKeyFile=" + pki.Key("peer") + "\nRootCertDir=" + pki.Trust({"ca"}) + "\n";
}

TEST(Link, TakesOnlyPeersWhoseCertificateItAccepts) {
  Pki pki;
  for (const char* name : {"peer", "friend", "other"}) pki.Make(name);
  Listening link(SecureFile(pki, "secure") + "AcceptCertDir=" + pki.Trust({"friend"}) + "\n");
  const int port = link.Port();
  Remote plain(port);
  plain.Say("SupportedProtocols=2");
  EXPECT_EQ(plain.peer.ReceiveAll().find("Supported"), std::string::npos);
  RawPeer silent(port);

  const SecurePeers peers(link, pki);
  EXPECT_EQ(peers.Dial("other"), "Error other 1119");
  EXPECT_EQ(peers.Dial("friend"), "Block friend SupportedProtocols=2");
  for (const char* block : {"SupportedProtocols=2", "UsingProtocol=2", "hello"})
    peers.root.Send("friend", block);
  EXPECT_EQ(Tell(peers.root.Wait("friend", kBoundMillis)), "Block friend UsingProtocol=2");
  EXPECT_EQ(link.Told(), "block hello");
  peers.root.Close("friend");
  EXPECT_EQ(link.Told(), "gone");
}

TEST(Link, AsksNobodyForACertificateWhenItIsAnonymous) {
  Pki pki;
  pki.Make("peer");
  Listening link(SecureFile(pki, "anonymous") + "SSLValidation=192\n");
  EXPECT_EQ(SecurePeers(link, pki).Dial("anybody"), "Block anybody SupportedProtocols=2");
}

}  // namespace
}  // namespace support
