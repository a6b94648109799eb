#pragma once

#include <string>
#include <vector>

/// Where the machine is, as its resolver sees it: one "nameserver ADDRESS" for each name server and
/// one "search DOMAIN" for each search domain, in no particular order, printable ASCII only.
///
/// Read afresh from the system's settings at each call. Any thread may call it.
/// @return false when the settings cannot be read; `place` is then left alone.
bool readResolverPlace(std::vector<std::string>& place);
