// tlspeers_test.cpp - the command line programs of OpenSSL and of GnuTLS as TLS peers, as client
// and as server.
#include "tests/support/secured.h"

namespace support {
namespace {

/// One line, so that it is found among what servers say besides; of digits, which command nothing.
const std::string kLine = [] {
  std::string line;
  for (int i = 0; line.size() < 50'000; ++i) line += std::to_string(i);
  return line;
}();

/// What a peer is called with: its certificates, and TLS 1.2 or 1.3.
struct Setting {
  const Tls& tls;
  std::string version;  // "2" or "3"
  bool demands = true;  // as server, a certificate of its client

  std::string Authority() const { return tls.Certificates().Cert("ca"); }
  std::string Cert() const { return tls.Certificates().Cert("peer"); }
  std::string Key() const { return tls.Certificates().Key("peer"); }
};

/// One program as client and as server.
struct Peer {
  Words (*client)(const Setting& setting, int port);
  Words quiet;  // further words for a client that writes nothing but what it receives
  Words (*server)(const Setting& setting, int port);
  bool echoes;  // its server, by itself, at the port that it is told; else it says at which
};

Words With(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

Words OpenSsl(const Setting& setting, const Words& more) {
  const Words words{"-tls1_" + setting.version,
                    "-CAfile",
                    setting.Authority(),
                    "-verify_return_error",
                    "-cert",
                    setting.Cert(),
                    "-key",
                    setting.Key()};
  return With(With({"openssl"}, more), words);
}
Words OpenSslClient(const Setting& setting, int port) {
  const std::string to = "127.0.0.1:" + std::to_string(port);
  return OpenSsl(setting, {"s_client", "-connect", to, "-verify_ip", "127.0.0.1"});
}
Words OpenSslServer(const Setting& setting, int = 0) {
  const std::string ask = setting.demands ? "-Verify" : "-verify";
  return OpenSsl(setting, {"s_server", "-accept", "127.0.0.1:0", ask, "1"});
}

Words GnuTls(const Setting& setting, int port, const Words& more) {
  const Words words{"--priority",
                    "NORMAL:-VERS-ALL:+VERS-TLS1." + setting.version,
                    "--x509cafile",
                    setting.Authority(),
                    "--x509certfile",
                    setting.Cert(),
                    "--x509keyfile",
                    setting.Key(),
                    "-p",
                    std::to_string(port)};
  return With(more, words);
}
Words GnuTlsClient(const Setting& setting, int port) {
  return GnuTls(setting, port, {"gnutls-cli", "127.0.0.1"});
}
Words GnuTlsServer(const Setting& setting, int port) {
  // It copies everything that it receives to its standard error.
  Words words{"gnutls-serv", "--echo"};
  if (setting.demands) words = With(words, {"-r", "--verify-client-cert"});
  return With({"sh", "-c", "exec \"$@\" 2>/dev/null", "sh"}, GnuTls(setting, port, words));
}

const Peer kOpenSsl{OpenSslClient, {"-quiet", "-nocommands"}, OpenSslServer, false};
const Peer kGnuTls{GnuTlsClient, {"--logfile=/dev/null"}, GnuTlsServer, true};

/// Reads what a program says up to a line that has this in it, and returns all of it.
std::string UpTo(const std::string& what, Program* program) {
  std::string said;
  do said += program->Line() + "\n";
  while (said.find(what) == std::string::npos);
  return said;
}

/// The connection that comes next.
std::string Accepted(const TestRoot& root) {
  for (;;) {
    const Event event = root.Next("S");
    if (event.code != 0) throw std::runtime_error(Tell(event));
    if (event.event == "Connect") return event.name;
  }
}

void ExpectServed(const Peer& peer, const Setting& setting) {
  const TestRoot root;
  const int port = root.Serve("raw", setting.tls.OfServer(root));
  Program client(With(peer.client(setting, port), peer.quiet));
  client.Write(kLine);
  const std::string name = Accepted(root);
  EXPECT_TRUE(Gather(root, name, kLine.size()) == kLine);

  const std::string back = Pattern(kLine.size());
  root.Send(name, back, host::kSendAndClose);
  const auto [code, output] = client.Finish();
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(output == back);
}

void ExpectServing(const Peer& peer, const Setting& setting) {
  const int wanted = peer.echoes ? FreePort() : 0;
  Program server(peer.server(setting, wanted));
  if (peer.echoes) AwaitPort(wanted);
  const TestRoot root;
  root.Dial("raw", peer.echoes ? wanted : server.Port(), setting.tls.OfClient(root));
  const std::string line = kLine + "\n";
  root.Send("C", line);
  if (!peer.echoes) {
    UpTo(kLine, &server);
    server.Write(line);
  }
  EXPECT_TRUE(Gather(root, "C", line.size()) == line);
}

void ExpectExchanges(const Peer& peer) {
  const Tls tls(true);
  for (const char* kind : {"rsa:2048", "rsa:4096", "P-256", "ed25519"}) {
    tls.Certificates().Make("peer", {.key = kind});
    for (const char* version : {"2", "3"}) {
      SCOPED_TRACE(std::string(kind) + ", TLS 1." + version);
      EXPECT_NO_THROW(ExpectServed(peer, {tls, version})) << "as client";
      // GnuTLS 3.7 as client finds no such certificate when a TLS 1.2 server asks for one.
      const bool demands = kind != std::string("ed25519") || version != std::string("2");
      EXPECT_NO_THROW(ExpectServing(peer, {tls, version, demands})) << "as server";
    }
  }
}

TEST(OpenSsl, ExchangesDataInEachVersionWithEachKey) { ExpectExchanges(kOpenSsl); }
TEST(GnuTls, ExchangesDataInEachVersionWithEachKey) { ExpectExchanges(kGnuTls); }

TEST(OpenSsl, ReconnectsWithTheSessionOfTheFirstConnection) {
  const Tls tls(true);
  const TestRoot root;
  const int port = root.Serve("raw", tls.OfServer(root));
  for (const Words& more : {Words{"-reconnect"}, Words{"-reconnect", "-no_ticket"}}) {
    Program client(With(OpenSslClient({tls, "2"}, port), more));
    for (int i = 0; i < 5; ++i) UpTo("Reused, TLSv1.2", &client);
  }
}

TEST(OpenSsl, ComesBackWithASessionThatItKept) {
  const Tls tls(true);
  const TestRoot root;
  const int port = root.Serve("raw", tls.OfServer(root));
  for (const char* version : {"2", "3"}) {
    const auto connect = [&](const char* option) {
      const Words session{option, tls.Certificates().folder + "/session"};
      Program client(With(OpenSslClient({tls, version}, port), session));
      const std::string said = UpTo(", TLSv1.", &client);
      root.Send(Accepted(root), "over\n",
                host::kSendAndClose);  // behind the ticket, if there is one
      EXPECT_EQ(client.Finish().code, 0);
      return said;
    };
    EXPECT_NE(connect("-sess_out").find("New, TLSv1."), std::string::npos) << version;
    EXPECT_NE(connect("-sess_in").find("Reused, TLSv1."), std::string::npos) << version;
  }
}

TEST(GnuTls, ComesBackWithItsSession) {
  const Tls tls(true);
  const TestRoot root;
  const int port = root.Serve("raw", tls.OfServer(root));
  for (const char* version : {"2", "3"}) {
    Program client(With(GnuTlsClient({tls, version}, port), {"--resume", "--waitresumption"}));
    UpTo("*** This is a resumed session", &client);
  }
}

TEST(OpenSsl, ResumesTheSessionsOfAClient) {
  const Tls tls(true);
  const TestRoot root;
  for (const auto& [version, more] :
       {std::pair("2", Words()), std::pair("2", Words{"-no_ticket"}), std::pair("3", Words())}) {
    Program server(With(OpenSslServer({tls, version}), more));
    const int port = server.Port();
    for (const bool again : {false, true}) {
      const std::string name = root.Dial("raw", port, tls.OfClient(root), "");
      root.Send(name, "hello\n");
      const bool reused = UpTo("hello", &server).find("Reused session-id") != std::string::npos;
      EXPECT_EQ(reused, again) << version;
      server.Write("0\n");  // behind the ticket
      EXPECT_EQ(Gather(root, name, 2), "0\n");
      root.Close(name);
    }
  }
}

TEST(OpenSsl, ChangesTheKeysInTheMiddle) {
  const Tls tls(true);
  const TestRoot root;
  const int port = root.Serve("raw", tls.OfServer(root));
  // TLS 1.2 shakes hands again, in 1.3 each side changes its own.
  struct Row {
    const char* version;
    const char* clientAsks;
    const char* serverAsks;
    const char* done;
  };
  for (const Row& row :
       {Row{"2", "R\n", "r\n", "<<< TLS 1.2, Handshake [length 0010], Finished"},
        Row{"3", "K\n", "K\n", ">>> TLS 1.3, Handshake [length 0005], KeyUpdate"}}) {
    const auto change = [&](const char* asks, const std::string& name, Program* peer) {
      root.Send(name, "before\n");
      UpTo("before", peer);
      peer->Write(asks);
      UpTo(row.done, peer);
      peer->Write("after\n");
      EXPECT_EQ(Gather(root, name, 6), "after\n");
      root.Send(name, "back\n");
      UpTo("back", peer);
    };
    Program client(With(OpenSslClient({tls, row.version}, port), {"-msg"}));
    EXPECT_NO_THROW(change(row.clientAsks, Accepted(root), &client));
    Program server(With(OpenSslServer({tls, row.version}), {"-msg"}));
    EXPECT_NO_THROW(
        change(row.serverAsks, root.Dial("raw", server.Port(), tls.OfClient(root), ""), &server));
  }
}

}  // namespace
}  // namespace support
