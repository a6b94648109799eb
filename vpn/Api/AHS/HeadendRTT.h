#pragma once

/// @file
/// One measured headend.

#include <string>

/// One headend with its measured metric. A value class without a lock of its own.
class CHeadendRTT {
 public:
  /// No headend, metric 0.
  CHeadendRTT();
  /// @param headend host, or host ":" port. @param rtt round-trip time metric in milliseconds.
  CHeadendRTT(std::string headend, unsigned int rtt);
  ~CHeadendRTT();
  /// Copies share nothing.
  /// @{
  CHeadendRTT(const CHeadendRTT& other);
  CHeadendRTT& operator=(const CHeadendRTT& other);
  CHeadendRTT(CHeadendRTT&& other) = default;
  CHeadendRTT& operator=(CHeadendRTT&& other) = default;
  /// @}

  /// A copy of the host, or host ":" port.
  std::string GetHeadend() const;
  /// The same without a copy.
  const std::string& headend() const { return m_headend; }
  /// The metric in milliseconds.
  unsigned int GetRTT() const;
  /// Host, five blanks, metric: a line of the selection report without its line feed. Characters
  /// that do not belong on a line are escaped.
  std::string toString() const;

 private:
  friend bool operator<(const CHeadendRTT& a, const CHeadendRTT& b);

  std::string m_headend;
  unsigned int m_rtt;
};

/// Orders by metric alone: two headends equally far away are equivalent, whatever their names.
inline bool operator<(const CHeadendRTT& a, const CHeadendRTT& b) { return a.m_rtt < b.m_rtt; }
