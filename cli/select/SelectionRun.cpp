// A selection run and its one callback. The report is caught as the run hands it to the log, whole
// and unchanged, so that what a person sees is what the log has.

#include "cli/select/SelectionRun.h"

#include <string.h>

#include "vpn/Api/AHS/SelectionThread.h"
#include "vpn/Common/Logging/AppLog.h"

namespace {

// The function under whose name the run logs its report.
constexpr const char* ReportFunction = "logPingResults";

std::chrono::milliseconds since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                               start);
}

}  // namespace

SelectionRun::SelectionRun() : m_start(std::chrono::steady_clock::now()), m_isDelivered(false) {
  CAppLog::SetListener([this](const CAppLog::Record& record) {
    if (strcmp(record.function, ReportFunction) == 0) {
      const CAutoLockT<CMonitor> guard(m_lock);
      m_delivery.report = record.message;
    }
  });
}

SelectionRun::~SelectionRun() { CAppLog::SetListener(nullptr); }

STATUSCODE SelectionRun::start(unsigned int reason, const std::string& last,
                               std::unique_ptr<ProxyIfc> provider) {
  m_start = std::chrono::steady_clock::now();
  long status = 0;
  auto selection = std::make_unique<CHeadendSelection>(this, last, reason, status);
  if (status != 0) {
    return status;
  }
  selection->SetProxy(provider.release());
  m_thread = std::make_unique<SelectionThread>(std::move(selection));
  return m_thread->Start();
}

bool SelectionRun::waitForDelivery(std::chrono::milliseconds longest) {
  const auto limit = std::chrono::steady_clock::now() + longest;
  const CAutoLockT<CMonitor> guard(m_lock);
  while (!m_isDelivered && std::chrono::steady_clock::now() < limit) {
    m_lock.WaitUntil(limit);
  }
  return m_isDelivered;
}

SelectionResult SelectionRun::delivery() const {
  const CAutoLockT<CMonitor> guard(m_lock);
  return m_delivery;
}

std::chrono::milliseconds SelectionRun::elapsed() const { return since(m_start); }

bool SelectionRun::waitForEnd(std::chrono::milliseconds longest) {
  unsigned int exitCode = 0;
  return m_thread->WaitForCompletion(exitCode, static_cast<unsigned int>(longest.count())) !=
         THREAD_ERROR_TIMEOUT;
}

void SelectionRun::AHSSelectedHost(unsigned int /*reason*/,
                                   const std::vector<std::string>& headends, long status,
                                   const std::string& extraInfo) {
  const CAutoLockT<CMonitor> guard(m_lock);
  m_delivery.status = status;
  m_delivery.headends = headends;
  m_delivery.extraInfo = extraInfo;
  m_delivery.elapsed = since(m_start);
  m_isDelivered = true;
  m_lock.NotifyAll();
}
