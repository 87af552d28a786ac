// check.cpp - the requirements, and their comparison with the results.
#include "bench/check.h"

#include <cstdio>
#include <optional>
#include <string>

namespace bench {

namespace {

using nlohmann::json;

enum class Bound { AtMost, AtLeast };

constexpr int kNone = -1;
constexpr const char* kOurs = "kyrno";

/// Whether a figure has to be reached, or is shown only.
enum class Force { Required, Aim };

/// A figure of the library against that of another system, or against its own with fewer idle
/// connections. Without a system the factor is the bound itself.
struct Requirement {
  const char* work;
  const char* place;
  int idle;
  const char* key;
  Bound bound;
  double factor;
  const char* system;
  int systemIdle;
  Force force = Force::Required;
};

constexpr Requirement kRequirements[] = {
    {"rpc1", "same", kNone, "p50us", Bound::AtMost, 1.1, "zeromq", kNone},
    {"rpc1", "split", kNone, "p50us", Bound::AtMost, 1.1, "zeromq", kNone},
    {"rpc-idle", "same", 1'000, "p50us", Bound::AtMost, 1.15, kOurs, 0},
    {"rpc-idle", "same", 10'000, "p50us", Bound::AtMost, 1.15, kOurs, 0},
    {"rpc64", "same", kNone, "rate", Bound::AtLeast, 1.2, "sockets-call", kNone},
    {"bulk1M", "split", kNone, "gbs", Bound::AtLeast, 0.6, "sockets", kNone},
    {"bulk64M", "split", kNone, "gbs", Bound::AtLeast, 0.9, "zeromq", kNone},
    {"fan64", "same", kNone, "rate", Bound::AtLeast, 0.5, "zeromq", kNone},
    {"connect", "same", kNone, "rate", Bound::AtLeast, 0.3, "sockets", kNone},
    {"idle-cpu", "same", 10'000, "srv_us", Bound::AtMost, 10'000, nullptr, kNone},
    {"http64", "split", kNone, "rate", Bound::AtLeast, 1, "node", kNone},
    {"http64", "split", kNone, "rate", Bound::AtLeast, 1, "lws", kNone, Force::Aim},
    {"http512", "split", kNone, "rate", Bound::AtLeast, 1, "node", kNone},
    {"http512", "split", kNone, "rate", Bound::AtLeast, 1, "lws", kNone, Force::Aim},
    {"http-file", "split", kNone, "gbs", Bound::AtLeast, 0.7, "nginx", kNone},
    {"ws64", "split", kNone, "rate", Bound::AtLeast, 1, "node", kNone},
    {"ws64", "split", kNone, "rate", Bound::AtLeast, 1, "lws", kNone, Force::Aim},
    {"udp1", "split", kNone, "p50us", Bound::AtMost, 2, "sockets", kNone},
    {"tls-full-rsa", "split", kNone, "rate", Bound::AtLeast, 0.9, "gnutls", kNone},
    {"tls-full-p256", "split", kNone, "rate", Bound::AtLeast, 0.9, "gnutls", kNone},
    {"tls-full-p256", "split", kNone, "srv_us", Bound::AtMost, 1.11, "gnutls", kNone, Force::Aim},
    {"tls-resume", "split", kNone, "rate", Bound::AtLeast, 0.9, "gnutls", kNone},
    {"tls-bulk", "split", kNone, "gbs", Bound::AtLeast, 0.85, "gnutls", kNone},
    {"tls-connect", "split", kNone, "p50us", Bound::AtMost, 1.3, "gnutls", kNone},
    {"tls-connect-rsa", "split", kNone, "p50us", Bound::AtMost, 1.3, "gnutls", kNone},
};

std::optional<double> Find(const json& results, const Requirement& r, const char* system,
                           int idle) {
  for (const json& result : results)
    if (result.at("work") == r.work && result.at("place") == r.place &&
        result.at("system") == system && result.value("idle", kNone) == idle &&
        result.contains(r.key))
      return result.at(r.key).get<double>();
  return std::nullopt;
}

std::string Describe(const Requirement& r) {
  const std::string idle = r.idle == kNone ? "" : " " + std::to_string(r.idle) + " idle";
  return std::string(r.work) + " " + r.place + idle + " " + r.key;
}

std::string DescribeOther(const Requirement& r) {
  return r.systemIdle == kNone ? r.system : std::to_string(r.systemIdle) + " idle";
}

bool Meets(const json& results, const Requirement& r) {
  std::printf("%-36s", Describe(r).c_str());
  const std::optional<double> ours = Find(results, r, kOurs, r.idle);
  const std::optional<double> other =
      r.system ? Find(results, r, r.system, r.systemIdle) : std::optional(1.0);
  if (!ours || !other) {
    std::puts("no figure  FAIL");
    return false;
  }

  const bool atMost = r.bound == Bound::AtMost;
  const double limit = *other * r.factor;
  const bool meets = atMost ? *ours <= limit : *ours >= limit;
  std::printf("%11.2f %s %11.2f", *ours, atMost ? "<=" : ">=", limit);
  const bool isAim = r.force == Force::Aim;
  if (r.system)
    std::printf("   %.2f x %s, %s %.2f", *ours / *other, DescribeOther(r).c_str(),
                isAim ? "aim" : "required", r.factor);
  std::printf("   %s\n", meets ? "ok" : isAim ? "not yet" : "FAIL");
  return meets || isAim;
}

}  // namespace

bool MeetsRequirements(const json& results, const Chosen& chosen) {
  std::size_t compared = 0;
  std::size_t met = 0;
  for (const Requirement& r : kRequirements) {
    if (!chosen(r.work, kOurs, r.place)) continue;
    if (r.system && !chosen(r.work, r.system, r.place)) continue;
    ++compared;
    if (Meets(results, r)) ++met;
  }
  std::printf("%zu of %zu requirements met\n", met, compared);
  return compared > 0 && met == compared;
}

}  // namespace bench
