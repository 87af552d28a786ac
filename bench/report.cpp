// report.cpp - the table, in the form that Markdown reads.
#include "bench/report.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace bench {

namespace {

struct Column {
  const char* key;
  const char* title;
  int width;     // negative: to the left
  int decimals;  // of a number
};

constexpr Column kColumns[] = {
    {"work", "work", -15, 0},      {"place", "place", -5, 0},      {"idle", "idle", 5, 0},
    {"system", "system", -14, 0},  {"rate", "rate/s", 9, 0},       {"p50us", "p50 us", 8, 1},
    {"p99us", "p99 us", 8, 1},     {"gbs", "GB/s", 6, 2},          {"srv_us", "server us", 9, 2},
    {"cli_us", "client us", 9, 2}, {"peak_mib", "peak MiB", 8, 1},
};

std::string Cell(const nlohmann::json& result, const Column& column) {
  const auto value = result.find(column.key);
  if (value == result.end()) return "";
  if (value->is_string()) return value->get<std::string>();
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", column.decimals, value->get<double>());
  return text;
}

std::string ProcessorName() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  return "unknown processor";
}

}  // namespace

std::string DescribeMachine() {
  utsname system{};
  uname(&system);
  double load = 0;
  getloadavg(&load, 1);
  char running[32];
  std::snprintf(running, sizeof running, "%.1f", load);
  return ProcessorName() + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " processors, " +
         system.sysname + " " + system.release + ", load " + running;
}

void PrintHead() {
  for (const Column& column : kColumns) std::printf("| %*s ", column.width, column.title);
  std::puts("|");
  for (const Column& column : kColumns) {
    const std::string dashes(static_cast<std::size_t>(std::abs(column.width)), '-');
    std::printf(column.width < 0 ? "|-%s-" : "|-%s:", dashes.c_str());
  }
  std::puts("|");
}

void PrintRow(const nlohmann::json& result) {
  const auto error = result.find("error");
  for (const Column& column : kColumns) {
    if (error != result.end() && std::string_view(column.key) == "rate") {
      std::printf("| failed: %s ", error->get<std::string>().c_str());
      break;
    }
    std::printf("| %*s ", column.width, Cell(result, column).c_str());
  }
  std::puts("|");
  std::fflush(stdout);
}

}  // namespace bench
