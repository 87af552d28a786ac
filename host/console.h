// console.h - what the program prints: lines for people or, with --json, one object per line.
#pragma once

#include <exception>
#include <string>

#include "host/library.h"
#include "host/notation.h"

namespace host {

/// Each line leaves in one write, so that those of two processes on one terminal stay whole.
class Console {
 public:
  explicit Console(bool asJson) : json(asJson) {}

  bool IsJson() const { return json; }
  /// The text, or the object, as the mode asks. Standard output.
  void Say(const std::string& text, const Json& object) const;
  /// One event. `who` tells the two ends of a conversation apart; `remark` may be empty.
  void Show(const std::string& who, const Event& event, const std::string& remark = "") const;
  /// A failure: number, name and text where the library reported it. Standard error.
  void Fail(const std::exception& error) const;
  /// A condition worth telling that is no failure. Standard error.
  void Note(const std::string& text) const;

 private:
  const bool json;
};

/// The value in the notation where that is short, else what kind of array it is.
std::string Brief(const ZValue& value);

}  // namespace host
