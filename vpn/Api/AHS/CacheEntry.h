#pragma once

#include <string>
#include <vector>

#include "vpn/Api/AHS/HeadendRTT.h"
#include "vpn/include/StatusCode.h"

/// The results of one selection run: the headends that answered, in the order in which they were
/// added. A value class without a lock of its own.
class CCacheEntry {
 public:
  CCacheEntry();
  /// An entry with these results, without time stamp and key.
  explicit CCacheEntry(const std::vector<CHeadendRTT>& headendList);
  ~CCacheEntry();
  /// A copy that shares nothing.
  CCacheEntry(const CCacheEntry& other);
  /// Copies all or, when memory is short, throws and changes nothing.
  CCacheEntry& operator=(const CCacheEntry& other);

  /// Replaces the results.
  void SetHeadendList(const std::vector<CHeadendRTT>& headendList);
  /// The same, taking them over: what is in `headendList` then is unspecified.
  void SetHeadendList(std::vector<CHeadendRTT>&& headendList) noexcept {
    m_headendList.swap(headendList);
  }
  /// Replaces `headendList` by the results in stored order; always 0.
  STATUSCODE GetHeadendList(std::vector<CHeadendRTT>& headendList) const;
  /// How many results there are.
  unsigned int GetListSize() const;
  /// Appends one result.
  void AddHeadend(const CHeadendRTT& headend);

  /// Seconds since 1970-01-01 00:00 UTC; 0 for an entry that was never stored.
  /// @{
  void SetTimestamp(unsigned long timestamp);
  unsigned long GetTimestamp() const;
  /// @}

  /// The key of the candidate set that was measured.
  /// @{
  void SetKnownHeadends(const std::string& knownHeadends);
  std::string GetKnownHeadends() const;
  /// @}

  /// Exchanges the contents of two entries.
  void Swap(CCacheEntry& other) noexcept {
    m_headendList.swap(other.m_headendList);
    m_tstrKnownHeadends.swap(other.m_tstrKnownHeadends);
    const long timestamp = m_timestamp;
    m_timestamp = other.m_timestamp;
    other.m_timestamp = timestamp;
  }

  /// A line with time stamp (in UTC) and key, then an indented line a result; each ends with a line
  /// feed.
  std::string toString() const;

 private:
  std::vector<CHeadendRTT> m_headendList;
  long m_timestamp;
  std::string m_tstrKnownHeadends;
};
