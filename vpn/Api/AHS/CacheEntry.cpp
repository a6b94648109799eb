// The results of one selection run. The order of the results is the order in which they came in:
// ranking is done on copies, so that what is stored stays what was measured.

#include "vpn/Api/AHS/CacheEntry.h"

#include <ctime>
#include <utility>

#include "vpn/include/StringUtils.h"

namespace {

std::string utcText(long timestamp) {
  if (timestamp == 0) {
    return "never stored";
  }
  const std::time_t time = timestamp;
  std::tm parts{};
  char text[64] = "";
  if (gmtime_r(&time, &parts) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts) == 0) {
    return std::to_string(timestamp) + " s";
  }
  return std::string("stored ") + text;
}

}  // namespace

CCacheEntry::CCacheEntry() : m_timestamp(0) {}

CCacheEntry::CCacheEntry(const std::vector<CHeadendRTT>& headendList)
    : m_headendList(headendList), m_timestamp(0) {}

CCacheEntry::~CCacheEntry() = default;

CCacheEntry::CCacheEntry(const CCacheEntry& other) = default;

CCacheEntry& CCacheEntry::operator=(const CCacheEntry& other) {
  CCacheEntry copy(other);
  Swap(copy);
  return *this;
}

void CCacheEntry::SetHeadendList(const std::vector<CHeadendRTT>& headendList) {
  m_headendList = headendList;
}

STATUSCODE CCacheEntry::GetHeadendList(std::vector<CHeadendRTT>& headendList) const {
  headendList = m_headendList;
  return 0;
}

unsigned int CCacheEntry::GetListSize() const {
  return static_cast<unsigned int>(m_headendList.size());
}

void CCacheEntry::AddHeadend(const CHeadendRTT& headend) { m_headendList.push_back(headend); }

void CCacheEntry::SetTimestamp(unsigned long timestamp) {
  m_timestamp = static_cast<long>(timestamp);
}

unsigned long CCacheEntry::GetTimestamp() const { return static_cast<unsigned long>(m_timestamp); }

void CCacheEntry::SetKnownHeadends(const std::string& knownHeadends) {
  m_tstrKnownHeadends = knownHeadends;
}

std::string CCacheEntry::GetKnownHeadends() const { return m_tstrKnownHeadends; }

std::string CCacheEntry::toString() const {
  std::string text =
      utcText(m_timestamp) + ", candidates " + CStringUtils::printable(m_tstrKnownHeadends) + "\n";
  for (const CHeadendRTT& headend : m_headendList) {
    text += "  " + headend.toString() + "\n";
  }
  return text;
}
