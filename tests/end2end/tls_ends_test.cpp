// tls_ends_test.cpp - the ends of secure connections whose peer is slow, or resets: part of what
// was sent is still with the secure socket then.
#include <arpa/inet.h>
#include <gnutls/gnutls.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <functional>

#include "tests/support/pki.h"

namespace support {
namespace {

constexpr int kConnected = 4;
constexpr int kAskNobody = 256;
constexpr std::size_t kMuch = 12'000'000;  // more than the kernel takes of what isn't read
constexpr std::size_t kPiece = 16'000;
constexpr int kStuckMillis = 300;  // without progress

/// A TLS client that the test plays, with a small window. Every wait ends after 20 seconds.
class SecurePeer {
 public:
  explicit SecurePeer(int port) : fd(socket(AF_INET, SOCK_STREAM, 0)) {
    const int window = 4096;
    const timeval bound{kBoundMillis / 1000, 0};
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd.Get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0)
      throw std::runtime_error("connect");
    gnutls_certificate_allocate_credentials(&credentials);
    gnutls_init(&session, GNUTLS_CLIENT | GNUTLS_NO_SIGNAL);
    gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, credentials);
    gnutls_set_default_priority(session);
    gnutls_transport_set_int(session, fd.Get());
    if (gnutls_handshake(session) != 0) throw std::runtime_error("handshake");
  }
  ~SecurePeer() {
    gnutls_deinit(session);
    gnutls_certificate_free_credentials(credentials);
  }
  void Send(std::string_view bytes) {
    if (gnutls_record_send(session, bytes.data(), bytes.size()) < 0)
      throw std::runtime_error("send");
  }
  void EndSending() {
    gnutls_bye(session, GNUTLS_SHUT_WR);
    shutdown(fd.Get(), SHUT_WR);
  }
  /// Resets, where something is unread.
  void Close() { fd = Descriptor(); }
  /// One record; false at the end, or when nothing comes.
  bool Receive() {
    for (int tickets = 0; tickets < 3; ++tickets) {
      char record[16384];
      const ssize_t n = gnutls_record_recv(session, record, sizeof record);
      if (n > 0) received.append(record, static_cast<std::size_t>(n));
      // A ticket is told as something to wait for.
      if (n != GNUTLS_E_AGAIN) return n > 0;
    }
    return false;
  }
  void ReceiveAll() {
    while (Receive()) {
    }
  }

  std::string received;

 private:
  Descriptor fd;
  gnutls_certificate_credentials_t credentials = nullptr;
  gnutls_session_t session = nullptr;
};

struct TlsEndWithASlowPeer : testing::Test {
  Pki pki;
  TestRoot root;

  TlsEndWithASlowPeer() { pki.Make("server"); }
  int Serve(const char* mode) const {
    return root.Serve(mode, pki.As("server", {{"SSLValidation", kAskNobody}}));
  }
  std::string Connected() const {
    const Event event = root.Next("S");
    EXPECT_EQ(event.event, "Connect");
    return event.name;
  }
  /// Sends pieces of kPiece bytes to a peer that doesn't read, at most so many, each when the one
  /// before is told to be sent. How many were.
  int Fill(const std::string& name, const std::function<ZValue(std::string)>& form,
           int most) const {
    for (int n = 0; n < most; ++n) {
      root.Send(name, form(std::string(kPiece, '.')), host::kSendReport);
      if (root.Wait(name, kStuckMillis).event != "Sent") return n;
    }
    return most;
  }
  /// Calls body(peer, connection) when the kernel holds all that it takes, and the secure socket
  /// still more.
  template <class Begin, class Body>
  void WithFullSocket(const char* mode, const std::function<ZValue(std::string)>& form, Begin begin,
                      Body body) const {
    const int port = Serve(mode);
    int pieces = 1000;
    for (const bool isReady : {false, true}) {
      SecurePeer peer(port);
      const std::string name = Connected();
      begin(peer, name);
      pieces = Fill(name, form, isReady ? pieces - 2 : pieces);
      if (isReady) return body(peer, name, static_cast<std::size_t>(pieces) * kPiece);
      root.Close(name);
    }
  }
};

TEST_F(TlsEndWithASlowPeer, ASendThatClosesArrivesThoughThePeerEndsItsOwnSideFirst) {
  const auto whole = [](std::string text) { return ZValue(text); };
  WithFullSocket(
      "raw", whole, [](auto&, auto&) {},
      [&](SecurePeer& peer, const std::string& name, std::size_t size) {
        root.Send(name, "the end", host::kSendAndClose);
        EXPECT_TRUE(Eventually([&] { return root.Children(name).empty(); }));
        peer.EndSending();
        peer.ReceiveAll();
        EXPECT_EQ(peer.received.size(), size + 7);
      });
}

TEST_F(TlsEndWithASlowPeer, AWebSocketSaysAllAndItsGoodbye) {
  const auto frame = [](std::string text) { return Args({text, 1}); };
  const auto upgrade = [&](SecurePeer& peer, const std::string& name) {
    root.SetProp(name, "WSFeatures", 5);
    peer.Send(
        "GET / HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
        "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
    EXPECT_EQ(root.Next(name).event, "WSUpgrade");
  };
  WithFullSocket("http", frame, upgrade,
                 [&](SecurePeer& peer, const std::string&, std::size_t size) {
                   peer.Send(std::string("\x88\x82\0\0\0\0\x03\xE8", 8));
                   peer.ReceiveAll();
                   ASSERT_GT(peer.received.size(), size);
                   EXPECT_EQ(peer.received.substr(peer.received.size() - 4), "\x88\x02\x03\xE8");
                 });
}

TEST_F(TlsEndWithASlowPeer, AResetComesBehindWhatWasReceivedAndCostsNoTime) {
  const auto seconds = [] {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           1e-6 * static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
  };
  const int port = Serve("raw");
  root.Serve("raw", {}, "quiet");
  for (int i = 0; i < 10; ++i) {
    SecurePeer peer(port);
    const std::string name = Connected();
    root.Send(name, std::string(kMuch, '.'));
    peer.Send("last words");
    peer.Close();
    EXPECT_TRUE(Eventually([&] { return root.State(name) != kConnected; }));
    const double before = seconds();
    EXPECT_EQ(root.Wait("quiet", 50).code, 100);
    EXPECT_LT(seconds() - before, 0.03);
    EXPECT_EQ(root.Told(name), "Block " + name + " last words");
    // Whichever is met first: the failed send, or the end of what there is to read.
    const std::string last = root.Next(name).event;
    EXPECT_TRUE(last == "Error" || last == "BlockLast") << last;
  }
}

}  // namespace
}  // namespace support
