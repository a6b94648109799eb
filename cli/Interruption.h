#pragma once

#include <functional>

/// Ends the process on Ctrl-C, SIGTERM and SIGHUP, whatever its threads are doing: one thread waits
/// for these signals, which are blocked in all others, tidies up, and ends the process with the
/// exit status 128 + the signal's number. Nobody is waited for.
class Interruption {
 public:
  Interruption() = delete;

  /// Starts waiting, and lets a closed pipe be an error of the writer in place of a signal. To be
  /// called once, before any other thread exists. Without a thread to be had, the signals keep
  /// their default action, which ends the process untidily.
  static void begin();

  /// Sets what is done before the process ends by a signal; it must not wait for anything for long,
  /// and gets one second. It may be called on any thread and runs on the waiting thread.
  static void setTidyUp(std::function<void()> tidyUp);
};
