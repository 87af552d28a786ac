// cdecf.h - decimal elements of arrays, VADpd and VABid, to and from other types.
//
// Every code is 0: a number that has no image gives the value that decimal128.h names.
#pragma once

#include "decimal/decimal128.h"

/// Bytes that hold the text of any decimal, the NUL included.
constexpr UI4 MaxDecfStrLen() { return 42; }

/// Text of up to MaxDecfStrLen bytes, whatever `size` says.
SI4 dpdToCH1(const F16* dpd, PCH1 text, UI4 size);
SI4 bidToCH1(const F16* bid, PCH1 text, UI4 size);

SI4 dpdToF8(const F16* dpd, PF8 result);
SI4 bidToF8(const F16* bid, PF8 result);
SI4 F8Todpd(F8 value, PF16 result);
SI4 F8Tobid(F8 value, PF16 result);

SI4 dpdToSI4(const F16* dpd, PSI4 result);
SI4 bidToSI4(const F16* bid, PSI4 result);
SI4 SI4Todpd(SI4 value, PF16 result);
SI4 SI4Tobid(SI4 value, PF16 result);
