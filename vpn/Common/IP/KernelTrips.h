#pragma once

#include <sys/socket.h>

/// What the kernel knows of TCP connections (tcp(7), TCP_INFO). Any thread may call anything.
namespace KernelTrips {

struct Trips {
  long long smallestUs = -1;  ///< the smallest round trip that it saw; -1 where it cannot say
  /// An attempt to connect had to be repeated: then no telling which one was answered.
  bool isRepeated = false;
  /// Something has answered an attempt to connect.
  bool isAnswered = false;
};
Trips of(int connection);

/// Whether a connection to an address (of IPv4 or IPv6) ends on this machine, on every machine.
bool leadsToThisMachine(const sockaddr& address);

}  // namespace KernelTrips
