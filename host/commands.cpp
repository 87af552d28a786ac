// commands.cpp - what the command words share.
#include "host/commands.h"

#include <charconv>
#include <csignal>
#include <fstream>
#include <stdexcept>

namespace host {

namespace {

volatile std::sig_atomic_t interrupted = 0;

/// All modules of the log, and the level that shows each read and write.
constexpr int kTraceAll = ~0xF | 4;

Options ObjectOptions(const std::string& name, const Endpoint& end, const Tuning& tuning,
                      bool server) {
  Options options{{"Name", name}, {"Address", end.address}, {"Port", end.port}, {"Mode", end.mode}};
  if (tuning.bufferSize > 0) options.emplace_back("BufferSize", tuning.bufferSize);
  if (tuning.magic != 0) options.emplace_back("Magic", tuning.magic);
  if (!tuning.stops.empty())
    options.emplace_back(
        "EOM", ZValue::List(std::vector<ZValue>(tuning.stops.begin(), tuning.stops.end())));
  for (auto& option : TlsOptions(tuning.tls, server)) options.push_back(std::move(option));
  return options;
}

}  // namespace

void CatchInterrupts() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() { return interrupted != 0; }

Endpoint ParseEndpoint(const std::string& mode, const std::string& text, bool needsAddress) {
  const std::size_t colon = text.rfind(':');
  Endpoint end{mode, "", text};
  if (colon != std::string::npos) {
    end.address = text.substr(0, colon);
    end.port = text.substr(colon + 1);
  }
  if (end.address.size() > 1 && end.address.front() == '[' && end.address.back() == ']')
    end.address = end.address.substr(1, end.address.size() - 2);
  if (end.port.empty() || (needsAddress && end.address.empty()))
    throw std::invalid_argument("\"" + text + "\": give " +
                                (needsAddress ? "HOST:PORT" : "[ADDRESS:]PORT") +
                                ", such as localhost:5000");
  return end;
}

std::string Unescape(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    const char escape = ++i < text.size() ? text[i] : ' ';
    unsigned char byte = 0;
    switch (escape) {
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case '0':
        out += '\0';
        break;
      case '\\':
        out += '\\';
        break;
      case 'x':
        if (text.size() - i > 2) {
          const char* const first = text.data() + i + 1;
          if (std::from_chars(first, first + 2, byte, 16).ptr == first + 2) {
            out += static_cast<char>(byte);
            i += 2;
            break;
          }
        }
        [[fallthrough]];
      default:
        throw std::invalid_argument("\"" + text +
                                    "\": the escapes are \\n, \\r, \\t, \\0, \\xHH and \\\\");
    }
  }
  return out;
}

Options ServerOptions(const std::string& name, const Endpoint& end, const Tuning& tuning) {
  return ObjectOptions(name, end, tuning, true);
}

Options ClientOptions(const std::string& name, const Endpoint& end, const Tuning& tuning) {
  return ObjectOptions(name, end, tuning, false);
}

void Trace(const Session& session, const Settings& settings) {
  if (!settings.trace) return;
  // The library writes to a log that is there and never makes one.
  std::ofstream("kyrno.log", std::ios::app);
  session.SetProp(".", "Trace", kTraceAll);
}

void TellPort(const Console& console, const Session& session, const std::string& server) {
  const ZValue address = session.GetProp(server, "LocalAddr");
  const std::string at = address.At(1).Text();
  const std::int64_t port = address.At(3).Integer();
  console.Say("listening on port " + std::to_string(port) + " (" + at + ")",
              {{"event", "Listen"}, {"name", server}, {"address", at}, {"port", port}});
}

HostSession::HostSession(const Library& lib, const std::string& name, const Settings& settings)
    : Session(lib, name) {
  SetProp(".", "EventMode", 1);
  Trace(*this, settings);
  if (settings.caDir.empty()) return;
  const ZValue trusted = Run("ASetProp", ZValue::List({".", "RootCertDir", settings.caDir}));
  if (const auto code = static_cast<int>(trusted.Integer()); code != 0)
    throw lib.Error(settings.caDir, code);
}

}  // namespace host
