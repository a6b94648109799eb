#pragma once

#include <atomic>

namespace tests {

/// Whether the system refuses the library its threads. For programs that are linked with
/// RefusedThreads.cpp and --wrap=_Z19startDetachedThreadPFPvS_ES_m.
extern std::atomic<bool> refusesThreads;

}  // namespace tests
