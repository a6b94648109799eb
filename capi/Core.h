#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "capi/Arguments.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/ClientLibrary.h"

class CSelectionCache;

/// What all libraries of the process share: the client library while it is up, and what was read
/// when it came up. Constant once it is made.
class Core {
 public:
  /// Brings the core up, or shares the one that is. It is up as long as anyone has such a hold,
  /// which any thread may take and let go.
  /// @param status receives how that went. @param error what is wrong, if it says more.
  /// @return null after a failure, and where another one is up.
  static std::shared_ptr<const Core> hold(const StartPlan& plan, ahs_status& status,
                                          std::string& error);

  /// For `hold`. @param status receives 0, or why it is not up. It is then good for destruction
  /// only.
  Core(const StartPlan& plan, STATUSCODE& status);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  /// What takes part; it may outlive the core.
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
