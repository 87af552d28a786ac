// securesocket_test.cpp - a client's handshake.
#include "kyrno/tls/securesocket.h"

#include <gtest/gtest.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <string>

#include "kyrno/base/error.h"
#include "tests/kyrno/tls/certtexts.h"

namespace {

TEST(SecureSocket, AClientWhosePeerKeepsSilentIsGivenUp) {
  const GNUTLSHOLD loaded;
  RPCSOCK listener("127.0.0.1", "0", true, PIPv4, SOCK_STREAM);
  ASSERT_EQ(listener.lError, 0);
  const std::string port = std::to_string(listener.Port());
  const int soon = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec at = {{0, 0}, {0, 20000000}};
  ASSERT_EQ(timerfd_settime(soon, 0, &at, nullptr), 0);

  const REF<CERTDATA> cert(new CERTDATA);
  RPCSECURE client("127.0.0.1", port.c_str(), false, PIPv4, cert, soon);
  EXPECT_EQ(client.lError, ERR_TLSHANDSHAKE);
  UI8 ended = 0;
  EXPECT_EQ(read(soon, &ended, sizeof ended), 8);  // not before
  close(soon);
}

}  // namespace
