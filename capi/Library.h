#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "capi/HeldCore.h"
#include "capi/LogListener.h"
#include "capi/Selection.h"
#include "capi/Teller.h"
#include "vpn/include/Locks.h"

/// A library as one client has started it: its own teller and selections on a core that it may
/// share. Any thread may call anything.
class Library {
 public:
  /// Starts one. @param status receives how that went. @param error what is wrong, if it says more.
  /// @return null after a failure.
  static std::shared_ptr<Library> start(const StartPlan& plan, ahs_status& status,
                                        std::string& error);
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  /// See ahs_stop(). To be called once.
  void stop();

  /// A selection that is not started yet; null for a library that stops.
  std::shared_ptr<Selection> makeSelection(Selection::Client client, uint32_t reason);
  /// Null once it is stopped.
  std::shared_ptr<HeldCore> core() const;
  Teller& teller() { return *m_teller; }

 private:
  explicit Library(std::shared_ptr<Teller> teller);

  const std::shared_ptr<Teller> m_teller;
  const std::shared_ptr<Presences> m_presences;
  std::optional<LogListener> m_logListener;  // written by start and stop

  mutable CManualLock m_lock;
  std::shared_ptr<HeldCore> m_core AHS_GUARDED_BY(m_lock);
  bool m_isStopping AHS_GUARDED_BY(m_lock) = false;
  std::vector<std::weak_ptr<Selection>> m_selections AHS_GUARDED_BY(m_lock);
};
