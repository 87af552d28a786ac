// address_test.cpp - names, services, address arrays and the wake-up pair.
#include "kyrno/net/address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Apl/vaget.h"
#include "kyrno/base/error.h"

namespace {

std::string Text(PAA array, UI4 index) {
  CH1 text[80] = {};
  EXPECT_EQ(VAGetCH1(array, index, text, sizeof text, VACHAR), 0);
  return text;
}

QLNSOCKADDR Address(int family, const char* text, UI2 port) {
  QLNSOCKADDR addr{};
  addr.ss_family = static_cast<sa_family_t>(family);
  auto* in = reinterpret_cast<sockaddr_in*>(&addr);
  auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
  in->sin_port = htons(port);
  void* const to = family == AF_INET ? static_cast<void*>(&in->sin_addr) : &in6->sin6_addr;
  EXPECT_EQ(inet_pton(family, text, to), 1);
  return addr;
}

TEST(Address, IPv6TextIsCanonical) {
  const struct {
    const char* in;
    const char* out;
  } rows[] = {
      {"::", "::"},
      {"1::", "1::"},
      {"0:0:1:0:0:1:0:0", "::1:0:0:1:0:0"},
      {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},
      {"1:0:2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},
      {"FE80::00AB:CDEF", "fe80::ab:cdef"},
      {"::ffff:10.0.0.1", "::ffff:10.0.0.1"},
      {"::fffe:10.0.0.1", "::fffe:a00:1"},
  };
  for (const auto& row : rows) {
    UI1 address[16];
    ASSERT_EQ(inet_pton(AF_INET6, row.in, address), 1);
    CH1 text[INET6_ADDRSTRLEN];
    inet_ntop6(address, text);
    EXPECT_STREQ(text, row.out);
  }
}

TEST(Address, ArraysHoldFamilyTextBytesAndPort) {
  const QLNSOCKADDR v4 = Address(AF_INET, "10.0.0.7", 8080);
  const QLNSOCKADDR v6 = Address(AF_INET6, "fe80::200", 8080);
  VAHOLD made, bytes;
  ASSERT_EQ(SockAddr2pAA(&v6, made.Out()), 0);
  EXPECT_EQ(Text(made.Get(), 0), "IPv6");
  EXPECT_EQ(Text(made.Get(), 1), "[fe80::200]:8080");
  ASSERT_EQ(SockAddr2pAA(&v4, made.Out()), 0);
  EXPECT_EQ(Text(made.Get(), 0), "IPv4");
  EXPECT_EQ(Text(made.Get(), 1), "10.0.0.7:8080");
  EXPECT_EQ(Text(made.Get(), 3), "8080");
  ASSERT_EQ(VAGetpAA(made.Get(), 2, bytes.Out()), 0);
  EXPECT_EQ(VAElems(bytes.Get()), 4u);
  EXPECT_EQ(Text(bytes.Get(), 3), "7");
}

TEST(Address, KnownFailuresHaveCodes) {
  SI4 error = 0;
  const auto create = [&error](PCH10 name, PCH10 service) {
    const std::unique_ptr<RPCSOCK> sock(NewSock(name, service, false, PIPv4, &error));
    EXPECT_FALSE(sock->isValid());
    return error;
  };
  EXPECT_EQ(create("127.0.0.1", "no-such-service"), ERR_INVALID_SERVICE);
  EXPECT_EQ(create("::1", "80"), -9);  // the resolver's own number for a name of the other family

  SOCKET bound;
  ASSERT_EQ(CreateSocketNew(&bound, "127.0.0.1", "0", SOCK_STREAM, PIPv4, true), 0);
  RPCSOCK silent(bound);  // has a port and does not listen
  EXPECT_EQ(create("127.0.0.1", std::to_string(silent.Port()).c_str()), ERR_CONNECT_DATA);
}

TEST(Address, AServerForAnyProtocolServesBothFamilies) {
  SI4 error;
  const std::unique_ptr<RPCSOCK> server(NewSock("*", "0", true, PAny, &error));
  ASSERT_EQ(error, 0);
  const std::string port = std::to_string(server->Port());
  std::vector<const char*> hosts = {"127.0.0.1"};
  if (IPV6Available) hosts.push_back("::1");
  for (const char* host : hosts) {
    const std::unique_ptr<RPCSOCK> client(NewSock(host, port.c_str(), false, PAny, &error));
    EXPECT_EQ(error, 0) << host;
  }
}

TEST(SockPair, WhatTheClientWritesWakesTheWorkThread) {
  PRPCSOCK ends[2];
  ASSERT_EQ(RPCSockPair(&ends[0], &ends[1]), 0);
  const std::unique_ptr<RPCSOCK> work(ends[0]), client(ends[1]);
  SOCKETSETS sets;
  Clear(&sets);
  ASSERT_EQ(work->Wait4R(&sets), 0);
  BUFFER message(4, "wake"), got(4);
  ASSERT_EQ(client->Write(&message), 0);

  SI4 count;
  ASSERT_EQ(SfWait(&sets, 30, &count), 0);
  EXPECT_EQ(work->Read(&got), 0);
  EXPECT_TRUE(got.Complete());

  UI4 moved = 1;  // when nobody reads, a further wake-up is no error and does not block
  while (moved > 0) {
    message.Rewind();
    ASSERT_EQ(client->Write(&message), 0);
    moved = message.SizeProcessed();
  }
}

}  // namespace
