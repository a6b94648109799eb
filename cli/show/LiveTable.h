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

/// What the table is drawn on.
struct LiveLook {
  std::size_t width = 80;
  std::size_t height = 24;
  bool colour = false;
  bool blocks = false;  ///< bars of block characters (UTF-8) rather than of '#'
};

/// The table as lines that fit, none of them wrapped, fewer than `height`: how far the measurement
/// is, then the headends, nearest first, as many as there is room for. Names stand beside them
/// where half of the width has room for both. In a narrow window addresses keep their room as long
/// as a round trip fits beside them.
std::vector<std::string> liveTable(const LiveState& state, const LiveLook& look);

/// The same for where nothing can be drawn over: one line, without colour.
std::string liveLine(const LiveState& state);

/// The row of a headend.
/// @param track its probes; null before the first.
/// @param probes how many it gets.
LiveRow liveRowOf(const Candidate& candidate, const SelectionRecord::Track* track,
                  unsigned int probes);

/// A table on the terminal behind standard error that is drawn over and over in the same place and
/// leaves nothing behind. Any thread may call any operation.
class LiveTable {
 public:
  /// Whether standard error is a terminal on which lines can be redrawn.
  static bool isPossible();

  LiveTable();

  /// Draws the table; does nothing while the process is in the background or after `close`.
  void draw(const LiveState& state);

  /// Removes the table for good.
  void close();

  /// The same for a process that is about to end: gives up when another thread is stuck in drawing.
  void closeInHaste();

  /// Removes the table before the process stops; it comes back with the next drawing. Gives up as
  /// `closeInHaste` does.
  void eraseInHaste();

 private:
  /// What moves the cursor from where a drawing leaves it to the start of the first line.
  std::string toFirstLine(std::size_t width) const AHS_REQUIRES(m_lock);
  void erase() AHS_REQUIRES(m_lock);
  void eraseForGood() AHS_REQUIRES(m_lock);
  bool lockInHaste() AHS_TRY_ACQUIRE(true, m_lock);

  const bool m_colour;
  const bool m_wraps;
  const bool m_blocks;
  CManualLock m_lock;
  std::vector<std::size_t> m_columnsDrawn AHS_GUARDED_BY(m_lock);  // of each line
  bool m_isClosed AHS_GUARDED_BY(m_lock);
};
