#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "capi/HeldCore.h"
#include "capi/Presences.h"
#include "capi/Result.h"
#include "capi/Teller.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

/// One selection as its client sees it: hears the run, keeps the result, and has the client told of
/// it once. What the run says after the result is there, or after a cancel, is dropped. Lives as
/// long as its handle, its run's threads and its messages. Any thread may call anything.
class Selection : public ClientIfcBase,
                  public Teller::Subject,
                  public std::enable_shared_from_this<Selection> {
 public:
  /// Whom to tell, and what.
  struct Client {
    std::shared_ptr<Teller> teller;
    ahs_callback callback = nullptr;
    void* context = nullptr;
    ahs_progress_callback progress = nullptr;
    void* progressContext = nullptr;
  };

  /// @param core held until the last thread of the run has ended.
  /// @param presences counts this from now on until then.
  Selection(const std::shared_ptr<HeldCore>& core, const std::shared_ptr<Presences>& presences,
            const Client& client, uint32_t reason);
  ~Selection() override;

  /// Starts the run. To be called once.
  /// @param request checked. @param status receives why there is no run. @return what is wrong,
  /// empty if nothing is.
  std::string start(const ahs_request& request, STATUSCODE& status);

  /// One that is not started yet is cancelled as soon as it is.
  void cancel() noexcept;
  /// Lets no socket callback come from now on, and waits for one that runs.
  void endSocketCallbacks();
  /// Cancels, and has nothing told any more.
  void abandon();
  /// @return null when the time has passed. @param timeoutMs AHS_WAIT_FOREVER for no limit.
  const ahs_result* wait(uint32_t timeoutMs);

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

 private:
  class Run;
  class ResultMessage;
  class ProbeMessage;

  bool isCancelWanted();
  bool endUnstarted();
  std::shared_ptr<Run> run();
  std::vector<std::string> last();
  Result resultOf(const std::vector<std::string>& headends, STATUSCODE status,
                  const std::string& realm) noexcept;
  void settle(Result&& result);
  void noteProbe(const HttpProbe::Report& report, bool ended);
  uint32_t elapsedMs() const;

  const std::shared_ptr<const std::vector<Candidate>> m_candidates;
  const Client m_client;
  const uint32_t m_reason;
  const std::chrono::steady_clock::time_point m_start;
  CMonitor m_lock;  // notified of the result; taken before the teller's
  std::shared_ptr<Run> m_unstarted AHS_GUARDED_BY(m_lock);  // until `start` is through
  bool m_isCancelWanted AHS_GUARDED_BY(m_lock) = false;     // before that
  std::weak_ptr<Run> m_run AHS_GUARDED_BY(m_lock);
  std::vector<std::string> m_last AHS_GUARDED_BY(m_lock);  // the headend used last, or nothing
  bool m_isDone AHS_GUARDED_BY(m_lock) = false;
  Result m_result;  // written once, before m_isDone; read by those who have seen that
  Teller::Messages m_resultMessage AHS_GUARDED_BY(m_lock);
  // Of the measurement so far.
  uint32_t m_probesStarted AHS_GUARDED_BY(m_lock) = 0;
  uint32_t m_probesEnded AHS_GUARDED_BY(m_lock) = 0;
  std::set<const Candidate*> m_answered AHS_GUARDED_BY(m_lock);
};
