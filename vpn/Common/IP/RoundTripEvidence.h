#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "vpn/Common/IP/ProbeReport.h"

/// What the probes of one task know of their connections, and what follows for a round trip.
///
/// A SYN-ACK cannot be sent before the SYN has come, an acknowledgement of data or an answer can be
/// sent ahead. So the time that a connection takes to open (SYN to SYN-ACK) bounds the network's
/// round trip, and many that open alike, long before the answers, speak for something on the way.
/// Used by one thread at a time.
class RoundTripEvidence {
 public:
  using Clock = std::chrono::steady_clock;
  /// Host, or address, and port.
  using Place = std::pair<std::string, unsigned short>;

  /// One probe's, in microseconds.
  struct RoundTrips {
    long long networkUs;
    long long responseUs;
    long long openingUs;  ///< -1 where the kernel cannot say
  };
  struct Verdict {
    long long roundTripUs;
    RoundTripDoubt doubt = RoundTripDoubt::None;
  };

  /// A place's first connection is being made.
  void connecting(const Place& host, Clock::time_point now);
  /// A connection to a host stands, at an address.
  void opened(const Place& host, const Place& address, long long openingUs);
  /// A probe is over; a host that has not opened says nothing.
  void ended(const Place& host) noexcept;

  /// Which round trip of a probe that ends counts, by all that is known then.
  Verdict weigh(const Place& address, const RoundTrips& seen, Clock::time_point now);

 private:
  /// An address's, the smallest of each.
  struct Known {
    long long openingUs;
    long long responseUs = -1;  ///< -1 before the first answer
  };

  /// Gateways that one box may serve.
  class Group {
   public:
    void connecting(const Place& host, Clock::time_point now);
    void opened(const Place& host, const Place& address, long long openingUs);
    void ended(const Place& host) noexcept { m_connecting.erase(host); }
    /// What is known of an address, its answer included; null if it has not opened.
    const Known* answered(const Place& address, long long responseUs) noexcept;
    /// Whether there are enough to tell a box from.
    bool suffices() const;
    bool isBoxed(long long responseUs, Clock::time_point now) const;

   private:
    long long smallestUs() const { return m_openings.empty() ? 0 : m_openings.front(); }
    bool openAlike(Clock::time_point now) const;

    std::map<Place, Clock::time_point> m_connecting;
    std::set<Place> m_openHosts;
    std::map<Place, Known> m_known;
    std::vector<long long> m_openings;  ///< of them all, the smallest first
  };

  Group m_all;
  /// Many a box ends the connections to one port alone.
  std::map<unsigned short, Group> m_ports;
};
