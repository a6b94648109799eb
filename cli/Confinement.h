#pragma once

/// What the command gives up once it has started: system calls that it never makes, but that code
/// of an attacker inside it would. A filter of the kernel (seccomp(2)) refuses them with EPERM.
class Confinement {
 public:
  Confinement() = delete;

  /// Whether this process starts programs, which inherit the filter.
  enum class Programs { None, OurHelper };

  /// For all threads that start from now on, and for ever. Not for a command that runs programs of
  /// the user, which must be able to do more. Without the kernel's help nothing changes.
  static void begin(Programs programs);
};
