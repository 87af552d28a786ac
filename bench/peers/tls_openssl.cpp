// tls_openssl.cpp - OpenSSL: its own server s_server for the handshakes, which takes one connection
// after another, and bare libssl for the stream, on blocking sockets, one thread a side.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "bench/peer.h"
#include "bench/program.h"
#include "bench/socket.h"
#include "bench/tls.h"

namespace {

using bench::Checked;
using bench::Descriptor;
using bench::kCommandBytes;
using bench::Work;

constexpr std::size_t kReadBytes = 65536;

void Require(bool good, const char* doing) {
  if (good) return;
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  throw std::runtime_error(std::string(doing) + ": " + text.data());
}

/// A connection, its session, and the context that is the session's alone.
class Session {
 public:
  Session(Descriptor connected, const SSL_METHOD* side, const Work& work)
      : socket(std::move(connected)), context(SSL_CTX_new(side)) {
    Require(context != nullptr, "context");
    SSL_CTX_set_read_ahead(context, 1);  // records come in as many as there are
    if (side == TLS_server_method()) {
      Require(SSL_CTX_use_certificate_file(context, bench::TlsCertificate(work).c_str(),
                                           SSL_FILETYPE_PEM) == 1,
              "certificate");
      Require(SSL_CTX_use_PrivateKey_file(context, bench::TlsPrivateKey(work).c_str(),
                                          SSL_FILETYPE_PEM) == 1,
              "key");
    } else {
      Require(SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1, "version");
      Require(SSL_CTX_set_ciphersuites(context, "TLS_AES_256_GCM_SHA384") == 1, "cipher");
    }
    session = SSL_new(context);
    Require(session && SSL_set_fd(session, socket.Get()) == 1, "session");
    Require((side == TLS_server_method() ? SSL_accept(session) : SSL_connect(session)) == 1,
            "handshake");
  }
  ~Session() {
    SSL_free(session);
    SSL_CTX_free(context);
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void SendAll(const char* from, std::size_t n) {
    std::size_t sent;
    Require(SSL_write_ex(session, from, n, &sent) == 1, "send");
  }
  /// 0 at the end.
  std::size_t Receive(char* to, std::size_t n) {
    std::size_t got = 0;
    return SSL_read_ex(session, to, n, &got) == 1 ? got : 0;
  }

 private:
  const Descriptor socket;
  SSL_CTX* context = nullptr;
  SSL* session = nullptr;
};

class StreamServer : public bench::Server {
 public:
  explicit StreamServer(const Work& w) : work(w) {
    port = bench::BindToFreePort(listener.Get());
    Checked(listen(listener.Get(), SOMAXCONN), "listen");
  }

  int Port() const override { return port; }

  void Serve() override {
    Descriptor accepted(
        static_cast<int>(Checked(accept(listener.Get(), nullptr, nullptr), "accept")));
    bench::SetNoDelay(accepted.Get());
    Session session(std::move(accepted), TLS_server_method(), work);
    const std::size_t batchBytes = work.bytes * work.outstanding + kCommandBytes;
    std::vector<char> bytes(kReadBytes);
    std::size_t received = 0;
    while (const std::size_t n = session.Receive(bytes.data(), bytes.size())) {
      received += n;
      if (received < batchBytes) continue;
      received -= batchBytes;
      session.SendAll(bytes.data(), kCommandBytes);
    }
  }

 private:
  const Work& work;
  const Descriptor listener = bench::NewSocket();
  int port = 0;
};

class StreamClient : public bench::Client {
 public:
  StreamClient(int port, const Work& work)
      : session(Connected(port), TLS_client_method(), work), array(work.bytes) {}

  void Send(unsigned n) override {
    for (unsigned i = 0; i < n; ++i) session.SendAll(array.data(), kCommandBytes);
  }
  unsigned Receive() override {
    std::array<char, kCommandBytes> answer;
    for (std::size_t left = answer.size(); left > 0;) {
      const std::size_t n = session.Receive(answer.data(), left);
      if (n == 0) throw std::runtime_error("the server closed the connection");
      left -= n;
    }
    return 1;
  }
  void Push() override { session.SendAll(array.data(), array.size()); }

 private:
  static Descriptor Connected(int port) {
    Descriptor socket = bench::NewSocket();
    bench::Connect(socket.Get(), port);
    return socket;
  }

  Session session;
  const std::vector<char> array;
};

class SServer : public bench::ProgramServer {
 public:
  explicit SServer(const Work& w) : work(w) {}

  void Serve() override {
    const Descriptor silence(static_cast<int>(Checked(open("/dev/null", O_WRONLY), "/dev/null")));
    Checked(dup2(silence.Get(), STDOUT_FILENO), "dup2");
    bench::Become({"openssl", "s_server", "-quiet", "-www", "-tls1_3", "-accept",
                   "127.0.0.1:" + std::to_string(Port()), "-cert", bench::TlsCertificate(work),
                   "-key", bench::TlsPrivateKey(work)});
  }

 private:
  const Work& work;
};

class Openssl : public bench::System {
 public:
  std::unique_ptr<bench::Server> Listen(const Work& work) override {
    if (work.speech == bench::Speech::TlsStream) return std::make_unique<StreamServer>(work);
    return std::make_unique<SServer>(work);
  }
  std::unique_ptr<bench::Client> Connect(int port, const Work& work) override {
    return std::make_unique<StreamClient>(port, work);
  }
};

}  // namespace

int main(int argc, char** argv) {
  return bench::RunPeer({argv + 1, argv + argc},
                        [](const std::string&) { return std::make_unique<Openssl>(); });
}
