// Starting and stopping one library. Its core goes when the last of its runs has ended, which is
// waited for, though not for ever.

#include "capi/Library.h"

#include <chrono>
#include <utility>

namespace {

/// How long the end of runs is waited for. A cancelled run ends within milliseconds, unless it asks
/// a slow disk or the system's proxy settings.
constexpr std::chrono::seconds LongestEnd{5};

}  // namespace

Library::Library(std::shared_ptr<Teller> teller)
    : m_teller(std::move(teller)), m_presences(std::make_shared<Presences>()) {}

Library::~Library() = default;

std::shared_ptr<Library> Library::start(const StartPlan& plan, ahs_status& status,
                                        std::string& error) {
  bool isUp = false;
  const std::shared_ptr<Teller> teller = Teller::make(plan.ownLoop, isUp);
  if (!isUp) {
    status = AHS_ERROR_OUT_OF_MEMORY;
    error = plan.ownLoop ? "the process has too many open descriptors" : "there is no thread";
    return nullptr;
  }
  std::shared_ptr<Library> library;
  try {
    library.reset(new Library(teller));
    if (plan.onLog != nullptr) {
      library->m_logListener.emplace(teller, plan.onLog, plan.logContext, plan.log.leastImportant);
    }
    const auto core = HeldCore::forPlan(plan, status, error);
    const CAutoLockT<CManualLock> guard(library->m_lock);
    library->m_core = core;
  } catch (...) {
    library.reset();
    teller->drop();
    throw;
  }
  if (library->core() == nullptr) {
    library.reset();
    teller->drop();
  }
  return library;
}

void Library::stop() {
  std::vector<std::weak_ptr<Selection>> selections;
  {
    const CAutoLockT<CManualLock> guard(m_lock);
    m_isStopping = true;
    selections.swap(m_selections);
  }
  for (const std::weak_ptr<Selection>& each : selections) {
    if (const auto selection = each.lock(); selection != nullptr) {
      selection->cancel();
      selection->endSocketCallbacks();
    }
  }
  m_presences->waitForNone(LongestEnd);
  m_logListener.reset();
  m_teller->close();
  std::shared_ptr<HeldCore> core;  // goes without the lock
  const CAutoLockT<CManualLock> guard(m_lock);
  core.swap(m_core);
}

std::shared_ptr<HeldCore> Library::core() const {
  const CAutoLockT<CManualLock> guard(m_lock);
  return m_core;
}

std::shared_ptr<Selection> Library::makeSelection(Selection::Client client, uint32_t reason) {
  client.teller = m_teller;
  const std::shared_ptr<HeldCore> up = core();
  if (up == nullptr) {
    return nullptr;
  }
  auto selection = std::make_shared<Selection>(up, m_presences, client, reason);
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isStopping) {
    return nullptr;
  }
  std::erase_if(m_selections, [](const auto& each) { return each.expired(); });
  m_selections.push_back(selection);
  return selection;
}
