// commands.h - what the program can be asked to do, one function per command word. Each returns
// the exit code and throws what it cannot handle.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/console.h"
#include "host/linkconfig.h"
#include "host/talk.h"
#include "host/tlsoptions.h"
#include "host/url.h"

namespace host {

/// Where the program's own servers listen and its own clients call.
inline constexpr char kLoopback[] = "127.0.0.1";

/// An end of a connection, as the command line names it.
struct Endpoint {
  std::string mode;
  std::string address;  ///< empty: any, for a server
  std::string port;     ///< a number or the name of a service
};

/// "HOST:PORT", "[::1]:PORT" or, where an address may be left out, "PORT". Throws
/// std::invalid_argument with what is wanted.
Endpoint ParseEndpoint(const std::string& mode, const std::string& text, bool needsAddress);

/// Where a remote environment meets the link.
struct Meeting {
  Endpoint end;
  bool listens = false;    ///< for a link that connects
  std::optional<Url> url;  ///< of a link that serves pages
};

/// "HOST:PORT" or "ws[s]://HOST:PORT/", or in place of both "[HOST:]PORT" to listen on. Throws
/// std::invalid_argument with what is wanted.
Meeting ParseMeeting(const std::string& peer, const std::string& listen);

/// The options of a server or client that the command line offers.
struct Tuning {
  std::vector<std::string> stops;  ///< end-of-message sequences, escapes already resolved
  int bufferSize = 0;              ///< 0: the library's own
  int magic = 0;
  Tls tls;
};

/// Resolves \n, \r, \t, \0, \xHH and \\. Throws std::invalid_argument on any other escape.
std::string Unescape(const std::string& text);

struct Settings {
  bool trace = false;
  std::string caDir;  ///< whose certificates the session trusts; empty: those of the system
};

/// Arguments of ASrv and AClt; the object gets a generated name where `name` is empty.
Options ServerOptions(const std::string& name, const Endpoint& end, const Tuning& tuning);
Options ClientOptions(const std::string& name, const Endpoint& end, const Tuning& tuning);

/// A session whose time-outs and closings are events, with the log on where it is asked for.
class HostSession : public Session {
 public:
  HostSession(const Library& lib, const std::string& name, const Settings& settings);
};

/// Turns the log on for a root where it is asked for.
void Trace(const Session& session, const Settings& settings);

/// The line that says where a server listens.
void TellPort(const Console& console, const Session& session, const std::string& server);

/// Set by SIGINT and SIGTERM after CatchInterrupts.
bool Interrupted();
void CatchInterrupts();

int Serve(const Console& console, const Settings& settings, const Endpoint& end,
          const Tuning& tuning);
/// The files of a folder, and WebSockets on the same port.
int ServeHttp(const Console& console, const Settings& settings, const std::string& dir,
              const Endpoint& end, const Tuning& tuning);
int ServeWebSocket(const Console& console, const Settings& settings, const Endpoint& end,
                   const Tuning& tuning, bool strict);
int Send(const Console& console, const Settings& settings, const Endpoint& end,
         const Tuning& tuning, const std::vector<ZValue>& values, int waitMillis);
/// The answer to one GET request: its header too where it is asked for, its body to a file where
/// one is named.
int Get(const Console& console, const Settings& settings, const Url& url, const Tls& tls,
        bool showHeader, const std::string& file);
/// Lines from standard input as text messages, and the messages that come in. At the end of input
/// so much silence ends it.
int WebSocket(const Console& console, const Settings& settings, const Url& url, const Tls& tls,
              int waitMillis);
/// The interpreter's side of the link, blocks on standard input and output.
int ServeLink(const Console& console, const Settings& settings, const LinkOptions& options,
              const TalkOptions& talking);
/// The remote environment's side of it.
int Remote(const Console& console, const Settings& settings, const Meeting& meeting,
           const Tuning& tuning, const TalkOptions& talking);
int Tree(const Console& console, const Settings& settings);
/// The certificates of a file, PEM or DER.
int Certs(const Console& console, const Settings& settings, const std::string& file);
int Demo(const Console& console, const Settings& settings);
/// The other process of the demo: serves until it is ended, its ports told on a descriptor, its
/// certificate in a folder.
int DemoPeer(const Console& console, const Settings& settings, int portsFd,
             const std::string& certs);

}  // namespace host
