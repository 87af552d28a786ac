// serve_http.cpp - a web server for the files of a folder, and for WebSockets on the same port.
//
//   "HTTPHeader"               a request; answered at once, unless a short body comes
//   "HTTPBody"                 the end of such a request, which is answered now
//   "WSUpgrade", "WSReceive"   a WebSocket, whose messages go back
//
// The library sends the pieces of one connection in order and in its own time, so that each request
// is answered when it is read, and no peer waits for another.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>

#include "host/httpfiles.h"
#include "host/httphead.h"
#include "host/serve.h"
#include "host/wsmessages.h"

namespace host {

namespace {

/// Compressing happens while everybody waits, so that larger files go out as they are.
constexpr off_t kMaxGzipBytes = off_t{8} << 20;
/// The library sends no larger ones, nor their headers.
constexpr off_t kMaxFileBytes = off_t{UINT32_MAX} - kMaxGzipBytes;

/// The connection has gone, or its object: there is nobody to answer.
constexpr int kNotFound = 1010;

const char* Reason(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 301:
      return "Moved Permanently";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 503:
      return "Service Unavailable";
    case 505:
      return "HTTP Version Not Supported";
    default:
      return "Internal Server Error";
  }
}

std::string HttpTime(time_t when) {
  char text[40];
  tm parts{};
  gmtime_r(&when, &parts);
  return std::string(text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts));
}

/// What goes back for a request. A file stays open until it has been handed to the library.
struct Answer {
  int status = 200;
  HttpFields fields;
  std::string text;  ///< the body, unless there is a file
  Found file;
  bool gzip = false;
};

Answer Page(int status, std::string html) {
  Answer answer;
  answer.status = status;
  answer.fields = {{"Content-Type", "text/html; charset=utf-8"}};
  answer.text = std::move(html);
  return answer;
}

Answer ErrorPage(int status) {
  const std::string title = std::to_string(status) + " " + Reason(status);
  return Page(status, "<!DOCTYPE html>\n<html lang=\"en\"><head><title>" + title +
                          "</title></head>\n<body><h1>" + title + "</h1></body></html>\n");
}

int StatusOf(int error) {
  if (error == EACCES || error == EPERM) return 403;
  return error == EMFILE || error == ENFILE || error == ENOMEM ? 503 : 404;
}

/// A body in chunks, or of 1000000 bytes and more. Nobody needs it, and it would fill the memory:
/// the answer goes out at once, and the library drops what still comes.
bool HasLongBody(const HttpHead& request) {
  constexpr std::size_t kMaxDigits = 6;
  return request.IsChunked() || request.Field("Content-Length").size() > kMaxDigits;
}

/// Whether the peer waits for leave to send a body. It gets the answer instead.
bool AwaitsLeave(const HttpHead& request) { return request.Lists("Expect", "100-continue"); }

bool IsLast(const HttpHead& request) {
  if (AwaitsLeave(request) || HasLongBody(request)) return true;
  if (request.Lists("Connection", "close")) return true;
  return request.third != "HTTP/1.1" && !request.Lists("Connection", "keep-alive");
}

/// The requests of all connections. One thread, one session.
class WebServer {
 public:
  WebServer(const Session& s, const std::string& dir)
      : session(s), folder(dir), compresses(s.GetProp(".", "CompLevel").Integer() > 0), echo(s) {}

  std::string Handle(const Event& event);

 private:
  std::string Begin(const Event& event);
  std::string Reply(const std::string& name, const HttpHead& request);
  Answer AnswerTo(const HttpHead& request) const;
  Answer AnswerWithFile(const HttpHead& request, const std::string& path, Found file) const;
  bool TrySend(const std::string& name, const HttpHead& request, const Answer& answer, bool last);
  void SendAnswer(const std::string& name, const HttpHead& request, const Answer& answer,
                  bool last);
  const std::string& Date();

  const Session& session;
  const Folder folder;
  const bool compresses;
  WsEcho echo;
  // Every connection that takes requests, with the one whose body is on its way. What comes after
  // the last request of a connection finds nothing here.
  std::map<std::string, std::optional<HttpHead>> peers;
  time_t dateSecond = 0;
  std::string date;
};

std::string WebServer::Handle(const Event& event) {
  const std::string& what = event.event;
  if (what == "Connect") {
    peers[event.name];
    return "";
  }
  if (what == "WSUpgrade" || what == "Closed" || what == "Error" || what == "BlkLast")
    peers.erase(event.name);
  echo.Handle(event);

  const auto peer = peers.find(event.name);
  if (peer == peers.end()) return "";
  if (what == "HTTPHeader") return Begin(event);
  if (what == "HTTPBody" && peer->second) {
    const HttpHead request = *std::exchange(peer->second, std::nullopt);
    return Reply(event.name, request);
  }
  return "";
}

std::string WebServer::Begin(const Event& event) {
  const HttpHead request = HttpHead::Parse(event.value.Text());
  if (request.HasLength() && !AwaitsLeave(request) && !HasLongBody(request)) {
    peers[event.name] = request;
    return Print(request.FirstLine());
  }
  return Reply(event.name, request);
}

std::string WebServer::Reply(const std::string& name, const HttpHead& request) {
  Answer answer = AnswerTo(request);
  const bool last = answer.status == 400 || answer.status == 505 || IsLast(request);
  if (last) peers.erase(name);
  while (!TrySend(name, request, answer, last)) {
    if (answer.gzip) {
      // Compressing needs room and a folder to write to.
      answer.gzip = false;
      std::erase_if(answer.fields, [](const auto& f) { return f.first == "Content-Encoding"; });
    } else {
      answer = ErrorPage(500);
    }
  }
  return Print(request.FirstLine()) + " " + std::to_string(answer.status);
}

Answer WebServer::AnswerTo(const HttpHead& request) const {
  if (!request.third.starts_with("HTTP/1.")) return ErrorPage(request.third.empty() ? 400 : 505);
  if (request.third == "HTTP/1.1" && request.Field("Host").empty()) return ErrorPage(400);
  if (request.first != "GET" && request.first != "HEAD") {
    Answer answer = ErrorPage(405);
    answer.fields.emplace_back("Allow", "GET, HEAD");
    return answer;
  }
  const std::optional<RequestTarget> target = RequestTarget::Parse(request.second);
  if (!target) return ErrorPage(404);

  Found found = folder.Open(target->path);
  if (found.error != 0) return ErrorPage(StatusOf(found.error));
  if (!found.IsFolder()) return AnswerWithFile(request, target->path, std::move(found));
  if (!target->EndsInSlash()) {
    Answer answer = ErrorPage(301);
    answer.fields.emplace_back("Location", target->link + "/" + target->query);
    return answer;
  }
  Found index = folder.Open(target->path + "/index.html");
  if (index.error == 0 && !index.IsFolder())
    return AnswerWithFile(request, "index.html", std::move(index));
  return Page(200, ListingPage(found, target->path));
}

Answer WebServer::AnswerWithFile(const HttpHead& request, const std::string& path,
                                 Found file) const {
  if (file.info.st_size > kMaxFileBytes) return ErrorPage(500);
  const ContentType type = TypeOfFile(path);
  const std::string changed = HttpTime(file.info.st_mtime);
  Answer answer;
  answer.fields = {{"Last-Modified", changed}};
  if (type.compresses) answer.fields.emplace_back("Vary", "Accept-Encoding");
  if (request.Field("If-Modified-Since") == changed) {
    answer.status = 304;
    return answer;
  }
  answer.fields.emplace_back("Content-Type", type.word);
  answer.fields.emplace_back("X-Content-Type-Options", "nosniff");
  answer.gzip = type.compresses && compresses && file.info.st_size > 0 &&
                file.info.st_size <= kMaxGzipBytes && AcceptsGzip(request.Field("Accept-Encoding"));
  if (answer.gzip) answer.fields.emplace_back("Content-Encoding", "gzip");
  answer.file = std::move(file);
  return answer;
}

/// False when this answer can't be sent, but another one can.
bool WebServer::TrySend(const std::string& name, const HttpHead& request, const Answer& answer,
                        bool last) {
  try {
    SendAnswer(name, request, answer, last);
    return true;
  } catch (const LibraryError& error) {
    if (error.code == kClosed || error.code == kNotFound || answer.status == 500) throw;
    return false;
  }
}

void WebServer::SendAnswer(const std::string& name, const HttpHead& request, const Answer& answer,
                           bool last) {
  const bool isFile = static_cast<bool>(answer.file.file);
  const std::size_t size =
      isFile ? static_cast<std::size_t>(answer.file.info.st_size) : answer.text.size();
  const bool hasBody = request.first != "HEAD" && size > 0;

  HttpFields fields{{"Date", Date()}};
  if (last) fields.emplace_back("Connection", "close");
  if (!last && request.third == "HTTP/1.0") fields.emplace_back("Connection", "keep-alive");
  fields.insert(fields.end(), answer.fields.begin(), answer.fields.end());
  // The library writes the length of a body that it sends. That of a compressed file is not known
  // without one, and an answer to HEAD may leave it out.
  if (!hasBody && answer.status != 304 && !answer.gzip)
    fields.emplace_back("Content-Length", std::to_string(size));

  ZValue body = "";
  if (hasBody && !isFile) body = answer.text;
  if (hasBody && isFile) {
    std::vector<ZValue> file{"", answer.file.OpenName()};
    if (answer.gzip) file.emplace_back("gzip");
    body = ZValue::List(std::move(file));
  }
  session.Send(
      name,
      HttpMessage("HTTP/1.1", std::to_string(answer.status), Reason(answer.status), fields, body),
      last ? kSendAndClose : kSendPlain);
}

const std::string& WebServer::Date() {
  if (const time_t now = time(nullptr); now != dateSecond) {
    date = session.GetProp(".", "HttpDate").Text();
    dateSecond = now;
  }
  return date;
}

}  // namespace

int ServeHttp(const Console& console, const Settings& settings, const std::string& dir,
              const Endpoint& end, const Tuning& tuning) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  WebServer web(session, dir);
  const std::string server = session.Server(ServerOptions("", end, tuning));
  // Browsers cut large messages between the bytes of a character.
  session.SetProp(server, "WSFeatures", kWsAutoUpgrade | kWsStrict);
  return RunServer(console, session, server, end.mode, tuning.tls,
                   [&](const Event& event) { return web.Handle(event); });
}

}  // namespace host
