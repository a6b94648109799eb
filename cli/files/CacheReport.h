#pragma once

#include <optional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/HeadendRTT.h"

/// One selection of the cache, for people. Texts are printable ASCII, other bytes as \xNN.
struct CachedSelection {
  std::string place;
  std::vector<std::string> candidates;
  unsigned long stored = 0;  ///< times are seconds since 1970-01-01 00:00 UTC
  unsigned long used = 0;    ///< the store counts as a use
  unsigned long expires = 0;
  bool isFuture = false;            ///< stored in the future, so it answers nothing
  bool isCurrent = false;           ///< within the clear-cache time
  bool isHere = false;              ///< its place is the present one
  std::vector<CHeadendRTT> ranked;  ///< nearest first
};

/// What the cache directory holds and what it is worth now.
struct CacheReport {
  std::string path;
  std::string problem;               ///< why it, or the first file that is wrong, is not used
  std::optional<std::string> place;  ///< the present one, if the resolver's settings can be read
  unsigned long now = 0;
  unsigned int clearCacheDays = 0;
  std::vector<CachedSelection> selections;  ///< those of this place first, then by last use
};

/// Reads the cache directory, whose files may be anybody's text, and the present place.
CacheReport readCacheReport(const std::string& directory, unsigned int clearCacheDays);

/// As a person reads it; lists are cut after some lines. Ends with a line feed.
std::string cacheReportAsText(const CacheReport& report);

/// As one JSON object and a line feed; the members are described in docs/cli.md.
std::string cacheReportAsJson(const CacheReport& report);
