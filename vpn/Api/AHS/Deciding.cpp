// The choice before the end of a selection. A headend that is out can win while its metric may come
// to lie near the best one or below: the later samples of one that lies farther off would have to
// be that much smaller than those before.

#include "vpn/Api/AHS/Deciding.h"

#include <algorithm>
#include <chrono>
#include <tuple>

#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Common/IP/ConnectPatience.h"

namespace {

using Deciding::Standing;

/// How much farther off a headend has to be: samples of one headend differ by less.
unsigned int marginOf(unsigned int bestMs) {
  constexpr unsigned int LeastMs = 5;
  return std::max(LeastMs, bestMs / 4);
}

/// For how long what is silent may yet win.
std::chrono::milliseconds silenceOf(unsigned int bestMs, const Deciding::Rules& rules) {
  return std::max(rules.leastSilence,
                  ConnectPatience::silenceOf(std::chrono::milliseconds(bestMs)));
}

bool isSilent(const Standing& headend, std::chrono::milliseconds silence,
              MonotonicClock::time_point now) {
  return headend.silentSince && !headend.ms && now - *headend.silentSince >= silence;
}

bool mayWin(const Standing& headend, unsigned int bestMs, std::chrono::milliseconds silence,
            MonotonicClock::time_point now) {
  const bool isFar = headend.ms && *headend.ms > bestMs + marginOf(bestMs);
  return !headend.isFinished && !isFar && !isSilent(headend, silence, now);
}

}  // namespace

std::optional<std::size_t> Deciding::betterOf(const std::vector<Standing>& all,
                                              std::optional<std::size_t> best, std::size_t other) {
  const Standing& finished = all[other];
  const bool isBetter = finished.isFinished && finished.ms &&
                        (!best || std::tie(*finished.ms, finished.finishedAs) <
                                      std::tie(*all[*best].ms, all[*best].finishedAs));
  return isBetter ? other : best;
}

std::optional<std::size_t> Deciding::winnerOf(const std::vector<Standing>& all, const Rules& rules,
                                              MonotonicClock::time_point now, std::size_t bestAt,
                                              std::size_t& rival) {
  const Standing* const best = &all[bestAt];
  const std::chrono::milliseconds silence = silenceOf(*best->ms, rules);
  for (std::size_t looked = 0; looked < all.size(); ++looked) {
    if (mayWin(all[rival], *best->ms, silence, now)) {
      return std::nullopt;
    }
    rival = (rival + 1) % all.size();
  }
  if (rules.last) {
    const Standing& last = all[*rules.last];
    if (!last.isFinished && !isSilent(last, silence, now)) {
      return std::nullopt;
    }
    if (last.isFinished && last.ms &&
        SelectionRules::retentionOf(*last.ms, *best->ms, rules.improvementPercent).isRetained) {
      return rules.last;
    }
  }
  return bestAt;
}
