// tls_test.cpp - secure connections of every mode: what they carry, how they end, what a peer that
// stalls may not do, and what is remembered, resumed and logged.
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <optional>
#include <random>

#include "tests/support/pki.h"
#include "tests/support/program.h"

namespace support {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTls12[] = "NORMAL:-VERS-ALL:+VERS-TLS1.2";
constexpr char kTls13[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3";
constexpr int kRequire = 128;

/// A root whose server and clients have certificates of an authority that it trusts. The server
/// demands its clients'.
struct Secure {
  Pki pki;
  TestRoot root;

  Secure() {
    pki.Make("server");
    pki.Make("client", {.subject = "/CN=a client"});
    root.SetProp(".", "RootCertDir", pki.Trust({"ca"}));
  }
  Options Server(const Options& more = {}) const {
    Options options = more;
    options.emplace_back("SSLValidation", kRequire);
    return pki.As("server", options);
  }
  Options Client(const Options& more = {}) const { return pki.As("client", more); }
  int Serve(const std::string& mode, const Options& more = {}) const {
    return root.Serve(mode, Server(more));
  }
  /// A client, and the name of the server's connection, whose "Connect" is collected.
  std::string Connect(const std::string& mode, int port, const Options& more = {},
                      const std::string& name = "C") const {
    root.Dial(mode, port, Client(more), name);
    return Connected();
  }
  std::string Connected() const {
    const Event event = root.Next("S");
    EXPECT_EQ(event.event, "Connect") << Tell(event);
    return event.name;
  }
  /// Closes the server, and waits until its name is free.
  void End() const {
    root.Close("S");
    EXPECT_TRUE(Eventually([this] { return root.Code("ATree", "S") == 1010; }));
  }
  void ExpectPeers(const std::string& client, const std::string& connection) const {
    const auto first = [this](const std::string& name, const char* property) {
      return root.GetProp(name, property).At(0).Bytes();
    };
    const std::string server = pki.Der("server");
    const std::string own = pki.Der("client");
    EXPECT_TRUE(first(client, "PeerCert") == server && first(connection, "OwnCert") == server);
    EXPECT_TRUE(first(connection, "PeerCert") == own && first(client, "OwnCert") == own);
  }
};

/// What is said in a mode, and the event that tells of it.
struct Talk {
  const char* mode;
  std::string there;
  std::string back;
  const char* event;
  const char* under = "";  // the two ends
};

const std::string kRequest = "GET / HTTP/1.1\r\n\r\n";
const std::string kAnswer = "HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n";
const Talk kTalks[] = {
    {"command", "there", "back", "Receive ", ".a"},
    {"raw", "there", "back", "Block "},
    {"text", "there", "back", "Block "},
    {"blkraw", "there", "back", "Block "},
    {"blktext", "there", "back", "Block "},
    {"http", kRequest, kAnswer, "HTTPHeader "},
};

TEST(Tls, CarriesEveryModeBothWaysInEitherVersion) {
  const Secure t;
  for (const char* version : {kTls12, kTls13})
    for (const Talk& talk : kTalks) {
      const std::string client = talk.mode + std::string(1, std::string_view(version).back());
      SCOPED_TRACE(client);
      const int port = t.Serve(talk.mode);
      const std::string name = t.Connect(talk.mode, port, {{"Priority", version}}, client);
      t.ExpectPeers(client, name);
      t.root.Send(client + talk.under, talk.there);
      EXPECT_EQ(t.root.Told("S"), talk.event + name + talk.under + " " + talk.there);
      t.root.Respond(name + talk.under, talk.back, *talk.under ? 1 : host::kSendPlain);
      EXPECT_EQ(t.root.Told(client), talk.event + client + talk.under + " " + talk.back);
      t.End();
    }
}

TEST(Tls, CarriesAWebSocket) {
  const Secure t;
  const std::string name = t.Connect("http", t.Serve("http"));
  for (const std::string& end : {name, std::string("C")}) t.root.SetProp(end, "WSFeatures", 1);
  t.root.SetProp("C", "WSUpgrade", Args({"/", "localhost", ""}));
  EXPECT_EQ(t.root.Next("S").event, "WSUpgrade");
  EXPECT_EQ(t.root.Next("C").event, "WSUpgrade");
  t.root.Send("C", Args({"there", 1}));
  EXPECT_EQ(t.root.Next("S").value.At(0).Bytes(), "there");
  t.root.Send(name, Args({"back", 1}));
  EXPECT_EQ(t.root.Next("C").value.At(0).Bytes(), "back");
  t.ExpectPeers("C", name);
}

TEST(Tls, DeliversManyMessagesOfAnySizeInOrderThoughTheReaderIsSlowAtTimes) {
  constexpr int kMessages = kSanitized ? 500 : 10'000;
  constexpr std::size_t kLargest = 200'000;
  const std::string bytes = Pattern(2 * kLargest);
  std::mt19937 random(7);
  std::vector<std::string_view> messages;
  for (int i = 0; i < kMessages; ++i) {
    const std::size_t size = random() % (random() % 3 == 0 ? 300 : kLargest + 1);
    messages.push_back(std::string_view(bytes).substr(random() % kLargest, size));
  }
  const Secure sender;
  const Secure reader;
  sender.root.SetProp(".", "RootCertDir", reader.pki.Trust({"ca"}));
  const int port = reader.root.Serve("blkraw", reader.pki.As("server", {{"BufferSize", 250'000}}));
  sender.root.Dial("blkraw", port, Pki::Anonymous());
  const std::string name = reader.Connected();
  for (std::size_t sent = 0, got = 0; got < messages.size();) {
    const std::size_t ahead = std::min(messages.size(), sent + random() % 100);
    for (; sent < ahead; ++sent) sender.root.Send("C", messages[sent]);
    const std::size_t waiting = sent < messages.size() ? random() % 50 : 0;
    for (; got + waiting < sent; ++got) {
      const Event event = reader.root.Next(name);
      ASSERT_EQ(event.event, "Block") << Tell(event);
      ASSERT_TRUE(event.value.Bytes() == messages[got]) << got;
    }
  }
}

/// The median time of so many calls, in microseconds.
template <class Body>
double Median(int n, Body body) {
  std::vector<double> times;
  while (n-- > 0) {
    const auto begin = Clock::now();
    body();
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
  }
  std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
  return times[times.size() / 2];
}

TEST(Tls, PeersThatStallInTheHandshakeDelayNoOther) {
  const Secure t;
  const int port = t.Serve("blktext");
  const std::string name = t.Connect("blktext", port);
  const auto roundTrip = [&] {
    t.root.Send("C", "there");
    ASSERT_EQ(t.root.Told(name), "Block " + name + " there");
    t.root.Send(name, "back");
    ASSERT_EQ(t.root.Told("C"), "Block C back");
  };
  std::vector<RawPeer> stalled;
  const auto median = [&] { return Median(kSanitized ? 20 : 300, roundTrip); };
  bool isCloseEnough = false;
  for (int attempt = 0; attempt < 3 && !isCloseEnough; ++attempt) {
    stalled.clear();
    const double alone = median();
    for (int i = 0; i < 50; ++i) {
      stalled.emplace_back(port);
      // The head of a record, and half of the greeting in it.
      if (i % 2)
        stalled.back().Send(std::string("\x16\x03\x01\x02\0\x01\0\x01\xFC\x03\x03", 11) +
                            Pattern(250));
    }
    isCloseEnough = median() < 2 * alone || kSanitized;
  }
  EXPECT_TRUE(isCloseEnough);
  t.Connect("blktext", port, {}, "late");
}

/// An element in DER: tag, length, contents.
std::string Element(char tag, const std::string& contents) {
  const std::size_t n = contents.size();
  if (n < 128) return tag + std::string(1, static_cast<char>(n)) + contents;
  std::string length = Word(static_cast<std::uint32_t>(n));
  length.erase(0, length.find_first_not_of('\0'));
  return tag + std::string(1, static_cast<char>(0x80 + length.size())) + length + contents;
}

/// A certificate that nobody has signed, with an RSA key whose two numbers have so many bytes.
std::string HugeCertificate(std::size_t keyBytes) {
  const std::string sha256Rsa = Element(
      0x30, Element(0x06, std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b")) + Element(0x05, ""));
  const std::string rsa = Element(
      0x30, Element(0x06, std::string("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01")) + Element(0x05, ""));
  const std::string number = Element(0x02, "\x7f" + std::string(keyBytes - 1, '\x55'));
  const std::string bits = std::string(1, '\0') + Element(0x30, number + number);
  const std::string dates =
      Element(0x30, Element(0x17, "200101000000Z") + Element(0x17, "400101000000Z"));
  const std::string version = Element('\xa0', Element(0x02, "\x02"));
  const std::string key = Element(0x30, rsa + Element(0x03, bits));
  const std::string name = Element(0x30, "");
  const std::string content =
      Element(0x30, version + Element(0x02, "\x01") + sha256Rsa + name + dates + name + key);
  return Element(0x30, content + sha256Rsa + Element(0x03, std::string(257, '\0')));
}

/// A handshake message of TLS 1.2 in as many records as it takes.
std::string HandshakeMessage(char type, const std::string& body) {
  const std::string message = type + Word(static_cast<std::uint32_t>(body.size())).substr(1) + body;
  std::string records;
  for (std::size_t at = 0; at < message.size(); at += 16384) {
    const std::string part = message.substr(at, 16384);
    records += "\x16\x03\x03" + Word(static_cast<std::uint32_t>(part.size())).substr(2) + part;
  }
  return records;
}

TEST(Tls, AHugeKeyOfAPeerIsRefusedBeforeAnythingIsComputedWithIt) {
  const Secure t;
  const int port = t.Serve("blktext");
  RawPeer peer(port);
  const std::string extensions("\0\x0a\0\4\0\2\0\x1d\0\x0b\0\2\1\0\0\x0d\0\6\0\4\4\1\4\3\0\x17\0\0",
                               28);
  const std::string suites("\0\4\xc0\x2f\xc0\x2b\1\0\0", 9);
  peer.Send(HandshakeMessage(1, "\3\3" + std::string(32, 'r') + std::string(1, '\0') + suites +
                                    static_cast<char>(extensions.size()) + extensions));
  // Up to the end of what the server has to say.
  for (std::string said; !said.ends_with(std::string("\x0e\0\0\0", 4));) {
    said = peer.Receive(5);
    said = peer.Receive(static_cast<unsigned char>(said[3]) * 256U +
                        static_cast<unsigned char>(said[4]));
  }
  const std::string der = HugeCertificate(16384);
  const auto sized = [](const std::string& bytes) {
    return Word(static_cast<std::uint32_t>(bytes.size())).substr(1) + bytes;
  };
  peer.Send(HandshakeMessage(11, sized(sized(der))) +
            HandshakeMessage(16, "\x20" + std::string(32, 'p')) +
            HandshakeMessage(15, std::string("\4\1\x40\0", 4) + std::string(16384, '\1')));
  EXPECT_NE(peer.ReceiveAll(), "");  // an alert
  t.Connect("blktext", port);
}

TEST(Tls, APeerThatDoesNotReadDelaysNoOtherAndLosesNothing) {
  const Secure t;
  const int port = t.Serve("http");
  const std::string slow = t.Connect("http", port);
  const std::string other = t.Connect("http", port, {}, "D");
  // A client reads no more while 1024 chunks wait for its application.
  constexpr int kChunks = 3000;
  const std::string chunk = "4000\r\n" + std::string(0x4000, '.') + "\r\n";
  t.root.Send("C", kRequest);
  EXPECT_EQ(t.root.Next(slow).event, "HTTPHeader");
  t.root.Send(slow, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
  for (int i = 0; i < kChunks; ++i) t.root.Send(slow, chunk);
  t.root.Send(slow, "0\r\n\r\n", host::kSendReport);

  for (int i = 0; i < 20; ++i) {
    t.root.Send("D", kRequest);
    ASSERT_EQ(t.root.Told(other), "HTTPHeader " + other + " " + kRequest);
    t.root.Send(other, kAnswer);
    ASSERT_EQ(t.root.Told("D"), "HTTPHeader D " + kAnswer);
  }
  EXPECT_EQ(Tell(t.root.Wait(slow, 0)), "code 100") << "not all is sent yet";
  EXPECT_LT(t.root.Children("C").size(), 1100u);
  EXPECT_EQ(t.root.Next("C").event, "HTTPHeader");
  for (int i = 0; i < kChunks; ++i) ASSERT_EQ(t.root.Next("C").event, "HTTPChunk") << i;
  EXPECT_EQ(t.root.Next("C").event, "HTTPTrailer");
  EXPECT_EQ(t.root.Next(slow).event, "Sent");
}

/// The log of a process of its own, in a folder of its own.
struct Logged {
  TempFolder folder;

  Logged() {
    if (chdir(folder.path.c_str()) != 0) throw std::runtime_error("no folder");
    folder.File("kyrno.log", "");
  }
  std::string Log() const { return Content(folder.path + "/kyrno.log"); }
  int Count(const std::string& text) const {
    const std::string log = Log();
    int n = 0;
    for (std::size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++n;
    return n;
  }
};

TEST(TlsSessions, AreResumedByBothSidesUntilTheClientForgets) {
  RunApart([] {
    const Logged logged;
    const Secure t;
    t.root.SetProp(".", "Trace", 0x400 + 5);
    const int port = t.Serve("blktext");
    for (const char* version : {kTls12, kTls13}) {
      const auto resumed = [&](const char* client) {
        const int before = logged.Count("RPCSECURE::Handshake session resumed: thread ");
        const std::string name = t.Connect("blktext", port, {{"Priority", version}}, client);
        t.ExpectPeers(client, name);
        t.root.Send(name, "what a ticket may come with");
        t.root.Next(client);
        return logged.Count("RPCSECURE::Handshake session resumed: thread ") - before;
      };
      EXPECT_EQ(resumed("A"), 0) << version;
      EXPECT_EQ(resumed("B"), 2) << version;
      EXPECT_EQ(resumed("C"), 2) << version;
      t.root.SetProp(".", "InvalidateCache", 100);
      EXPECT_EQ(resumed("D"), 0) << version;
      for (const char* client : {"A", "B", "C", "D"}) t.root.Close(client);
      while (t.root.Wait("S", 100).code == 0) continue;
    }
  });
}

/// The places where a secret may be seen as it stands, as hexadecimal digits, or as the log's own
/// dump has it, with blanks and line ends removed.
int Sightings(const std::string& log, const std::string& secret) {
  std::string packed;
  for (const char c : log)
    if (!std::isspace(static_cast<unsigned char>(c)))
      packed += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::string hex;
  std::string dumped;
  for (const char c : secret.substr(0, 12)) {
    char digits[8];
    std::snprintf(digits, sizeof digits, "%02hhx", static_cast<unsigned char>(c));
    hex += digits;
    dumped += (c < 0 ? "ff" : "") + std::string(digits);
  }
  const auto seen = [](const std::string& where, const std::string& what) {
    return where.find(what) != std::string::npos;
  };
  return seen(log, secret) + seen(packed, hex) + seen(packed, dumped);
}

std::string Unhex(const std::string& digits) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

TEST(TlsLog, ShowsNoSecretAtAnyLevel) {
  RunApart([] {
    const Logged logged;
    setenv("SSLKEYLOGFILE", (logged.folder.path + "/secrets").c_str(), 1);
    const std::string password = "correct horse battery";
    const std::string message = "nobody's business";
    const Secure t;
    t.root.SetProp(".", "Trace", -1);
    t.root.SetProp(".", "TraceGnuTLS", 99);
    const Options p12{
        {"PrivateKeyFile", Args({"PK#12", t.pki.Pkcs12({"server", "ca"}, password), 0})},
        {"PrivateKeyPass", password}};
    const int port = t.root.Serve("command", p12);
    int clients = 0;
    for (const char* version : {kTls12, kTls13, kTls12, kTls13}) {
      const std::string client = "C" + std::to_string(clients++);
      t.Connect("command", port, {{"Priority", version}}, client);
      t.root.Send(client + ".a", message);
      t.root.Respond(t.root.Next("S").name, message);
      EXPECT_EQ(t.root.Told(client), "Receive " + client + ".a " + message);
    }
    t.root.SetProp(".", "Trace", 0);
    const std::string log = logged.Log();
    EXPECT_GT(logged.Count("RPCSECURE::"), 50);
    EXPECT_GT(logged.Count("HSK["), 20) << "GnuTLS's own lines";
    EXPECT_GT(logged.Count(" APL Array:"), 5);

    EXPECT_EQ(Sightings(log, password), 0);
    EXPECT_EQ(Sightings(log, message), 0);
    for (const char* name : {"server", "client"}) {
      t.pki.OpenSsl({"pkey", "-in", t.pki.Key(name), "-outform", "DER", "-out", "key"});
      constexpr std::size_t kNumberAt = 36;  // of a P-256 key in PKCS #8
      EXPECT_EQ(Sightings(log, Content(t.pki.folder + "/key").substr(kNumberAt, 32)), 0) << name;
    }
    std::ifstream secrets(logged.folder.path + "/secrets");
    int n = 0;
    for (std::string label, random, secret; secrets >> label >> random >> secret; ++n)
      EXPECT_EQ(Sightings(log, Unhex(secret)), 0) << label;
    EXPECT_GE(n, 10);
    // What is made of them has no file to compare with.
    for (const char* derived : {"MASTER SECRET", "KEY BLOCK", "WRITE KEY", "WRITE IV"})
      EXPECT_EQ(logged.Count(derived), 0) << derived;
  });
}

TEST(TlsServer, ThatPausesListensAnewWithTheSameCredentials) {
  const Secure t;
  const std::string name = t.Connect("blktext", t.Serve("blktext"));
  const auto pause = [&](int value) {
    return t.root.Code("ASetProp", Args({"S", "Pause", value}));
  };
  EXPECT_EQ(pause(2), 0);
  constexpr int kListenPaused = 20;
  EXPECT_TRUE(Eventually([&] { return t.root.State("S") == kListenPaused; }));
  EXPECT_EQ(pause(0), 0);
  t.ExpectPeers("C", name);
  t.ExpectPeers("D", t.Connect("blktext", t.root.Port("S"), {}, "D"));
  EXPECT_TRUE(t.root.GetProp("S", "OwnCert").At(0).Bytes() == t.pki.Der("server"));
}

TEST(TlsServer, WithoutFlagsAsksForCertificatesFromTheThirdPeerOn) {
  const Secure t;
  const int port = t.root.Serve("blktext", t.pki.As("server"));
  std::string asked;
  for (int i = 0; i < 5; ++i) {
    t.root.SetProp(".", "InvalidateCache", 100);  // a resumed session has no such question
    const std::string name = t.Connect("blktext", port, {}, "");
    asked += t.root.GetProp(name, "PeerCert").Count() == 0 ? '-' : '+';
  }
  EXPECT_EQ(asked, "--+++");
  t.root.Dial("blktext", port, Pki::Anonymous(), "A");
  EXPECT_EQ(t.root.GetProp(t.Connected(), "PeerCert").Count(), 0u) << "and needs none";
}

TEST(TlsEnd, OfASendThatClosesComesBehindAllThatWasSent) {
  const Secure t;
  const std::string name = t.Connect("raw", t.Serve("raw"));
  const std::string bytes = Pattern(5'000'000);
  t.root.Send("C", bytes);
  t.root.Send("C", bytes, host::kSendAndClose);
  std::string all;
  Event event;
  do {
    event = t.root.Next(name);
    all += event.value.Bytes();
  } while (event.event == "Block");
  EXPECT_EQ(event.event, "BlockLast") << Tell(event);
  EXPECT_TRUE(all == bytes + bytes);
}

TEST(TlsEnd, WithoutAGoodbyeIsACloseToo) {
  const Secure t;
  const int port = t.Serve("blktext");
  std::optional<TestRoot> wire(std::in_place);
  // What comes before the relay waits for the end of a unit, and is sent on.
  const Options together{{"EOM", "nothing that a greeting has"}};
  const int front = wire->Serve("raw", together);
  wire->Dial("raw", port, together, "W");
  std::future<void> dialled =
      std::async(std::launch::async, [&] { t.root.Dial("blktext", front, t.Client()); });
  wire->Relay(wire->Next("S").name, "W");
  dialled.get();
  const std::string name = t.Connected();
  t.root.Send("C", "there");
  EXPECT_EQ(t.root.Told("S"), "Block " + name + " there");
  wire.reset();
  EXPECT_EQ(t.root.Told("C"), "Error C 1119");
  EXPECT_EQ(t.root.Told("S"), "Error " + name + " 1119");
}

TEST(TlsHandshake, OverLoopbackTakesNoFixedTime) {
  const Secure t;
  const int port = t.Serve("blktext");
  const double micros = Median(20, [&] { t.Connect("blktext", port, {}, ""); });
  EXPECT_LT(micros, kSanitized ? 1e6 : 50e3);
}

TEST(TlsHandshake, ThatCannotSucceedEndsAtOnceAndIsNoEvent) {
  const Secure t;
  const int port = t.Serve("blktext");
  for (const std::string& bytes :
       {kRequest, Pattern(100'000), std::string("\x15\x03\x01\0\2\2\x28", 7)}) {
    RawPeer peer(port);
    peer.Send(bytes);
    EXPECT_LT(peer.ReceiveAll().size(), 100u);  // an alert at most
  }
  RawPeer(port).Close();
  EXPECT_TRUE(Eventually([&] { return t.root.Children("S").empty(); }));
  // Deliberate: the handshake is what is reported, though there was no connection.
  EXPECT_EQ(t.root.Code("AClt", OptionList(AtPort(FreePort(), "blktext", "X", t.Client()))), 1201);
  EXPECT_EQ(t.root.Children("."), Lines{"S"});
  // A server that does not speak TLS.
  const int plain = t.root.Serve("raw", {}, "P");
  std::future<int> code = std::async(std::launch::async, [&] {
    return t.root.Code("AClt", OptionList(AtPort(plain, "blktext", "X", t.Client())));
  });
  t.root.Send(t.root.Next("P").name, "220 welcome to something else\r\n");
  EXPECT_EQ(code.get(), 1201);
  t.Connect("blktext", port);  // the first event of the secure server
}

}  // namespace
}  // namespace support
