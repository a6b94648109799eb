#pragma once

#include <string>

/// One headend with its measured metric. A value class.
class CHeadendRTT {
 public:
  CHeadendRTT();
  /// @param headend host, or host ":" port. @param rtt round-trip time metric in milliseconds.
  CHeadendRTT(std::string headend, unsigned int rtt);
  ~CHeadendRTT();
  CHeadendRTT(const CHeadendRTT& other);
  CHeadendRTT& operator=(const CHeadendRTT& other);

  std::string GetHeadend() const;
  unsigned int GetRTT() const;
  /// "host     metric", as in the selection report.
  std::string toString() const;

 private:
  friend bool operator<(const CHeadendRTT& a, const CHeadendRTT& b);

  std::string m_headend;
  unsigned int m_rtt;
};

/// Orders by metric alone: two headends equally far away are equivalent, whatever their names.
inline bool operator<(const CHeadendRTT& a, const CHeadendRTT& b) { return a.m_rtt < b.m_rtt; }
