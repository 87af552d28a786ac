// serve_websocket.cpp - a WebSocket server that sends every message back.
#include "host/serve.h"
#include "host/wsmessages.h"

namespace host {

namespace {

/// What a request gets that asks for anything else.
constexpr char kUpgradeRequired[] =
    "HTTP/1.1 426 Upgrade Required\r\n"
    "Upgrade: websocket\r\n"
    "Connection: Upgrade, close\r\n"
    "Content-Length: 0\r\n"
    "\r\n";

}  // namespace

int ServeWebSocket(const Console& console, const Settings& settings, const Endpoint& end,
                   const Tuning& tuning, bool strict) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  const std::string server =
      session.Server(ServerOptions("", {"http", end.address, end.port}, tuning));
  session.SetProp(server, "WSFeatures", kWsAutoUpgrade | (strict ? kWsStrict : 0));

  WsEcho echo(session);
  return RunServer(console, session, server, end.mode, tuning.tls, [&](const Event& event) {
    if (event.event == "HTTPHeader") session.Send(event.name, kUpgradeRequired, kSendAndClose);
    echo.Handle(event);
    return std::string();
  });
}

}  // namespace host
