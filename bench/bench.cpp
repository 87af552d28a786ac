// bench.cpp - measures the library against native peers, all in the same run over 127.0.0.1.
//
// A contest is one work in one place with all the systems. Their processes are all up before it
// begins, and their runs take turns: what else the machine does meanwhile strikes each alike. The
// first turn warms up, and every number of the table is the median of the others.
//
// This program is the peer program of the library too, see bench/peer.h.
#include <sched.h>
#include <sys/types.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>

#include "bench/child.h"
#include "bench/kyrno.h"
#include "bench/peer.h"
#include "bench/report.h"

namespace bench {

namespace {

using nlohmann::json;

constexpr int kTurns = 5;

struct Entrant {
  const char* system;
  const char* program;  ///< beside this program; empty for itself
  bool commandsOnly;
};

constexpr Entrant kEntrants[] = {
    {"kyrno", "", false},
    {"sockets", "peers/sockets", false},
    {"sockets-2t", "peers/sockets", false},
    {"sockets-call", "peers/sockets", true},
    {"zeromq", "peers/peer_zmq", false},
    {"nng", "peers/peer_nng", false},
};

/// Which processors the two sides run on.
struct Place {
  const char* name;
  int server;
  int client;
};

struct Contest {
  const Work& work;
  Place place;
  int idle;  ///< further connections open
};

/// What the options leave of each list; an empty one leaves all.
struct Selection {
  std::vector<std::string> works;
  std::vector<std::string> systems;
  std::vector<std::string> places;

  static bool Has(const std::vector<std::string>& chosen, const std::string& name) {
    return chosen.empty() || std::find(chosen.begin(), chosen.end(), name) != chosen.end();
  }
};

std::string ProgramPath(const Entrant& entrant) {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self);
  if (n <= 0) throw std::runtime_error("cannot find the own program");
  const std::string path(self, static_cast<std::size_t>(n));
  return *entrant.program ? path.substr(0, path.rfind('/') + 1) + entrant.program : path;
}

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

std::vector<Contest> Contests(const Selection& selection) {
  std::vector<Contest> contests;
  for (const Work& work : kWorks)
    for (const Place& place : Places(selection)) {
      if (!Selection::Has(selection.works, work.name)) continue;
      if (work.ManyConnections())
        for (const int idle : {0, 100, 900}) contests.push_back({work, place, idle});
      else
        contests.push_back({work, place, 0});
    }
  return contests;
}

/// One system in one contest: its processes and what they have shown.
class Contestant {
 public:
  Contestant(const Entrant& entrant, const Contest& contest)
      : result{{"work", contest.work.name},
               {"system", entrant.system},
               {"place", contest.place.name}} {
    if (contest.work.ManyConnections()) result["idle"] = contest.idle;
    Try([&] { Start(entrant, contest); });
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
  void Start(const Entrant& entrant, const Contest& contest) {
    const std::string program = ProgramPath(entrant);
    const std::string work = contest.work.name;
    server.emplace(program, std::vector<std::string>{"server", work, entrant.system},
                   contest.place.server);
    const std::string port = std::to_string(server->Line().at("port").get<int>());
    const auto asClient = [&](const std::string& task, int number) {
      return Child(program, {"client", port, task, entrant.system, std::to_string(number)},
                   contest.place.client);
    };
    if (contest.idle > 0) {
      crowd.emplace(asClient("idle", contest.idle));
      crowd->Line();
    }
    client.emplace(asClient(work, server->Pid()));
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
  for (const Entrant& entrant : kEntrants)
    if (Selection::Has(selection.systems, entrant.system) &&
        !(entrant.commandsOnly && contest.work.IsBulk()))
      contestants.push_back(std::make_unique<Contestant>(entrant, contest));

  for (int turn = 0; turn <= kTurns; ++turn)
    for (const auto& contestant : contestants) contestant->Turn(turn > 0);

  std::vector<json> results;
  for (const auto& contestant : contestants) results.push_back(contestant->Result());
  return results;
}

int Main(int argc, char** argv) {
  std::vector<std::string> works;
  std::vector<std::string> systems;
  for (const Work& work : kWorks) works.emplace_back(work.name);
  for (const Entrant& entrant : kEntrants) systems.emplace_back(entrant.system);

  CLI::App app("Measures the library against native peers over 127.0.0.1.");
  std::string file;
  Selection selection;
  app.add_option("--json", file, "Write the results to this file as well");
  app.add_option("--work", selection.works, "Only these")->check(CLI::IsMember(works));
  app.add_option("--system", selection.systems, "Only these")->check(CLI::IsMember(systems));
  app.add_option("--place", selection.places,
                 "Only these: same, both processes on one processor; "
                 "split, a processor each")
      ->check(CLI::IsMember({"same", "split"}));
  CLI11_PARSE(app, argc, argv);

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

  if (file.empty()) return complete ? 0 : 1;
  std::ofstream out(file);
  out << results.dump(2) << '\n';
  out.close();
  if (out) return complete ? 0 : 1;
  std::cerr << "cannot write " << file << '\n';
  return 1;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && (arguments[0] == "server" || arguments[0] == "client"))
    return bench::RunPeer(arguments, [](const std::string&) { return bench::MakeKyrno(); });
  try {
    signal(SIGPIPE, SIG_IGN);
    return bench::Main(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "kyrno-bench: " << e.what() << '\n';
    return 1;
  }
}
