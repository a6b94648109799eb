// Cancelling a task reaches its probes through a descriptor that all of them poll and nobody reads.

#include "vpn/Common/IP/ProbeTask.h"

#include <sys/eventfd.h>
#include <unistd.h>

ProbeTask::ProbeTask() : m_descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_cancelled(false) {}

ProbeTask::~ProbeTask() {
  if (m_descriptor >= 0) {
    close(m_descriptor);
  }
}

std::shared_ptr<ProbeTask> ProbeTask::current() {
  return std::dynamic_pointer_cast<ProbeTask>(CTask::current());
}

void ProbeTask::cancel() noexcept {
  m_cancelled = true;
  if (m_descriptor >= 0) {
    eventfd_write(m_descriptor, 1);
  }
}
