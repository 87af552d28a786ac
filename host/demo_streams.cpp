// demo_streams.cpp - the demo's calls in the stream modes, and its relay.
#include "host/demo.h"

namespace host {

namespace {

constexpr std::size_t kStreamBytes = 300'000;
constexpr std::size_t kRelayBytes = 100'000;

void Stream(DemoRun& run, const std::string& mode) {
  run.Connect(mode, mode);
  for (const std::string& bytes : {std::string("first"), SampleBytes(kStreamBytes, 4)}) {
    run.session.Send(mode, bytes);
    run.ExpectStream(mode, bytes);
  }
}

/// Both ends cut: the other one sends each line back with its number in front, in units of its
/// own, and this one gets whole lines however they were cut on the way.
void Lines(DemoRun& run) {
  Tuning tuning;
  tuning.stops = kLineStops;
  run.Connect("lines", "lines", tuning);
  for (const char* piece : {"one line\r\nand ", "a second\nthe third\r", "\n\n"})
    run.session.Send("lines", piece);
  int i = 0;
  for (const char* line : {"one line\r\n", "and a second\n", "the third\r\n", "\n"})
    run.Expect("lines", "Block", NumberedLine(++i, line));
}

}  // namespace

void DemoStreams(DemoRun& run) {
  Stream(run, "raw");
  Stream(run, "text");
  Lines(run);
}

void DemoRelay(DemoRun& run) {
  const Session& session = run.session;
  session.Server(ServerOptions("front", {"raw", kLoopback, "0"}, {}));
  const std::string port = std::to_string(session.Port("front"));
  session.Client(ClientOptions("near", {"raw", kLoopback, port}, {}));
  const Event connected = run.Await("front");
  run.console.Show("called", connected);

  run.Connect("onward", "raw");
  session.Relay(connected.name, "onward");
  const std::string bytes = SampleBytes(kRelayBytes, 5);
  session.Send("near", bytes);
  run.ExpectStream("near", bytes);
}

}  // namespace host
