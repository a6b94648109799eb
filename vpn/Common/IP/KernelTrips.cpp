// The kernel's account of connections.

#include "vpn/Common/IP/KernelTrips.h"

#include <linux/tcp.h>  // glibc's netinet/tcp.h ends before tcpi_min_rtt
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

KernelTrips::Trips KernelTrips::of(int connection) {
  constexpr unsigned char SynSent = 2;
  constexpr unsigned char Closed = 7;  // and before connect(2)
  constexpr socklen_t Needed = offsetof(tcp_info, tcpi_min_rtt) + sizeof(tcp_info::tcpi_min_rtt);
  tcp_info info{};
  socklen_t length = sizeof info;
  Trips trips;
  if (getsockopt(connection, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) {
    return trips;
  }
  trips.isAnswered = info.tcpi_state != SynSent && info.tcpi_state != Closed;
  trips.isRepeated = info.tcpi_total_retrans > 0;
  // All ones stand for a connection without a sample; kernels that do not measure leave the zero.
  if (length >= Needed && info.tcpi_min_rtt != ~0U && info.tcpi_min_rtt != 0) {
    trips.smallestUs = info.tcpi_min_rtt;
  }
  return trips;
}

bool KernelTrips::leadsToThisMachine(const sockaddr& address) {
  if (address.sa_family == AF_INET6) {
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) || IN6_IS_ADDR_UNSPECIFIED(&v6);
  }
  const std::uint32_t v4 = ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr);
  return address.sa_family == AF_INET && (v4 >> 24 == IN_LOOPBACKNET || v4 == INADDR_ANY);
}
