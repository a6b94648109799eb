#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/include/Locks.h"

/// One headend during the measurement.
struct LiveRow {
  std::string headend;
  std::string name;                     ///< beside the headend; empty for none
  std::vector<unsigned int> samplesMs;  ///< so far, in order of arrival
  std::string waitsFor;  ///< or its failure, or that it is decided; empty after success
};

/// The progress of a measurement.
struct LiveState {
  unsigned int answered = 0;  ///< headends that answered at least once
  unsigned int probesEnded = 0;
  std::chrono::milliseconds elapsed{0};
  std::chrono::milliseconds budget{0};
  std::vector<LiveRow> rows;  ///< one for each headend that is measured
};

/// The row of a headend.
/// @param track its probes; null before the first probe.
/// @param probes number of its probes.
LiveRow liveRowOf(const Candidate& candidate, const SelectionRecord::Track* track,
                  unsigned int probes);

/// The table as fewer than `height` lines, none of which wraps: the progress, then the headends
/// that fit, nearest first. Names stand beside the addresses if both fit into half of the width. In
/// a narrow window addresses stay whole as long as a round trip fits beside them.
std::vector<std::string> liveTable(const LiveState& state, std::size_t width, std::size_t height);

/// The progress in one line.
std::string liveLine(const LiveState& state);

/// Columns of a visible UTF-8 text on a terminal.
std::size_t columnsOf(const std::string& text);

/// A table on the terminal of standard error. It is redrawn in the same place and removed without a
/// trace. Thread-safe.
class LiveTable {
 public:
  /// Whether standard error is a terminal on which lines can be redrawn.
  static bool isPossible();

  /// Draws the table; does nothing while the process is in the background or after `close`.
  void draw(const LiveState& state);

  /// Removes the table until the next drawing.
  void erase();

  /// Removes the table for good.
  void close();

 private:
  std::string toFirstLine() const AHS_REQUIRES(m_lock);

  CManualLock m_lock;
  std::size_t m_linesDrawn AHS_GUARDED_BY(m_lock) = 0;
  bool m_isClosed AHS_GUARDED_BY(m_lock) = false;
};
