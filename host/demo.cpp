// demo.cpp - two processes, every mode, everything compared.
#include "host/demo.h"

#include <chrono>
#include <stdexcept>

#include "host/democerts.h"
#include "host/process.h"
#include "host/treeview.h"

namespace host {

namespace {

constexpr int kStartMillis = 10'000;

/// Longest wait for one event; the largest array takes a good part of it on a slow machine.
constexpr int kEventMillis = 20'000;

struct Part {
  const char* title;
  void (*run)(DemoRun&);
};
constexpr Part kParts[] = {
    {"Commands: arrays of every type, progress, answers in another order", DemoCommands},
    {"Blocks: blkraw and blktext", DemoBlocks},
    {"Streams: raw, text, and text cut by stop sequences", DemoStreams},
    {"Relay: two connections coupled, both ways", DemoRelay},
    {"HTTP: a file, the same compressed, chunks with a trailer", DemoHttp},
    {"WebSocket: text, bytes, a message in three frames", DemoWebSocket},
    {"UDP: datagrams", DemoUdp},
    {"TLS 1.3: commands, a file, messages; certificates both ways, and a caller without",
     DemoSecure},
};

void Title(const Console& console, const std::string& title) {
  if (!console.IsJson()) console.Say("", {});
  console.Say("== " + title, {{"part", title}});
}

std::map<std::string, int> PortsOf(const std::string& line) {
  return Json::parse(line).get<std::map<std::string, int>>();
}

void ShowTree(const Console& console, const Session& session) {
  Title(console, "The objects of this process");
  const ZValue tree = session.Tree();
  if (console.IsJson()) return console.Say("", {{"tree", TreeJson(tree)}});
  for (const std::string& line : DrawTree(tree)) console.Say(line, {});
}

void Summary(const DemoRun& run, int childExit, double seconds) {
  const bool good = run.Different() == 0 && childExit == 0;
  const auto tenths = static_cast<long>(seconds * 10);
  const std::string time = std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
  Title(run.console, "Summary");
  std::string text = std::to_string(run.Compared()) + " comparisons, " +
                     std::to_string(run.Different()) + " differences, " +
                     std::to_string(run.BytesBack() >> 20) + " MiB back, " + time +
                     " s: " + (good ? "all equal" : "FAILED");
  if (childExit != 0) text += " (the other process ended with " + std::to_string(childExit) + ")";
  run.console.Say(text, {{"summary",
                          {{"compared", run.Compared()},
                           {"different", run.Different()},
                           {"bytes", run.BytesBack()},
                           {"seconds", seconds},
                           {"peerExit", childExit},
                           {"equal", good}}}});
}

}  // namespace

std::string DemoMode(const std::string& server) {
  // A server with stops of its own is a text server all the same, and a WebSocket begins as HTTP.
  if (server == "lines") return "text";
  if (server == "secure") return "command";
  return server == "websocket" || server == "https" || server == "wss" ? "http" : server;
}

std::string DemoRun::Connect(const std::string& client, const std::string& server,
                             const Tuning& tuning) {
  const std::string port = std::to_string(ports.at(server));
  return session.Client(ClientOptions(client, {DemoMode(server), kLoopback, port}, tuning));
}

Event DemoRun::Await(const std::string& name) {
  Event event = session.Wait(name, kEventMillis);
  if (event.IsTimeout()) throw std::runtime_error("nothing came for " + name);
  if (event.code != 0) throw session.Lib().Error("AWaitZ " + name, event.code);
  return event;
}

std::string DemoRun::Score(bool equal) {
  ++compared;
  if (!equal) ++different;
  return equal ? "equal" : "DIFFERENT";
}

void DemoRun::Judge(const Event& event, const std::string& kind, const ZValue& value) {
  console.Show("called", event, Score(event.event == kind && event.value == value));
  bytesBack += event.value.Data().size();
}

void DemoRun::ExpectStream(const std::string& name, const std::string& bytes) {
  std::string got;
  while (got.size() < bytes.size()) {
    const Event event = Await(name);
    const bool block = event.event == "Block";
    if (block) got += event.value.Bytes();
    console.Show("called", event,
                 std::to_string(got.size()) + " of " + std::to_string(bytes.size()) + " bytes");
    if (!block) break;
  }
  bytesBack += got.size();
  const std::string verdict = Score(got == bytes);
  console.Say("        " + std::to_string(got.size()) + " bytes " + verdict,
              {{"stream", name}, {"bytes", got.size()}, {"remark", verdict}});
}

int Demo(const Console& console, const Settings& settings) {
  const auto begin = std::chrono::steady_clock::now();
  const DemoCerts certs;
  // The other process comes first: this one has no threads yet, and what fails there shows here.
  std::vector<std::string> arguments{"demo-peer", std::to_string(ChildProcess::kPipe),
                                     certs.folder};
  if (console.IsJson()) arguments.push_back("--json");
  if (settings.trace) arguments.push_back("--trace");
  ChildProcess child(arguments);

  const Library library;
  const HostSession session(library, "CALLER",
                            {settings.trace, DemoTls(certs.folder, kDemoClient).caDir});
  DemoRun run(session, console, PortsOf(child.ReadLine(kStartMillis)), certs.folder);
  for (const Part& part : kParts) {
    Title(console, part.title);
    try {
      part.run(run);
    } catch (const std::exception& error) {
      console.Fail(error);
      run.CountFailure();
    }
  }
  ShowTree(console, session);

  const int childExit = child.End();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  Summary(run, childExit, took.count());
  return run.Different() == 0 && childExit == 0 ? 0 : 1;
}

}  // namespace host
