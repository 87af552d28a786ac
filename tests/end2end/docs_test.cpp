// docs_test.cpp - docs/modes.md and docs/tls.md say what their programs do: each is run in a root
// of its own, and every answer and event compared.
//
// A program is all that a section has in blocks beginning with ">": behind ">" a command, below it
// the answer. A word of kWords stands for what each run makes anew: where it appears first it takes
// what is there, from then on it stands for that.
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "host/notation.h"
#include "tests/support/pki.h"
#include "tests/support/session.h"

namespace support {
namespace {

using host::Json;

struct Step {
  std::string command, answer;
};

/// The programs by the headings of their sections.
std::map<std::string, std::vector<Step>> Programs(const std::string& path) {
  std::map<std::string, std::vector<Step>> programs;
  std::ifstream page(path);
  std::string heading;
  bool inside = false, answered = true;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) heading = line.substr(3);
    const bool order = line.starts_with("    >");
    inside = line.starts_with("    ") && (order || inside);
    if (!inside) continue;
    auto& program = programs[heading];
    if (order && answered) program.emplace_back();
    answered = !order;
    (order ? program.back().command : program.back().answer) += line.substr(order ? 5 : 4) + " ";
  }
  return programs;
}

/// Without the blanks that JSON does not need.
std::string Tight(const std::string& text) {
  static const std::regex parts(R"re(("(?:[^"\\]|\\.)*")| +)re");
  return std::regex_replace(text, parts, "$1");
}

/// As the page writes values: whole numbers have no type.
Json Plain(const Json& json) {
  Json plain = json;
  Json& list = json.is_object() ? plain["data"] : plain;
  if (list.is_array())
    for (Json& item : list) item = Plain(item);
  if (!json.is_object() || json["type"].get<std::string>()[0] != 'i' || json["shape"].size() > 1)
    return plain;
  return json["shape"].empty() ? Json(list[0]) : Json(list);
}

std::string Text(const ZValue& value) { return host::Print(Plain(host::ToJson(value))); }

constexpr char kWords[] = R"(\b(?:PORT|HERE|THERE|KEY|ACCEPT|FILE|FOLDER)\d?\b)";

class Reader {
 public:
  explicit Reader(std::map<std::string, std::string> known) : words(std::move(known)) {}

  /// A command and the values behind it, one for each of its arguments.
  std::pair<std::string, std::vector<ZValue>> Command(const std::string& text) const {
    std::istringstream in(
        std::regex_replace(Replace(text, "", nullptr), std::regex(" left "), " "));
    std::pair<std::string, std::vector<ZValue>> command;
    in >> command.first;
    for (Json json; in >> std::ws && !in.eof(); command.second.push_back(host::FromJson(json)))
      in >> json;
    return command;
  }

  /// Whether this is the expected answer, in which at most one word is new.
  bool Accepts(const std::string& expected, const std::string& actual) {
    std::string fresh;
    const std::regex pattern(Replace(Tight(expected), R"([\\^$.|?*+()\[\]{}])", &fresh));
    std::smatch found;
    if (!std::regex_match(actual, found, pattern)) return false;
    if (!fresh.empty()) words[fresh] = found[1];
    return true;
  }

 private:
  /// The text with its words replaced. A new one becomes a group of a pattern, in which the signs
  /// are to be escaped.
  std::string Replace(const std::string& text, const char* signs, std::string* fresh) const {
    const auto plain = [&](const std::string& part) {
      return *signs ? std::regex_replace(part, std::regex(signs), R"(\$&)") : part;
    };
    static const std::regex word(kWords);
    std::string out;
    auto at = text.begin();
    for (std::sregex_iterator i(text.begin(), text.end(), word), end; i != end; ++i) {
      out += plain(std::string(at, (*i)[0].first));
      at = (*i)[0].second;
      const auto known = words.find(i->str());
      if (known != words.end()) {
        out += plain(known->second);
      } else if (fresh) {
        out += fresh->empty() ? "([0-9A-Za-z+/=]+)" : R"(\1)";
        *fresh = i->str();
      } else {
        out += i->str();
      }
    }
    return out + plain(std::string(at, text.end()));
  }

  std::map<std::string, std::string> words;
};

/// Name, word and data of an event; of any other command the result.
std::string Answer(const TestRoot& root, const std::string& command,
                   const std::vector<ZValue>& args) {
  if (command != "AWaitZ")
    return Text(args.size() > 1 ? root.Run(command.c_str(), args[0], args[1])
                                : root.Run(command.c_str(), args[0]));
  const Event event = root.Wait(args[0].At(0).Text(), static_cast<int>(args[0].At(1).Integer()));
  if (event.code != 0) return "[" + std::to_string(event.code) + "]";
  return Text(Args({event.name, event.event, event.value}));
}

/// Runs the programs of a page and adds the modes that they use.
void RunPrograms(const std::string& page, const std::map<std::string, std::string>& words,
                 std::set<std::string>* modes) {
  for (const auto& [heading, program] : Programs(std::string(KYRNO_SOURCES "/docs/") + page)) {
    SCOPED_TRACE(heading);
    const TestRoot root;
    Reader reader(words);
    for (const auto& [text, answer] : program) {
      const auto [command, args] = reader.Command(text);
      ASSERT_FALSE(args.empty()) << text;
      const std::string actual = Answer(root, command, args);
      ASSERT_TRUE(reader.Accepts(answer, actual))
          << text << "\nsays " << answer << "\nand " << actual;
      if (command == "ASrv") modes->insert(args[0].At(3).Text());
      if (actual.find("WSUpgrade\"") != std::string::npos) modes->insert("websocket");
    }
  }
}

TEST(ModesPage, SaysWhatItsProgramsDo) {
  const TempFile file("from a file\n");
  std::set<std::string> modes;
  RunPrograms("modes.md", {{"FILE", file.path}}, &modes);
  EXPECT_EQ(modes, (std::set<std::string>{"command", "blkraw", "blktext", "raw", "text", "http",
                                          "websocket", "udp"}));
}

TEST(TlsPage, SaysWhatItsProgramsDo) {
  const Pki pki;
  pki.Make("server");
  pki.Make("client", {.subject = "/CN=Ada", .names = ""});
  pki.Make("other", {.issuer = "other", .isCa = true});
  std::filesystem::rename(pki.Trust({"ca"}), pki.folder + "/trust");
  std::filesystem::rename(pki.Trust({"other"}), pki.folder + "/others");
  std::set<std::string> modes;
  RunPrograms("tls.md", {{"FOLDER", pki.folder}}, &modes);
  EXPECT_EQ(modes, std::set<std::string>{"command"});
}

}  // namespace
}  // namespace support
