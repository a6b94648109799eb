#pragma once

#include <netinet/in.h>

#include <chrono>
#include <string>
#include <vector>

#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/Utility/Shortage.h"

/// Addresses of a host, in the order in which the system would try them. One of IPv4 is a
/// sockaddr_in, which is shorter.
struct AddressLookup {
  using Clock = ProbeRequest::Clock;

  std::vector<sockaddr_in6> addresses;
  unsigned int code = 0;  ///< libcurl's, of why there are none
  Shortage shortage = Shortage::None;

  /// Looks a request's host up until `limit`, or the end of its task. Without an answer until then,
  /// the thread that asks is left behind; see `NameLookup`.
  static AddressLookup of(const ProbeRequest& request, Clock::time_point limit);
};

/// An address in words.
std::string textOf(const sockaddr_in6& address);
/// A host that is an address, as it stands in a certificate, without brackets and zone; else empty.
std::string literalOf(const std::string& host);
