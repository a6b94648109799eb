// The rules of the measure `Auto`. They err on the far side: a sample that is too large gives way
// to a later one, which knows more; one that is too small would stay.

#include "vpn/Common/IP/RoundTripEvidence.h"

#include <algorithm>
#include <cstddef>

namespace {

// A box on the way opens all connections within a band, near the client. A wider band would rank
// gateways of one town by their load, a farther bound those of one far data centre.
constexpr long long BandUs = 2'000;
constexpr long long NearUs = 30'000;
// An answer this much later is not the box's own. Where at least half come sooner, the later ones
// are those of slow gateways, or of a busy machine.
constexpr long long LateUs = 4'000;
constexpr std::size_t LeastAddresses = 3;
// One in so many may be late, for want of a lost packet or of a processor.
constexpr std::size_t LatePart = 8;
// A connection that does not stand so long after the others is no box's.
constexpr std::chrono::milliseconds Wakening(10);

// Less is the noise of a near network.
constexpr long long NoiseUs = 1'000;
// Jitter makes the opening twice the smallest round trip now and then. Of what is longer, three
// quarters count: more than half, so that no cheat seems so near, and less than all, so that the
// order stays where something holds up every opening.
constexpr long long DoubtfulFactor = 2;
constexpr long long CountedQuarters = 3;

}  // namespace

void RoundTripEvidence::connecting(const Place& host, Clock::time_point now) {
  if (!m_openHosts.contains(host)) {
    m_connecting.emplace(host, now);
  }
}

void RoundTripEvidence::opened(const Place& host, const Place& address, long long openingUs) {
  m_connecting.erase(host);
  m_openHosts.insert(host);
  const auto [known, isNew] = m_known.try_emplace(address, Known{openingUs});
  known->second.openingUs = std::min(known->second.openingUs, openingUs);
  m_smallestUs = m_known.size() == 1 ? openingUs : std::min(m_smallestUs, openingUs);
}

void RoundTripEvidence::ended(const Place& host) noexcept { m_connecting.erase(host); }

/// Whether all but a few connections open within a band.
bool RoundTripEvidence::openAlike(Clock::time_point now) const {
  const std::size_t mostLate = (m_known.size() + m_connecting.size()) / LatePart;
  std::size_t late = 0;
  std::size_t alike = 0;
  const std::string* last = nullptr;
  for (const auto& [address, known] : m_known) {
    const bool isLate = known.openingUs > m_smallestUs + BandUs;
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

bool RoundTripEvidence::isBoxed(long long responseUs, Clock::time_point now) const {
  if (m_known.empty() || m_smallestUs > NearUs || responseUs <= m_smallestUs + LateUs ||
      !openAlike(now)) {
    return false;
  }
  std::size_t answers = 0;
  std::size_t prompt = 0;
  for (const auto& [address, known] : m_known) {
    answers += known.responseUs >= 0 ? 1 : 0;
    prompt += known.responseUs >= 0 && known.responseUs <= m_smallestUs + LateUs ? 1 : 0;
  }
  return prompt == 0 || prompt * 2 < answers;
}

RoundTripEvidence::Verdict RoundTripEvidence::weigh(const Place& address, const RoundTrips& seen,
                                                    Clock::time_point now) {
  const auto known = m_known.find(address);
  long long openingUs = seen.openingUs;
  if (known != m_known.end()) {
    Known& place = known->second;
    openingUs = place.openingUs;
    place.responseUs =
        place.responseUs < 0 ? seen.responseUs : std::min(place.responseUs, seen.responseUs);
  }
  if (isBoxed(seen.responseUs, now)) {
    // An answer that comes sooner than the connection opens was sent ahead.
    return {std::max(seen.responseUs, openingUs), RoundTripDoubt::NearBox};
  }
  if (openingUs <= seen.networkUs * DoubtfulFactor || openingUs - seen.networkUs <= NoiseUs) {
    return {seen.networkUs};
  }
  const long long beyondUs = openingUs - seen.networkUs * DoubtfulFactor;
  return {seen.networkUs + beyondUs * CountedQuarters / 4, RoundTripDoubt::EarlyAcknowledgement};
}
