// serve.cpp - a server that sends everything back.
#include "host/commands.h"

namespace host {

namespace {

/// How long an interrupt may go unseen.
constexpr int kTurnMillis = 250;

void Echo(const Session& session, const Event& event) {
  if (event.event == "Receive") session.Respond(event.name, event.value);
  // A command is named by itself, a block by the connection that it came on.
  if (event.event == "Block") session.Send(event.name, event.value);
}

}  // namespace

int Serve(const Console& console, const Settings& settings, const Endpoint& end,
          const Tuning& tuning) {
  CatchInterrupts();
  const Library library;
  const HostSession session(library, "HOST", settings);
  const std::string server = session.Server(ObjectOptions("", end, tuning));
  const int port = session.Port(server);
  console.Say("serving " + end.mode + " on port " + std::to_string(port) + " as " + server,
              {{"event", "Listen"}, {"name", server}, {"mode", end.mode}, {"port", port}});

  while (!Interrupted()) {
    const Event event = session.Wait(server, kTurnMillis);
    if (event.IsTimeout()) continue;
    if (event.code != 0) throw library.Error("AWaitZ " + server, event.code);
    console.Show("served", event);
    try {
      Echo(session, event);
    } catch (const LibraryError& error) {
      console.Fail(error);  // this peer is gone; the others are served on
    }
  }
  return 0;
}

}  // namespace host
