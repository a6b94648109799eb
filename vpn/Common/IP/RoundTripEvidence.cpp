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

void RoundTripEvidence::Group::connecting(const Place& host, Clock::time_point now) {
  if (!m_openHosts.contains(host)) {
    m_connecting.emplace(host, now);
  }
}

void RoundTripEvidence::Group::opened(const Place& host, const Place& address,
                                      long long openingUs) {
  m_connecting.erase(host);
  m_openHosts.insert(host);
  if (m_openings.size() == m_openings.capacity()) {
    m_openings.reserve(2 * m_openings.size() + 1);  // now, for nothing throws half way
  }
  const auto [known, isNew] = m_known.try_emplace(address, Known{openingUs});
  if (!isNew && known->second.openingUs <= openingUs) {
    return;
  }
  if (!isNew) {
    m_openings.erase(std::ranges::lower_bound(m_openings, known->second.openingUs));
    known->second.openingUs = openingUs;
  }
  m_openings.insert(std::ranges::lower_bound(m_openings, openingUs), openingUs);
}

const RoundTripEvidence::Known* RoundTripEvidence::Group::answered(const Place& address,
                                                                   long long responseUs) noexcept {
  const auto found = m_known.find(address);
  if (found == m_known.end()) {
    return nullptr;
  }
  Known& known = found->second;
  known.responseUs = known.responseUs < 0 ? responseUs : std::min(known.responseUs, responseUs);
  return &known;
}

bool RoundTripEvidence::Group::suffices() const {
  return m_known.size() + m_connecting.size() >= LeastAddresses;
}

/// Whether all but a few connections open within a band.
bool RoundTripEvidence::Group::openAlike(Clock::time_point now) const {
  const std::size_t mostLate = (m_known.size() + m_connecting.size()) / LatePart;
  const long long latestUs = smallestUs() + BandUs;
  if (mostLate < m_openings.size() && m_openings[m_openings.size() - 1 - mostLate] > latestUs) {
    return false;  // at once, without looking at each
  }
  std::size_t late = 0;
  std::size_t alike = 0;
  const std::string* last = nullptr;
  for (const auto& [address, known] : m_known) {
    const bool isLate = known.openingUs > latestUs;
    late += isLate ? 1 : 0;
    alike += !isLate && (last == nullptr || *last != address.first) ? 1 : 0;
    last = isLate ? last : &address.first;
    if (late > mostLate) {
      return false;
    }
  }
  const auto latest = now - std::chrono::microseconds(latestUs) - Wakening;
  for (const auto& [host, since] : m_connecting) {
    ++(since < latest ? late : alike);
    if (late > mostLate) {
      return false;
    }
  }
  return alike >= LeastAddresses;
}

bool RoundTripEvidence::Group::isBoxed(long long responseUs, Clock::time_point now) const {
  if (m_known.empty() || smallestUs() > NearUs || responseUs <= smallestUs() + LateUs ||
      !openAlike(now)) {
    return false;
  }
  std::size_t answers = 0;
  std::size_t prompt = 0;
  for (const auto& [address, known] : m_known) {
    answers += known.responseUs >= 0 ? 1 : 0;
    prompt += known.responseUs >= 0 && known.responseUs <= smallestUs() + LateUs ? 1 : 0;
  }
  return prompt == 0 || prompt * 2 < answers;
}

void RoundTripEvidence::connecting(const Place& host, Clock::time_point now) {
  m_ports[host.second].connecting(host, now);
  m_all.connecting(host, now);
}

void RoundTripEvidence::opened(const Place& host, const Place& address, long long openingUs) {
  m_ports[host.second].opened(host, address, openingUs);
  m_all.opened(host, address, openingUs);
}

void RoundTripEvidence::ended(const Place& host) noexcept {
  if (const auto port = m_ports.find(host.second); port != m_ports.end()) {
    port->second.ended(host);
  }
  m_all.ended(host);
}

RoundTripEvidence::Verdict RoundTripEvidence::weigh(const Place& address, const RoundTrips& seen,
                                                    Clock::time_point now) {
  const Known* const known = m_all.answered(address, seen.responseUs);
  const long long openingUs = known != nullptr ? known->openingUs : seen.openingUs;
  const auto port = m_ports.find(address.second);
  const bool ofPort = port != m_ports.end() && port->second.answered(address, seen.responseUs) &&
                      port->second.suffices();
  if ((ofPort ? port->second : m_all).isBoxed(seen.responseUs, now)) {
    // An answer that comes sooner than the connection opens was sent ahead.
    return {std::max(seen.responseUs, openingUs), RoundTripDoubt::NearBox};
  }
  if (openingUs <= seen.networkUs * DoubtfulFactor || openingUs - seen.networkUs <= NoiseUs) {
    return {seen.networkUs};
  }
  const long long beyondUs = openingUs - seen.networkUs * DoubtfulFactor;
  return {seen.networkUs + beyondUs * CountedQuarters / 4, RoundTripDoubt::EarlyAcknowledgement};
}
