// tree.cpp - a few objects, and the tree that they make.
#include "host/commands.h"
#include "host/treeview.h"

namespace host {

namespace {

constexpr int kWaitMillis = 10'000;

}  // namespace

int Tree(const Console& console, const Settings& settings) {
  const Library library;
  const HostSession session(library, "HOST", settings);

  // A server and a client of each of two modes, one command on its way, one with the server.
  for (const std::string mode : {"command", "blktext"}) {
    const std::string server = "server_" + mode;
    const std::string client = "client_" + mode;
    session.Server(ServerOptions(server, {mode, kLoopback, "0"}, {}));
    const std::string port = std::to_string(session.Port(server));
    session.Client(ClientOptions(client, {mode, kLoopback, port}, {}));
    if (const Event event = session.Wait(server, kWaitMillis); event.event != "Connect")
      throw library.Error("no connection", event.code != 0 ? event.code : kTimeout);
  }
  session.Send("client_command.question", "what is the time?");
  session.Wait("server_command", kWaitMillis);
  session.Send("client_command.another", "and where?");
  session.Send("client_blktext", "a block");

  const ZValue tree = session.Tree();
  if (console.IsJson()) {
    console.Say("", TreeJson(tree));
  } else {
    for (const std::string& line : DrawTree(tree)) console.Say(line, {});
  }
  return 0;
}

}  // namespace host
