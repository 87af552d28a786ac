// cdecf.cpp - decimal elements of arrays to and from other types.
#include "decimal/cdecf.h"

SI4 bidToCH1(const F16* bid, PCH1 text, UI4) {
  bid128_to_string(*bid, text);
  return 0;
}

SI4 dpdToCH1(const F16* dpd, PCH1 text, UI4 size) {
  const F16 bid = bid_dpd_to_bid128(*dpd);
  return bidToCH1(&bid, text, size);
}

SI4 bidToF8(const F16* bid, PF8 result) {
  *result = bid128_to_binary64(*bid);
  return 0;
}

SI4 dpdToF8(const F16* dpd, PF8 result) {
  const F16 bid = bid_dpd_to_bid128(*dpd);
  return bidToF8(&bid, result);
}

SI4 F8Tobid(F8 value, PF16 result) {
  *result = binary64_to_bid128(value);
  return 0;
}

SI4 F8Todpd(F8 value, PF16 result) {
  *result = bid_to_dpd128(binary64_to_bid128(value));
  return 0;
}

SI4 bidToSI4(const F16* bid, PSI4 result) {
  *result = bid128_to_int32_xint(*bid);
  return 0;
}

SI4 dpdToSI4(const F16* dpd, PSI4 result) {
  const F16 bid = bid_dpd_to_bid128(*dpd);
  return bidToSI4(&bid, result);
}

SI4 SI4Tobid(SI4 value, PF16 result) {
  *result = bid128_from_int32(value);
  return 0;
}

SI4 SI4Todpd(SI4 value, PF16 result) {
  *result = bid_to_dpd128(bid128_from_int32(value));
  return 0;
}
