// A count, and the wait for its end.

#include "capi/Presences.h"

#include <utility>

#include "vpn/Common/Utility/MonotonicClock.h"

Presences::Presences() = default;

Presences::~Presences() = default;

Presences::Token::Token(std::shared_ptr<Presences> presences) : m_presences(std::move(presences)) {
  const CAutoLockT<CMonitor> guard(m_presences->m_lock);
  ++m_presences->m_count;
}

Presences::Token::~Token() {
  const CAutoLockT<CMonitor> guard(m_presences->m_lock);
  if (--m_presences->m_count == 0) {
    m_presences->m_lock.NotifyAll();
  }
}

bool Presences::waitForNone(std::chrono::milliseconds longest) {
  const auto limit = MonotonicClock::now() + longest;
  const CAutoLockT<CMonitor> guard(m_lock);
  while (m_count > 0 && MonotonicClock::now() < limit) {
    m_lock.WaitUntil(limit);
  }
  return m_count == 0;
}
