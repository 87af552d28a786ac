// demo_commands.cpp - the demo's calls in mode command.
#include <cstdio>

#include "host/demo.h"

namespace host {

namespace {

constexpr std::size_t kLargeBytes = std::size_t{64} << 20;

void EveryArray(DemoRun& run) {
  for (const ZValue& value : SampleArrays()) {
    run.session.Send("command", value);
    run.Expect("command", "Receive", value);
  }
}

void ProgressThenAnswer(DemoRun& run) {
  const ZValue question = "a long computation";
  run.session.Send(std::string("command.") + kProgressName, question);
  for (int i = 0; i < kProgressReports; ++i) run.Expect("command", "Progress", ProgressReport(i));
  run.Expect("command", "Receive", question);
}

/// The other process holds all of them, and answers the last one first, one at a time.
void AnswersInReverse(DemoRun& run) {
  std::vector<std::string> names;
  for (int i = 0; i < kReverseCommands; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "command.%s%02d", kReverseName, i);
    names.push_back(run.session.Send(name, name));
  }
  for (; !names.empty(); names.pop_back()) {
    run.session.Send("command", kNextPlease, kSendNoAnswer);
    run.Expect("command", "Receive", names.back());
  }
}

void LargeArray(DemoRun& run) {
  const std::string bytes = SampleBytes(kLargeBytes, 64);
  const std::vector<unsigned char> data(bytes.begin(), bytes.end());
  const ZValue value(ZType::I4, {4096, 4096}, data);
  run.session.Send("command", value);
  run.Expect("command", "Receive", value);
}

}  // namespace

void DemoCommands(DemoRun& run) {
  run.Connect("command", "command");
  EveryArray(run);
  ProgressThenAnswer(run);
  AnswersInReverse(run);
  LargeArray(run);
}

}  // namespace host
