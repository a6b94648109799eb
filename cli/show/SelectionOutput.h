#pragma once

#include <string>

#include "cli/Json.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Common/IP/HttpProbe.h"

/// The result for a person: why the last headend stays, the ordered list, the headends without a
/// result and why, and the status in words; `explains` adds the explanation. Ends with a line feed.
std::string textOutput(const SelectionResult& result, bool explains = false);

/// The result as one JSON object and a line feed; docs/cli.md describes the members.
std::string jsonOutput(const SelectionResult& result);

/// The first headend and a line feed; empty if there is no headend.
std::string quietOutput(const SelectionResult& result);

/// Microseconds as milliseconds; null for a negative time, which did not happen.
Json millisecondsAsJson(long long microseconds);

/// One probe in the form of all commands; docs/cli.md describes the members.
Json probeAsJson(const HttpProbe::Report& probe);
