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

bool isSilent(const Standing& headend, unsigned int bestMs, MonotonicClock::time_point now) {
  return headend.silentSince && !headend.ms &&
         now - *headend.silentSince >=
             ConnectPatience::silenceOf(std::chrono::milliseconds(bestMs));
}

bool mayWin(const Standing& headend, unsigned int bestMs, MonotonicClock::time_point now) {
  const bool isFar = headend.ms && *headend.ms > bestMs + marginOf(bestMs);
  return !headend.isFinished && !isFar && !isSilent(headend, bestMs, now);
}

}  // namespace

std::optional<std::size_t> Deciding::winnerOf(const std::vector<Standing>& all, const Rules& rules,
                                              MonotonicClock::time_point now) {
  const Standing* best = nullptr;
  for (const Standing& headend : all) {
    if (headend.isFinished && headend.ms &&
        (best == nullptr ||
         std::tie(*headend.ms, headend.finishedAs) < std::tie(*best->ms, best->finishedAs))) {
      best = &headend;
    }
  }
  if (best == nullptr || std::ranges::any_of(all, [best, now](const Standing& headend) {
        return mayWin(headend, *best->ms, now);
      })) {
    return std::nullopt;
  }
  if (rules.last) {
    const Standing& last = all[*rules.last];
    if (!last.isFinished && !isSilent(last, *best->ms, now)) {
      return std::nullopt;
    }
    if (last.isFinished && last.ms &&
        SelectionRules::retentionOf(*last.ms, *best->ms, rules.improvementPercent).isRetained) {
      return rules.last;
    }
  }
  return static_cast<std::size_t>(best - all.data());
}
