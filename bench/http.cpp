// http.cpp - runs wrk and curl, and reads what they report as JSON.
#include "bench/http.h"

#include <fstream>

#include "bench/beside.h"
#include "bench/web.h"

namespace bench {

namespace {

using nlohmann::json;

constexpr int kRunSeconds = 1;  // the shortest run of wrk
constexpr int kHttpOk = 200;

/// The last line that the command prints. Throws when that is no JSON object.
json Report(const std::string& command) {
  const auto close = [](FILE* pipe) { pclose(pipe); };
  const std::unique_ptr<FILE, decltype(close)> pipe(popen(command.c_str(), "r"), close);
  std::string last;
  for (std::array<char, 4096> line; pipe && fgets(line.data(), line.size(), pipe.get());)
    last = line.data();
  json report = json::parse(last, nullptr, false);
  if (!report.is_object()) throw std::runtime_error("no report from: " + command);
  return report;
}

std::string Url(int port, std::string_view path) {
  return "http://127.0.0.1:" + std::to_string(port).append(path);
}

class WrkLoad : public Load {
 public:
  WrkLoad(int port, const Work& work, pid_t serverPid)
      : command("wrk --threads 1 --connections " + std::to_string(work.connections) +
                " --duration " + std::to_string(kRunSeconds) + "s --script '" +
                Beside("peers/wrk.lua") + "' " + Url(port, "/")),
        server(serverPid) {}

  json Run() override {
    const double before = server.Micros();
    const json report = Report(command);
    if (report.at("errors").get<double>() > 0)
      throw std::runtime_error("wrk met errors: " + report.dump());
    const double requests = report.at("requests");
    if (requests < 1) throw std::runtime_error("wrk got no answer");
    return {{"rate", requests / report.at("seconds").get<double>()},
            {"p50us", report.at("p50us")},
            {"p99us", report.at("p99us")},
            {"srv_us", (server.Micros() - before) / requests}};
  }

 private:
  const std::string command;
  const ProcessorTime server;
};

class CurlLoad : public Load {
 public:
  CurlLoad(int port, const Work& work, pid_t serverPid)
      : command(
            "curl --silent --output /dev/null --write-out '"
            R"({"status":%{response_code},"bytes":%{size_download},"seconds":%{time_total}})"
            "' " +
            Url(port, kFilePath)),
        bytes(work.bytes),
        pid(serverPid),
        server(serverPid) {}

  json Run() override {
    const double before = server.Micros();
    const json report = Report(command);
    if (report.at("status") != kHttpOk || report.at("bytes") != bytes)
      throw std::runtime_error("curl got another answer: " + report.dump());
    const double seconds = report.at("seconds");
    return {{"rate", 1 / seconds},
            {"gbs", static_cast<double>(bytes) / seconds / 1e9},
            {"srv_us", server.Micros() - before},
            {"peak_mib", PeakMebibytes()}};
  }

 private:
  /// The most memory that the server ever had resident.
  double PeakMebibytes() const {
    constexpr std::string_view kKey = "VmHWM:";
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
      if (line.starts_with(kKey)) return std::stod(line.substr(kKey.size())) / 1024;
    throw std::runtime_error("the server has gone");
  }

  const std::string command;
  const std::size_t bytes;
  const pid_t pid;
  const ProcessorTime server;
};

}  // namespace

std::unique_ptr<Load> MakeHttpLoad(int port, const Work& work, pid_t server) {
  if (work.speech == Speech::HttpFile) return std::make_unique<CurlLoad>(port, work, server);
  return std::make_unique<WrkLoad>(port, work, server);
}

}  // namespace bench
