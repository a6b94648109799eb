#pragma once

#include <string>

#include "cli/Json.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Common/IP/HttpProbe.h"

/// The result as a person reads it: the selection report, the ordered list, the headends without a
/// result and why, and the status in words. Ends with a line feed.
std::string textOutput(const SelectionResult& result);

/// The result as one JSON object and a line feed; the members are described in docs/cli.md.
std::string jsonOutput(const SelectionResult& result);

/// The first headend and a line feed; nothing when there is none.
std::string quietOutput(const SelectionResult& result);

/// Microseconds as milliseconds; null for what did not happen, which is less than 0.
Json millisecondsAsJson(long long microseconds);

/// One probe as all commands show it; the members are described in docs/cli.md.
Json probeAsJson(const HttpProbe::Report& probe);
