#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

/// Turns of speech that the commands share, so that all of them say a thing alike.
class Wording {
 public:
  Wording() = delete;

  /// The words, with `between` them.
  static std::string joined(const std::vector<std::string>& words,
                            const std::string& between = ", ");

  /// "1 day", "2 days"; `many` for nouns that do not take an s.
  static std::string counted(std::size_t number, const std::string& one,
                             const std::string& many = "");

  /// What is wrong with a host that a person named, and what a host is; empty if it can be used.
  static std::string hostError(const std::string& host);

  /// A number in decimal with so many digits after the point.
  static std::string fixed(double value, int digits);

  /// A span of time in the largest unit, up to days, that it has twice: "119 minutes", "2 hours".
  static std::string duration(std::size_t seconds);

  /// The present time in the zone of the machine, as people write it.
  /// @param withZone for what is read elsewhere: "2026-01-31 12:00:00 +0100".
  static std::string localTime(bool withZone = false);

  /// A point of time in UTC, as ISO 8601 writes it: "2026-01-31T12:00:00Z"; seconds since 1970 for
  /// one that no calendar has.
  static std::string utc(const std::tm& parts);
  static std::string utc(std::time_t time);
};
