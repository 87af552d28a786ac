// serve.cpp - a server that sends everything back.
#include "host/serve.h"

namespace host {

namespace {

/// How long an interrupt may go unseen.
constexpr int kTurnMillis = 250;

void Echo(const Session& session, const Event& event) {
  if (event.event == "Receive") session.Respond(event.name, event.value);
  // A command is named by itself, a block by the connection, or the sender, that it came from.
  if (event.event == "Block") session.Send(event.name, event.value);
}

}  // namespace

int RunServer(const Console& console, const Session& session, const std::string& server,
              const std::string& mode, const Tls& tls, const Handler& handle) {
  CatchInterrupts();
  const int port = session.Port(server);
  const bool secure = tls.IsWanted();
  console.Say(
      "serving " + mode + (secure ? " over TLS" : "") + " on port " + std::to_string(port) +
          " as " + server,
      {{"event", "Listen"}, {"name", server}, {"mode", mode}, {"tls", secure}, {"port", port}});

  while (!Interrupted()) {
    const Event event = session.Wait(server, kTurnMillis);
    if (event.IsTimeout()) continue;
    if (event.code != 0) throw session.Lib().Error("AWaitZ " + server, event.code);
    std::string remark;
    try {
      remark = handle(event);
      if (event.event == "Connect" && tls.KnowsClients()) remark = PeerSubject(session, event.name);
    } catch (const LibraryError& error) {
      console.Fail(error);  // this peer is gone; the others are served on
    }
    console.Show("served", event, remark);
  }
  return 0;
}

int Serve(const Console& console, const Settings& settings, const Endpoint& end,
          const Tuning& tuning) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  const std::string server = session.Server(ServerOptions("", end, tuning));
  return RunServer(console, session, server, end.mode, tuning.tls, [&](const Event& event) {
    Echo(session, event);
    return std::string();
  });
}

}  // namespace host
