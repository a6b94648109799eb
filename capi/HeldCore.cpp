// One core a process, counted. Whoever brings it up or takes it down takes turns with others; while
// somebody has the turn no lock is held.

#include "capi/HeldCore.h"

#include <utility>

#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/include/Locks.h"

namespace {

/// Used like a lock.
class AHS_CAPABILITY("mutex") Turn {
 public:
  Turn();
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

Turn::Turn() = default;

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

/// Makes the core unless it is up. @return whether one for this plan is.
bool bringUp(Process& all, const StartPlan& plan, ahs_status& status, std::string& error)
    AHS_REQUIRES(all.turn) {
  if (all.core != nullptr) {
    if (all.core->plan().isSame(plan)) {
      return true;
    }
    status = AHS_ERROR_ALREADY_STARTED;
    error =
        "the library is up with other options; stop it, or start with equal ones. After a stop "
        "it is up until its selections have ended, which a slow disk or the system's proxy "
        "settings may hold up";
    return false;
  }
  STATUSCODE started = 0;
  auto core = std::make_unique<const Core>(plan, started);
  if (started == 0) {
    all.core = std::move(core);
    return true;
  }
  // The process has brought up the classes by itself.
  const bool exists = started == PREFERENCEMGR_ERROR_ALREADY_EXISTS ||
                      started == EXECUTIONCONTEXT_ERROR_ALREADY_EXISTS;
  status = exists ? AHS_ERROR_ALREADY_STARTED : static_cast<ahs_status>(started);
  return false;
}

}  // namespace

std::shared_ptr<HeldCore> HeldCore::forPlan(const StartPlan& plan, ahs_status& status,
                                            std::string& error) {
  Process& all = process();
  std::shared_ptr<HeldCore> hold;
  const CAutoLockT<Turn> turn(all.turn);
  if (bringUp(all, plan, status, error)) {
    hold.reset(new HeldCore(all.core.get()));
    ++all.holds;
  }
  return hold;
}

HeldCore::~HeldCore() {
  Process& all = process();
  const CAutoLockT<Turn> turn(all.turn);
  if (--all.holds == 0) {
    all.core.reset();
  }
}
