#pragma once

#include <signal.h>

/// While one lives, a write of its thread beyond the limit of file sizes (`ulimit -f`) fails with
/// EFBIG and raises no SIGXFSZ, which would end the host. Lives on the thread's stack; keeps errno.
class CFileSizeGuard {
 public:
  CFileSizeGuard() noexcept;
  ~CFileSizeGuard();
  CFileSizeGuard(const CFileSizeGuard&) = delete;
  CFileSizeGuard& operator=(const CFileSizeGuard&) = delete;

 private:
  sigset_t m_signal{};
  sigset_t m_before{};
  bool m_wasPending;
};
