#pragma once

#include <signal.h>

#include <vector>

/// What this process was started with; its child programs start with the same. Before `note`,
/// defaults apply.
class Surroundings {
 public:
  Surroundings() = delete;

  /// To be called first, before anything opens a descriptor or changes a signal. If one of the
  /// descriptors 0 to 2 is closed, opens it so that reading gives nothing and writing fails: a file
  /// opened later must not become a standard stream.
  static void note();

  /// Lets the process open as many descriptors as the system allows it, which `note` does too; or
  /// no more than it was started with, as child programs are to inherit.
  /// @{
  static void raiseDescriptorLimit();
  static void restoreDescriptorLimit();
  /// @}

  /// Forgets a descriptor that the process has closed: a later file with its number is our own.
  static void forget(int descriptor);

  /// The inherited descriptors above 2, in ascending order, below `MostDescriptors`.
  static const std::vector<int>& descriptors();
  static constexpr int MostDescriptors = 1024;

  /// The inherited signal mask, and whether a signal was ignored that the command handles itself.
  static const sigset_t& blockedSignals();
  static bool wasIgnored(int signal);
};
