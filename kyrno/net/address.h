// address.h - names and services to sockets, addresses to arrays, and the wake-up pair.
//
// The resolver blocks the calling thread: interpreter threads call these.
#pragma once

#include <atomic>

#include "Apl/vapl.h"
#include "kyrno/net/socket.h"

/// Whether this machine has IPv6; found out by RPCSockPair, never set back.
inline std::atomic<bool> IPV6Available{true};

/// A bound or connected socket, blocking unless the connect could be given up. type is SOCK_STREAM
/// or SOCK_DGRAM; a datagram client is neither bound nor connected. A server's name "*" is the
/// any-address. giveUp as RPCSOCK. Known failures have codes, others are the resolver's or the
/// system's number unchanged; never 0 without a socket.
[[nodiscard]] SI4 CreateSocketNew(SOCKET* out, PCH10 name, PCH10 service, int type, PROTOCOL prot,
                                  bool server, int giveUp = -1);

/// The first address of a name and a service. Failures are the system's number as it is, or
/// ERR_INVALID_HOST when it left none; *addr is zeroed then.
[[nodiscard]] SI4 GetIPAddr(PCH10 name, PCH10 service, int type, PROTOCOL prot, bool passive,
                            PQLNSOCKADDR addr);

/// All addresses of a name and a service, in the resolver's order: a vector of address arrays, as
/// SockAddr2pAA makes them, that the caller owns.
[[nodiscard]] SI4 IPLookup(PCH10 name, PCH10 service, PROTOCOL prot, PPAA out);

/// The machine's IPv4 interfaces: a matrix of name, address text, prefix length.
[[nodiscard]] SI4 IPv4Addrs(PPAA out);

/// One address as a vector: "IPv4" or "IPv6", text with port, bytes in network order, port.
[[nodiscard]] SI4 SockAddr2pAA(const QLNSOCKADDR* addr, PPAA out);
/// The same for an end of a socket.
[[nodiscard]] SI4 SockInfoName(SOCKET sock, bool local, PPAA out);

/// Two connected ends by which any thread wakes the work thread: what is written to *client makes
/// *work readable. The caller owns both. They have no port that others could connect to.
[[nodiscard]] SI4 RPCSockPair(PRPCSOCK* work, PRPCSOCK* client);

/// The canonical text of an IPv6 address: lower case, the longest run of zeros cut short, an
/// embedded IPv4 address dotted. `text` holds at least INET6_ADDRSTRLEN bytes.
void inet_ntop6(const UI1 address[16], PCH1 text);
