// Stands between the library and the one function that gives it threads.

#include "tests/support/RefusedThreads.h"

#include <cerrno>
#include <cstddef>

namespace tests {

std::atomic<bool> refusesThreads{false};

}  // namespace tests

extern "C" {

using ThreadBody = void* (*)(void*);
// startDetachedThread
int __real__Z19startDetachedThreadPFPvS_ES_m(ThreadBody, void*, std::size_t) noexcept;  // NOLINT
int __wrap__Z19startDetachedThreadPFPvS_ES_m(ThreadBody, void*, std::size_t) noexcept;  // NOLINT

int __wrap__Z19startDetachedThreadPFPvS_ES_m(ThreadBody body, void* argument,  // NOLINT
                                             std::size_t stackSize) noexcept {
  return tests::refusesThreads
             ? EAGAIN
             : __real__Z19startDetachedThreadPFPvS_ES_m(body, argument, stackSize);
}
}
