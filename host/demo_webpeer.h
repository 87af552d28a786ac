// demo_webpeer.h - how the other process of the demo answers in mode http.
#pragma once

#include "host/httpfiles.h"
#include "host/library.h"

namespace host {

/// Answers for a file, for the same file compressed, and sends chunks back. Its server decodes.
class WebResponder {
 public:
  /// Throws std::runtime_error when there is no memory for the file.
  explicit WebResponder(const Session& session);

  void Handle(const Event& event) const;

 private:
  void Begin(const Event& header) const;

  const Session& session;
  Found served;
};

}  // namespace host
