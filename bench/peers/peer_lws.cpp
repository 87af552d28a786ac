// peer_lws.cpp - libwebsockets as one of the measured systems: one thread, its own poll loop.
#include <libwebsockets.h>

#include "bench/peer.h"

namespace {

using bench::kHello;

constexpr unsigned kMaxConnections = 1024;

/// What libwebsockets keeps with each connection: a message that is to go back.
struct Echo {
  std::size_t length;
  unsigned char bytes[LWS_PRE + bench::kCommandBytes];  // libwebsockets writes its header in front
};

/// Header and body in one write. Non-zero ends the connection.
int AnswerRequest(lws* wsi) {
  unsigned char bytes[LWS_PRE + 512];
  unsigned char* const begin = bytes + LWS_PRE;
  unsigned char* const end = bytes + sizeof bytes - kHello.size();
  unsigned char* at = begin;
  if (lws_add_http_common_headers(wsi, HTTP_STATUS_OK, "text/plain", kHello.size(), &at, end) ||
      lws_finalize_http_header(wsi, &at, end))
    return 1;
  at = std::copy(kHello.begin(), kHello.end(), at);
  const auto n = static_cast<std::size_t>(at - begin);
  if (lws_write(wsi, begin, n, LWS_WRITE_HTTP_FINAL) != static_cast<int>(n)) return 1;
  return lws_http_transaction_completed(wsi);
}

int Keep(lws* wsi, Echo& echo, const void* bytes, std::size_t n) {
  if (n > bench::kCommandBytes) return 1;
  std::memcpy(echo.bytes + LWS_PRE, bytes, n);
  echo.length = n;
  lws_callback_on_writable(wsi);
  return 0;
}

int Return(lws* wsi, Echo& echo) {
  const int sent = lws_write(wsi, echo.bytes + LWS_PRE, echo.length, LWS_WRITE_TEXT);
  return sent < static_cast<int>(echo.length);
}

int OnEvent(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t n) {
  switch (reason) {
    case LWS_CALLBACK_HTTP:
      return AnswerRequest(wsi);
    case LWS_CALLBACK_RECEIVE:
      return Keep(wsi, *static_cast<Echo*>(user), in, n);
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return Return(wsi, *static_cast<Echo*>(user));
    default:
      return lws_callback_http_dummy(wsi, reason, user, in, n);
  }
}

constexpr lws_protocols kProtocols[] = {
    {"bench", OnEvent, sizeof(Echo), 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

class LwsServer : public bench::Server {
 public:
  LwsServer() {
    lws_set_log_level(LLL_ERR, nullptr);
    lws_context_creation_info info{};
    info.iface = "127.0.0.1";
    info.port = 0;
    info.protocols = kProtocols;
    info.fd_limit_per_thread = kMaxConnections;
    info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
    context.reset(lws_create_context(&info));
    if (!context) throw std::runtime_error("libwebsockets has no context");
    vhost = lws_create_vhost(context.get(), &info);
    if (!vhost) throw std::runtime_error("libwebsockets cannot listen");
  }

  int Port() const override { return lws_get_vhost_listen_port(vhost); }

  void Serve() override {
    while (lws_service(context.get(), 0) >= 0) continue;
  }

 private:
  struct Destroy {
    void operator()(lws_context* c) const { lws_context_destroy(c); }
  };

  std::unique_ptr<lws_context, Destroy> context;
  lws_vhost* vhost = nullptr;  // the context's
};

class Lws : public bench::System {
 public:
  std::unique_ptr<bench::Server> Listen(const bench::Work&) override {
    return std::make_unique<LwsServer>();
  }
};

}  // namespace

int main(int argc, char** argv) {
  return bench::RunPeer({argv + 1, argv + argc},
                        [](const std::string&) { return std::make_unique<Lws>(); });
}
