// The locks of the client library.

#include "vpn/include/Locks.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

CManualLock::CManualLock(unsigned long spinCount) : m_spinCount(spinCount) {}

CManualLock::~CManualLock() = default;

void CManualLock::Lock() AHS_NO_THREAD_SAFETY_ANALYSIS {
  for (unsigned long attempt = 0; attempt < m_spinCount; ++attempt) {
    if (m_mutex.try_lock()) {
      return;
    }
#if defined(__x86_64__)
    _mm_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }
  m_mutex.lock();
}

void CManualLock::Unlock() AHS_NO_THREAD_SAFETY_ANALYSIS { m_mutex.unlock(); }

CMonitor::CMonitor() = default;

CMonitor::~CMonitor() = default;

void CMonitor::Lock() AHS_NO_THREAD_SAFETY_ANALYSIS { m_mutex.lock(); }

void CMonitor::Unlock() AHS_NO_THREAD_SAFETY_ANALYSIS { m_mutex.unlock(); }

void CMonitor::wait() {
  std::unique_lock<std::mutex> held(m_mutex, std::adopt_lock);
  m_changed.wait(held);
  held.release();
}

void CMonitor::notifyAll() { m_changed.notify_all(); }
