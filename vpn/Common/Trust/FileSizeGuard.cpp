// The signal comes to the thread that writes. It is blocked there, and taken back once it is
// pending, unless the host's own was pending before.

#include "vpn/Common/Trust/FileSizeGuard.h"

#include <time.h>

#include <cerrno>

CFileSizeGuard::CFileSizeGuard() noexcept {
  sigemptyset(&m_signal);
  sigaddset(&m_signal, SIGXFSZ);
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  m_wasPending = sigismember(&pending, SIGXFSZ) == 1;
  pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
}

CFileSizeGuard::~CFileSizeGuard() {
  const int keptErrno = errno;
  const timespec atOnce{};
  while (!m_wasPending && sigtimedwait(&m_signal, nullptr, &atOnce) < 0 && errno == EINTR) {
  }
  pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  errno = keptErrno;
}
