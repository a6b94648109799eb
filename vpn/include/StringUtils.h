#pragma once

#include <string>

/// String functions shared by the client library. All are pure functions that any thread may call.
class CStringUtils {
 public:
  CStringUtils() = delete;

  /// A copy of `text` with the ASCII letters A to Z in lower case; every other byte, those of UTF-8
  /// sequences included, is unchanged. The locale plays no part, so a cache key reads the same on
  /// every machine.
  static std::string toLower(const std::string& text);

  /// `text` fit for one line of a log or a terminal: control characters, bytes above 126 and the
  /// backslash become \xNN, and what exceeds `maxLength` characters is cut and marked "...".
  static std::string printable(const std::string& text, std::size_t maxLength = 200);

  /// Wipes a secret: sets every character of the string's buffer to 0 in place, also those beyond
  /// its end, in a way that the optimiser keeps, then empties the string. Throws nothing.
  static void wipe(std::string& secret);
};
