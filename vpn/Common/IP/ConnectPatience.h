#pragma once

#include <chrono>

/// How long an attempt to connect may stay without an answer (a SYN-ACK).
struct ConnectPatience {
  using milliseconds = std::chrono::milliseconds;
  static constexpr milliseconds Endless = std::chrono::hours(24);

  milliseconds stand = Endless;   ///< the probe may last without a connection
  milliseconds again = Endless;   ///< a second attempt then begins beside it
  milliseconds giveUp = Endless;  ///< it then counts as timed out
  /// Attempts are looked at from this age on, before which nothing above can be due, and again
  /// after each such time.
  static constexpr milliseconds FirstLook{120};
  static constexpr milliseconds NextLook{50};
  milliseconds firstLook = FirstLook;  ///< the same, by what is known

  /// The age at which to look next.
  milliseconds nextLook(milliseconds waited) const;

  /// What is known when an attempt is looked at.
  struct Known {
    bool testsWay = false;   ///< it measures nothing
    bool wasSilent = false;  ///< the host's probe before was given up, and nobody else's has to be
    bool othersAnswered = false;
    milliseconds nearest{0};  ///< round trip of those that have answered
    milliseconds slowest{0};
    bool manyAreSilent = false;  ///< as where the network drops what opens connections
    bool manyWereLate = false;   ///< and such have answered in the end: it does
  };
  static ConnectPatience of(const Known& known);

  /// How long nothing comes from a host that is farther than `nearest` or gone: long enough for two
  /// attempts.
  static milliseconds silenceOf(milliseconds nearest);
  /// The same where many say nothing: until the kernel's second attempt has been answered.
  static milliseconds silenceOfMany(milliseconds slowest);
};
