// bench.cpp - measures the library against native peers, all in the same run over 127.0.0.1.
//
// A contest is one work in one place with all the systems. Their processes are all up before it
// begins, and their runs take turns: what else the machine does meanwhile strikes each alike. The
// first turn warms up, and every number of the table is the median of the others. Where nobody
// speaks there is one turn, a long one.
//
// This program is the peer program of the library too, see bench/peer.h.
#include <sched.h>
#include <sys/types.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <thread>

#include "bench/beside.h"
#include "bench/check.h"
#include "bench/child.h"
#include "bench/kyrno.h"
#include "bench/peer.h"
#include "bench/plain.h"
#include "bench/report.h"
#include "bench/tls.h"
#include "bench/web.h"

namespace bench {

namespace {

using nlohmann::json;

constexpr int kTurns = 5;
constexpr std::chrono::seconds kRest{10};

constexpr std::string_view kThisProgram;  // for Beside
constexpr std::string_view kGnutls = "gnutls";

struct Entrant {
  std::string_view system;
  std::string_view program;  ///< beside this program
  std::string_view plain;    ///< system of this program whose clients speak to its server, or none
};

constexpr Entrant kEntrants[] = {
    {"kyrno", kThisProgram, kPlainKyrno},
    {"sockets", "peers/sockets", kPlainSockets},
    {"sockets-2t", "peers/sockets", kPlainSockets},
    {"sockets-call", "peers/sockets", kPlainSockets},
    {"zeromq", "peers/peer_zmq", ""},
    {"nng", "peers/peer_nng", ""},
    {kNginx, kThisProgram, ""},
    {kNginxSendfile, kThisProgram, ""},
    {kNode, kThisProgram, ""},
    {"lws", "peers/peer_lws", ""},
    {kGnutls, "peers/tls_gnutls", ""},
    {"openssl", "peers/tls_openssl", ""},
};

enum class Where { Both, SameOnly, SplitOnly };

/// Who takes part in a work, with how many idle connections, and in which places.
struct LineUp {
  std::string_view work;
  int idle;
  Where where;
  std::vector<std::string_view> systems;
};

const std::vector<LineUp>& LineUps() {
  using enum Where;
  static const std::vector<LineUp> lineUps{
      {"rpc1", 0, Both, {"kyrno", "sockets", "sockets-2t", "sockets-call", "zeromq", "nng"}},
      {"rpc64", 0, Both, {"kyrno", "sockets", "sockets-2t", "sockets-call", "zeromq", "nng"}},
      {"bulk1M", 0, Both, {"kyrno", "sockets", "sockets-2t", "zeromq", "nng"}},
      {"bulk64M", 0, Both, {"kyrno", "sockets", "sockets-2t", "zeromq", "nng"}},
      {"rpc-idle", 0, Both, {"kyrno", "sockets", "sockets-2t", "zeromq", "nng"}},
      {"rpc-idle", 1'000, Both, {"kyrno", "sockets", "sockets-2t", "zeromq", "nng"}},
      {"rpc-idle", 10'000, SameOnly, {"kyrno", "sockets"}},
      {"fan64", 0, Both, {"kyrno", "sockets", "zeromq", "nng"}},
      {"connect", 0, Both, {"kyrno", "sockets"}},
      {"idle-cpu", 10'000, SameOnly, {"kyrno"}},
      {"http1", 0, SplitOnly, {"kyrno", kNginx, kNode, "lws"}},
      {"http64", 0, SplitOnly, {"kyrno", kNginx, kNode, "lws"}},
      {"http512", 0, SplitOnly, {"kyrno", kNginx, kNode, "lws"}},
      {"http-file", 0, SplitOnly, {"kyrno", kNginx, kNginxSendfile}},
      {"ws64", 0, SplitOnly, {"kyrno", kNode, "lws"}},
      {"udp1", 0, Both, {"kyrno", "sockets"}},
      {"tls-full-rsa", 0, SplitOnly, {"kyrno", kGnutls, "openssl", kNginx}},
      {"tls-full-p256", 0, SplitOnly, {"kyrno", kGnutls, "openssl", kNginx}},
      {"tls-resume", 0, SplitOnly, {"kyrno", kGnutls, "openssl", kNginx}},
      {"tls-bulk", 0, SplitOnly, {"kyrno", kGnutls, "openssl"}},
      {"tls-connect", 0, SplitOnly, {"kyrno", kGnutls}},
      {"tls-connect-rsa", 0, SplitOnly, {"kyrno", kGnutls}},
  };
  return lineUps;
}

const Entrant& FindEntrant(std::string_view system) {
  return *std::find_if(std::begin(kEntrants), std::end(kEntrants),
                       [&](const Entrant& entrant) { return entrant.system == system; });
}

/// Which processors the two sides run on.
struct Place {
  const char* name;
  int server;
  int client;

  bool Holds(Where where) const {
    return where == Where::Both || (where == Where::SameOnly) == (server == client);
  }
};

struct Contest {
  const Work& work;
  Place place;
};

/// What the options leave of each list; an empty one leaves all.
struct Selection {
  std::vector<std::string> works;
  std::vector<std::string> systems;
  std::vector<std::string> places;

  static bool Has(const std::vector<std::string>& chosen, std::string_view name) {
    return chosen.empty() || std::find(chosen.begin(), chosen.end(), name) != chosen.end();
  }
};

/// The processors that this process may use.
std::vector<int> Processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof set, &set);
  std::vector<int> processors;
  for (int i = 0; i < CPU_SETSIZE; ++i)
    if (CPU_ISSET(static_cast<unsigned>(i), &set)) processors.push_back(i);
  return processors;
}

std::vector<Place> Places(const Selection& selection) {
  const std::vector<int> processors = Processors();
  std::vector<Place> places;
  if (Selection::Has(selection.places, "same"))
    places.push_back({"same", processors.at(0), processors.at(0)});
  if (Selection::Has(selection.places, "split")) {
    if (processors.size() > 1)
      places.push_back({"split", processors[0], processors[1]});
    else
      std::cerr << "Only one processor: nothing is measured split.\n";
  }
  return places;
}

bool SpeaksTls(const Selection& selection) {
  return std::any_of(kWorks.begin(), kWorks.end(), [&](const Work& work) {
    return work.IsTls() && Selection::Has(selection.works, work.name);
  });
}

std::vector<Contest> Contests(const Selection& selection) {
  std::vector<Contest> contests;
  for (const Work& work : kWorks)
    for (const Place& place : Places(selection))
      if (Selection::Has(selection.works, work.name)) contests.push_back({work, place});
  return contests;
}

/// One system in one contest: its processes and what they have shown.
class Contestant {
 public:
  Contestant(const Entrant& entrant, const Contest& contest, int idle)
      : result{{"work", contest.work.name},
               {"system", entrant.system},
               {"place", contest.place.name}} {
    if (contest.work.HasIdle()) result["idle"] = idle;
    Try([&] { Start(entrant, contest, idle); });
  }

  /// The one turn of a work in which nobody speaks.
  void Rest() {
    Try([&] {
      const ProcessorTime time(server->Pid());
      const double before = time.Micros();
      std::this_thread::sleep_for(kRest);
      values["srv_us"].push_back(time.Micros() - before);
    });
  }

  void Turn(bool counts) {
    Try([&] {
      client->Nudge();
      const json run = client->Line();
      if (!counts) return;
      for (const auto& [key, value] : run.items()) values[key].push_back(value.get<double>());
    });
  }

  json Result() {
    if (!failed)
      for (auto& [key, list] : values) result[key] = Quantile(list, 0.5);
    return result;
  }

 private:
  void Start(const Entrant& entrant, const Contest& contest, int idle) {
    const std::string work = contest.work.name;
    const Entrant& serving =
        contest.work.speech == Speech::TlsConnect ? FindEntrant(kGnutls) : entrant;
    server.emplace(Beside(serving.program),
                   std::vector<std::string>{"server", work, std::string(serving.system)},
                   contest.place.server);
    const std::string port = std::to_string(server->Line().at("port").get<int>());
    const auto asClient = [&](std::string_view program, std::string_view as,
                              const std::string& task, int number) {
      return Child(Beside(program), {"client", port, task, std::string(as), std::to_string(number)},
                   contest.place.client);
    };
    const bool hasPlain = !entrant.plain.empty();
    const auto asPlain = [&](const std::string& task, int number) {
      return hasPlain ? asClient(kThisProgram, entrant.plain, task, number)
                      : asClient(entrant.program, entrant.system, task, number);
    };
    if (idle > 0) {
      crowd.emplace(asPlain("idle", idle));
      crowd->Line();
    }
    if (contest.work.IsRest()) return;
    if (contest.work.HasCommonClient())
      client.emplace(asClient(kThisProgram, kWebClients, work, server->Pid()));
    else if (contest.work.speech == Speech::TlsHandshake)
      client.emplace(asClient(FindEntrant(kGnutls).program, kGnutls, work, server->Pid()));
    else if (contest.work.ConnectsEachTime())
      client.emplace(asPlain(work, server->Pid()));
    else
      client.emplace(asClient(entrant.program, entrant.system, work, server->Pid()));
  }

  /// The first failure ends this contestant's part, and the others go on.
  template <class Step>
  void Try(Step step) {
    if (failed) return;
    try {
      step();
    } catch (const std::exception& e) {
      failed = true;
      result["error"] = e.what();
      client.reset();
      crowd.reset();
      server.reset();
    }
  }

  std::optional<Child> server;
  std::optional<Child> crowd;  // holds the idle connections
  std::optional<Child> client;
  json result;
  std::map<std::string, std::vector<double>> values;  // one of each name per turn
  bool failed = false;
};

std::vector<json> Hold(const Contest& contest, const Selection& selection) {
  std::vector<std::unique_ptr<Contestant>> contestants;
  for (const LineUp& lineUp : LineUps()) {
    if (lineUp.work != contest.work.name || !contest.place.Holds(lineUp.where)) continue;
    for (const std::string_view system : lineUp.systems)
      if (Selection::Has(selection.systems, system))
        contestants.push_back(
            std::make_unique<Contestant>(FindEntrant(system), contest, lineUp.idle));
  }

  if (contest.work.IsRest()) {
    for (const auto& contestant : contestants) contestant->Rest();
  } else {
    for (int turn = 0; turn <= kTurns; ++turn)
      for (const auto& contestant : contestants) contestant->Turn(turn > 0);
  }

  std::vector<json> results;
  for (const auto& contestant : contestants) results.push_back(contestant->Result());
  return results;
}

bool Write(const json& results, const std::string& file) {
  std::ofstream out(file);
  out << results.dump(2) << '\n';
  out.close();
  if (!out) std::cerr << "cannot write " << file << '\n';
  return out.good();
}

bool Check(const json& results, const Selection& selection) {
  std::puts("");
  return MeetsRequirements(results, [&](auto work, auto system, auto place) {
    return Selection::Has(selection.works, work) && Selection::Has(selection.systems, system) &&
           Selection::Has(selection.places, place);
  });
}

std::unique_ptr<System> MakeSystem(std::string_view name) {
  if (name == "kyrno") return MakeKyrno();
  if (name == kWebClients) return MakeWebClients();
  if (name == kNginx || name == kNginxSendfile || name == kNode) return MakeProgram(name);
  return MakePlain(name);
}

int Main(int argc, char** argv) {
  std::vector<std::string> works;
  std::vector<std::string> systems;
  for (const Work& work : kWorks) works.emplace_back(work.name);
  for (const Entrant& entrant : kEntrants) systems.emplace_back(entrant.system);

  CLI::App app("Measures the library against native peers over 127.0.0.1.");
  std::string file;
  Selection selection;
  bool checks = false;
  app.add_option("--json", file, "Write the results to this file as well");
  app.add_flag("--check", checks, "Compare the results with what is required of the library");
  app.add_option("--work", selection.works, "Only these")->check(CLI::IsMember(works));
  app.add_option("--system", selection.systems, "Only these")->check(CLI::IsMember(systems));
  app.add_option("--place", selection.places,
                 "Only these: same, both processes on one processor; "
                 "split, a processor each")
      ->check(CLI::IsMember({"same", "split"}));
  CLI11_PARSE(app, argc, argv);

  std::optional<TlsFolder> certificates;
  if (SpeaksTls(selection)) certificates.emplace();

  std::cout << DescribeMachine() << "\n\n" << std::flush;
  PrintHead();
  json results = json::array();
  bool complete = true;
  for (const Contest& contest : Contests(selection))
    for (const json& result : Hold(contest, selection)) {
      PrintRow(result);
      complete &= !result.contains("error");
      results.push_back(result);
    }

  bool good = complete;
  if (!file.empty() && !Write(results, file)) good = false;
  if (checks && !Check(results, selection)) good = false;
  return good ? 0 : 1;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && (arguments[0] == "server" || arguments[0] == "client"))
    return bench::RunPeer(arguments, bench::MakeSystem);
  try {
    signal(SIGPIPE, SIG_IGN);
    return bench::Main(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "kyrno-bench: " << e.what() << '\n';
    return 1;
  }
}
