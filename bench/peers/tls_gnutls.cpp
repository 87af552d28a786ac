// tls_gnutls.cpp - bare GnuTLS over TCP with TCP_NODELAY, one thread a side.
//
// The server has all connections in one epoll. It counts the bytes of each and answers a command
// behind the arrays of a batch; what it does besides is handshakes. Clients:
//
//   handshakes   many at once, in one epoll; the load of the servers of all systems. Each ends when
//                the server has closed, so that it has met the whole of it
//   stream       the arrays and the command on one blocking connection
//   connect      one connection after another, which verifies the server
#include "bench/tls.h"

#include <fcntl.h>
#include <gnutls/gnutls.h>

#include <optional>
#include <unordered_map>

#include "bench/peer.h"
#include "bench/program.h"
#include "bench/socket.h"

namespace {

using bench::Checked;
using bench::Descriptor;
using bench::kCommandBytes;
using bench::Poll;
using bench::Work;

constexpr std::size_t kReadBytes = 65536;

/// A result of GnuTLS. Throws for a negative one.
ssize_t Good(ssize_t result, const char* doing) {
  if (result < 0)
    throw std::runtime_error(std::string(doing) + ": " + gnutls_strerror(static_cast<int>(result)));
  return result;
}

void SetNonBlocking(int fd) {
  Checked(fcntl(fd, F_SETFL, Checked(fcntl(fd, F_GETFL), "fcntl") | O_NONBLOCK), "fcntl");
}

/// What all sessions of one side share.
class Credentials {
 public:
  explicit Credentials(const char* wanted) {
    Good(gnutls_certificate_allocate_credentials(&certificates), "credentials");
    Good(gnutls_priority_init(&priority, wanted, nullptr), "priority");
  }
  ~Credentials() {
    gnutls_free(ticketKey.data);
    gnutls_priority_deinit(priority);
    gnutls_certificate_free_credentials(certificates);
  }
  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;

  void BeServer(const Work& work) {
    Good(gnutls_certificate_set_x509_key_file(certificates, bench::TlsCertificate(work).c_str(),
                                              bench::TlsPrivateKey(work).c_str(),
                                              GNUTLS_X509_FMT_PEM),
         "certificate");
    // Without tickets no client can keep a session, and each of its connects is a full handshake.
    if (work.speech != bench::Speech::TlsConnect)
      Good(gnutls_session_ticket_key_generate(&ticketKey), "ticket key");
  }
  void Trust() {
    Good(gnutls_certificate_set_x509_trust_dir(certificates, bench::TlsTrust().c_str(),
                                               GNUTLS_X509_FMT_PEM),
         "trust");
    verifies = true;
  }
  void SetUp(gnutls_session_t session) const {
    Good(gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, certificates), "credentials");
    Good(gnutls_priority_set(session, priority), "priority");
    if (ticketKey.data) Good(gnutls_session_ticket_enable_server(session, &ticketKey), "tickets");
    if (verifies) gnutls_session_set_verify_cert(session, "127.0.0.1", 0);
  }

 private:
  gnutls_certificate_credentials_t certificates = nullptr;
  gnutls_priority_t priority = nullptr;
  gnutls_datum_t ticketKey{};
  bool verifies = false;
};

/// A connection and its session.
class Session {
 public:
  Session(Descriptor connected, unsigned side, const Credentials& credentials)
      : socket(std::move(connected)) {
    Good(gnutls_init(&session, side | GNUTLS_NO_SIGNAL), "session");
    credentials.SetUp(session);
    gnutls_transport_set_int(session, socket.Get());
  }
  ~Session() { gnutls_deinit(session); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  gnutls_session_t Get() const { return session; }
  int Fd() const { return socket.Get(); }

  bool IsOpen() const { return open; }

  /// False when the peer has to be waited for. Throws when it fails.
  bool Handshake() {
    int code;
    do code = gnutls_handshake(session);
    while (code < 0 && code != GNUTLS_E_AGAIN && !gnutls_error_is_fatal(code));
    if (code == GNUTLS_E_AGAIN) return false;
    Good(code, "handshake");
    open = true;
    return true;
  }
  void SendAll(const char* from, std::size_t n) {
    while (n > 0) {
      const auto sent =
          static_cast<std::size_t>(Good(gnutls_record_send(session, from, n), "send"));
      from += sent;
      n -= sent;
    }
  }
  /// Tells the peer that nothing more will come.
  void Finish() {
    gnutls_bye(session, GNUTLS_SHUT_WR);
    shutdown(socket.Get(), SHUT_WR);
  }

 private:
  const Descriptor socket;
  gnutls_session_t session = nullptr;
  bool open = false;  // the handshake is over
};

Descriptor Connected(int port) {
  Descriptor socket = bench::NewSocket();
  bench::Connect(socket.Get(), port);
  return socket;
}

class TlsServer : public bench::Server {
 public:
  explicit TlsServer(const Work& work)
      : batchBytes(work.bytes * work.outstanding + kCommandBytes), credentials("NORMAL") {
    credentials.BeServer(work);
    port = bench::BindToFreePort(listener.Get());
    Checked(listen(listener.Get(), SOMAXCONN), "listen");
  }

  int Port() const override { return port; }

  void Serve() override {
    std::unordered_map<int, Connection> connections;
    Poll poll;
    poll.Watch(listener.Get());
    for (;;)
      for (const epoll_event& event : poll.Wait()) {
        const int fd = event.data.fd;
        if (fd == listener.Get()) {
          Descriptor accepted(
              static_cast<int>(Checked(accept4(fd, nullptr, nullptr, SOCK_NONBLOCK), "accept")));
          bench::SetNoDelay(accepted.Get());
          poll.Watch(accepted.Get());
          connections.try_emplace(accepted.Get(), std::move(accepted), credentials);
        } else if (!Turn(connections.at(fd))) {
          connections.erase(fd);
        }
      }
  }

 private:
  struct Connection {
    Connection(Descriptor accepted, const Credentials& credentials)
        : session(std::move(accepted), GNUTLS_SERVER | GNUTLS_NONBLOCK, credentials) {}
    Session session;
    std::size_t received = 0;  // of the present batch
  };

  /// False at the end of the connection.
  bool Turn(Connection& connection) {
    try {
      Session& session = connection.session;
      if (!session.IsOpen() && !session.Handshake()) return true;
      for (;;) {
        const ssize_t n = gnutls_record_recv(session.Get(), bytes.data(), bytes.size());
        if (n == GNUTLS_E_AGAIN) return true;
        if (Good(n, "receive") == 0) break;
        connection.received += static_cast<std::size_t>(n);
        if (connection.received < batchBytes) continue;
        connection.received -= batchBytes;
        session.SendAll(answer.data(), answer.size());
      }
      session.Finish();
    } catch (const std::exception&) {
      // The client knows it too; the others go on.
    }
    return false;
  }

  const std::size_t batchBytes;
  Credentials credentials;
  const Descriptor listener = bench::NewSocket();
  int port = 0;
  std::vector<char> bytes = std::vector<char>(kReadBytes);
  const std::array<char, kCommandBytes> answer{};
};

class HandshakeClient : public bench::Client {
 public:
  HandshakeClient(int serverPort, const Work& work)
      : port(serverPort), resumes(work.Resumes()), credentials(bench::kTlsPriority) {
    if (resumes) FetchTicket();
  }
  ~HandshakeClient() override { gnutls_free(ticket.data); }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) {
      Descriptor socket = Connected(port);
      const int fd = socket.Get();
      SetNonBlocking(fd);
      poll.Watch(fd);
      Session& session =
          sessions.try_emplace(fd, std::move(socket), GNUTLS_CLIENT | GNUTLS_NONBLOCK, credentials)
              .first->second;
      if (resumes)
        Good(gnutls_session_set_data(session.Get(), ticket.data, ticket.size), "session");
      Handshake(session);
    }
  }

  unsigned Receive() override {
    unsigned done = 0;
    while (done == 0)
      for (const epoll_event& event : poll.Wait()) {
        const auto at = sessions.find(event.data.fd);
        if (!Turn(at->second)) continue;
        sessions.erase(at);
        ++done;
      }
    return done;
  }

 private:
  void Handshake(Session& session) const {
    if (!session.Handshake()) return;
    if ((gnutls_session_is_resumed(session.Get()) != 0) != resumes)
      throw std::runtime_error(resumes ? "a session was not resumed" : "a session was resumed");
    session.Finish();
  }

  /// True when the server has closed.
  bool Turn(Session& session) {
    if (!session.IsOpen()) {
      Handshake(session);
      return false;
    }
    // Tickets and the end need not be opened.
    std::array<char, 4096> rest;
    const ssize_t n = recv(session.Fd(), rest.data(), rest.size(), 0);
    return Checked(n, "the end") == 0;
  }

  void FetchTicket() {
    Session session(Connected(port), GNUTLS_CLIENT, credentials);
    session.Handshake();
    while (!(gnutls_session_get_flags(session.Get()) & GNUTLS_SFLAGS_SESSION_TICKET)) {
      char byte;
      const ssize_t n = gnutls_record_recv(session.Get(), &byte, 1);
      if (n != GNUTLS_E_AGAIN && Good(n, "ticket") == 0)
        throw std::runtime_error("the server sends no ticket");
    }
    Good(gnutls_session_get_data2(session.Get(), &ticket), "ticket");
    session.Finish();
  }

  const int port;
  const bool resumes;
  const Credentials credentials;
  gnutls_datum_t ticket{};
  std::unordered_map<int, Session> sessions;
  Poll poll;
};

class StreamClient : public bench::Client {
 public:
  StreamClient(int port, const Work& work)
      : credentials(bench::kTlsPriority),
        session(Connected(port), GNUTLS_CLIENT, credentials),
        array(work.bytes) {
    session.Handshake();
  }

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) session.SendAll(array.data(), kCommandBytes);
  }
  unsigned Receive() override {
    for (std::size_t left = kCommandBytes; left > 0;) {
      const ssize_t n = gnutls_record_recv(session.Get(), answer.data(), left);
      if (n == GNUTLS_E_AGAIN) continue;  // a ticket
      if (Good(n, "receive") == 0) throw std::runtime_error("the server closed the connection");
      left -= static_cast<std::size_t>(n);
    }
    return 1;
  }
  void Push() override { session.SendAll(array.data(), array.size()); }

 private:
  const Credentials credentials;
  Session session;
  const std::vector<char> array;
  std::array<char, kCommandBytes> answer;
};

/// Opens a connection for each command, which it neither sends nor awaits, and closes it.
class ConnectClient : public bench::Client {
 public:
  explicit ConnectClient(int serverPort) : port(serverPort), credentials(bench::kTlsPriority) {
    credentials.Trust();
  }

  void Send(unsigned) override {
    session.emplace(Connected(port), GNUTLS_CLIENT, credentials);
    session->Handshake();
  }
  unsigned Receive() override {
    session->Finish();
    session.reset();
    return 1;
  }

 private:
  const int port;
  Credentials credentials;
  std::optional<Session> session;
};

class Gnutls : public bench::System {
 public:
  std::unique_ptr<bench::Server> Listen(const Work& work) override {
    return std::make_unique<TlsServer>(work);
  }
  std::unique_ptr<bench::Client> Connect(int port, const Work& work) override {
    bench::AwaitListener(port);
    if (work.speech == bench::Speech::TlsStream) return std::make_unique<StreamClient>(port, work);
    if (work.speech == bench::Speech::TlsConnect) return std::make_unique<ConnectClient>(port);
    return std::make_unique<HandshakeClient>(port, work);
  }
};

}  // namespace

int main(int argc, char** argv) {
  return bench::RunPeer({argv + 1, argv + argc},
                        [](const std::string&) { return std::make_unique<Gnutls>(); });
}
