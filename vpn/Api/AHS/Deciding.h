#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "vpn/Common/Utility/MonotonicClock.h"

/// When a selection is decided: no headend that is still out can win. Functions of their arguments
/// alone. Any thread may call them.
namespace Deciding {

/// What is known of a headend that takes part.
struct Standing {
  bool isFinished = false;  ///< no probe of it is to come
  /// The metric of a finished one, none if it has failed. Of one that is out: the smallest sample,
  /// or the network's round trip as the connection came about.
  std::optional<unsigned int> ms;
  std::size_t finishedAs = 0;  ///< of equal metrics the first counts
  /// Since when it has left attempts to connect unanswered, all of them.
  std::optional<MonotonicClock::time_point> silentSince;
};

/// How the run chooses.
struct Rules {
  /// On a reconnection, which of the headends was used last.
  std::optional<std::size_t> last;
  unsigned int improvementPercent = 0;
  /// How long silence has to last at least before it counts.
  std::chrono::milliseconds leastSilence{0};
};

/// The headend that is chosen whatever becomes of those that are out; none while one of them may
/// win. In rare cases it is another: a lost packet makes a headend seem silent or far away.
/// @param rival where to look first for one that may win; receives the one that was found. So all
///        need not be looked at again and again.
std::optional<std::size_t> winnerOf(const std::vector<Standing>& all, const Rules& rules,
                                    MonotonicClock::time_point now, std::size_t best,
                                    std::size_t& rival);
/// The best of those that have finished: of `best`, none for the first, and another one.
std::optional<std::size_t> betterOf(const std::vector<Standing>& all,
                                    std::optional<std::size_t> best, std::size_t other);

}  // namespace Deciding
