#pragma once

#include "vpn/Common/Utility/ApiRunnable.h"

/// Deletes a task that others may hold. Out of line: a compiler that sees the task used after its
/// delete expression warns, and in a test of late holders that use is meant.
[[gnu::noinline]] inline void giveUp(ApiRunnable* task) { delete task; }
