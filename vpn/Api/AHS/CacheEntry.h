#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vpn/Api/AHS/HeadendRTT.h"
#include "vpn/include/StatusCode.h"

/// The results of one selection run: the headends that answered, in the order in which they were
/// added. A value class without a lock of its own.
class CCacheEntry {
 public:
  CCacheEntry();
  CCacheEntry(const CCacheEntry& other);
  CCacheEntry(CCacheEntry&& other) = default;
  CCacheEntry& operator=(const CCacheEntry& other) = default;
  CCacheEntry& operator=(CCacheEntry&& other) = default;
  ~CCacheEntry() = default;
  /// An entry with these results, without time stamp and key.
  explicit CCacheEntry(const std::vector<CHeadendRTT>& headendList);

  void SetHeadendList(const std::vector<CHeadendRTT>& headendList) { m_headendList = headendList; }
  /// Replaces `headendList` by the results in stored order; always 0.
  STATUSCODE GetHeadendList(std::vector<CHeadendRTT>& headendList) const;
  unsigned int GetListSize() const { return static_cast<unsigned int>(m_headendList.size()); }
  void AddHeadend(const CHeadendRTT& headend) { m_headendList.push_back(headend); }
  void AddHeadend(CHeadendRTT&& headend) { m_headendList.push_back(std::move(headend)); }
  /// The results in stored order, without a copy.
  const std::vector<CHeadendRTT>& headends() const { return m_headendList; }

  /// Seconds since 1970-01-01 00:00 UTC; 0 for an entry that was never stored.
  /// @{
  void SetTimestamp(unsigned long timestamp) { m_timestamp = static_cast<long>(timestamp); }
  unsigned long GetTimestamp() const { return static_cast<unsigned long>(m_timestamp); }
  /// @}

  /// The key of the candidate set that was measured.
  /// @{
  void SetKnownHeadends(const std::string& knownHeadends) { m_tstrKnownHeadends = knownHeadends; }
  std::string GetKnownHeadends() const { return m_tstrKnownHeadends; }
  /// @}

  /// Whether a candidate is missing, or did not get all of its probes.
  /// @{
  void setPartial(bool isPartial) { m_isPartial = isPartial; }
  bool isPartial() const { return m_isPartial; }
  /// @}

  /// Whether this machine has lacked anything since the entry was made: it may not be all that a
  /// healthy machine would have measured. A copy is as old as its original.
  bool isFromShortage() const;

  /// A line with time stamp and key, then an indented line a result; each ends with a line feed.
  std::string toString() const;

 private:
  std::vector<CHeadendRTT> m_headendList;
  long m_timestamp = 0;
  std::string m_tstrKnownHeadends;
  unsigned long m_shortages;
  bool m_isPartial = false;
};

/// Ages by the time of day, which may go backwards: a stamp in the future counts as old, not as
/// eternal. Any thread may call these.
namespace SelectionTimes {

/// Seconds since 1970-01-01 00:00 UTC.
unsigned long now();

/// Time since the entry was stored; none for a stamp of the future: nobody can say how old it is.
std::optional<std::chrono::seconds> ageOf(const CCacheEntry& entry);

/// How long an entry may answer: the clear-cache time, in days. A partial one answers ten minutes
/// at most: what was missing may be back, and be the nearest.
std::chrono::seconds lifeOf(const CCacheEntry& entry, unsigned int clearCacheDays);

/// Whether an entry is older than that; 0 days let none answer.
bool isExpired(const CCacheEntry& entry, unsigned int clearCacheDays);

}  // namespace SelectionTimes
