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

/// Holds IP packets for as long as the path that they travel takes, or loses them. It knows no
/// socket and no clock: the caller says what time it is, which must never go back. One thread at a
/// time.
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
    /// How much later than due packets were taken: sum and worst.
    std::chrono::nanoseconds totalLateness{0};
    std::chrono::nanoseconds worstLateness{0};
  };

  /// What one seed gives, it gives again: the fate of a packet depends on the seed, its path, and
  /// its place among the packets of this path and direction alone.
  DelayLine(const Scene& scene, std::uint64_t seed);

  /// Takes in a packet. The path is that of its destination, or on the way back that of its source.
  void accept(Direction direction, std::span<const unsigned char> packet, Clock::time_point now);

  /// When the next packet leaves, if there is one.
  std::optional<Clock::time_point> nextDue() const;

  /// Takes out a packet that is due, the earliest first; packets due at the same moment leave in
  /// the order they came.
  std::optional<Packet> takeDue(Clock::time_point now);

  const Statistics& getStatistics() const { return m_statistics; }

 private:
  /// SplitMix64: eight bytes of state, so that every path and direction has a generator of its own.
  class Random {
   public:
    explicit Random(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t next();
    /// In [0, 1).
    double fraction();

   private:
    std::uint64_t m_state;
  };
  struct Lane {
    Path path;
    Random random;
    /// Chance that a packet of this direction is lost.
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

  Lane& laneOf(Direction direction, const IpAddress& gateway);
  Clock::time_point keepOrder(std::uint64_t flow, Clock::time_point due, Clock::time_point now);

  Path m_defaultPath;
  std::map<IpAddress, Path> m_paths;
  std::uint64_t m_seed;
  std::map<std::pair<Direction, IpAddress>, Lane> m_lanes;
  /// When the last packet of a flow leaves; only flows that have jitter.
  std::unordered_map<std::uint64_t, Clock::time_point> m_flows;
  std::priority_queue<Held, std::vector<Held>, LeavesLater> m_held;
  std::uint64_t m_nextNumber = 0;
  Statistics m_statistics;
};

}  // namespace simulator
