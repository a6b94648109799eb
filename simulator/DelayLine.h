#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <queue>
#include <span>
#include <unordered_map>
#include <vector>

#include "simulator/Alarm.h"
#include "simulator/Scene.h"

namespace simulator {

enum class Direction { ToGateways, ToClients };

/// Holds IP packets for the delay of their path, or loses them. It uses no socket and no clock: the
/// caller passes the time, which must never go back. Used by one thread at a time.
class DelayLine {
 public:
  struct Packet {
    Direction direction;
    std::vector<unsigned char> bytes;
  };

  struct Statistics {
    std::uint64_t forwarded = 0;
    /// Lost because the path loses packets.
    std::uint64_t lost = 0;
    /// Not IP, or more than the line holds.
    std::uint64_t dropped = 0;
    /// How much later than due packets were taken: sum and maximum.
    std::chrono::nanoseconds totalLateness{0};
    std::chrono::nanoseconds worstLateness{0};
  };

  /// The same seed gives the same result: a packet's fate depends only on the seed, its path, and
  /// its place among the packets of this path and direction.
  DelayLine(const Scene& scene, std::uint64_t seed);

  /// Accepts a packet. Its destination decides the path, on the way back its source.
  void accept(Direction direction, std::span<const unsigned char> packet, Clock::time_point now);

  /// When the next packet is due; none without packets.
  std::optional<Clock::time_point> nextDue() const;

  /// Takes out a due packet, the earliest first; packets due at the same time leave in their order
  /// of arrival.
  std::optional<Packet> takeDue(Clock::time_point now);

  const Statistics& getStatistics() const { return m_statistics; }

 private:
  /// SplitMix64: its state is eight bytes, so every path and direction can have a generator.
  class Random {
   public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t next();
    /// A number in [0, 1).
    double fraction();

   private:
    std::uint64_t m_state;
  };
  struct Lane {
    Path path;
    Random random;
    /// Chance of loss in this direction.
    double loss;
  };
  struct Held {
    Clock::time_point due;
    std::uint64_t number;
    Packet packet;
  };
  struct LeavesLater {
    bool operator()(const Held& a, const Held& b) const {
      return a.due != b.due ? a.due > b.due : a.number > b.number;
    }
  };

  bool passesRouter(Clock::time_point now);
  bool passesLine(std::size_t bytes, Clock::time_point& now);
  Lane& laneOf(Direction direction, const IpAddress& gateway);
  Clock::time_point keepOrder(std::uint64_t flow, Clock::time_point due, Clock::time_point now);

  const Link m_link;
  /// When each packet on the client's line will have left.
  std::queue<Clock::time_point> m_leaving;
  double m_openingsLeft;
  Clock::time_point m_lastOpening;
  Path m_defaultPath;
  std::map<IpAddress, Path> m_paths;
  std::uint64_t m_seed;
  std::map<std::pair<Direction, IpAddress>, Lane> m_lanes;
  /// When each flow's last packet leaves; only flows with jitter.
  std::unordered_map<std::uint64_t, Clock::time_point> m_flows;
  std::priority_queue<Held, std::vector<Held>, LeavesLater> m_held;
  std::uint64_t m_nextNumber = 0;
  Statistics m_statistics;
};

}  // namespace simulator
