// peer.h - a messaging system as the benchmark sees it, and the program that each becomes.
//
//   PROGRAM server WORK SYSTEM            prints {"port": N} and serves until it is ended
//   PROGRAM client PORT WORK SYSTEM PID   for each byte of its standard input makes one run and
//                                         prints {"rate": ...}; PID is the server's
//   PROGRAM client PORT idle SYSTEM N     opens N connections, prints {"idle": N}
//
// A client ends with its standard input. A failure is a line {"error": "..."} and exit code 1.
//
// A command carries kCommandBytes and is answered with the same bytes. An array carries more and is
// not answered: a command behind the arrays tells by its answer that all have arrived.
//
// In the works of the web the servers speak HTTP or WebSocket, and all get the same clients. Of the
// works of TLS see bench/tls.h.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

inline constexpr std::size_t kCommandBytes = 64;
/// The body of every answer in the works of HTTP that fetch no file.
inline constexpr std::string_view kHello = "Hello, world!";

/// What the two sides speak: what a system has of its own, or a protocol that all understand.
enum class Speech { Own, Http, HttpFile, WebSocket, Udp, TlsHandshake, TlsStream, TlsConnect };

/// What a server and its clients agree on.
struct Work {
  const char* name;
  std::size_t bytes;     ///< of each command, array or body of an answer
  unsigned outstanding;  ///< commands on their way at once, or arrays up to the closing command
  unsigned connections;  ///< of the client, over which its commands are spread
  bool manyConnections;  ///< a server has to look for the connection that speaks
  Speech speech = Speech::Own;

  bool IsBulk() const { return bytes > kCommandBytes; }
  /// Further connections are open and silent.
  bool HasIdle() const { return Is("rpc-idle") || Is("idle-cpu"); }
  /// Nobody speaks at all.
  bool IsRest() const { return Is("idle-cpu"); }
  /// Each command has a connection of its own.
  bool ConnectsEachTime() const { return Is("connect"); }
  /// Each handshake resumes one session.
  bool Resumes() const { return Is("tls-resume"); }
  bool IsTls() const {
    return speech == Speech::TlsHandshake || speech == Speech::TlsStream ||
           speech == Speech::TlsConnect;
  }
  /// The kind of the server's key in a work of TLS.
  std::string_view TlsKey() const {
    return std::string_view(name).ends_with("-rsa") ? "rsa" : "p256";
  }
  /// The clients are the same for the servers of all systems.
  bool HasCommonClient() const {
    return speech == Speech::Http || speech == Speech::HttpFile || speech == Speech::WebSocket;
  }

 private:
  bool Is(std::string_view other) const { return name == other; }
};

inline constexpr std::array kWorks{
    Work{"rpc1", kCommandBytes, 1, 1, false},
    Work{"rpc64", kCommandBytes, 64, 1, false},
    Work{"bulk1M", std::size_t{1} << 20, 64, 1, false},
    Work{"bulk64M", std::size_t{64} << 20, 4, 1, false},
    Work{"rpc-idle", kCommandBytes, 1, 1, true},
    Work{"fan64", kCommandBytes, 64, 64, true},
    Work{"connect", kCommandBytes, 1, 1, true},
    Work{"idle-cpu", kCommandBytes, 1, 1, true},
    Work{"http1", kHello.size(), 1, 1, true, Speech::Http},
    Work{"http64", kHello.size(), 64, 64, true, Speech::Http},
    Work{"http512", kHello.size(), 512, 512, true, Speech::Http},
    Work{"http-file", std::size_t{256} << 20, 1, 1, true, Speech::HttpFile},
    Work{"ws64", kCommandBytes, 64, 64, true, Speech::WebSocket},
    Work{"udp1", kCommandBytes, 1, 1, true, Speech::Udp},
    Work{"tls-full-rsa", kCommandBytes, 16, 16, true, Speech::TlsHandshake},
    Work{"tls-full-p256", kCommandBytes, 16, 16, true, Speech::TlsHandshake},
    Work{"tls-resume", kCommandBytes, 16, 16, true, Speech::TlsHandshake},
    Work{"tls-bulk", std::size_t{1} << 20, 64, 1, false, Speech::TlsStream},
    Work{"tls-connect", kCommandBytes, 1, 1, true, Speech::TlsConnect},
    Work{"tls-connect-rsa", kCommandBytes, 1, 1, true, Speech::TlsConnect},
};

inline const Work& FindWork(std::string_view name) {
  for (const Work& work : kWorks)
    if (work.name == name) return work;
  throw std::runtime_error("no such work: " + std::string(name));
}

/// The connections of one client to a server. Errors: exceptions, from all.
class Client {
 public:
  Client() = default;
  virtual ~Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Sends that many commands, each on a connection that has the fewest on their way.
  virtual void Send(unsigned n) = 0;
  /// Waits for answers; returns how many came, at least one.
  virtual unsigned Receive() = 0;
  /// Sends one array, for the bulk works alone.
  virtual void Push() { throw std::runtime_error("this client sends commands alone"); }
};

/// Answers commands and drops arrays, from any number of connections if the work says so.
class Server {
 public:
  Server() = default;
  virtual ~Server() = default;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  virtual int Port() const = 0;
  virtual void Serve() = 0;
};

/// What a client does again and again: a short run, and its figures.
class Load {
 public:
  Load() = default;
  virtual ~Load() = default;
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  virtual nlohmann::json Run() = 0;
};

/// Processor time that a process, with all its threads, has used.
class ProcessorTime {
 public:
  explicit ProcessorTime(pid_t pid) {
    if (clock_getcpuclockid(pid, &clock) != 0)
      throw std::runtime_error("no processor clock of process " + std::to_string(pid));
  }
  double Micros() const {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
  }

 private:
  clockid_t clock{};
};

/// The element of an unsorted, not empty list that stands above this share of the others.
inline double Quantile(std::vector<double>& values, double share) {
  const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size()));
  const auto nth = values.begin() + at;
  std::nth_element(values.begin(), nth, values.end());
  return *nth;
}

/// Runs of commands or arrays through a client.
class Measurement : public Load {
 public:
  Measurement(std::unique_ptr<Client> c, const Work& w, pid_t serverPid)
      : client(std::move(c)), work(w), server(serverPid) {}

  nlohmann::json Run() override {
    nlohmann::json result;
    const double serverBefore = server.Micros();
    const double ownBefore = own.Micros();
    const Clock::time_point begin = Clock::now();
    end = begin + kRunTime;
    const auto done = static_cast<double>(work.IsBulk()           ? Arrays()
                                          : work.outstanding == 1 ? RoundTrips()
                                                                  : Pipeline());
    const std::chrono::duration<double> took = Clock::now() - begin;
    result["rate"] = done / took.count();
    result["srv_us"] = (server.Micros() - serverBefore) / done;
    if (work.IsTls()) result["cli_us"] = (own.Micros() - ownBefore) / done;
    if (work.IsBulk()) result["gbs"] = done * static_cast<double>(work.bytes) / took.count() / 1e9;
    if (!micros.empty()) {
      result["p50us"] = Quantile(micros, 0.5);
      result["p99us"] = Quantile(micros, 0.99);
    }
    return result;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kRunTime{200};
  static constexpr std::uint64_t kMaxOperations = 1'000'000;

  bool GoesOn(std::uint64_t done, Clock::time_point now) const {
    return now < end && done < kMaxOperations;
  }

  /// One command at a time, each timed.
  std::uint64_t RoundTrips() {
    micros.clear();
    Clock::time_point before = Clock::now();
    do {
      client->Send(1);
      client->Receive();
      const Clock::time_point now = Clock::now();
      micros.push_back(std::chrono::duration<double, std::micro>(now - before).count());
      before = now;
    } while (GoesOn(micros.size(), before));
    return micros.size();
  }

  /// Each answer makes room for the next command.
  std::uint64_t Pipeline() {
    std::uint64_t done = 0;
    client->Send(work.outstanding);
    while (GoesOn(done, Clock::now())) {
      const unsigned n = client->Receive();
      done += n;
      client->Send(n);
    }
    for (unsigned left = work.outstanding; left > 0;) {
      const unsigned n = client->Receive();
      done += n;
      left -= n;
    }
    return done;
  }

  /// A bounded number of arrays up to each closing command: some systems queue all that they get.
  std::uint64_t Arrays() {
    std::uint64_t done = 0;
    do {
      for (unsigned i = 0; i < work.outstanding; ++i) client->Push();
      client->Send(1);
      client->Receive();
      done += work.outstanding;
    } while (GoesOn(done, Clock::now()));
    return done;
  }

  const std::unique_ptr<Client> client;
  const Work& work;
  const ProcessorTime server;
  const ProcessorTime own{getpid()};
  Clock::time_point end;
  std::vector<double> micros;  // of each round trip of the last run
};

/// What a program implements; one without servers or without clients leaves that part out.
class System {
 public:
  System() = default;
  virtual ~System() = default;
  System(const System&) = delete;
  System& operator=(const System&) = delete;

  /// Listens on a free port of 127.0.0.1.
  virtual std::unique_ptr<Server> Listen(const Work&) {
    throw std::runtime_error("this system has clients alone");
  }
  virtual std::unique_ptr<Client> Connect(int, const Work&) {
    throw std::runtime_error("this system has servers alone");
  }
  /// Runs against the server with this process id.
  virtual std::unique_ptr<Load> Prepare(int port, const Work& work, pid_t server) {
    return std::make_unique<Measurement>(Connect(port, work), work, server);
  }
};

inline int ToInt(std::string_view text) {
  int value = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || stop != text.data() + text.size())
    throw std::runtime_error("not a number: " + std::string(text));
  return value;
}

inline void PrintLine(const nlohmann::json& line) {
  std::puts(line.dump().c_str());
  std::fflush(stdout);
}

/// Waits for the next byte of standard input; false at its end.
inline bool AwaitByte() {
  char byte;
  return read(STDIN_FILENO, &byte, 1) == 1;
}

/// Each connection makes one round trip, so that the server has met it for certain. They come in
/// batches, which is quick and still fits the queue of any listener.
inline void KeepIdle(System& system, int port, std::size_t n) {
  constexpr std::size_t kBatch = 64;
  const Work& work = FindWork("rpc-idle");
  std::vector<std::unique_ptr<Client>> clients;
  while (clients.size() < n) {
    const std::size_t first = clients.size();
    const std::size_t end = std::min(n, first + kBatch);
    while (clients.size() < end) {
      clients.push_back(system.Connect(port, work));
      clients.back()->Send(1);
    }
    for (std::size_t i = first; i < end; ++i) clients[i]->Receive();
  }
  PrintLine({{"idle", n}});
  while (AwaitByte()) continue;
}

/// The usual limit has too few descriptors for the idle connections, of which some systems take two
/// each.
inline void RaiseFileLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// The main function of each program; Make builds its System from the name in the arguments.
template <class Make>
int RunPeer(const std::vector<std::string>& arguments, Make make) {
  try {
    signal(SIGPIPE, SIG_IGN);
    RaiseFileLimit();
    const bool isServer = arguments.size() == 3 && arguments[0] == "server";
    const bool isClient = arguments.size() == 5 && arguments[0] == "client";
    if (!isServer && !isClient)
      throw std::runtime_error("use: server WORK SYSTEM | client PORT WORK SYSTEM PID");

    if (isServer) {
      const std::unique_ptr<System> system = make(arguments[2]);
      const std::unique_ptr<Server> server = system->Listen(FindWork(arguments[1]));
      PrintLine({{"port", server->Port()}});
      server->Serve();
      return 0;
    }

    const int port = ToInt(arguments[1]);
    const int number = ToInt(arguments[4]);
    const std::unique_ptr<System> system = make(arguments[3]);
    if (arguments[2] == "idle") {
      KeepIdle(*system, port, static_cast<std::size_t>(number));
      return 0;
    }
    const Work& work = FindWork(arguments[2]);
    const std::unique_ptr<Load> load = system->Prepare(port, work, number);
    while (AwaitByte()) PrintLine(load->Run());
    return 0;
  } catch (const std::exception& e) {
    PrintLine({{"error", e.what()}});
    return 1;
  }
}

}  // namespace bench
