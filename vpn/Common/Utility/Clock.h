#pragma once

/// Milliseconds on the monotonic clock (clock_gettime(2), CLOCK_MONOTONIC), which no change of the
/// date moves. Only differences mean anything; callers that keep 32 bits take them modulo 2^32.
unsigned long GetCurrentTimeMillis();
