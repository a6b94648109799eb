#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "cli/show/SelectionResult.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ProxyIfc.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

/// One selection run seen by its client: starts it on a thread, hears its result and its report.
/// The client library must be up. An object whose run has started must not be destroyed before the
/// run has ended.
class SelectionRun : public ClientIfcBase {
 public:
  SelectionRun();
  ~SelectionRun() override;

  /// Starts the run. To be called once.
  /// @param provider of the proxy and the credentials for it; null for none.
  /// @return 0, or why there is no run; nothing is delivered then.
  STATUSCODE start(unsigned int reason, const std::string& last,
                   std::unique_ptr<ProxyIfc> provider);

  /// Waits for the result. @return whether it is there.
  bool waitForDelivery(std::chrono::milliseconds longest);

  /// What the run has delivered: status, headends, extra information, report and time.
  SelectionResult delivery() const;

  /// Time since the start.
  std::chrono::milliseconds elapsed() const;

  /// Waits until the run's thread has ended, which after a time-out is later than the result.
  /// @return whether it has.
  bool waitForEnd(std::chrono::milliseconds longest);

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

 private:
  std::chrono::steady_clock::time_point m_start;  // written before the run's threads exist
  std::unique_ptr<CThread> m_thread;              // the owner's thread's

  mutable CMonitor m_lock;  // notified of the delivery
  bool m_isDelivered AHS_GUARDED_BY(m_lock);
  SelectionResult m_delivery AHS_GUARDED_BY(m_lock);
};
