// democerts.h - the certificates of the demo, made when it begins.
//
//   FOLDER/trust/ca.pem        the authority, which both processes trust
//   FOLDER/server.pem, .key    for 127.0.0.1 and localhost
//   FOLDER/client.pem, .key    for whoever calls
#pragma once

#include <string>

#include "host/tlsoptions.h"

namespace host {

/// Owner of the folder, which goes with it. The authority's key is never written.
///
/// Errors: std::runtime_error from the constructor.
class DemoCerts {
 public:
  DemoCerts();
  ~DemoCerts();
  DemoCerts(const DemoCerts&) = delete;
  DemoCerts& operator=(const DemoCerts&) = delete;

  const std::string folder;

 private:
  explicit DemoCerts(std::string path);
};

inline constexpr char kDemoServer[] = "server";
inline constexpr char kDemoClient[] = "client";
/// The subject of the client's certificate.
inline constexpr char kDemoClientSubject[] = "CN=client";

/// TLS 1.3 with the certificate of that name, which is asked for the other's.
Tls DemoTls(const std::string& folder, const std::string& name);

}  // namespace host
