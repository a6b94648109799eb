// Creation of detached threads. Everything that can fail happens before the thread exists, so that
// a caller either has a running thread or has handed nothing over.

#include "vpn/Common/Utility/DetachedThread.h"

#include <limits.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>

namespace {

// A fault raised while its signal is blocked kills the process without any handler, so that a host
// would lose its crash report.
constexpr int FaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS};

sigset_t blockedSignals() {
  sigset_t blocked;
  sigfillset(&blocked);
  for (const int fault : FaultSignals) {
    sigdelset(&blocked, fault);
  }
  return blocked;
}

/// glibc takes the static thread-local storage, the host's too, out of each thread's stack. Counts
/// what any module may have there.
std::size_t threadLocalStorage() {
  static const std::size_t all = [] {
    std::size_t sum = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* module, std::size_t, void* total) {
          for (int i = 0; i < module->dlpi_phnum; ++i) {
            const auto& part = module->dlpi_phdr[i];
            *static_cast<std::size_t*>(total) +=
                part.p_type == PT_TLS ? part.p_memsz + part.p_align : 0;
          }
          return 0;
        },
        &sum);
    return sum;
  }();
  return all;
}

int setAttributes(pthread_attr_t& attributes, std::size_t stackSize) {
  const sigset_t blocked = blockedSignals();
  int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error == 0) {
    const auto smallest = static_cast<std::size_t>(PTHREAD_STACK_MIN);
    constexpr std::size_t Page = 4096;
    const std::size_t size = std::max(stackSize, smallest) + threadLocalStorage();
    error = pthread_attr_setstacksize(&attributes, (size + Page - 1) / Page * Page);
  }
  if (error == 0) {
    error = pthread_attr_setsigmask_np(&attributes, &blocked);
  }
  return error;
}

}  // namespace

int startDetachedThread(void* (*body)(void*), void* argument, std::size_t stackSize) noexcept {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) {
    return error;
  }
  error = setAttributes(attributes, stackSize);
  if (error == 0) {
    pthread_t thread;
    error = pthread_create(&thread, &attributes, body, argument);
  }
  pthread_attr_destroy(&attributes);
  return error;
}
