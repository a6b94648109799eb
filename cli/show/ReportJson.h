#pragma once

#include "cli/Json.h"
#include "vpn/Common/IP/HttpProbe.h"

/// Microseconds as milliseconds; null for what did not happen, which is less than 0.
Json millisecondsAsJson(long long microseconds);

/// One probe as all commands show it; the members are described in docs/cli.md.
Json probeAsJson(const HttpProbe::Report& probe);
