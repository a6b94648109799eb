#pragma once

#include <chrono>
#include <string>

#include "vpn/include/Locks.h"

/// How far a measurement is.
struct ProgressState {
  unsigned int headends = 0;  ///< that are measured
  unsigned int answered = 0;  ///< of them, those that answered at least once
  unsigned int probesEnded = 0;
  std::chrono::milliseconds elapsed{0};
  std::chrono::milliseconds budget{0};
};

/// The progress in one line of at most `width` - 1 characters, so that no terminal wraps it. Colour
/// is left out where it does not fit.
std::string progressText(const ProgressState& state, std::size_t width, bool colour);

/// A line on the terminal behind standard error that is drawn over and over in the same place and
/// leaves nothing behind. Any thread may call any operation.
class ProgressLine {
 public:
  /// Whether standard error is a terminal on which a line can be redrawn.
  static bool isPossible();

  ProgressLine();

  /// Draws the line; does nothing while the process is in the background or after `close`.
  void draw(const ProgressState& state);

  /// Removes the line for good.
  void close();

  /// The same for a process that is about to end: gives up when another thread is stuck in drawing.
  void closeInHaste();

  /// Removes the line before the process stops; it comes back with the next drawing. Gives up as
  /// `closeInHaste` does.
  void eraseInHaste();

 private:
  void erase() AHS_REQUIRES(m_lock);
  void eraseForGood() AHS_REQUIRES(m_lock);
  bool lockInHaste() AHS_TRY_ACQUIRE(true, m_lock);

  const bool m_colour;
  CManualLock m_lock;
  bool m_isDrawn AHS_GUARDED_BY(m_lock);
  bool m_isClosed AHS_GUARDED_BY(m_lock);
};
