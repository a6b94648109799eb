#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/include/Locks.h"

/// One headend while it is being measured.
struct LiveRow {
  std::string headend;
  std::string name;                     ///< beside the headend; empty for none
  std::vector<unsigned int> samplesMs;  ///< so far, in the order in which they came
  std::string waitsFor;                 ///< or what became of it; empty when it is done
};

/// How far a measurement is.
struct LiveState {
  unsigned int answered = 0;  ///< headends that answered at least once
  unsigned int probesEnded = 0;
  std::chrono::milliseconds elapsed{0};
  std::chrono::milliseconds budget{0};
  std::vector<LiveRow> rows;  ///< one for each headend that is measured
};

/// The row of a headend.
/// @param track its probes; null before the first.
/// @param probes how many it gets.
LiveRow liveRowOf(const Candidate& candidate, const SelectionRecord::Track* track,
                  unsigned int probes);

/// The table as lines that fit, none of them wrapped, fewer than `height`: how far the measurement
/// is, then the headends, nearest first, as many as there is room for. Names stand beside them
/// where half of the width has room for both. In a narrow window addresses keep their room as long
/// as a round trip fits beside them.
std::vector<std::string> liveTable(const LiveState& state, std::size_t width, std::size_t height);

/// How far the measurement is, in one line.
std::string liveLine(const LiveState& state);

/// Columns that a text of visible characters (UTF-8) takes on a terminal.
std::size_t columnsOf(const std::string& text);

/// A table on the terminal behind standard error that is drawn over and over in the same place and
/// leaves nothing behind. Any thread may call any operation.
class LiveTable {
 public:
  /// Whether standard error is a terminal on which lines can be redrawn.
  static bool isPossible();

  /// Draws the table; does nothing while the process is in the background or after `close`.
  void draw(const LiveState& state);

  /// Removes the table; it comes back with the next drawing.
  void erase();

  /// The same for good.
  void close();

 private:
  std::string toFirstLine() const AHS_REQUIRES(m_lock);

  CManualLock m_lock;
  std::size_t m_linesDrawn AHS_GUARDED_BY(m_lock) = 0;
  bool m_isClosed AHS_GUARDED_BY(m_lock) = false;
};
