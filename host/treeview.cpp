// treeview.cpp - the object tree that the library reports, drawn as a tree.
#include "host/treeview.h"

namespace host {

namespace {

constexpr const char* kTypes[] = {"root",    "server", "client", "connection", "command",
                                  "message", "relay",  "udp",    "udp peer"};
constexpr const char* kStates[] = {
    "new",           "incoming", "running",   "listening",      "connected", "data ready",
    "to be sent",    "sending",  "in use",    "to be received", "receiving", "finished",
    "to be deleted", "error",    "unchanged", "shutting down",  "closed",    "last data ready",
    "handshake",     "sent",     "paused",    "about to pause"};

template <std::size_t N>
std::string Word(const char* const (&words)[N], std::int64_t i) {
  return i >= 0 && i < std::int64_t{N} ? words[i] : std::to_string(i);
}

constexpr std::int64_t kRoot = 0;
constexpr std::int64_t kCommand = 4;
constexpr std::int64_t kMessage = 5;

/// A node: (info, children), its children an empty numeric vector where there are none.
struct Node {
  explicit Node(const ZValue& item)
      : info(item.At(0)),
        children(item.At(1)),
        name(info.At(0).Text()),
        type(info.Integer(1)),
        state(info.Integer(2)) {}

  /// Bytes moved and still to move, where the node holds a buffer.
  bool HasBuffer() const { return (type == kCommand || type == kMessage) && info.Count() > 4; }
  bool HasVersion() const { return type == kRoot && info.Count() > 3; }

  ZValue info;
  ZValue children;
  std::string name;
  std::int64_t type;
  std::int64_t state;
};

void Draw(const Node& node, const std::string& prefix, std::vector<std::string>* lines) {
  const std::uint64_t n = node.children.Count();
  for (std::uint64_t i = 0; i < n; ++i) {
    const bool last = i + 1 == n;
    const Node child(node.children.At(i));
    std::string line = prefix + (last ? "└─ " : "├─ ") + child.name + "  " +
                       Word(kTypes, child.type) + ", " + Word(kStates, child.state);
    if (child.HasBuffer())
      line += ", " + std::to_string(child.info.Integer(3)) + " bytes done, " +
              std::to_string(child.info.Integer(4)) + " to go";
    lines->push_back(std::move(line));
    Draw(child, prefix + (last ? "   " : "│  "), lines);
  }
}

}  // namespace

std::vector<std::string> DrawTree(const ZValue& item) {
  const Node top(item);
  std::string line = top.name + "  " + Word(kTypes, top.type) + ", " + Word(kStates, top.state);
  if (top.HasVersion()) line += ", " + top.info.At(3).Text();
  std::vector<std::string> lines{std::move(line)};
  Draw(top, "", &lines);
  return lines;
}

Json TreeJson(const ZValue& item) {
  const Node node(item);
  Json object = {
      {"name", node.name}, {"type", Word(kTypes, node.type)}, {"state", Word(kStates, node.state)}};
  if (node.HasVersion()) object["version"] = node.info.At(3).Text();
  if (node.HasBuffer()) {
    object["done"] = node.info.Integer(3);
    object["remaining"] = node.info.Integer(4);
  }
  object["children"] = Json::array();
  const std::uint64_t n = node.children.Count();
  for (std::uint64_t i = 0; i < n; ++i) object["children"].push_back(TreeJson(node.children.At(i)));
  return object;
}

}  // namespace host
