#pragma once

#include <cstddef>
#include <vector>

#include "cli/show/LiveState.h"
#include "vpn/include/Locks.h"

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
  void eraseLocked() AHS_REQUIRES(m_lock);

  CManualLock m_lock;
  std::vector<std::size_t> m_columnsDrawn AHS_GUARDED_BY(m_lock);  // of each line
  bool m_isClosed AHS_GUARDED_BY(m_lock) = false;
};
