#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <optional>

/// The way to IPv4 addresses from a network that has only IPv6: a prefix that stands for them (RFC
/// 6052). A value.
class Nat64 {
 public:
  /// The prefix of an address that a resolver has made up for "ipv4only.arpa" (RFC 7050).
  static std::optional<Nat64> of(const in6_addr& made);

  /// Asks the resolver of this network. A resolver that takes longer than `limit` is left behind.
  static std::optional<Nat64> find(std::chrono::milliseconds limit);

  /// The IPv6 address that stands for an IPv4 address.
  in6_addr addressOf(const in_addr& address) const;

 private:
  Nat64(const in6_addr& prefix, std::size_t bytes) : m_prefix(prefix), m_bytes(bytes) {}

  in6_addr m_prefix;
  std::size_t m_bytes;
};

/// Whether this machine has a route to an IPv4 address. Sends nothing.
bool hasRouteTo(const in_addr& address);
