// udpname_fuzz.cpp - names of peers from any address, and paths from a caller among them: the first
// byte is the family, then 16 bytes of an address, 2 of a port, and a path.
//
// An address has one peer, whichever form it has, and its name leads back to it.
#include <cstdlib>
#include <cstring>
#include <string>

#include "kyrno/modes/udp.h"
#include "kyrno/tree/root.h"
#include "tests/support/zcode.h"

namespace {

constexpr size_t kAddress = 16;
constexpr size_t kPort = 2;

QLNSOCKADDR AddressOf(bool six, const UI1* bytes) {
  QLNSOCKADDR addr{};
  sockaddr_in6 v6{};
  sockaddr_in v4{};
  if (six) {
    v6.sin6_family = AF_INET6;
    memcpy(&v6.sin6_addr, bytes, kAddress);
    memcpy(&v6.sin6_port, bytes + kAddress, kPort);
    memcpy(&addr, &v6, sizeof v6);
  } else {
    v4.sin_family = AF_INET;
    memcpy(&v4.sin_addr, bytes, sizeof v4.sin_addr);
    memcpy(&v4.sin_port, bytes + kAddress, kPort);
    memcpy(&addr, &v4, sizeof v4);
  }
  return addr;
}

void Require(bool holds) {
  if (!holds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const UI1* data, size_t size) {
  if (size < 1 + kAddress + kPort) return 0;
  const bool six = data[0] & 1;
  const QLNSOCKADDR addr = AddressOf(six, data + 1);
  HIERAKI root("ROOT", new ROOT);
  UDP* const udp = new UDP(1);
  PHIERAKI const node = root.AddNew("S", udp);

  PHIERAKI const peer = udp->Peer(node, addr);
  CH1 name[kPeerNameSize];
  PeerName(name, addr);
  Require(strlen(name) == (six ? kPeerNameSize - 1 : 13) && !strchr(name, '.'));
  Require(strcmp(peer->GetName(), name) == 0 && udp->Peer(node, addr) == peer);
  Require(root.FindLeaf(("S." + std::string(name)).c_str()) == peer);
  if (!six) {
    UI1 mapped[kAddress + kPort] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    memcpy(mapped + 12, data + 1, 4);
    memcpy(mapped + kAddress, data + 1 + kAddress, kPort);
    Require(udp->Peer(node, AddressOf(true, mapped)) == peer);
  }

  const size_t at = 1 + kAddress + kPort;
  const std::string path(reinterpret_cast<const char*>(data) + at, size - at);
  for (PHIERAKI const found : {root.FindLeaf(path.c_str()), root.FindParent(path.c_str())})
    Require(!found || found == &root || found == node || found == peer);

  zcode::Bytes target = zcode::Block(zcode::Bytes(data + at, data + size));
  UDPTARGET to;
  (void)!to.Read(reinterpret_cast<PUI4>(target.data()));
  return 0;
}
