#pragma once

#include <signal.h>

#include <vector>

/// What the process was started with, so that a program that it runs can be started with the same.
/// What has not been noted counts as what a process has in general.
class Surroundings {
 public:
  Surroundings() = delete;

  /// To be called first, before anything opens a descriptor or changes a signal. Descriptors 0 to 2
  /// that are closed are opened so that they read nothing and refuse what is written: a file that
  /// is opened later must not be taken for one of them.
  static void note();

  /// A descriptor has been closed that was open then: what gets its number is the command's own.
  static void forget(int descriptor);

  /// The descriptors above 2 that were open, in ascending order, below `MostDescriptors`.
  static const std::vector<int>& descriptors();
  static constexpr int MostDescriptors = 1024;

  /// The signals that were blocked, and whether one of those that the command has another use for
  /// was ignored.
  static const sigset_t& blockedSignals();
  static bool wasIgnored(int signal);
};
