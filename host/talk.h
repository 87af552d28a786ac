// talk.h - blocks of text by hand: lines of standard input go out, blocks that come are printed.
//
// Both ends of the link to a remote development environment talk so.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "host/console.h"

namespace host {

/// The largest block, header included, and the word that marks each, unless something else is
/// said.
inline constexpr int kLinkMaxBlock = 0x1000000;
inline constexpr int kLinkMagic = 0x5A455048;

struct TalkOptions {
  bool echo = false;  ///< every block goes back, and standard input is not read
  int count = 0;      ///< blocks that end it; 0: the end of input does
  int waitMillis = 1000;
};

/// One conversation, over however many connections.
///
/// Threads: one.
class Talk {
 public:
  /// input: a descriptor, borrowed.
  Talk(const Console& c, const TalkOptions& o, int input) : console(c), options(o), in(input) {}

  /// A session stands, or no longer does; said once for each change.
  void Connected();
  void Gone();
  bool IsConnected() const { return connected; }

  /// The descriptor from which there is something to read now; -1: without a session lines wait
  /// where they are.
  int InputFd() const;
  /// One read, which waits when there is nothing.
  void ReadInput();
  /// A line to send, the last one with or without its end; null for none yet. It stays until Sent.
  const std::string* Line();
  /// The line has gone, or will not go.
  void Sent();

  /// A block has come: prints it. What is to go back, null for nothing. Behind the last that counts
  /// blocks are passed over.
  const std::string* Block(const std::string& bytes);

  /// Whether all has been said: behind the last block or the end of input, and some silence, since
  /// what was sent last may still be on its way.
  bool IsOver() const;

 private:
  using Clock = std::chrono::steady_clock;

  bool IsFull() const { return options.count > 0 && blocks >= options.count; }

  const Console& console;
  const TalkOptions options;
  const int in;
  bool connected = false;
  bool ended = false;
  int blocks = 0;
  std::string pending;  // read, not yet a line
  std::optional<std::string> line;
  std::string echoed;
  Clock::time_point lastSent{};
  Clock::time_point lastCame{};
};

/// A block for people: text as it is, in the notation where it would not be one line, and bytes as
/// a list.
std::string BlockText(const std::string& bytes);

}  // namespace host
