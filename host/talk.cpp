// talk.cpp - blocks of text by hand.
#include "host/talk.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace host {

namespace {

bool IsUtf8(const std::string& bytes) {
  try {
    TextValue(bytes);
    return true;
  } catch (const ZError&) {
    return false;
  }
}

bool IsControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }

Json BlockJson(const std::string& bytes) {
  if (IsUtf8(bytes)) return bytes;
  return std::vector<unsigned char>(bytes.begin(), bytes.end());
}

}  // namespace

std::string BlockText(const std::string& bytes) {
  const bool isLine = std::none_of(bytes.begin(), bytes.end(), IsControl) && IsUtf8(bytes);
  return isLine ? bytes : Print(BlockJson(bytes));
}

void Talk::Connected() {
  if (!connected) console.Say("connected", {{"event", "Connected"}});
  connected = true;
}

void Talk::Gone() {
  console.Say("gone", {{"event", "Gone"}});
  connected = false;
}

int Talk::InputFd() const {
  const bool wanted = connected && !options.echo && !ended && !line && !IsFull();
  return wanted ? in : -1;
}

void Talk::ReadInput() {
  char bytes[65536];
  const ssize_t n = read(in, bytes, sizeof bytes);
  if (n > 0) pending.append(bytes, static_cast<std::size_t>(n));
  ended = n == 0 || (n < 0 && errno != EINTR);
}

const std::string* Talk::Line() {
  if (!line) {
    const std::size_t end = pending.find('\n');
    if (end != std::string::npos) {
      line = pending.substr(0, end);
      pending.erase(0, end + 1);
    } else if (ended && !pending.empty()) {
      line = std::move(pending);
      pending.clear();
    }
  }
  return line ? &*line : nullptr;
}

void Talk::Sent() {
  line.reset();
  lastSent = Clock::now();
}

const std::string* Talk::Block(const std::string& bytes) {
  if (IsFull()) return nullptr;
  ++blocks;
  lastCame = Clock::now();
  console.Say("block " + std::to_string(bytes.size()) + ": " + BlockText(bytes),
              {{"event", "Block"}, {"size", bytes.size()}, {"value", BlockJson(bytes)}});
  if (!options.echo) return nullptr;
  lastSent = lastCame;
  echoed = bytes;
  return &echoed;
}

bool Talk::IsOver() const {
  const auto silent = [&](Clock::time_point since) {
    return Clock::now() - since >= std::chrono::milliseconds(options.waitMillis);
  };
  if (options.count > 0) return IsFull() && silent(lastSent);
  return ended && pending.empty() && !line && silent(std::max(lastSent, lastCame));
}

}  // namespace host
