#pragma once

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "capi/Core.h"
#include "capi/LogListener.h"
#include "capi/Selection.h"
#include "capi/Teller.h"
#include "vpn/include/Locks.h"

/// A library as one client has started it: its own teller and selections, on a core that others may
/// share. Any thread may call anything.
class Library {
 public:
  /// Starts one. @param status receives the outcome. @param error receives what is wrong, if known.
  /// @return null after a failure.
  static std::shared_ptr<Library> start(const StartPlan& plan, ahs_status& status,
                                        std::string& error);
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  /// See ahs_stop(). To be called once.
  void stop();

  /// A selection that is not started yet; null for a library that stops.
  /// @param request checked.
  std::shared_ptr<Selection> makeSelection(const ahs_request& request, ahs_callback callback,
                                           void* context);
  /// Null once it is stopped.
  std::shared_ptr<const Core> core() const;
  Teller& teller() { return *m_teller; }

 private:
  Library();

  // Written by start and stop.
  std::shared_ptr<Teller> m_teller;
  std::shared_ptr<LogListener> m_logListener;
  std::future<void> m_runsEnd;

  mutable CManualLock m_lock;
  std::shared_ptr<const Core> m_core AHS_GUARDED_BY(m_lock);
  std::shared_ptr<RunsEnd> m_runs AHS_GUARDED_BY(m_lock);  // null once it stops
  std::vector<std::weak_ptr<Selection>> m_selections AHS_GUARDED_BY(m_lock);
};
