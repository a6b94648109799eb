// Creation of detached threads. Everything that can fail happens before the thread exists, so that
// a caller either has a running thread or has handed nothing over.

#include "vpn/Common/Utility/DetachedThread.h"

#include <limits.h>
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

int setAttributes(pthread_attr_t& attributes, std::size_t stackSize) {
  const sigset_t blocked = blockedSignals();
  int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (error == 0) {
    const auto smallest = static_cast<std::size_t>(PTHREAD_STACK_MIN);
    error = pthread_attr_setstacksize(&attributes, std::max(stackSize, smallest));
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
