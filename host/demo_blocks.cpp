// demo_blocks.cpp - the demo's calls in the block modes.
#include "host/demo.h"

namespace host {

namespace {

constexpr int kMaxBlock = 1 << 20;
constexpr int kBlockHead = 8;  // length and magic

/// The three ways in which an application may hold bytes.
std::vector<ZValue> FormsOf(const std::string& bytes) {
  const std::vector<unsigned char> data(bytes.begin(), bytes.end());
  const auto n = static_cast<std::uint32_t>(bytes.size());
  return {bytes, ZValue(ZType::I1, {n}, data), Unit("blkraw", bytes)};
}

void Blocks(DemoRun& run, const std::string& mode) {
  Tuning tuning;
  tuning.magic = kDemoMagic;
  tuning.bufferSize = kMaxBlock;
  run.Connect(mode, mode, tuning);

  for (const std::string& bytes :
       {std::string(), std::string("a"), std::string("\0\x7f\x80\xff", 4), SampleBytes(100'000, 2),
        SampleBytes(kMaxBlock - kBlockHead, 3)}) {
    for (const ZValue& form : FormsOf(bytes)) {
      run.session.Send(mode, form);
      run.Expect(mode, "Block", Unit(mode, bytes));
    }
  }

  // Many at once keep their bounds and their order.
  constexpr int kBurst = 50;
  for (int i = 0; i < kBurst; ++i) run.session.Send(mode, "block " + std::to_string(i));
  for (int i = 0; i < kBurst; ++i)
    run.Expect(mode, "Block", Unit(mode, "block " + std::to_string(i)));
}

void ReportOfSending(DemoRun& run) {
  run.session.Send("blktext", "registered", kSendReport);
  run.Expect("blktext", "Sent", 0);
  run.Expect("blktext", "Block", "registered");
}

}  // namespace

void DemoBlocks(DemoRun& run) {
  Blocks(run, "blkraw");
  Blocks(run, "blktext");
  ReportOfSending(run);
}

}  // namespace host
