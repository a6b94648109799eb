#pragma once

#include <functional>

/// Ends the process on Ctrl-C, Ctrl-\, SIGTERM and SIGHUP, whatever its threads are doing: one
/// thread waits for these signals, which are blocked in all others, tidies up, and ends the process
/// with the exit status 128 + the signal's number. Nobody is waited for. The same thread stops the
/// process on Ctrl-Z, and is told when it goes on.
class Interruption {
 public:
  /// What is done on a signal. The operations run on the waiting thread; any may be empty.
  struct Duties {
    /// Before the process ends; must not wait for anything for long, and gets one second.
    std::function<void()> beforeEnd;
    /// Before the process stops.
    std::function<void()> beforeStop;
    /// When the process has been continued.
    std::function<void()> afterStop;
    /// Before `beforeEnd`: whether somebody else answers the signal, so that the process goes on.
    /// Also told of SIGTSTP, before the process stops, and of SIGCONT, when it goes on, whatever it
    /// returns.
    /// @param signal its number.
    /// @param fromTerminal the terminal has sent it to the whole process group.
    std::function<bool(int signal, bool fromTerminal)> takeOver{};
  };

  Interruption() = delete;

  /// Starts waiting, and lets a closed pipe be an error of the writer in place of a signal. To be
  /// called once, before any other thread exists. Without a thread to be had, the signals keep
  /// their default action, which ends the process untidily.
  static void begin();

  /// Sets what is done from now on. May be called on any thread; returns when an operation of the
  /// duties before that is under way has ended.
  static void setDuties(Duties duties);
};
