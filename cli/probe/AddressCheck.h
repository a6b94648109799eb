#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "cli/files/ProbeWay.h"

/// One address of a name, and the outcome of one attempt to connect to it.
struct CheckedAddress {
  std::string text;  ///< "192.0.2.7", "2001:db8::7", "fe80::7%eth0"
  sockaddr_storage address{};
  socklen_t length = 0;
  /// "connected", "refused", "unreachable", "timed out", "needs a zone" (a link-local address
  /// without one), or the system's error text.
  std::string outcome;
  std::chrono::microseconds took{0};

  bool isConnected() const { return outcome == "connected"; }
};

/// The addresses of a name.
struct AddressCheck {
  std::vector<CheckedAddress> addresses;  ///< in the order in which the resolver gives them
  std::size_t leftOut = 0;                ///< number of further addresses, not tried
  std::string problem;                    ///< why there is no address: part of a sentence
};

/// Asks the resolver for the addresses of a name, then connects once to each of the first 16, all
/// at the same time; closes the connections at once. Each of the two steps takes at most `limit`; a
/// slower resolver is left to its detached thread.
/// @param host a name, or an address without brackets.
AddressCheck checkAddresses(const std::string& host, unsigned short port,
                            std::chrono::milliseconds limit, const ProbeWay& way = ProbeWay());

/// Whether a host (without brackets) is an address rather than a name.
bool isAddressLiteral(const std::string& host);

/// Whether an address is the one that a probe reports, without its zone.
bool isSameAddress(const CheckedAddress& address, const std::string& told);
