#pragma once

#include <netinet/in.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/Utility/Shortage.h"

/// Addresses of a host, in the order in which the system would try them. One of IPv4 is a
/// sockaddr_in, which is shorter.
struct AddressLookup {
  using Clock = ProbeRequest::Clock;
  using Addresses = std::vector<sockaddr_in6>;

  Addresses addresses;
  unsigned int code = 0;  ///< libcurl's, of why there are none
  Shortage shortage = Shortage::None;

  /// A question that is left behind, whose answer a later look-up of the same host takes.
  struct Question;
  using Late = std::shared_ptr<Question>;

  /// Looks a request's host up until `limit`, or the end of its task. Without an answer until then,
  /// the thread that asks is left behind; see `NameLookup`. The next look-up asks again, for a
  /// packet may be lost, and takes what comes first, for a name server may be slow.
  static AddressLookup of(const ProbeRequest& request, Clock::time_point limit, Late& late);
};

/// An address in words.
std::string textOf(const sockaddr_in6& address);
/// A host that is an address, as it stands in a certificate, without brackets and zone; else empty.
std::string literalOf(const std::string& host);
