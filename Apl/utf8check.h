// utf8check.h - is this text UTF-8 (RFC 3629)? Asked piece by piece: a character may be cut
// anywhere.
#pragma once

#include <cstddef>

#include "sys/linux/qlntypes.h"

/// Threads: one at a time.
class UTF8CHECK {
 public:
  /// False as soon as the text cannot become UTF-8 any more: a stray or missing continuation byte,
  /// an overlong form, a surrogate, above U+10FFFF. It stays false until Begin.
  bool Feed(const UI1* text, size_t n);
  /// The last character is whole.
  bool IsWhole() const { return state == 0; }
  /// A new text.
  void Begin() { state = 0; }

 private:
  UI8 state = 0;  // of the table in utf8check.cpp; 0: between two characters
};
