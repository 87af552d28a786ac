// demo_webpeer.cpp - how the other process of the demo answers in mode http.
#include "host/demo_webpeer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>

#include "host/demo.h"
#include "host/httphead.h"

namespace host {

WebResponder::WebResponder(const Session& s) : session(s) {
  served.file = Descriptor(memfd_create("demo", MFD_CLOEXEC));
  const std::string bytes = ServedBytes();
  if (write(served.file.Get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("no memory for a file");
}

void WebResponder::Handle(const Event& event) const {
  if (event.event == "HTTPHeader") Begin(event);
  // A chunk goes back as it came, behind it the trailer as a last chunk without data.
  if (event.event == "HTTPChunk") session.Send(event.name, event.value);
  if (event.event == "HTTPTrailer") session.Send(event.name, ZValue::List({"", event.value}));
}

void WebResponder::Begin(const Event& header) const {
  const std::string target = header.value.At(1).Text();
  const auto answer = [&](const HttpFields& fields, const ZValue& body) {
    session.Send(header.name, HttpMessage("HTTP/1.1", "200", "OK", fields, body));
  };
  if (target == kFileTarget) answer(kFileFields, ZValue::List({"", served.OpenName()}));
  if (target == kGzipTarget) answer(kGzipFields, ZValue::List({"", served.OpenName(), "gzip"}));
  if (target == kEchoTarget) answer(kChunked, "");
}

}  // namespace host
