#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "capi/Arguments.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/ClientLibrary.h"

class CSelectionCache;

/// What all libraries of the process share while the client library is up. Constant once made.
class Core {
 public:
  /// Brings the core up, or shares the existing one. The core is up while anyone holds it; any
  /// thread may take and release such a hold. @param status receives the outcome. @param error
  /// receives what is wrong, if known.
  /// @return null after a failure, or if a core with another plan is up.
  static std::shared_ptr<const Core> hold(const StartPlan& plan, ahs_status& status,
                                          std::string& error);

  /// For `hold`. @param status receives 0, or why the core is not up; then it may only be
  /// destroyed.
  Core(const StartPlan& plan, STATUSCODE& status);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  /// The headends that take part; may outlive the core.
  const std::shared_ptr<const std::vector<Candidate>>& candidates() const { return m_candidates; }
  const std::vector<const ahs_problem*>& problems() const { return m_problemPointers; }

  /// Whether the preferences in force name the system's proxy.
  bool usesSystemProxy() const { return m_usesSystemProxy; }

 private:
  void look(const std::string& logProblem);

  const StartPlan m_plan;
  std::unique_ptr<CClientLibrary> m_library;
  CSelectionCache* m_cache = nullptr;  // held, so that selections in memory outlive their runs
  bool m_usesSystemProxy = false;
  std::shared_ptr<const std::vector<Candidate>> m_candidates;
  std::vector<FileProblem> m_fileProblems;
  std::vector<ahs_problem> m_problems;
  std::vector<const ahs_problem*> m_problemPointers;
};
