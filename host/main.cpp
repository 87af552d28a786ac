// main.cpp - the command line of kyrno-host.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <limits>

#include "host/commands.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

using namespace host;

/// What a command word takes besides its own arguments.
void AddTuning(CLI::App* word, std::vector<std::string>* stops, Tuning* tuning) {
  word->add_option("--eom", *stops, "Cut text and raw streams behind this sequence; repeatable")
      ->type_name("TEXT")
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  word->add_option("--buffer-size", tuning->bufferSize, "Largest unit in bytes")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  word->add_option("--magic", tuning->magic, "Word that marks each block of the block modes");
}

/// What a word takes that speaks TLS.
void AddTls(CLI::App* word, Tls* tls, bool server) {
  CLI::Option_group* const group = word->add_option_group("TLS", "Each of these asks for TLS");
  group->add_flag("--tls", tls->asked, "With the defaults; an https or wss URL says the same");
  group->add_option("--cert", tls->cert, "Own certificate, its issuers behind it; PEM or DER")
      ->check(CLI::ExistingFile);
  group->add_option("--key", tls->key, "Its private key, where that is in a file of its own")
      ->check(CLI::ExistingFile);
  group->add_option("--p12", tls->p12, "PKCS #12 file of key and certificate, in place of both")
      ->check(CLI::ExistingFile);
  group->add_option("--password", tls->password, "What opens the key, or the PKCS #12 file");
  group
      ->add_option("--ca-dir", tls->caDir,
                   "Folder of the certificates that are trusted, in place of the system's")
      ->check(CLI::ExistingDirectory);
  group
      ->add_option_function<std::string>(
          "--verify", [tls](const std::string& text) { tls->verify = ParseVerify(text); },
          "What of the peer's certificate is let pass: a number, or words joined by '+'")
      ->type_name("FLAGS");
  group->add_option("--priority", tls->priority,
                    "What is offered and accepted, as GnuTLS writes it");
  if (server)
    group->add_option("--client-cert", tls->clientCert, "Ask the clients who they are")
        ->check(CLI::IsMember({"request", "require"}));
}

/// What the words take that talk in blocks of text.
void AddTalk(CLI::App* word, TalkOptions* talk) {
  word->add_flag("--echo", talk->echo, "Send every block back, in place of lines of input");
  word->add_option("--count", talk->count, "End behind so many blocks, and not with the input")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  word->add_option("--wait", talk->waitMillis, "Milliseconds of silence before it ends")
      ->check(CLI::Range(0, std::numeric_limits<int>::max()))
      ->capture_default_str();
}

/// What the interpreter's side of the link takes besides.
void AddLink(CLI::App* word, LinkOptions* link) {
  word->add_option("--init", link->init, "connect, serve, poll or http, as in \"serve:*:4502\"")
      ->type_name("TEXT");
  word->add_option("--listen", link->listen, "ADDRESS:[PORT] to listen on")->type_name("TEXT");
  word->add_option("--connect", link->connect, "The same to connect to")->type_name("TEXT");
  word->add_option("--config", link->config, "The configuration file")->check(CLI::ExistingFile);
  word->add_option("--user-dir", link->userDir, "Where zeph.ini is, in place of --config")
      ->check(CLI::ExistingDirectory);
  CLI::Option_group* const keys =
      word->add_option_group("Keys", "What the file would say, where none is named");
  keys->add_option("--pages", link->pages, "Folder of the pages that http serves")
      ->check(CLI::ExistingDirectory);
  keys->add_flag("--secure", link->secure, "TLS with certificates on both sides");
  keys->add_flag("--anonymous", link->anonymous, "TLS with a certificate of the server alone");
  keys->add_option("--cert", link->cert, "Own certificate, its issuers behind it; PEM or DER")
      ->check(CLI::ExistingFile);
  keys->add_option("--key", link->key, "Its private key, where that is in a file of its own");
  keys->add_option("--ca-dir", link->caDir, "Folder of the certificates that are trusted")
      ->check(CLI::ExistingDirectory);
  keys->add_option("--accept", link->accept, "Folder of the only certificates that may come")
      ->check(CLI::ExistingDirectory);
  keys->add_option("--max-block", link->maxBlock, "Largest block in bytes, header included");
  keys->add_option("--magic", link->magic, "Word that marks each block; 0 for none");
  keys->add_option("--keep-alive", link->keepAlive,
                   "Milliseconds of silence, and between probes behind it")
      ->delimiter(',')
      ->type_name("TIME,INTERVAL");
}

/// What a URL's scheme says of TLS, and the flags.
void CheckUrl(const Url& url, Tls* tls) {
  if (!url.secure && tls->IsWanted())
    throw std::invalid_argument("TLS needs a URL of https or wss");
  tls->asked = url.secure;
}

/// The parser takes words in brackets apart as lists of its own. A blank in front keeps them whole.
bool IsBracketed(const std::string& word) {
  const std::size_t first = word.find_first_not_of(' ');
  return first != std::string::npos && word[first] == '[' && word.back() == ']';
}

/// The arguments, last one first, as the parser wants them.
std::vector<std::string> Shield(int argc, char** argv) {
  std::vector<std::string> reversed;
  for (int i = argc - 1; i > 0; --i)
    reversed.push_back((IsBracketed(argv[i]) ? " " : "") + std::string(argv[i]));
  return reversed;
}

std::string Unshield(const std::string& word) { return IsBracketed(word) ? word.substr(1) : word; }

std::string UsageLine(const std::exception& error) {
  return std::string("kyrno-host: ") + error.what() + " (kyrno-host --help shows the usage)\n";
}

int Run(int argc, char** argv) {
  CLI::App app("An interpreter's side of the Kyrno library, for the command line.", "kyrno-host");
  app.require_subcommand(0, 1);
  bool json = false;
  Settings settings;
  app.add_flag("--json", json, "One JSON object per line");
  app.add_flag("--trace", settings.trace, "Write the library's log to kyrno.log here");
  app.fallthrough();

  std::string mode;
  std::string where;
  std::vector<std::string> place;
  Endpoint end;
  std::vector<std::string> words;
  std::vector<ZValue> values;
  std::vector<std::string> stops;
  Tuning tuning;
  int waitMillis = 5000;
  int quietMillis = 1000;
  bool strict = false;
  bool showHeader = false;
  std::string file;
  Url url;
  int portsFd = -1;
  std::string certs;
  LinkOptions link;
  TalkOptions talk;
  Meeting meeting;
  std::string listen;
  int maxBlock = kLinkMaxBlock;
  int magic = kLinkMagic;
  const std::vector<std::string> both{"command", "blkraw", "blktext", "raw", "text", "udp"};
  std::vector<std::string> served = both;
  served.insert(served.end(), {"http", "websocket"});

  CLI::App* demo = app.add_subcommand("demo", "Two processes talk in every mode and compare");
  CLI::App* serve = app.add_subcommand(
      "serve", "Send back all that comes, or serve the files of a folder, until interrupted");
  serve->add_option("MODE", mode)->required()->check(CLI::IsMember(served));
  serve
      ->add_option("PLACE", place,
                   "[ADDRESS:]PORT; port 0 takes a free one; mode http: the folder comes first")
      ->type_name("[DIR] [ADDRESS:]PORT")
      ->required()
      ->expected(1, 2);
  serve->add_flag("--strict", strict, "websocket: by the letter of RFC 6455, as http always is");
  AddTuning(serve, &stops, &tuning);
  AddTls(serve, &tuning.tls, true);
  CLI::App* send = app.add_subcommand("send", "Send values and print what comes back");
  send->add_option("MODE", mode)->required()->check(CLI::IsMember(both));
  send->add_option("PEER", where, "HOST:PORT")->required();
  send->add_option("VALUE", words, "JSON, or a word that is taken as text")->required();
  send->add_option("--wait", waitMillis, "Milliseconds of silence that end it")
      ->check(CLI::Range(0, std::numeric_limits<int>::max()))
      ->capture_default_str();
  AddTuning(send, &stops, &tuning);
  AddTls(send, &tuning.tls, false);
  CLI::App* get = app.add_subcommand("get", "Ask for a page and print what comes");
  get->add_option("URL", where, "http[s]://HOST[:PORT][/PATH]")->required();
  get->add_flag("-i", showHeader, "Print the header of the answer first");
  get->add_option("-o", file, "Where the body goes instead of standard output")->type_name("FILE");
  AddTls(get, &tuning.tls, false);
  CLI::App* ws = app.add_subcommand("ws", "Lines from standard input as WebSocket messages");
  ws->add_option("URL", where, "ws[s]://HOST[:PORT][/PATH]")->required();
  ws->add_option("--wait", quietMillis, "Milliseconds of silence that end it behind the input")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  AddTls(ws, &tuning.tls, false);
  CLI::App* linked = app.add_subcommand(
      "link", "An interpreter's side of the link to a remote environment, text in and out");
  AddLink(linked, &link);
  AddTalk(linked, &talk);
  CLI::App* remote = app.add_subcommand("remote", "The remote environment's side of the link");
  remote->add_option("PEER", where, "HOST:PORT, or ws[s]://HOST:PORT/ of a link that serves pages");
  remote->add_option("--listen", listen, "Wait for a link that connects")
      ->type_name("[ADDRESS:]PORT");
  remote->add_option("--max-block", maxBlock, "Largest block in bytes, header included")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  remote->add_option("--magic", magic, "Word that marks each block; 0 for none")
      ->capture_default_str();
  AddTalk(remote, &talk);
  AddTls(remote, &tuning.tls, true);
  CLI::App* tree = app.add_subcommand("tree", "Make a few objects and draw the object tree");
  CLI::App* look = app.add_subcommand("certs", "Print the certificates of a file, decoded");
  look->add_option("FILE", file, "PEM or DER")->required()->check(CLI::ExistingFile);
  CLI::App* peer = app.add_subcommand("demo-peer", "The other process of the demo");
  peer->group("");
  peer->add_option("fd", portsFd)->required();
  peer->add_option("certs", certs)->required();

  try {
    app.parse(Shield(argc, argv));
    if (app.get_subcommands().empty())
      throw std::invalid_argument(
          "say what to do: demo, serve, send, get, ws, link, remote, tree or certs");
    for (const std::string& stop : stops) tuning.stops.push_back(Unescape(Unshield(stop)));
    for (const std::string& word : words) values.push_back(FromArgument(Unshield(word)));
    if (*serve) {
      if (place.size() != (mode == "http" ? 2u : 1u))
        throw std::invalid_argument(mode == "http" ? "give DIR [ADDRESS:]PORT"
                                                   : "give [ADDRESS:]PORT");
      if (strict && mode != "websocket" && mode != "http")
        throw std::invalid_argument("--strict is for modes websocket and http");
      if (!stops.empty() && mode != "raw" && mode != "text")
        throw std::invalid_argument("--eom is for modes raw and text");
      end = ParseEndpoint(mode, place.back(), false);
    }
    if (*send) end = ParseEndpoint(mode, where, true);
    if (*get) url = ParseUrl(where, "http");
    if (*ws) url = ParseUrl(where, "ws");
    if (*get || *ws) CheckUrl(url, &tuning.tls);
    if (*linked) {
      link.listen = Unshield(link.listen);
      link.connect = Unshield(link.connect);
      CheckLink(link);
    }
    if (*remote) {
      meeting = ParseMeeting(where, listen);
      if (meeting.url) CheckUrl(*meeting.url, &tuning.tls);
      tuning.bufferSize = maxBlock;
      tuning.magic = meeting.url ? 0 : magic;
    }
    if (mode == "udp" && tuning.tls.IsWanted()) throw std::invalid_argument("mode udp has no TLS");
    CheckTls(tuning.tls, serve->parsed() || meeting.listens);
    settings.caDir = tuning.tls.caDir;
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const std::exception& error) {
    std::cerr << UsageLine(error);
    return kExitUsage;
  }

  const Console console(json);
  try {
    if (*serve && mode == "http") return ServeHttp(console, settings, place.front(), end, tuning);
    if (*serve && mode == "websocket")
      return ServeWebSocket(console, settings, end, tuning, strict);
    if (*serve) return Serve(console, settings, end, tuning);
    if (*send) return Send(console, settings, end, tuning, values, waitMillis);
    if (*get) return Get(console, settings, url, tuning.tls, showHeader, file);
    if (*ws) return WebSocket(console, settings, url, tuning.tls, quietMillis);
    if (*linked) return ServeLink(console, settings, link, talk);
    if (*remote) return Remote(console, settings, meeting, tuning, talk);
    if (*tree) return Tree(console, settings);
    if (*look) return Certs(console, settings, file);
    if (*peer) return DemoPeer(console, settings, portsFd, certs);
    if (*demo) return Demo(console, settings);
  } catch (const LibraryError& error) {
    console.Fail(error);
    if (error.code == kClosed && tuning.tls.IsWanted())
      console.Note("a TLS server closes on whoever shows no certificate, or none that it trusts");
    return kExitFailed;
  } catch (const std::exception& error) {
    console.Fail(error);
    return kExitFailed;
  }
  return kExitUsage;
}

/// Where standard input or output is closed, something else would get its number and be read as it.
void OpenStandard() {
  int fd;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  OpenStandard();
  return Run(argc, argv);
}
