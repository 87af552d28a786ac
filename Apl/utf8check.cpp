// utf8check.cpp - the UTF-8 check: a table of states in machine words.
//
// A state is a multiple of 6 below 64. Each byte has a word that holds, at the bit of each state,
// the state that follows; so a step is one shift, whatever the byte, and no branch:
//
//   state   what may follow                         by the leads
//   kWhole  a character                             00..7F
//   kOne    80..BF, then a whole character          C2..DF
//   kTwo    80..BF, then kOne                       E1..EC, EE, EF
//   kThree  80..BF, then kTwo                       F1..F3
//   kE0     A0..BF, then kOne: nothing overlong     E0
//   kED     80..9F, then kOne: no surrogates        ED
//   kF0     90..BF, then kTwo: nothing overlong     F0
//   kF4     80..8F, then kTwo: up to U+10FFFF       F4
//   kBad    nothing, for good                       all others

#include "Apl/utf8check.h"

#include <array>
#include <cstring>

namespace {

enum STATE : UI8 {
  kWhole = 0,
  kOne = 6,
  kTwo = 12,
  kThree = 18,
  kE0 = 24,
  kED = 30,
  kF0 = 36,
  kF4 = 42,
  kBad = 48
};
constexpr UI8 kStateMask = 63;
constexpr UI8 kHighs = 0x8080808080808080;
constexpr size_t kPiece = 16;  // bytes between two looks whether it is all ASCII again

struct RANGE {
  STATE from;
  UI4 first, last;  // bytes
  STATE then;
};
constexpr RANGE kRanges[] = {
    {kWhole, 0x00, 0x7F, kWhole}, {kWhole, 0xC2, 0xDF, kOne},   {kWhole, 0xE0, 0xE0, kE0},
    {kWhole, 0xE1, 0xEC, kTwo},   {kWhole, 0xED, 0xED, kED},    {kWhole, 0xEE, 0xEF, kTwo},
    {kWhole, 0xF0, 0xF0, kF0},    {kWhole, 0xF1, 0xF3, kThree}, {kWhole, 0xF4, 0xF4, kF4},
    {kOne, 0x80, 0xBF, kWhole},   {kTwo, 0x80, 0xBF, kOne},     {kThree, 0x80, 0xBF, kTwo},
    {kE0, 0xA0, 0xBF, kOne},      {kED, 0x80, 0x9F, kOne},      {kF0, 0x90, 0xBF, kTwo},
    {kF4, 0x80, 0x8F, kTwo},
};

constexpr std::array<UI8, 256> MakeSteps() {
  UI8 allBad = 0;
  for (UI8 state = kWhole; state <= kBad; state += 6) allBad |= UI8{kBad} << state;
  std::array<UI8, 256> steps{};
  for (UI8& step : steps) step = allBad;
  for (const RANGE& range : kRanges) {
    for (UI4 byte = range.first; byte <= range.last; ++byte)
      steps[byte] ^= (UI8{kBad} ^ UI8{range.then}) << range.from;
  }
  return steps;
}
constexpr std::array<UI8, 256> kSteps = MakeSteps();

// How many bytes from the start are ASCII, in whole words.
size_t AsciiWords(const UI1* text, size_t n) {
  size_t at = 0;
  for (UI8 four[4]; n - at >= sizeof four; at += sizeof four) {
    memcpy(four, text + at, sizeof four);
    if ((four[0] | four[1] | four[2] | four[3]) & kHighs) break;
  }
  for (UI8 word; n - at >= sizeof word; at += sizeof word) {
    memcpy(&word, text + at, sizeof word);
    if (word & kHighs) break;
  }
  return at;
}

// The mask is left to the next shift, which takes the low six bits alone.
UI8 Step(UI8 state, UI1 byte) { return kSteps[byte] >> (state & kStateMask); }

}  // namespace

bool UTF8CHECK::Feed(const UI1* text, size_t n) {
  UI8 at = state;
  while (n > 0) {
    if (at == kWhole) {
      const size_t ascii = AsciiWords(text, n);
      text += ascii;
      n -= ascii;
    }
    // A few characters that are not, then the fast way again.
    const size_t piece = n < kPiece ? n : kPiece;
    for (size_t i = 0; i < piece; ++i) at = Step(at, text[i]);
    at &= kStateMask;
    if (at == kBad) break;
    text += piece;
    n -= piece;
  }
  state = at;
  return at != kBad;
}
