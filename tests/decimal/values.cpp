// values.cpp - converts the numbers that compare.py sends, one in a line, and answers each line.
//
//   bid HEX, dpd HEX   to text, the bits of a double, a whole number and the other encoding
//   f8 HEX, si4 N      to both encodings
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "decimal/cdecf.h"

namespace {

void Print(F16 value) { std::printf("%016" PRIx64 "%016" PRIx64 " ", value.high, value.low); }

void AnswerDecimal(F16 value, bool packed) {
  CH1 text[MaxDecfStrLen()];
  F8 real = 0;
  SI4 whole = 0;
  (packed ? dpdToCH1 : bidToCH1)(&value, text, sizeof text);
  (packed ? dpdToF8 : bidToF8)(&value, &real);
  (packed ? dpdToSI4 : bidToSI4)(&value, &whole);
  std::printf("%s %016" PRIx64 " %d ", text, std::bit_cast<UI8>(real), whole);
  Print(packed ? bid_dpd_to_bid128(value) : bid_to_dpd128(value));
}

}  // namespace

int main() {
  char what[4];
  while (std::scanf("%3s", what) == 1) {
    F16 bid{}, dpd{};
    if (std::strcmp(what, "si4") == 0) {
      SI4 value = 0;
      if (std::scanf("%d", &value) != 1) return 1;
      SI4Tobid(value, &bid);
      SI4Todpd(value, &dpd);
    } else if (std::strcmp(what, "f8") == 0) {
      UI8 bits = 0;
      if (std::scanf("%16" SCNx64, &bits) != 1) return 1;
      F8Tobid(std::bit_cast<F8>(bits), &bid);
      F8Todpd(std::bit_cast<F8>(bits), &dpd);
    } else {
      F16 value;
      if (std::scanf("%16" SCNx64 "%16" SCNx64, &value.high, &value.low) != 2) return 1;
      AnswerDecimal(value, std::strcmp(what, "dpd") == 0);
      std::puts("");
      continue;
    }
    Print(bid);
    Print(dpd);
    std::puts("");
  }
  return 0;
}
