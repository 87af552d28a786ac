// httphead.cpp - the header block of an HTTP message, as the host reads it.
#include "host/httphead.h"

#include <strings.h>

#include <algorithm>

namespace host {

namespace {

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

/// What stands before the separator; the text goes on behind it.
std::string_view CutOff(std::string_view* text, char separator) {
  const std::size_t at = std::min(text->find(separator), text->size());
  const std::string_view head = text->substr(0, at);
  text->remove_prefix(std::min(at + 1, text->size()));
  return head;
}

/// Whether the parameters behind an item say "q=0".
bool IsRefused(std::string_view parameters) {
  while (!parameters.empty()) {
    std::string_view value = CutOff(&parameters, ';');
    const std::string_view name = CutOff(&value, '=');
    if (SameWord(Trim(name), "q"))
      return Trim(value).find_first_of("123456789") == std::string_view::npos;
  }
  return false;
}

}  // namespace

bool SameWord(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

HttpHead HttpHead::Parse(std::string_view block) {
  HttpHead head;
  std::string_view line = Trim(CutOff(&block, '\n'));
  head.first = CutOff(&line, ' ');
  head.second = CutOff(&line, ' ');
  head.third = line;
  while (!block.empty()) {
    line = Trim(CutOff(&block, '\n'));
    if (line.empty()) break;
    const std::string_view name = CutOff(&line, ':');
    head.fields.emplace_back(name, Trim(line));
  }
  return head;
}

std::string HttpHead::Field(std::string_view name) const {
  std::string all;
  for (const auto& [key, value] : fields) {
    if (!SameWord(key, name)) continue;
    if (!all.empty()) all += ", ";
    all += value;
  }
  return all;
}

bool HttpHead::Lists(std::string_view name, std::string_view item) const {
  const std::vector<std::string> items = ListItems(Field(name));
  return std::any_of(items.begin(), items.end(),
                     [&](const std::string& one) { return SameWord(one, item); });
}

bool HttpHead::HasLength() const {
  return Field("Content-Length").find_first_of("123456789") != std::string::npos;
}

ZValue HttpMessage(const std::string& first, const std::string& second, const std::string& third,
                   const HttpFields& fields, const ZValue& body) {
  std::vector<ZValue> cells;
  for (const auto& [name, value] : fields) cells.insert(cells.end(), {name, value});
  const auto rows = static_cast<std::uint32_t>(fields.size());
  return ZValue::List({first, second, third, ZValue({rows, 2}, std::move(cells)), body});
}

std::vector<std::string> ListItems(std::string_view list) {
  std::vector<std::string> items;
  while (!list.empty()) {
    const std::string_view item = Trim(CutOff(&list, ','));
    if (!item.empty()) items.emplace_back(item);
  }
  return items;
}

bool AcceptsGzip(std::string_view acceptEncoding) {
  bool others = false;
  for (const std::string& item : ListItems(acceptEncoding)) {
    std::string_view parameters = item;
    const std::string_view coding = Trim(CutOff(&parameters, ';'));
    // Its own word counts before the one for all.
    if (SameWord(coding, "gzip") || SameWord(coding, "x-gzip")) return !IsRefused(parameters);
    if (coding == "*") others = !IsRefused(parameters);
  }
  return others;
}

}  // namespace host
