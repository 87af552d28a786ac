// address.cpp - names, services and addresses.
#include "kyrno/net/address.h"

#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "Apl/vaget.h"
#include "Apl/vaset.h"
#include "kyrno/base/error.h"
#include "kyrno/base/log.h"
#include "sys/linux/fdhold.h"

static constexpr UI4 MODULE = 0x00000200;

namespace {

/// A number that no port has. The resolver would take it modulo 65536.
bool IsBeyondPorts(PCH10 service) {
  UI4 port = 0;
  for (PCH10 at = service; at && *at >= '0' && *at <= '9'; ++at) {
    port = port * 10 + static_cast<UI4>(*at - '0');
    if (port > 0xFFFF) return true;
  }
  return false;
}

/// Owns what the resolver found.
class ADDRHOLD {
 public:
  ADDRHOLD() = default;
  ~ADDRHOLD() {
    if (list) freeaddrinfo(list);
  }
  ADDRHOLD(const ADDRHOLD&) = delete;
  ADDRHOLD& operator=(const ADDRHOLD&) = delete;

  /// The resolver's code, or 0.
  int Find(PCH10 name, PCH10 service, const addrinfo& hints) {
    return IsBeyondPorts(service) ? EAI_SERVICE : getaddrinfo(name, service, &hints, &list);
  }
  const addrinfo* First() const { return list; }

 private:
  addrinfo* list = nullptr;
};

int FamilyOf(PROTOCOL prot) {
  if (prot == PIPv4) return AF_INET;
  return prot == PIPv6 ? AF_INET6 : AF_UNSPEC;
}

addrinfo Hints(int family, int type, int protocol, int flags) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_socktype = type;
  hints.ai_protocol = protocol;
  hints.ai_flags = flags;
  return hints;
}

bool CopyAddress(const addrinfo& from, PQLNSOCKADDR to) {
  *to = {};
  if (!from.ai_addr) return false;
  memcpy(to, from.ai_addr, std::min<size_t>(from.ai_addrlen, sizeof *to));
  return true;
}

// The codes that an application knows; any other number is told as it is.
SI4 Mapped(int error) {
  switch (error) {
    case EAI_NONAME:
      return ERR_INVALID_HOST;
    case EAI_SERVICE:
      return ERR_INVALID_SERVICE;
    case ECONNREFUSED:
      return ERR_CONNECT_DATA;
    default:
      return error;
  }
}

int SetOption(SOCKET sock, int level, int option, int value) {
  return setsockopt(sock, level, option, &value, sizeof value);
}

// 0 or the errno, as in the next.
int Bind(SOCKET sock, const addrinfo& to, PROTOCOL prot) {
  if (prot != PIPv6 && to.ai_family == AF_INET6) SetOption(sock, IPPROTO_IPV6, IPV6_V6ONLY, 0);
  if (SetOption(sock, SOL_SOCKET, SO_REUSEADDR, 1) == 0) {
    SetOption(sock, SOL_SOCKET, SO_REUSEPORT, 1);
  }
  return bind(sock, to.ai_addr, to.ai_addrlen) == 0 ? 0 : errno;
}

int Connect(SOCKET sock, const addrinfo& to, int giveUp) {
  if (connect(sock, to.ai_addr, to.ai_addrlen) != 0) {
    if (errno != EINTR && errno != EINPROGRESS) return errno;
    // The attempt goes on by itself; a second connect would only be told so.
    pollfd wait[] = {{sock, POLLOUT, 0}, {giveUp, POLLIN, 0}};  // poll passes over a giveUp of -1
    while (poll(wait, 2, -1) < 0) {
      if (errno != EINTR) return errno;
    }
    if (wait[1].revents) return ECANCELED;
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size) != 0) return errno;
    if (error) return error;
  }
  SetOption(sock, IPPROTO_TCP, TCP_NODELAY, 1);
  return 0;
}

// The first address that can be bound or connected. 0, the resolver's code, ECANCELED when it was
// given up, the last address's errno, or ERR_NEW_DATA_SOCKET when for the last one there was not
// even a socket.
int TryAddresses(SOCKET* out, PCH10 name, PCH10 service, const addrinfo& hints, PROTOCOL prot,
                 bool server, int giveUp) {
  ADDRHOLD found;
  if (const int error = found.Find(name, service, hints)) return error;

  const int flags = SOCK_CLOEXEC | (giveUp < 0 ? 0 : SOCK_NONBLOCK);
  int error = ERR_NEW_DATA_SOCKET;
  for (const addrinfo* at = found.First(); at && error != ECANCELED; at = at->ai_next) {
    LOG(7, ("CreateSocket trying family %d type %d protocol %d ", at->ai_family, at->ai_socktype,
            at->ai_protocol));
    FDHOLD sock(socket(at->ai_family, at->ai_socktype | flags, at->ai_protocol));
    if (!sock) {
      error = ERR_NEW_DATA_SOCKET;
      continue;
    }
    error = server ? Bind(sock.Get(), *at, prot) : Connect(sock.Get(), *at, giveUp);
    if (error) continue;
    *out = sock.Release();
    LOG(6, ("New Socket %d ", *out));
    return 0;
  }
  SockErrLog(error, "CreateSocket");
  return error;
}

SI4 DatagramClient(SOCKET* out, PROTOCOL prot) {
  constexpr int kType = SOCK_DGRAM | SOCK_CLOEXEC;
  *out = socket(prot == PIPv4 ? AF_INET : AF_INET6, kType, IPPROTO_UDP);
  if (*out == INVALID_SOCKET && prot == PAny) *out = socket(AF_INET, kType, IPPROTO_UDP);
  return *out == INVALID_SOCKET ? ERR_NEW_DATA_SOCKET : 0;
}

SI4 SetText(PAA array, UI4 index, PCH10 text) {
  return VASetCH1(array, index, text, static_cast<UI4>(strlen(text)), VACHAR);
}

// Stores the bytes as a vector of integers.
SI4 SetBytes(PAA array, UI4 index, const UI1* bytes, UI4 n) {
  VAHOLD vector(VANew(VAI4, 1, &n));
  if (!vector) return ERR_MEMORY_ALLOC;
  for (UI4 i = 0; i < n; ++i) {
    if (const SI4 error = VASetSI4(vector.Get(), i, bytes[i])) return error;
  }
  if (const SI4 error = VASetpAA(array, index, vector.Get())) return error;
  static_cast<void>(vector.Release());  // the slot has the count now
  return 0;
}

SI4 DescribeAddress(PAA to, PCH10 family, PCH10 text, const UI1* bytes, UI4 n, UI2 port) {
  if (const SI4 error = SetText(to, 0, family)) return error;
  if (const SI4 error = SetText(to, 1, text)) return error;
  if (const SI4 error = SetBytes(to, 2, bytes, n)) return error;
  return VASetSI4(to, 3, port);
}

SI4 DescribeIPv4(PAA to, const QLNSOCKADDR* addr) {
  sockaddr_in in;
  memcpy(&in, addr, sizeof in);
  UI1 b[4];
  memcpy(b, &in.sin_addr, sizeof b);
  const UI2 port = ntohs(in.sin_port);
  CH1 text[INET_ADDRSTRLEN + 8];
  snprintf(text, sizeof text, "%u.%u.%u.%u:%u", b[0], b[1], b[2], b[3], port);
  return DescribeAddress(to, "IPv4", text, b, sizeof b, port);
}

SI4 DescribeIPv6(PAA to, const QLNSOCKADDR* addr) {
  sockaddr_in6 in;
  memcpy(&in, addr, sizeof in);
  const UI2 port = ntohs(in.sin6_port);
  CH1 host[INET6_ADDRSTRLEN];
  inet_ntop6(in.sin6_addr.s6_addr, host);
  CH1 text[INET6_ADDRSTRLEN + 10];
  snprintf(text, sizeof text, "[%s]:%u", host, port);
  return DescribeAddress(to, "IPv6", text, in.sin6_addr.s6_addr, 16, port);
}

// An end of the wake-up pair. Owns the descriptor in any case.
SI4 MakeEnd(FDHOLD* fd, std::unique_ptr<RPCSOCK>* out) {
  out->reset(new (std::nothrow) RPCSOCK(fd->Get()));
  if (!*out) return ERR_MEMORY_ALLOC;
  static_cast<void>(fd->Release());
  return (*out)->lError;
}

}  // namespace

SI4 CreateSocketNew(SOCKET* out, PCH10 name, PCH10 service, int type, PROTOCOL prot, bool server,
                    int giveUp) {
  LOG(1, ("CreateSocket"));
  *out = INVALID_SOCKET;
  if (!server) {
    if (type == SOCK_DGRAM) return DatagramClient(out, prot);
    if (name && !*name) name = nullptr;
    const addrinfo hints = Hints(FamilyOf(prot), type, 0, 0);
    return Mapped(TryAddresses(out, name, service, hints, prot, false, giveUp));
  }

  if (name && strcmp(name, "*") == 0) name = nullptr;
  const bool both = prot == PAny && IPV6Available.load(std::memory_order_relaxed);
  addrinfo hints =
      Hints(both ? AF_INET6 : FamilyOf(prot), type, 0, AI_PASSIVE | AI_V4MAPPED | AI_ALL);
  int error = TryAddresses(out, name, service, hints, prot, true, -1);
  if (both && error == ERR_NEW_DATA_SOCKET) {
    hints.ai_family = AF_INET;
    error = TryAddresses(out, name, service, hints, prot, true, -1);
  }
  return Mapped(error);
}

SI4 GetIPAddr(PCH10 name, PCH10 service, int type, PROTOCOL prot, bool passive, PQLNSOCKADDR addr) {
  LOG(1, ("GetIPAddr"));
  *addr = {};
  ADDRHOLD found;
  errno = 0;
  const int failed =
      found.Find(name, service, Hints(FamilyOf(prot), type, 0, passive ? AI_PASSIVE : 0));
  if (failed) return errno ? errno : ERR_INVALID_HOST;
  return found.First() && CopyAddress(*found.First(), addr) ? 0 : ERR_INVALID_HOST;
}

SI4 IPLookup(PCH10 name, PCH10 service, PROTOCOL prot, PPAA out) {
  *out = nullptr;
  if (!name) return ERR_INVALID_HOST;
  ADDRHOLD found;
  const int failed =
      found.Find(name, service, Hints(FamilyOf(prot), SOCK_STREAM, IPPROTO_TCP, AI_ALL));
  if (failed) {
    LOG(4, ("getaddrinfo returned %d %s", failed, gai_strerror(failed)));
    return ERR_INVALID_HOST;
  }

  UI4 count = 0;
  for (const addrinfo* at = found.First(); at; at = at->ai_next) ++count;
  VAHOLD all(VANew(VAPntr, 1, &count));
  if (!all) return ERR_MEMORY_ALLOC;

  UI4 i = 0;
  for (const addrinfo* at = found.First(); at; at = at->ai_next, ++i) {
    QLNSOCKADDR addr;
    if (!CopyAddress(*at, &addr)) return ERR_INVALID_HOST;
    VAHOLD one;
    if (const SI4 error = SockAddr2pAA(&addr, one.Out())) return error;
    if (const SI4 error = VASetpAA(all.Get(), i, one.Get())) return error;
    static_cast<void>(one.Release());  // the slot has the count now
  }
  *out = all.Release();
  return 0;
}

SI4 IPv4Addrs(PPAA out) {
  *out = nullptr;
  QLNIpv4 interfaces;
  if (interfaces.error) return interfaces.error;

  const UI4 rows = static_cast<UI4>(interfaces.count);
  const UI4 shape[2] = {rows, 3};
  VAHOLD matrix(VANew(rows ? VAPntr : VAI1, 2, shape));
  if (!matrix) return ERR_MEMORY_ALLOC;

  for (UI4 row = 0; row < rows; ++row, interfaces.Next()) {
    interfaces.Extract();
    const UI4 at = 3 * row;
    SI4 error = VASetUnicode(matrix.Get(), at, interfaces.IfName, VAZEROTERM, UTF8);
    if (!error) error = SetText(matrix.Get(), at + 1, interfaces.IpAddr);
    if (!error) error = VASetSI4(matrix.Get(), at + 2, interfaces.mask);
    if (error) return error;
  }
  *out = matrix.Release();
  return 0;
}

SI4 SockAddr2pAA(const QLNSOCKADDR* addr, PPAA out) {
  *out = nullptr;
  const UI4 parts = 4;
  VAHOLD described(VANew(VAPntr, 1, &parts));
  if (!described) return ERR_MEMORY_ALLOC;

  SI4 error = ERR_INVALID_ADDR;
  if (addr->ss_family == AF_INET) error = DescribeIPv4(described.Get(), addr);
  if (addr->ss_family == AF_INET6) error = DescribeIPv6(described.Get(), addr);
  if (error) return error;
  *out = described.Release();
  return 0;
}

SI4 SockInfoName(SOCKET sock, bool local, PPAA out) {
  *out = nullptr;
  QLNSOCKADDR addr{};
  socklen_t size = QLNSOCKADDRSIZEOF;
  sockaddr* to = reinterpret_cast<sockaddr*>(&addr);
  const int failed = local ? getsockname(sock, to, &size) : getpeername(sock, to, &size);
  return failed ? ERR_CALL_FAILED : SockAddr2pAA(&addr, out);
}

SI4 RPCSockPair(PRPCSOCK* work, PRPCSOCK* client) {
  LOG(1, ("RPCSockPair "));
  *work = *client = nullptr;
  const FDHOLD probe(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!probe) IPV6Available.store(false, std::memory_order_relaxed);

  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    SockErrLog(errno, "socket");
    return ERR_NEW_DATA_SOCKET;
  }
  FDHOLD first(ends[0]), second(ends[1]);
  std::unique_ptr<RPCSOCK> workEnd, clientEnd;
  if (const SI4 error = MakeEnd(&first, &workEnd)) return error;
  if (const SI4 error = MakeEnd(&second, &clientEnd)) return error;
  *work = workEnd.release();
  *client = clientEnd.release();
  return 0;
}

void inet_ntop6(const UI1 address[16], PCH1 text) {
  constexpr int kWords = 8;
  UI4 words[kWords];
  for (int i = 0; i < kWords; ++i) {
    words[i] = static_cast<UI4>(address[2 * i]) << 8 | address[2 * i + 1];
  }

  // The longest run of zero words, the first of equals; one word alone is not cut short.
  int runAt = -1, runLen = 1;
  for (int i = 0; i < kWords; ++i) {
    int n = 0;
    while (i + n < kWords && words[i + n] == 0) ++n;
    if (n > runLen) {
      runAt = i;
      runLen = n;
    }
  }

  PCH1 at = text;
  PCH10 const end = text + INET6_ADDRSTRLEN;
  const auto put = [&at, end](auto... what) {
    at += snprintf(at, static_cast<size_t>(end - at), what...);
  };
  const bool dotted = runAt == 0 && (runLen == 6 || (runLen == 5 && words[5] == 0xffff));
  for (int i = 0; i < kWords; ++i) {
    if (i == runAt) {
      put("%s", "::");
      i += runLen - 1;
      continue;
    }
    PCH10 const colon = i > 0 && i != runAt + runLen ? ":" : "";
    if (dotted && i == 6) {
      put("%s%u.%u.%u.%u", colon, address[12], address[13], address[14], address[15]);
      return;
    }
    put("%s%x", colon, words[i]);
  }
}
