// The results of one selection run, and how old they are.

#include "vpn/Api/AHS/CacheEntry.h"

#include <algorithm>

#include "vpn/Common/Utility/Shortage.h"
#include "vpn/include/StringUtils.h"

CCacheEntry::CCacheEntry() : m_shortages(Shortages::count()) {}

CCacheEntry::CCacheEntry(const std::vector<CHeadendRTT>& headendList) : CCacheEntry() {
  m_headendList = headendList;
}

CCacheEntry::CCacheEntry(const CCacheEntry& other) = default;

bool CCacheEntry::isFromShortage() const { return m_shortages != Shortages::count(); }

STATUSCODE CCacheEntry::GetHeadendList(std::vector<CHeadendRTT>& headendList) const {
  headendList = m_headendList;
  return 0;
}

std::string CCacheEntry::toString() const {
  std::string text = "stored " + std::to_string(m_timestamp) + (m_isPartial ? ", partial" : "") +
                     ", candidates " + CStringUtils::printable(m_tstrKnownHeadends) + "\n";
  for (const CHeadendRTT& headend : m_headendList) {
    text += "  " + headend.toString() + "\n";
  }
  return text;
}

unsigned long SelectionTimes::now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
  return seconds > 0 ? static_cast<unsigned long>(seconds) : 0;
}

std::optional<std::chrono::seconds> SelectionTimes::ageOf(const CCacheEntry& entry) {
  const unsigned long time = now();
  if (entry.GetTimestamp() > time) {
    return std::nullopt;
  }
  return std::chrono::seconds(time - entry.GetTimestamp());
}

std::chrono::seconds SelectionTimes::lifeOf(const CCacheEntry& entry, unsigned int clearCacheDays) {
  constexpr std::chrono::seconds MostOfPartial = std::chrono::minutes(10);
  const std::chrono::seconds whole = std::chrono::hours(24) * std::int64_t{clearCacheDays};
  return entry.isPartial() ? std::min(whole, MostOfPartial) : whole;
}

bool SelectionTimes::isExpired(const CCacheEntry& entry, unsigned int clearCacheDays) {
  const auto age = ageOf(entry);
  return clearCacheDays == 0 || !age || *age > lifeOf(entry, clearCacheDays);
}
