#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli/login/Credentials.h"
#include "cli/login/ProxyLogin.h"
#include "cli/select/SelectOptions.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/ClientLibrary.h"

class SelectionRun;
struct LiveState;

/// One selection for a person: it reads the files of a plan, runs the selection, and runs it again
/// after each login at a proxy that asks for one. What is wrong is told on standard error. The
/// client library is up as long as the object lives, so there is one at a time; used by one thread.
class Selecting {
 public:
  /// @param plan with the reason and the last headend; has to outlive the object.
  /// @param command as a person calls it, for messages: "ahs select".
  /// @param told mistakes in files that have been told before, and are not told again; grows by
  ///        those that are told now. Null where there is no before.
  Selecting(const SelectPlan& plan, std::string command, std::set<std::string>* told = nullptr);
  /// Waits for the run's threads, which after a time limit still wait for answers.
  ~Selecting();
  Selecting(const Selecting&) = delete;
  Selecting& operator=(const Selecting&) = delete;

  /// Whether there are headends to select from; what is in the way has been told otherwise, and is
  /// a matter of usage or configuration.
  bool isReady() const { return m_isReady; }

  /// Runs the selection. To be called once, when it is ready.
  /// @param password that goes with the plan's user name at the proxy, if one was given.
  /// @param showsProgress on standard error, while it measures.
  /// @return the result; none if it could not be started, which has been told.
  std::optional<SelectionResult> run(const std::optional<Secret>& password, bool showsProgress);

  /// To be called last in a process that ends now: does not wait for threads that wait for answers,
  /// but ends the process under them.
  /// @return `exitStatus`, when there are none.
  int leave(int exitStatus);

 private:
  struct ReleaseCache {
    void operator()(CSelectionCache* cache) const { cache->releaseInstance(); }
  };

  bool prepare();
  void noteUnknownLast() const;
  bool runOnce(unsigned int reason, ProxyLogin& login, bool showsProgress);
  LiveState look(unsigned int reason) const;
  SelectionResult resultOf(unsigned int reason, bool hadLogin) const;
  void tellRules(SelectionResult& result) const;
  void endRun();

  const SelectPlan& m_plan;
  const std::string m_command;
  std::set<std::string>* const m_told;
  std::unique_ptr<CClientLibrary> m_library;
  // Held, so that selections in memory outlive their runs.
  std::unique_ptr<CSelectionCache, ReleaseCache> m_cache;
  std::vector<Candidate> m_candidates;
  HS_SETTINGS m_settings{};
  std::shared_ptr<SelectionRecord> m_recorder;
  std::unique_ptr<SelectionRun> m_run;  // null when none is under way
  const bool m_isReady;
};

/// One selection from the options to what is made of it. What is wrong is told on standard error.
/// @param command as a person calls it: "ahs select".
/// @param use what is made of the result; returns the exit status.
/// @return the exit status. May end the process, as `Selecting::leave` does.
int selectOnce(const SelectOptions& options, const std::string& command,
               const std::function<int(const SelectionResult&, const SelectPlan&)>& use);
