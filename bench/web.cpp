// web.cpp - clients for all servers of the web, and programs that become such a server.
//
// nginx and Node take the place of the process that is started as their server, and listen on a
// port that it has found. They say nothing when they are up, so the clients look.
#include "bench/web.h"

#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "bench/beside.h"
#include "bench/http.h"
#include "bench/socket.h"
#include "bench/websocket.h"

namespace bench {

namespace {

/// Waits until somebody listens.
void AwaitListener(int port) {
  constexpr std::chrono::seconds kPatience{5};
  constexpr std::chrono::milliseconds kPause{1};
  const sockaddr_in address = Loopback(port);
  const auto until = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const Descriptor socket = NewSocket();
    if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return;
    if (std::chrono::steady_clock::now() >= until) Checked(-1, "connect");
    std::this_thread::sleep_for(kPause);
  }
}

class WebClients : public System {
 public:
  std::unique_ptr<Client> Connect(int port, const Work& work) override {
    return MakeWebSocketClient(port, work);
  }
  std::unique_ptr<Load> Prepare(int port, const Work& work, pid_t server) override {
    AwaitListener(port);
    if (work.speech == Speech::WebSocket) return System::Prepare(port, work, server);
    return MakeHttpLoad(port, work, server);
  }
};

/// Replaces this process; returns only by throwing.
void Become(std::vector<std::string> command) {
  std::vector<char*> argv;
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  Checked(-1, argv[0]);
}

/// Becomes the server when it is to serve.
class ProgramServer : public Server {
 public:
  ProgramServer() {
    SetOption(holder.Get(), SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR");
    port = BindToFreePort(holder.Get());
  }
  int Port() const override { return port; }

 private:
  // It stays open and silent, so that nobody else gets the port; who reuses addresses may.
  const Descriptor holder = NewSocket();
  int port = 0;
};

std::string Location(const Work& work) {
  if (work.speech == Speech::HttpFile)
    return "location = " + std::string(kFilePath) + " { alias \"" + MakeFileToServe(work) + "\"; }";
  return "location = / { return 200 \"" + std::string(kHello) + "\"; }";
}

/// One process without a master, and nothing written to a disk.
class NginxServer : public ProgramServer {
 public:
  NginxServer(const Work& work, bool sendfile)
      : folder(Beside("peers/" + std::string(sendfile ? kNginxSendfile : kNginx))) {
    std::filesystem::create_directories(folder);
    std::ofstream out(folder + "/nginx.conf");
    out << R"(daemon off;
master_process off;
pid nginx.pid;
events { worker_connections 1024; }
http {
  access_log off;
  keepalive_requests 1000000000;
  default_type text/plain;
  sendfile )"
        << (sendfile ? "on" : "off") << R"(;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  server {
    listen 127.0.0.1:)"
        << Port() << R"(;
    )" << Location(work)
        << R"(
  }
}
)";
    if (!out.flush()) throw std::runtime_error("cannot write the configuration of nginx");
  }

  void Serve() override {
    // Ordinary users often have no such folder in their path.
    setenv("PATH", (std::string(getenv("PATH")) + ":/usr/sbin").c_str(), 1);
    Become({"nginx", "-e", "stderr", "-p", folder, "-c", folder + "/nginx.conf"});
  }

 private:
  const std::string folder;
};

/// Its module ws is found by NODE_PATH.
class NodeServer : public ProgramServer {
 public:
  explicit NodeServer(const Work& w) : work(w) {}

  void Serve() override {
    Become({"node", Beside("peers/node.js"),
            work.speech == Speech::WebSocket ? "websocket" : "http", std::to_string(Port())});
  }

 private:
  const Work& work;
};

class Program : public System {
 public:
  explicit Program(std::string_view n) : name(n) {}

  std::unique_ptr<Server> Listen(const Work& work) override {
    if (name == kNode) return std::make_unique<NodeServer>(work);
    return std::make_unique<NginxServer>(work, name == kNginxSendfile);
  }

 private:
  const std::string name;
};

}  // namespace

std::string MakeFileToServe(const Work& work) {
  std::string path = Beside("peers/file-to-serve");
  // A file without blocks costs no disk and is read from the page cache as any other.
  const Descriptor file(
      static_cast<int>(Checked(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644), "open")));
  Checked(ftruncate(file.Get(), static_cast<off_t>(work.bytes)), "ftruncate");
  return path;
}

std::unique_ptr<System> MakeWebClients() { return std::make_unique<WebClients>(); }

std::unique_ptr<System> MakeProgram(std::string_view name) {
  return std::make_unique<Program>(name);
}

}  // namespace bench
