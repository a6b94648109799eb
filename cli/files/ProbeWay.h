#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/files/MeasureOptions.h"
#include "vpn/Common/IP/Nat64.h"
#include "vpn/Common/IP/SocketRoute.h"

/// The way of the command's probes out of the machine: what the options say, and NAT64 where only
/// that leads to IPv4 addresses. Constant while probes run; their threads use it then.
class ProbeWay {
 public:
  /// @return an empty string, or what is wrong.
  std::string take(const MeasureOptions& options);

  /// Looks for NAT64 if one of the hosts (without brackets) is an IPv4 address to which no other
  /// way leads.
  /// @return an empty string, or why -6 excludes such a host.
  std::string findNat64(const std::vector<std::string>& hosts);

  /// In words that distinguish it from others; empty for none of its own.
  std::vector<std::string> words() const { return m_route.words(); }

  /// For a socket of a probe: see `ProbeTask`.
  /// @{
  bool prepare(int socket, int family) const {
    return m_route.allows(family) && m_route.apply(socket).empty();
  }
  bool translate(const in_addr& from, in6_addr& to) const;
  /// @}

 private:
  bool needsNat64(const in_addr& address) const;

  SocketRoute m_route{{"--interface", "--source", ""}};
  std::optional<Nat64> m_nat64;
};
