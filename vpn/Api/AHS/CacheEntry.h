#pragma once

#include <string>
#include <vector>

#include "vpn/Api/AHS/HeadendRTT.h"
#include "vpn/include/StatusCode.h"

/// The results of one selection run. A value class without a lock of its own.
class CCacheEntry {
 public:
  CCacheEntry();
  explicit CCacheEntry(const std::vector<CHeadendRTT>& headendList);
  ~CCacheEntry();
  CCacheEntry(const CCacheEntry& other);
  CCacheEntry& operator=(const CCacheEntry& other);

  void SetHeadendList(const std::vector<CHeadendRTT>& headendList);
  /// Fills `headendList` with the results in stored order; always 0.
  STATUSCODE GetHeadendList(std::vector<CHeadendRTT>& headendList) const;
  unsigned int GetListSize() const;
  /// Appends one result.
  void AddHeadend(const CHeadendRTT& headend);

  /// Seconds since 1970-01-01 00:00 UTC; 0 for an entry that was never stored.
  void SetTimestamp(unsigned long timestamp);
  unsigned long GetTimestamp() const;

  /// The key of the candidate set that was measured.
  void SetKnownHeadends(const std::string& knownHeadends);
  std::string GetKnownHeadends() const;

  /// Key, time stamp and one line a result.
  std::string toString() const;

 private:
  std::vector<CHeadendRTT> m_headendList;
  long m_timestamp;
  std::string m_tstrKnownHeadends;
};
