// demo_peer.cpp - the other process of the demo: it serves what the first one calls.
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include "host/demo.h"
#include "host/demo_webpeer.h"
#include "host/democerts.h"
#include "host/wsmessages.h"

namespace host {

namespace {

constexpr int kTurnMillis = 250;
constexpr int kMaxBlock = 1 << 20;

/// "DecodeBuffers": headers, trailers and chunks.
constexpr int kDecodeRequests = 7;

/// One server per mode, one that cuts lines, and three over TLS.
Json StartServers(const Session& session, const Tls& tls) {
  Json ports;
  const auto start = [&](const std::string& name, const Tuning& tuning) {
    session.Server(ServerOptions(name, {DemoMode(name), kLoopback, "0"}, tuning));
    ports[name] = session.Port(name);
  };
  Tuning blocks;
  blocks.magic = kDemoMagic;
  blocks.bufferSize = kMaxBlock;
  Tuning lines;
  lines.stops = kLineStops;
  Tuning secure;
  secure.tls = tls;
  for (const char* name : {"command", "raw", "text", "http", "websocket", "udp"}) start(name, {});
  for (const char* name : {"blkraw", "blktext"}) start(name, blocks);
  for (const char* name : {"secure", "https", "wss"}) start(name, secure);
  start("lines", lines);
  for (const char* name : {"http", "https"})
    session.SetProp(name, "DecodeBuffers", kDecodeRequests);
  for (const char* name : {"websocket", "wss"})
    session.SetProp(name, "WSFeatures", kWsAutoUpgrade | kWsStrict);
  return ports;
}

void TellPorts(const Json& ports, int fd) {
  const std::string line = Print(ports) + "\n";
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    throw std::runtime_error("nobody listens for the ports");
}

/// What it does with each event. One thread, one session.
class Responder {
 public:
  explicit Responder(const Session& s) : session(s), web(s), echo(s) {}

  void Handle(const Event& event) {
    web.Handle(event);
    echo.Handle(event);
    if (event.event == "Receive") return Answer(event);
    if (event.event != "Block") return;
    // A block goes by the name of its connection.
    const bool line = event.name.starts_with("lines.");
    session.Send(event.name,
                 line ? NumberedLine(++lineNumber[event.name], event.value.Text()) : event.value);
  }

 private:
  void Answer(const Event& event) {
    if (event.value == ZValue(kNextPlease)) return AnswerLastHeld();
    const std::size_t dot = event.name.rfind('.');
    const std::string name = event.name.substr(dot + 1);
    if (name == kWhoName)
      return session.Respond(event.name, PeerSubject(session, event.name.substr(0, dot)));
    if (name.starts_with(kReverseName)) return held.push_back(event);
    if (name == kProgressName)
      for (int i = 0; i < kProgressReports; ++i) session.Respond(event.name, ProgressReport(i), 0);
    session.Respond(event.name, event.value);
  }

  void AnswerLastHeld() {
    const Event last = held.back();
    held.pop_back();
    session.Respond(last.name, last.value);
  }

  const Session& session;
  const WebResponder web;
  WsEcho echo;
  std::vector<Event> held;
  std::map<std::string, int> lineNumber;  // by connection
};

}  // namespace

int DemoPeer(const Console& console, const Settings& settings, int portsFd,
             const std::string& certs) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);  // the demo may be ended without a chance to end this one
  CatchInterrupts();
  const Library library;
  const Tls tls = DemoTls(certs, kDemoServer);
  const HostSession session(library, "SERVER", {settings.trace, tls.caDir});
  TellPorts(StartServers(session, tls), portsFd);

  Responder responder(session);
  bool failed = false;
  while (!Interrupted()) {
    const Event event = session.Wait(".", kTurnMillis);
    if (event.IsTimeout()) continue;
    if (event.code != 0) throw library.Error("AWaitZ", event.code);
    console.Show("served", event);
    try {
      responder.Handle(event);
    } catch (const LibraryError& error) {
      console.Fail(error);
      failed = true;  // and on with the rest: the other end misses what did not come
    }
  }
  return failed ? 1 : 0;
}

}  // namespace host
