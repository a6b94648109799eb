#pragma once

#include "vpn/Api/AHS/CacheEntry.h"

/// Ages of cached selections, in seconds of the time of day. Time may go backwards: what lies in
/// the future counts as old, not as eternal. Any thread may call these.
namespace SelectionTimes {

/// The age of an entry from the future: older than all others. Nobody can say how old it is.
constexpr unsigned long BeyondAge = ~0UL;

/// Seconds since 1970-01-01 00:00 UTC.
unsigned long now();

/// Seconds since the entry was stored, or `BeyondAge`.
unsigned long ageOf(const CCacheEntry& entry);

/// Whether an entry has passed the clear-cache time, in days; 0 days let none answer.
bool isExpired(const CCacheEntry& entry, unsigned int clearCacheDays);

/// When an entry was used last, its store included. @param use 0 for none; a stamp or a use of the
/// future counts for nothing.
unsigned long lastUse(const CCacheEntry& entry, unsigned long use, unsigned long now);

/// Of two times of use the later one that is not in the future; the first if both are.
unsigned long laterUse(unsigned long first, unsigned long second, unsigned long now);

}  // namespace SelectionTimes
