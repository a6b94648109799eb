// Cancelling a task reaches its probes through a descriptor that all of them poll and nobody reads.

#include "vpn/Common/IP/ProbeTask.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include "vpn/Common/IP/SocketLoop.h"

ProbeTask::ProbeTask() : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_cancelled(false) {}

ProbeTask::~ProbeTask() {
  if (m_descriptor >= 0) {
    close(m_descriptor);
  }
}

std::shared_ptr<ProbeTask> ProbeTask::current() {
  return std::dynamic_pointer_cast<ProbeTask>(CTask::current());
}

void ProbeTask::noteConnecting(const RoundTripEvidence::Place& host) {
  const CAutoLockT<CManualLock> guard(m_evidenceLock);
  m_evidence.connecting(host, RoundTripEvidence::Clock::now());
}

void ProbeTask::noteOpened(const RoundTripEvidence::Place& host,
                           const RoundTripEvidence::Place& address, long long openingUs) {
  const CAutoLockT<CManualLock> guard(m_evidenceLock);
  m_evidence.opened(host, address, openingUs);
}

void ProbeTask::noteEnded(const RoundTripEvidence::Place& host) noexcept {
  const CAutoLockT<CManualLock> guard(m_evidenceLock);
  m_evidence.ended(host);
}

RoundTripEvidence::Verdict ProbeTask::weigh(const RoundTripEvidence::Place& address,
                                            const RoundTripEvidence::RoundTrips& seen) {
  const CAutoLockT<CManualLock> guard(m_evidenceLock);
  return m_evidence.weigh(address, seen, RoundTripEvidence::Clock::now());
}

void ProbeTask::cancel() noexcept {
  m_cancelled = true;
  if (m_descriptor >= 0) {
    eventfd_write(m_descriptor, 1);
  }
  SocketLoop::lookAtAll();
}
