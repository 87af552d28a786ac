// get.cpp - one HTTP request, and the answer in whatever form it comes.
//
//   header says                  events                                  the body
//   1xx                          "HTTPHeader" again                      of a later answer
//   204, 304, length 0           none                                    is empty
//   Content-Length               "HTTPBody"                              all of it
//   Transfer-Encoding: chunked   "HTTPChunk" ..., "HTTPTrailer"          their data
//   neither                      "HTTPHeader" ..., "BlkLast", "Closed"   all of them, until the
//   peer closes
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "host/commands.h"
#include "host/httpfiles.h"
#include "host/httphead.h"

namespace host {

namespace {

/// How long one wait may be; a large body is one event and takes its time.
constexpr int kTurnMillis = 10'000;

/// "DecodeBuffers": chunks as data and extensions.
constexpr int kDecodeChunk = 4;

/// A body that ends with the connection comes in pieces of up to this size.
constexpr int kMaxPiece = 64 << 20;

/// Standard output, or a file from its first byte on.
class Output {
 public:
  explicit Output(std::string where) : path(std::move(where)) {}

  void Write(const void* data, std::size_t n) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (n > 0) {
      const ssize_t done = write(Target(), bytes, n);
      if (done < 0 && errno != EINTR) Fail();
      if (done <= 0) continue;
      bytes += done;
      n -= static_cast<std::size_t>(done);
    }
  }
  void Write(const ZValue& value) { Write(value.Data().data(), value.Data().size()); }
  void Write(const std::string& text) { Write(text.data(), text.size()); }
  /// Makes the file, which an empty body does not.
  void Finish() { Target(); }

 private:
  int Target() {
    if (path.empty()) return STDOUT_FILENO;
    if (!file)
      file = Descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!file) Fail();
    return file.Get();
  }
  [[noreturn]] void Fail() const {
    throw std::runtime_error((path.empty() ? "standard output" : path) + ": " +
                             std::strerror(errno));
  }

  const std::string path;
  Descriptor file;
};

/// Follows the pieces of one answer.
class Answer {
 public:
  Answer(Output* bodyTo, Output* headerTo) : body(bodyTo), header(headerTo) {}

  /// One event; true when it was the last. Throws when the answer has broken off.
  bool Takes(const Session& session, const Event& event) {
    if (event.event == "HTTPHeader" && state == InHeader) return TakesHeader(session, event);
    if (event.event == "Closed" || event.event == "Error") {
      const auto code = static_cast<int>(event.value.Integer());
      if (state == UntilClose && code == kClosed) return true;
      throw session.Lib().Error("no whole answer", code);
    }
    // Whatever the library takes such a body's bytes for, they are the body.
    if (state == UntilClose) {
      body->Write(event.value);
      return event.event == "BlkLast";
    }
    if (event.event == "HTTPChunk") {
      body->Write(event.value.Items().at(0));
      return false;
    }
    if (event.event == "HTTPTrailer") return true;
    if (event.event == "HTTPBody") {
      body->Write(event.value);
      return true;
    }
    // "BlkLast": half a header, and the end.
    throw session.Lib().Error("no whole answer", kClosed);
  }

 private:
  bool TakesHeader(const Session& session, const Event& event) {
    const HttpHead head = HttpHead::Parse(event.value.Text());
    if (!head.first.starts_with("HTTP/")) throw std::runtime_error("the answer is no HTTP");
    if (header) header->Write(event.value);
    if (head.second.starts_with('1')) return false;
    if (head.second == "204" || head.second == "304") return true;
    if (head.IsChunked() || head.HasLength()) {
      state = Framed;
      return false;
    }
    if (!head.Field("Content-Length").empty()) return true;
    state = UntilClose;
    session.SetProp(event.name, "DecodeBuffers", 0);
    return false;
  }

  enum { InHeader, Framed, UntilClose } state = InHeader;
  Output* const body;    // borrowed
  Output* const header;  // borrowed, null where nobody wants to see it
};

std::string Request(const Url& url) {
  return "GET " + url.target + " HTTP/1.1\r\nHost: " + url.Authority() +
         "\r\nUser-Agent: kyrno-host\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

}  // namespace

int Get(const Console& console, const Settings& settings, const Url& url, const Tls& tls,
        bool showHeader, const std::string& file) {
  const Library library;
  const HostSession session(library, "HOST", settings);
  Tuning tuning;
  tuning.bufferSize = kMaxPiece;
  tuning.tls = tls;
  const std::string client =
      session.Client(ClientOptions("", {"http", url.host, url.port}, tuning));
  session.SetProp(client, "DecodeBuffers", kDecodeChunk);
  session.Send(client, Request(url));

  // Where each event is a line of JSON, the bytes stand in those lines.
  const bool shows = console.IsJson();
  Output standard("");
  Output nowhere("/dev/null");
  Output named(file);
  Output* const body = shows && file.empty() ? &nowhere : &named;
  Answer answer(body, showHeader && !shows ? &standard : nullptr);
  for (bool done = false; !done;) {
    const Event event = session.Wait(client, kTurnMillis);
    if (event.IsTimeout()) continue;
    if (event.code != 0) throw library.Error("AWaitZ " + client, event.code);
    if (shows) console.Show("got", event);
    done = answer.Takes(session, event);
  }
  body->Finish();
  return 0;
}

}  // namespace host
