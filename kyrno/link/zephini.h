// zephini.h - the configuration file of the link, read from one opening to the last of its values.
//
// PLATIni passes over in silence: the rest of a long line, a second section of the same name, a
// section that is indented, a second key, and one that only begins like the key that was asked for.
// Here each of these is an error where it could leave the link open: Check.
#pragma once

#include <cstdio>
#include <memory>

#include "sys/linux/qlnplat.h"

/// Opened once: with no descriptor left in the midst, or another file in its place, a part of what
/// it asks for would be missing.
///
/// Owner:   whoever reads the configuration, on his stack.
class INIFILE {
 public:
  explicit INIFILE(PCH10 name);

  /// ERR_ZEPH_INI_NOT_FOUND for one that is there and can't be read, or that has to be there and
  /// isn't: it isn't one that asks for nothing. ERR_ARG_INVALID, or ERR_INVALID_ADDR among filters,
  /// where it has a line that says something and would not be read so.
  [[nodiscard]] SI4 Check(bool mustBe) const;
  /// Has everything been read that was asked for?
  bool IsWhole() const { return !file || !ferror(file.get()); }

  /// A value, until the next call.
  PCH10 Text(PCH10 section, PCH10 key, PCH10 missing = "");
  /// Of section "Zeph".
  PCH10 Text(PCH10 key) { return Text("Zeph", key); }
  /// Text that is no number is 0, a negative one wraps, one that is too large is the largest.
  UI4 Number(PCH10 key, UI4 missing);

 private:
  struct CLOSE {
    void operator()(FILE* opened) const { fclose(opened); }
  };
  const std::unique_ptr<FILE, CLOSE> file;
  bool mayLack = false;
  CH1 text[2048] = {};
};
