// web.cpp - clients for all servers of the web, and programs that become such a server, see
// bench/program.h.
#include "bench/web.h"

#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bench/beside.h"
#include "bench/http.h"
#include "bench/program.h"
#include "bench/tls.h"
#include "bench/websocket.h"

namespace bench {

namespace {

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

/// How nginx is to listen.
std::string Listening(const Work& work, int port) {
  const std::string listen = "listen 127.0.0.1:" + std::to_string(port);
  if (work.speech != Speech::TlsHandshake) return listen + ";";
  return listen + " ssl; ssl_protocols TLSv1.3; ssl_certificate \"" + TlsCertificate(work) +
         "\"; ssl_certificate_key \"" + TlsPrivateKey(work) + "\";";
}

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
    )" << Listening(work, Port())
        << "\n    " << Location(work) << R"(
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
