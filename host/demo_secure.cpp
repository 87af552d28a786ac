// demo_secure.cpp - the demo's calls over TLS 1.3, with a certificate on either side.
#include "host/demo.h"
#include "host/democerts.h"

namespace host {

namespace {

constexpr std::size_t kManyRecords = std::size_t{4} << 20;

void Commands(DemoRun& run) {
  for (const ZValue& value : SampleArrays()) {
    run.session.Send("secure", value);
    run.Expect("secure", "Receive", value);
  }
  const ZValue large = SampleBytes(kManyRecords, 10);
  run.session.Send("secure", large);
  run.Expect("secure", "Receive", large);

  run.session.Send(std::string("secure.") + kWhoName, "");
  run.Expect("secure", "Receive", kDemoClientSubject);
}

/// Who has no certificate is told so by the end of the connection: TLS 1.3 lets a client begin
/// before the server has judged it.
void Stranger(DemoRun& run, Tuning tuning) {
  tuning.tls.cert.clear();
  tuning.tls.key.clear();
  run.Connect("stranger", "secure", tuning);
  run.Expect("stranger", "Closed", kClosed);
}

}  // namespace

void DemoSecure(DemoRun& run) {
  Tuning tuning;
  tuning.tls = DemoTls(run.certs, kDemoClient);
  for (const char* name : {"secure", "https", "wss"}) run.Connect(name, name, tuning);
  Commands(run);
  DemoFile(run, "https");
  DemoUpgrade(run, "wss");
  DemoTextMessages(run, "wss");
  Stranger(run, tuning);
}

}  // namespace host
