#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "capi/Core.h"
#include "capi/Result.h"
#include "capi/Teller.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

/// Held by a library and each of its runs; sets `end` when the last one releases it.
struct RunsEnd {
  ~RunsEnd() { end.set_value(); }

  std::promise<void> end;
};

/// One selection as its client sees it: hears the run, keeps the result, and has the client told
/// once. Ignores the run after the result or a cancel. Lives as long as its handle, its run's
/// threads and its messages. Any thread may call anything.
class Selection : public ClientIfcBase,
                  public Teller::Subject,
                  public std::enable_shared_from_this<Selection> {
 public:
  /// @param core, runs held until the last thread of the run has ended.
  /// @param request checked.
  Selection(std::shared_ptr<Teller> teller, std::shared_ptr<const Core> core,
            std::shared_ptr<RunsEnd> runs, const ahs_request& request, ahs_callback callback,
            void* context);
  ~Selection() override;

  /// Starts the run, unless it was cancelled before. To be called once, with the same request.
  /// @param status receives why there is no run. @return what is wrong, empty if nothing is.
  std::string start(const ahs_request& request, STATUSCODE& status);

  void cancel() noexcept;
  /// Refuses further socket callbacks, and waits for one that runs.
  void endSocketCallbacks();
  /// Cancels, and tells the client nothing more.
  void abandon();
  /// @return null when the time has passed. @param timeoutMs AHS_WAIT_FOREVER for no limit.
  const ahs_result* wait(uint32_t timeoutMs);

  void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends, long status,
                       const std::string& extraInfo) override;

 private:
  class Run;

  SelectionRecord::Terms termsOf(const ahs_request& request, std::vector<std::string> way) const;
  std::shared_ptr<Run> run();
  Result resultOf(const std::vector<std::string>& headends, STATUSCODE status,
                  const std::string& realm) noexcept;
  void settle(Result&& result);
  void tellProbe(const HttpProbe::Report& report, const SelectionRecord::Progress& progress,
                 bool ended) AHS_REQUIRES(m_lock);
  SelectionRecord::Rules rules() const;
  void tellDecision(const SelectionRecord::Decided& decision);
  uint32_t elapsedMs() const;

  const std::shared_ptr<Teller> m_teller;
  std::shared_ptr<const Core> m_core;  // until `start`, and so are the runs
  std::shared_ptr<RunsEnd> m_runs;
  const std::shared_ptr<const std::vector<Candidate>> m_candidates;
  const Candidate* const m_last;  // the headend used last, null for none that takes part
  const uint32_t m_reason;
  const ahs_callback m_callback;
  void* const m_context;
  const ahs_progress_callback m_progress;
  void* const m_progressContext;
  const ahs_decision_callback m_decision;
  void* const m_decisionContext;
  const std::chrono::steady_clock::time_point m_start;
  CMonitor m_lock;  // notified of the result; taken before the teller's
  std::weak_ptr<Run> m_run AHS_GUARDED_BY(m_lock);
  bool m_isDone AHS_GUARDED_BY(m_lock) = false;
  Result m_result;  // written once, before m_isDone; read by those who have seen that
  Teller::Messages m_resultMessage AHS_GUARDED_BY(m_lock);
};
