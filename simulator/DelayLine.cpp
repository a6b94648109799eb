// Decides when a packet leaves or whether it is lost. Packets of a flow keep their order unless
// their path reorders. Like a router, the line holds a bounded number of packets.

#include "simulator/DelayLine.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace simulator {
namespace {

/// About 100 MB of full-sized packets; ten times the handshakes of 3,000 connections.
constexpr std::size_t MostHeld = 65'536;
/// At this number all flows are forgotten.
constexpr std::size_t MostFlows = 65'536;

constexpr double OpeningsAtOnce = 5;

constexpr std::size_t V4HeaderLength = 20;
constexpr std::size_t V6HeaderLength = 40;
/// Length of source and destination port.
constexpr std::size_t PortsLength = 4;

/// The parts of a packet that matter here.
struct Addresses {
  IpAddress source;
  IpAddress destination;
  /// The packet is a SYN.
  bool asks = false;
  /// The packet is a SYN-ACK.
  bool opens = false;
  /// Hash of addresses, protocol and ports. Two flows with the same hash only wait for each other.
  std::uint64_t flow = 0;
};

std::uint64_t mix(std::uint64_t value) {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

std::uint64_t hash(std::uint64_t seed, std::span<const unsigned char> bytes) {
  std::uint64_t hash = seed;
  for (const unsigned char byte : bytes) hash = mix(hash + byte + 0x9E3779B97F4A7C15);
  return hash;
}

std::optional<Addresses> dissect(std::span<const unsigned char> packet) {
  if (packet.empty()) return {};
  Addresses result;
  std::size_t headerLength = 0;
  unsigned char protocol = 0;
  bool hasPorts = true;
  switch (packet[0] >> 4) {
    case 4:
      headerLength = static_cast<std::size_t>(packet[0] & 0x0F) * 4;
      if (packet.size() < V4HeaderLength || headerLength < V4HeaderLength) return {};
      result.source = IpAddress::fromV4(&packet[12]);
      result.destination = IpAddress::fromV4(&packet[16]);
      protocol = packet[9];
      // Only the first fragment contains the ports.
      hasPorts = (packet[6] & 0x1F) == 0 && packet[7] == 0;
      break;
    case 6:
      headerLength = V6HeaderLength;
      if (packet.size() < V6HeaderLength) return {};
      result.source = IpAddress::fromV6(&packet[8]);
      result.destination = IpAddress::fromV6(&packet[24]);
      protocol = packet[6];
      break;
    default:
      return {};
  }
  result.flow = hash(protocol, result.source.bytes());
  result.flow = hash(result.flow, result.destination.bytes());
  hasPorts = hasPorts && (protocol == IPPROTO_TCP || protocol == IPPROTO_UDP);
  if (hasPorts && packet.size() >= headerLength + PortsLength) {
    result.flow = hash(result.flow, packet.subspan(headerLength, PortsLength));
  }
  constexpr std::size_t FlagsAt = 13;
  constexpr unsigned char SynAck = TH_SYN | TH_ACK;
  result.opens = hasPorts && protocol == IPPROTO_TCP && packet.size() > headerLength + FlagsAt &&
                 (packet[headerLength + FlagsAt] & SynAck) == SynAck;
  result.asks = hasPorts && protocol == IPPROTO_TCP && packet.size() > headerLength + FlagsAt &&
                (packet[headerLength + FlagsAt] & SynAck) == TH_SYN;
  return result;
}

}  // namespace

std::uint64_t DelayLine::Random::next() {
  m_state += 0x9E3779B97F4A7C15;
  return mix(m_state);
}

double DelayLine::Random::fraction() {
  // A double has a mantissa of 53 bits.
  return static_cast<double>(next() >> 11) * 0x1p-53;
}

DelayLine::DelayLine(const Scene& scene, std::uint64_t seed)
    : m_link(scene.link),
      m_openingsLeft(OpeningsAtOnce),
      m_defaultPath(scene.defaultPath),
      m_paths(scene.paths),
      m_seed(seed) {}

/// A token bucket, as routers limit what may be an attack.
bool DelayLine::passesRouter(Clock::time_point now) {
  const std::chrono::duration<double> passed = now - std::exchange(m_lastOpening, now);
  m_openingsLeft = std::min(OpeningsAtOnce, m_openingsLeft + passed.count() * m_link.openings);
  const bool passes = m_openingsLeft >= 1;
  m_openingsLeft -= passes ? 1 : 0;
  return passes;
}

/// @param now receives when the packet has left the line.
bool DelayLine::passesLine(std::size_t bytes, Clock::time_point& now) {
  while (!m_leaving.empty() && m_leaving.front() <= now) {
    m_leaving.pop();
  }
  if (m_leaving.size() > m_link.queue) {
    return false;
  }
  constexpr double BitsPerByte = 8;
  const std::chrono::duration<double> takes(BitsPerByte * static_cast<double>(bytes) /
                                            m_link.bitRate);
  now = (m_leaving.empty() ? now : m_leaving.back()) +
        std::chrono::duration_cast<Clock::duration>(takes);
  m_leaving.push(now);
  return true;
}

void DelayLine::accept(Direction direction, std::span<const unsigned char> packet,
                       Clock::time_point now) {
  const auto addresses = dissect(packet);
  if (!addresses || m_held.size() >= MostHeld ||
      (direction == Direction::ToGateways &&
       ((m_link.openings > 0 && addresses->asks && !passesRouter(now)) ||
        (m_link.bitRate > 0 && !passesLine(packet.size(), now))))) {
    ++m_statistics.dropped;
    return;
  }
  Lane& lane = laneOf(
      direction, direction == Direction::ToGateways ? addresses->destination : addresses->source);
  // Drawn for every packet, so that no packet's fate depends on another's.
  const double luck = lane.random.fraction();
  const double lateness = -std::log1p(-lane.random.fraction());
  if (luck < lane.loss) {
    ++m_statistics.lost;
    return;
  }
  const auto jitter = std::chrono::duration_cast<std::chrono::nanoseconds>(
      lateness * std::chrono::duration<double, std::nano>(lane.path.jitter / 2));
  Clock::time_point due = now + lane.path.roundTrip / 2 + jitter;
  if (addresses->opens) due += lane.path.opening;
  if (lane.path.jitter.count() > 0 && !lane.path.reorder)
    due = keepOrder(addresses->flow, due, now);
  m_held.push({due, m_nextNumber++, {direction, {packet.begin(), packet.end()}}});
}

DelayLine::Lane& DelayLine::laneOf(Direction direction, const IpAddress& gateway) {
  // Unknown addresses share a lane, so that nobody can make this process create lanes without end.
  const auto path = m_paths.find(gateway);
  const bool known = path != m_paths.end();
  const std::pair key(direction, known ? gateway : IpAddress());
  const auto found = m_lanes.find(key);
  if (found != m_lanes.end()) return found->second;
  Lane lane{known ? path->second : m_defaultPath,
            Random(hash(m_seed * 2 + static_cast<unsigned int>(direction), key.second.bytes())), 0};
  // Loss on both ways together has the requested chance.
  lane.loss = 1 - std::sqrt(1 - lane.path.loss);
  return m_lanes.emplace(key, lane).first->second;
}

Clock::time_point DelayLine::keepOrder(std::uint64_t flow, Clock::time_point due,
                                       Clock::time_point now) {
  if (m_flows.size() >= MostFlows) {
    std::erase_if(m_flows, [&](const auto& entry) { return entry.second <= now; });
  }
  Clock::time_point& last = m_flows[flow];
  last = std::max(last, due);
  return last;
}

std::optional<Clock::time_point> DelayLine::nextDue() const {
  if (m_held.empty()) return {};
  return m_held.top().due;
}

std::optional<DelayLine::Packet> DelayLine::takeDue(Clock::time_point now) {
  if (m_held.empty() || m_held.top().due > now) return {};
  // The queue returns its top as const; the top is popped before the next comparison.
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
