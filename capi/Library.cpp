// Starting and stopping one library. Its core goes when its last run has ended; stopping waits for
// that, but not for ever.

#include "capi/Library.h"

#include <chrono>

namespace {

/// How long to wait for the end of runs. A cancelled run ends within milliseconds, unless it waits
/// for a slow disk.
constexpr std::chrono::seconds LongestEnd{5};

}  // namespace

Library::Library() : m_runs(std::make_shared<RunsEnd>()) {}

Library::~Library() {
  if (m_logListener != nullptr) {
    m_logListener->end();
  }
  if (m_teller != nullptr) {
    m_teller->drop();
  }
}

std::shared_ptr<Library> Library::start(const StartPlan& plan, ahs_status& status,
                                        std::string& error) {
  std::shared_ptr<Library> library(new Library);
  library->m_teller = Teller::make(plan.ownLoop);
  if (library->m_teller == nullptr) {
    status = AHS_ERROR_OUT_OF_MEMORY;
    error = plan.ownLoop ? "the process has too many open descriptors"
                         : "the system gives no more threads";
    return nullptr;
  }
  if (plan.onLog != nullptr) {
    library->m_logListener = std::make_shared<LogListener>(
        library->m_teller, plan.onLog, plan.logContext, plan.log.leastImportant);
    library->m_logListener->begin();
  }
  const auto core = Core::hold(plan, status, error);
  if (core == nullptr) {
    return nullptr;
  }
  const CAutoLockT<CManualLock> guard(library->m_lock);
  library->m_core = core;
  library->m_runsEnd = library->m_runs->end.get_future();
  return library;
}

void Library::stop() {
  std::vector<std::weak_ptr<Selection>> selections;
  {
    const CAutoLockT<CManualLock> guard(m_lock);
    m_runs.reset();
    selections.swap(m_selections);
  }
  for (const std::weak_ptr<Selection>& each : selections) {
    if (const auto selection = each.lock(); selection != nullptr) {
      selection->cancel();
      selection->endSocketCallbacks();
    }
  }
  m_runsEnd.wait_for(LongestEnd);
  if (m_logListener != nullptr) {
    m_logListener->end();
  }
  m_teller->close();
  std::shared_ptr<const Core> core;  // destroyed after the lock is released
  const CAutoLockT<CManualLock> guard(m_lock);
  core.swap(m_core);
}

std::shared_ptr<const Core> Library::core() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_core;
}

std::shared_ptr<Selection> Library::makeSelection(const ahs_request& request, ahs_callback callback,
                                                  void* context) {
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_runs == nullptr) {
    return nullptr;
  }
  auto selection =
      std::make_shared<Selection>(m_teller, m_core, m_runs, request, callback, context);
  std::erase_if(m_selections, [](const auto& each) { return each.expired(); });
  m_selections.push_back(selection);
  return selection;
}
