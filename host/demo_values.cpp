// demo_values.cpp - the arrays and bytes that the demo sends.

#include "host/demo.h"

namespace host {

namespace {

/// Bytes that are good elements of any type: characters stay characters, decimals stay finite.
std::vector<unsigned char> ElementBytes(ZType type, std::size_t n) {
  std::vector<unsigned char> bytes(n);
  const std::size_t width = ElementBits(type) / 8;
  for (std::size_t i = 0; i < n; ++i) {
    const bool highByte = type == ZType::C4 ? i % width > 1 : false;
    bytes[i] = highByte ? 0 : static_cast<unsigned char>(0x20 + i * 37 % 0x50);
  }
  return bytes;
}

ZValue Sample(ZType type, const std::vector<std::uint32_t>& shape) {
  std::size_t count = 1;
  for (const std::uint32_t axis : shape) count *= axis;
  const std::size_t bytes = type == ZType::Bit ? (count + 7) / 8 : count * (ElementBits(type) / 8);
  return ZValue(type, shape, ElementBytes(type, bytes));
}

std::vector<ZValue> MakeSamples() {
  constexpr ZType kSimple[] = {ZType::Bit,     ZType::I1,  ZType::I2, ZType::I4,
                               ZType::F8,      ZType::C1,  ZType::C2, ZType::C4,
                               ZType::Complex, ZType::Dpd, ZType::Bid};
  const std::vector<std::uint32_t> kShapes[] = {{}, {5}, {2, 3}, {2, 3, 4}, {0}, {3, 0, 2}};
  std::vector<ZValue> samples;
  for (const ZType type : kSimple)
    for (const auto& shape : kShapes) samples.push_back(Sample(type, shape));

  const ZValue matrix = Sample(ZType::F8, {2, 2});
  const ZValue pair = ZValue::List({"text", matrix});
  samples.push_back(pair);
  samples.push_back(ZValue::List({pair, 7, ZValue::List({}), Sample(ZType::Bit, {9})}));
  samples.push_back(ZValue({}, {pair}));
  samples.push_back(ZValue({2, 2}, {pair, "", 2.5, matrix}));
  samples.push_back(ZValue({1, 2, 1}, {pair, pair}));
  samples.push_back(ZValue({0}, {}));
  samples.push_back(ZValue({2, 0, 3}, {}));
  ZValue deep = 1;
  for (int level = 0; level < 100; ++level) deep = ZValue::List({deep});
  samples.push_back(deep);
  samples.push_back(Sample(ZType::I1, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2}));
  return samples;
}

}  // namespace

const std::vector<ZValue>& SampleArrays() {
  static const std::vector<ZValue> samples = MakeSamples();
  return samples;
}

std::string SampleBytes(std::size_t n, std::uint32_t seed) {
  std::string bytes(n, '\0');
  std::uint32_t state = seed | 1;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

ZValue Unit(const std::string& mode, const std::string& bytes) {
  if (mode == "text" || mode == "blktext") return bytes;
  std::vector<std::int16_t> numbers;
  numbers.reserve(bytes.size());
  for (const char byte : bytes) numbers.push_back(static_cast<unsigned char>(byte));
  return ZValue::Vector(ZType::I2, numbers);
}

ZValue ProgressReport(int i) { return ZValue::List({"step", i}); }

std::string ServedBytes() {
  constexpr int kLines = 200'000;
  std::string text;
  for (int i = 0; i < kLines; ++i) text += NumberedLine(i, "the same again\n");
  return text;
}

std::string NumberedLine(int i, const std::string& line) { return std::to_string(i) + ": " + line; }

}  // namespace host
