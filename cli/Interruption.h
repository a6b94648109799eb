#pragma once

#include <functional>

/// Ends the process on Ctrl-C, Ctrl-\, SIGTERM and SIGHUP, whatever its threads are doing. All
/// other threads block these signals. One thread waits for them, cleans up, and ends the process
/// with exit status 128 + signal number; it waits for no thread. It also stops the process on
/// Ctrl-Z.
class Interruption {
 public:
  /// What to do on a signal. The waiting thread runs the operations; any may be empty.
  struct Duties {
    /// Before the process ends; must not wait long: one second is allowed.
    std::function<void()> beforeEnd;
    /// Before the process stops.
    std::function<void()> beforeStop;
    /// After the process was continued.
    std::function<void()> afterStop;
    /// Before `beforeEnd`. Returns true if the signal was handled, so that the process goes on.
    /// Also called with SIGTSTP before a stop and with SIGCONT after it; then the result is
    /// ignored.
    /// @param signal its number.
    /// @param fromTerminal the terminal has sent it to the whole process group.
    std::function<bool(int signal, bool fromTerminal)> takeOver{};
  };

  Interruption() = delete;

  /// Starts waiting, and makes a closed pipe a write error instead of a signal. To be called once,
  /// before any other thread exists. If no thread can be created, the signals keep their default
  /// action and nothing cleans up.
  static void begin();

  /// Replaces the duties. Any thread may call it; returns when a running operation of the old
  /// duties has ended.
  static void setDuties(Duties duties);
};
