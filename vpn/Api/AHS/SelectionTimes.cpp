// Ages of cached selections. Everything is measured against the time of day as it is now, and
// nothing is believed that it contradicts.

#include "vpn/Api/AHS/SelectionTimes.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr unsigned long SecondsPerDay = 24UL * 60 * 60;

}  // namespace

unsigned long SelectionTimes::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
  return seconds > 0 ? static_cast<unsigned long>(seconds) : 0;
}

unsigned long SelectionTimes::ageOf(const CCacheEntry& entry) {
  const unsigned long time = now();
  return entry.GetTimestamp() > time ? BeyondAge : time - entry.GetTimestamp();
}

bool SelectionTimes::isExpired(const CCacheEntry& entry, unsigned int clearCacheDays) {
  return clearCacheDays == 0 || ageOf(entry) > clearCacheDays * SecondsPerDay;
}

unsigned long SelectionTimes::lastUse(const CCacheEntry& entry, unsigned long use,
                                      unsigned long now) {
  const unsigned long stored = entry.GetTimestamp();
  return std::max(stored > now ? 0 : stored, use > now ? 0 : use);
}

unsigned long SelectionTimes::laterUse(unsigned long first, unsigned long second,
                                       unsigned long now) {
  return second <= now && (first > now || second > first) ? second : first;
}
