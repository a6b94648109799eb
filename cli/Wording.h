#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

/// Phrases that the commands share, so that all use the same words.
class Wording {
 public:
  Wording() = delete;

  /// The words, with `between` them.
  static std::string joined(const std::vector<std::string>& words,
                            const std::string& between = ", ");

  /// "1 day", "2 days"; `many` for nouns that do not take an s.
  static std::string counted(std::size_t number, const std::string& one,
                             const std::string& many = "");

  /// Lines broken at blanks to fit 80 columns, what follows indented by `more`. Longer words stay.
  static std::string wrapped(const std::string& lines, std::size_t more = 2);

  /// A host as typed, without a name's final dot, an IPv6 address without brackets in brackets.
  static std::string asHost(const std::string& text);

  /// Why a host cannot be used, and what a host is; empty if it can be used.
  static std::string hostError(const std::string& host);

  /// Why a value is none of the words, and which one may be meant; empty if it is one.
  static std::string errorAmong(const std::string& value, const std::vector<std::string>& words);

  /// A number in decimal with `digits` digits after the point.
  static std::string fixed(double value, int digits);

  /// A time span in the largest unit, up to days, that fits twice: "119 minutes", "2 hours".
  static std::string duration(std::size_t seconds);

  /// The present time in the machine's zone, for people.
  /// @param withZone for a reader in another zone: "2026-01-31 12:00:00 +0100".
  static std::string localTime(bool withZone = false);

  /// A time in UTC as ISO 8601: "2026-01-31T12:00:00Z"; for invalid parts, seconds since 1970.
  static std::string utc(const std::tm& parts);
  static std::string utc(std::time_t time);
};
