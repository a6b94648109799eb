// Decides when a packet leaves, or that it never does. Packets of one flow leave in the order they
// came unless their path reorders, and what the line holds is bounded as a router's memory is.

#include "simulator/DelayLine.h"

#include <netinet/in.h>

#include <algorithm>
#include <cmath>

namespace simulator {
namespace {

/// Some 100 MB of full-sized packets; ten times the handshakes of 3,000 connections.
constexpr std::size_t kMostHeld = 65'536;
/// Flows are forgotten in one sweep when there are so many.
constexpr std::size_t kMostFlows = 65'536;

constexpr std::size_t kV4HeaderLength = 20;
constexpr std::size_t kV6HeaderLength = 40;
/// Source and destination port.
constexpr std::size_t kPortsLength = 4;

/// What of a packet matters here.
struct Addresses {
  IpAddress source;
  IpAddress destination;
  /// Addresses, protocol and ports as one number. Two flows that meet in one number only wait for
  /// each other.
  std::uint64_t flow = 0;
};

std::uint64_t Mix(std::uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

std::uint64_t Hash(std::uint64_t seed, std::span<const unsigned char> bytes) {
  std::uint64_t hash = seed;
  for (const unsigned char byte : bytes) hash = Mix(hash + byte + 0x9E3779B97F4A7C15);
  return hash;
}

std::optional<Addresses> Dissect(std::span<const unsigned char> packet) {
  if (packet.empty()) return {};
  Addresses result;
  std::size_t headerLength = 0;
  unsigned char protocol = 0;
  bool hasPorts = true;
  switch (packet[0] >> 4) {
    case 4:
      headerLength = static_cast<std::size_t>(packet[0] & 0x0F) * 4;
      if (packet.size() < kV4HeaderLength || headerLength < kV4HeaderLength) return {};
      result.source = IpAddress::FromV4(&packet[12]);
      result.destination = IpAddress::FromV4(&packet[16]);
      protocol = packet[9];
      // Only the first fragment has the ports.
      hasPorts = (packet[6] & 0x1F) == 0 && packet[7] == 0;
      break;
    case 6:
      headerLength = kV6HeaderLength;
      if (packet.size() < kV6HeaderLength) return {};
      result.source = IpAddress::FromV6(&packet[8]);
      result.destination = IpAddress::FromV6(&packet[24]);
      protocol = packet[6];
      break;
    default:
      return {};
  }
  result.flow = Hash(protocol, result.source.Bytes());
  result.flow = Hash(result.flow, result.destination.Bytes());
  hasPorts = hasPorts && (protocol == IPPROTO_TCP || protocol == IPPROTO_UDP);
  if (hasPorts && packet.size() >= headerLength + kPortsLength) {
    result.flow = Hash(result.flow, packet.subspan(headerLength, kPortsLength));
  }
  return result;
}

}  // namespace

std::uint64_t DelayLine::Random::Next() {
  m_state += 0x9E3779B97F4A7C15;
  return Mix(m_state);
}

double DelayLine::Random::Fraction() {
  // A double has 53 bits of fraction.
  return static_cast<double>(Next() >> 11) * 0x1p-53;
}

DelayLine::DelayLine(const Scene& scene, std::uint64_t seed)
    : m_defaultPath(scene.defaultPath), m_paths(scene.paths), m_seed(seed) {}

void DelayLine::Accept(Direction direction, std::span<const unsigned char> packet,
                       Clock::time_point now) {
  const auto addresses = Dissect(packet);
  if (!addresses || m_held.size() >= kMostHeld) {
    ++m_statistics.dropped;
    return;
  }
  Lane& lane = LaneOf(
      direction, direction == Direction::ToGateways ? addresses->destination : addresses->source);
  // Drawn for every packet, so that the fate of one does not depend on that of another.
  const double luck = lane.random.Fraction();
  const double lateness = -std::log1p(-lane.random.Fraction());
  if (luck < lane.loss) {
    ++m_statistics.lost;
    return;
  }
  const auto jitter = std::chrono::duration_cast<std::chrono::nanoseconds>(
      lateness * std::chrono::duration<double, std::nano>(lane.path.jitter / 2));
  Clock::time_point due = now + lane.path.roundTrip / 2 + jitter;
  if (lane.path.jitter.count() > 0 && !lane.path.reorder)
    due = KeepOrder(addresses->flow, due, now);
  m_held.push({due, m_nextNumber++, {direction, {packet.begin(), packet.end()}}});
}

DelayLine::Lane& DelayLine::LaneOf(Direction direction, const IpAddress& gateway) {
  // Strangers share a lane, so that nobody can have this process make lanes without end.
  const auto path = m_paths.find(gateway);
  const bool known = path != m_paths.end();
  const std::pair key(direction, known ? gateway : IpAddress());
  const auto found = m_lanes.find(key);
  if (found != m_lanes.end()) return found->second;
  Lane lane{known ? path->second : m_defaultPath,
            Random(Hash(m_seed * 2 + static_cast<unsigned int>(direction), key.second.Bytes())), 0};
  // Lost on the way there or on the way back: both together have the chance that was asked for.
  lane.loss = 1 - std::sqrt(1 - lane.path.loss);
  return m_lanes.emplace(key, lane).first->second;
}

Clock::time_point DelayLine::KeepOrder(std::uint64_t flow, Clock::time_point due,
                                       Clock::time_point now) {
  if (m_flows.size() >= kMostFlows) {
    std::erase_if(m_flows, [&](const auto& entry) { return entry.second <= now; });
  }
  Clock::time_point& last = m_flows[flow];
  last = std::max(last, due);
  return last;
}

std::optional<Clock::time_point> DelayLine::NextDue() const {
  if (m_held.empty()) return {};
  return m_held.top().due;
}

std::optional<DelayLine::Packet> DelayLine::TakeDue(Clock::time_point now) {
  if (m_held.empty() || m_held.top().due > now) return {};
  // The queue gives out its top as constant; it is popped at once, before it is compared again.
  Held& top = const_cast<Held&>(m_held.top());
  const std::chrono::nanoseconds lateness = now - top.due;
  Packet packet = std::move(top.packet);
  m_held.pop();
  ++m_statistics.forwarded;
  m_statistics.totalLateness += lateness;
  m_statistics.worstLateness = std::max(m_statistics.worstLateness, lateness);
  return packet;
}

}  // namespace simulator
