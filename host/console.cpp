// console.cpp - what the program prints.
#include "host/console.h"

#include <unistd.h>

namespace host {

namespace {

constexpr std::uint64_t kBriefElements = 64;
constexpr std::size_t kBriefWidth = 100;

/// Data that a reader of JSON lines wants as a whole; above it the kind alone tells enough.
constexpr std::size_t kMaxJsonBytes = 1 << 20;

void WriteLine(int fd, std::string line) {
  line += '\n';
  std::size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = write(fd, line.data() + done, line.size() - done);
    if (n < 0) return;  // nobody reads any more
    done += static_cast<std::size_t>(n);
  }
}

/// The data of an event that only tells a code is the bare code.
bool TellsACode(const Event& event) {
  return event.value.Type() == ZType::I4 && event.value.Rank() == 0 &&
         (event.event == "Connect" || event.event == "Sent" || event.event == "Closed" ||
          event.event == "Error");
}

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.resize(width, ' ');
  return text;
}

}  // namespace

std::string Brief(const ZValue& value) {
  if (value.Count() <= kBriefElements) {
    std::string text = Print(ToJson(value));
    if (text.size() <= kBriefWidth) return text;
  }
  return Kind(value);
}

void Console::Say(const std::string& text, const Json& object) const {
  WriteLine(STDOUT_FILENO, json ? Print(object) : text);
}

void Console::Show(const std::string& who, const Event& event, const std::string& remark) const {
  if (!json) {
    std::string line =
        Padded(who, 8) + Padded(event.event, 13) + Padded(event.name, 34) + ' ' +
        (TellsACode(event) ? std::to_string(event.value.Integer()) : Brief(event.value));
    if (!remark.empty()) line += "  " + remark;
    WriteLine(STDOUT_FILENO, line);
    return;
  }
  Json object = {{"who", who},
                 {"event", event.event},
                 {"name", event.name},
                 {"times", std::vector<std::int64_t>(event.times.begin(), event.times.end())},
                 {"kind", Kind(event.value)}};
  if (event.value.Data().size() <= kMaxJsonBytes) object["value"] = ToJson(event.value);
  if (!remark.empty()) object["remark"] = remark;
  WriteLine(STDOUT_FILENO, Print(object));
}

void Console::Fail(const std::exception& error) const {
  if (!json) return WriteLine(STDERR_FILENO, std::string("kyrno-host: ") + error.what());
  Json object;
  if (const auto* failure = dynamic_cast<const LibraryError*>(&error))
    object = {{"code", failure->code}, {"name", failure->name}, {"text", failure->text}};
  object["message"] = error.what();
  WriteLine(STDERR_FILENO, Print({{"error", std::move(object)}}));
}

void Console::Note(const std::string& text) const {
  WriteLine(STDERR_FILENO, json ? Print({{"note", text}}) : "kyrno-host: " + text);
}

}  // namespace host
