// Starting and stopping. Whoever starts or stops a core takes turns with others in the process, so
// that a core is up once. Nobody has the turn while clients are called or runs are waited for.

#include "capi/Library.h"

#include <chrono>
#include <utility>

#include "vpn/Common/Utility/ExecutionContext.h"

namespace {

/// How long the end of runs is waited for. A cancelled run ends within milliseconds, unless it asks
/// a slow disk or the system's proxy settings.
constexpr std::chrono::seconds LongestEnd{5};

/// The turn to start or stop. It is used like a lock, but while somebody has it no lock is held.
class AHS_CAPABILITY("mutex") Turn {
 public:
  void Lock() AHS_ACQUIRE() {
    const CAutoLockT<CMonitor> guard(m_lock);
    while (m_isTaken) {
      m_lock.Wait();
    }
    m_isTaken = true;
  }
  void Unlock() AHS_RELEASE() {
    const CAutoLockT<CMonitor> guard(m_lock);
    m_isTaken = false;
    m_lock.NotifyAll();
  }

 private:
  CMonitor m_lock;  // notified when the turn is free
  bool m_isTaken AHS_GUARDED_BY(m_lock) = false;
};

/// What is up in the process. Never freed, as what it guards may be stopped at exit.
struct Process {
  Turn turn;
  std::weak_ptr<const Core> core AHS_GUARDED_BY(turn);
};

Process& process() {
  static Process& instance = *new Process;
  return instance;
}

/// @return the core for a plan, made or shared; null after a failure.
std::shared_ptr<const Core> coreFor(const StartPlan& plan, ahs_status& status, std::string& error)
    AHS_REQUIRES(process().turn) {
  if (auto core = process().core.lock(); core != nullptr) {
    if (core->plan().isSame(plan)) {
      return core;
    }
    status = AHS_ERROR_ALREADY_STARTED;
    error = "the library is up with other options; stop it, or start with equal ones";
    return nullptr;
  }
  STATUSCODE started = 0;
  auto core = std::make_shared<const Core>(plan, started);
  if (started == 0) {
    process().core = core;
    return core;
  }
  // A selection that has outlived the library it was started with holds on to one or the other.
  const bool exists = started == PREFERENCEMGR_ERROR_ALREADY_EXISTS ||
                      started == EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS;
  status = exists ? AHS_ERROR_ALREADY_STARTED : static_cast<ahs_status>(started);
  error = exists ? "a selection of the former library still waits for a disk or for the system's "
                   "proxy settings; start again later"
                 : "";
  return nullptr;
}

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
  try {
    std::shared_ptr<Library> library(new Library(teller));
    const CAutoLockT<Turn> guard(process().turn);
    if (plan.onLog != nullptr) {
      library->m_logListener.emplace(teller, plan.onLog, plan.logContext, plan.log.leastImportant);
    }
    library->m_core = coreFor(plan, status, error);
    if (library->m_core != nullptr) {
      return library;
    }
    library->m_logListener.reset();
  } catch (...) {
    teller->close();
    throw;
  }
  teller->close();
  return nullptr;
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
  {
    const CAutoLockT<Turn> guard(process().turn);
    m_logListener.reset();
  }
  m_teller->close();
  const CAutoLockT<Turn> guard(process().turn);
  m_core.reset();
}

std::shared_ptr<Selection> Library::makeSelection(Selection::Client client, uint32_t reason) {
  client.teller = m_teller;
  const CAutoLockT<CManualLock> guard(m_lock);
  if (m_isStopping) {
    return nullptr;
  }
  std::erase_if(m_selections, [](const auto& selection) { return selection.expired(); });
  auto selection = std::make_shared<Selection>(m_core->candidates(), client, reason);
  m_selections.push_back(selection);
  return selection;
}
