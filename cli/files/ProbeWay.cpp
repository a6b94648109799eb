#include "cli/files/ProbeWay.h"

#include <arpa/inet.h>

#include <algorithm>

std::string ProbeWay::take(const MeasureOptions& options) {
  const std::string error = m_route.take({.interface = options.interface.value_or(""),
                                          .source = options.source.value_or(""),
                                          .family = options.onlyIPv4   ? AF_INET
                                                    : options.onlyIPv6 ? AF_INET6
                                                                       : AF_UNSPEC});
  return error.empty() ? "" : error + ". 'ip address' shows interfaces and addresses.";
}

bool ProbeWay::needsNat64(const in_addr& address) const {
  return m_route.allows(AF_INET6) && (!m_route.allows(AF_INET) || !hasRouteTo(address));
}

std::string ProbeWay::findNat64(const std::vector<std::string>& hosts) {
  m_nat64.reset();
  const bool isNeeded = std::ranges::any_of(hosts, [this](const std::string& host) {
    in_addr address{};
    return inet_pton(AF_INET, host.c_str(), &address) == 1 && needsNat64(address);
  });
  if (isNeeded) {
    constexpr std::chrono::seconds Longest{2};
    m_nat64 = Nat64::find(Longest);
  }
  return !isNeeded || m_nat64 || m_route.allows(AF_INET)
             ? ""
             : "warning: -6 reaches no IPv4 address here, for this network has no NAT64 "
               "('ipv4only.arpa' has no IPv6 address).";
}

bool ProbeWay::translate(const in_addr& from, in6_addr& to) const {
  if (!m_nat64 || !needsNat64(from)) {
    return false;
  }
  to = m_nat64->addressOf(from);
  return true;
}
