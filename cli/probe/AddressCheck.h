#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// One address of a name, and what became of an attempt to connect to it.
struct CheckedAddress {
  std::string text;  ///< "192.0.2.7", "2001:db8::7", "fe80::7%eth0"
  sockaddr_storage address{};
  socklen_t length = 0;
  /// "connected", "refused", "unreachable", "timed out", "needs a zone" (for an address that each
  /// network has for itself), or the system's own words.
  std::string outcome;
  std::chrono::microseconds took{0};

  bool isConnected() const { return outcome == "connected"; }
};

/// The addresses of a name.
struct AddressCheck {
  std::vector<CheckedAddress> addresses;  ///< in the order in which the resolver gives them
  std::size_t leftOut = 0;                ///< there are so many more, which were not tried
  std::string problem;                    ///< why there is none: a part of a sentence
};

/// Asks the resolver for the addresses of a name, and connects to each of the first 16 at the same
/// time, once; the connections are closed at once. Either of the two takes at most `limit`; a
/// resolver that takes longer is left behind on a thread of its own.
/// @param host a name, or an address without brackets.
AddressCheck checkAddresses(const std::string& host, unsigned short port,
                            std::chrono::milliseconds limit);

/// Whether a host (without brackets) is an address rather than a name.
bool isAddressLiteral(const std::string& host);

/// Whether an address is the one that a probe tells, which leaves the zone out.
bool isSameAddress(const CheckedAddress& address, const std::string& told);
