// The part of the door that exists once per process, and is counted.

#include "capi/Core.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/include/InstanceSmartPtr.h"
#include "vpn/include/Locks.h"

namespace {

/// Used like a lock, but its holder may wait for threads and disk, and holds no lock meanwhile.
class AHS_CAPABILITY("mutex") Turn {
 public:
  void Lock() AHS_ACQUIRE() {
    const CAutoLockT<CMonitor> guard(m_lock);
    while (m_isTaken) {
      m_lock.wait();
    }
    m_isTaken = true;
  }
  void Unlock() AHS_RELEASE() {
    const CAutoLockT<CMonitor> guard(m_lock);
    m_isTaken = false;
    m_lock.notifyAll();
  }

 private:
  CMonitor m_lock;  // notified when the turn is free
  bool m_isTaken AHS_GUARDED_BY(m_lock) = false;
};

/// Never freed, as the core may be taken down at exit.
struct Process {
  Turn turn;
  std::unique_ptr<const Core> core AHS_GUARDED_BY(turn);
  unsigned int holds AHS_GUARDED_BY(turn) = 0;
};

Process& process() {
  static Process& instance = *new Process;
  return instance;
}

void letGo(const Core* /*core*/) {
  Process& all = process();
  const CAutoLockT<Turn> turn(all.turn);
  if (--all.holds == 0) {
    all.core.reset();
  }
}

}  // namespace

std::shared_ptr<const Core> Core::hold(const StartPlan& plan, ahs_status& status,
                                       std::string& error) {
  Process& all = process();
  const Core* held = nullptr;
  {
    const CAutoLockT<Turn> turn(all.turn);
    if (all.core == nullptr) {
      STATUSCODE started = 0;
      auto core = std::make_unique<const Core>(plan, started);
      if (started != 0) {
        // The process has brought up the classes by itself.
        const bool exists = started == PREFERENCEMGR_ERROR_ALREADY_EXISTS ||
                            started == EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS;
        status = exists ? AHS_ERROR_ALREADY_STARTED : static_cast<ahs_status>(started);
        return nullptr;
      }
      all.core = std::move(core);
    } else if (!all.core->m_plan.isSame(plan)) {
      status = AHS_ERROR_ALREADY_STARTED;
      error =
          "the library is up with other options; stop it, or start with equal ones. After a stop "
          "it is up until its selections have ended, which a slow disk may hold up";
      return nullptr;
    }
    ++all.holds;
    held = all.core.get();
  }
  return {held, letGo};  // without memory for this, the core is released
}

Core::Core(const StartPlan& plan, STATUSCODE& status) : m_plan(plan) {
  CClientLibrary::Options options{plan.sources, plan.log, "", plan.ignoresEnvironment};
  m_library = std::make_unique<CClientLibrary>(options, status);
  if (status != 0) {
    return;
  }
  status = CSelectionCache::createSingletonInstance(m_cache);
  if (status == 0) {
    look(options.logProblem);
  }
}

Core::~Core() {
  if (m_cache != nullptr) {
    m_cache->releaseInstance();
  }
}

void Core::look(const std::string& logProblem) {
  m_candidates = std::make_shared<const std::vector<Candidate>>(findCandidates());
  const CInstanceSmartPtr<PreferenceMgr> preferences;
  std::string proxy;
  m_usesSystemProxy = preferences->getPreferenceValue(ProxySettings, proxy) == 0 &&
                      proxy == PreferenceBase::ProxySystem;
  m_fileProblems = preferences->getProblems();
  if (!logProblem.empty()) {
    m_fileProblems.push_back({m_plan.log.file, 0, 0, "the log cannot be written: " + logProblem});
  }
  const std::string& directory = m_plan.sources.profileDirectory;
  if (!directory.empty() && access(directory.c_str(), F_OK) != 0 && errno == ENOENT) {
    m_fileProblems.push_back({directory, 0, 0, "the directory of the profiles does not exist"});
  }
  for (const FileProblem& problem : m_fileProblems) {
    m_problems.push_back({sizeof(ahs_problem), problem.file.c_str(), problem.line, problem.column,
                          problem.text.c_str()});
  }
  for (const ahs_problem& problem : m_problems) {
    m_problemPointers.push_back(&problem);
  }
}
