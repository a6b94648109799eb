// The rules of the measure `Auto`. They err on the far side: a sample that is too large gives way
// to a later one, which knows more; one that is too small would stay.

#include "vpn/Common/IP/RoundTripEvidence.h"

#include <algorithm>

namespace {

// A box on the way opens all connections within a band, near the client. A wider band would rank
// gateways of one town by their load, a farther bound those of one far data centre.
constexpr long long BandUs = 2'000;
constexpr long long NearUs = 30'000;
constexpr std::size_t LeastAddresses = 3;
// One in so many may be late, for want of a lost packet or of a processor.
constexpr std::size_t LatePart = 8;
// A connection that does not stand so long after the others is no box's.
constexpr std::chrono::milliseconds Wakening(10);

// Less is the noise of a near network.
constexpr long long NoiseUs = 1'000;
// Jitter makes the opening twice the smallest round trip now and then, hardly ever four times.
constexpr long long DoubtfulFactor = 2;
constexpr long long EarlyFactor = 4;
constexpr long long EarlyMarginUs = 5'000;

}  // namespace

void RoundTripEvidence::connecting(const Place& host, Clock::time_point now) {
  if (!m_openHosts.contains(host)) {
    m_connecting.emplace(host, now);
  }
}

void RoundTripEvidence::opened(const Place& host, const Place& address, long long openingUs) {
  m_connecting.erase(host);
  m_openHosts.insert(host);
  m_smallestUs = m_openingsUs.empty() ? openingUs : std::min(m_smallestUs, openingUs);
  const auto [known, isNew] = m_openingsUs.emplace(address, openingUs);
  known->second = std::min(known->second, openingUs);
}

void RoundTripEvidence::ended(const Place& host) noexcept { m_connecting.erase(host); }

bool RoundTripEvidence::isBoxed(long long responseUs, Clock::time_point now) const {
  if (m_openingsUs.empty() || m_smallestUs > NearUs || responseUs <= m_smallestUs + 2 * BandUs) {
    return false;
  }
  const std::size_t mostLate = (m_openingsUs.size() + m_connecting.size()) / LatePart;
  std::size_t late = 0;
  std::size_t alike = 0;
  const std::string* last = nullptr;
  for (const auto& [address, openingUs] : m_openingsUs) {
    const bool isLate = openingUs > m_smallestUs + BandUs;
    late += isLate ? 1 : 0;
    alike += !isLate && (last == nullptr || *last != address.first) ? 1 : 0;
    last = isLate ? last : &address.first;
    if (late > mostLate) {
      return false;
    }
  }
  const auto latest = now - std::chrono::microseconds(m_smallestUs + BandUs) - Wakening;
  for (const auto& [host, since] : m_connecting) {
    ++(since < latest ? late : alike);
    if (late > mostLate) {
      return false;
    }
  }
  return alike >= LeastAddresses;
}

RoundTripEvidence::Verdict RoundTripEvidence::weigh(const Place& address, const RoundTrips& seen,
                                                    Clock::time_point now) const {
  if (isBoxed(seen.responseUs, now)) {
    return {seen.responseUs, RoundTripDoubt::NearBox};
  }
  const auto known = m_openingsUs.find(address);
  const long long openingUs = known == m_openingsUs.end() ? seen.openingUs : known->second;
  if (openingUs <= seen.networkUs * DoubtfulFactor || openingUs - seen.networkUs <= NoiseUs) {
    return {seen.networkUs};
  }
  const bool isFarEarlier =
      openingUs > seen.networkUs * EarlyFactor && openingUs - seen.networkUs > EarlyMarginUs;
  return {isFarEarlier ? openingUs : openingUs / DoubtfulFactor,
          RoundTripDoubt::EarlyAcknowledgement};
}
