#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cli/login/Credentials.h"
#include "cli/login/ProxyLogin.h"
#include "cli/select/BaitedRecord.h"
#include "cli/select/SelectOptions.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/Candidates.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/ClientLibrary.h"

class SelectionRun;
struct LiveState;

/// One selection for a person: reads the files of a plan, runs the selection, and repeats it after
/// each login at a proxy. Prints mistakes on standard error. The client library runs as long as the
/// object lives, so only one object may exist; used by one thread.
class Selecting {
 public:
  /// @param plan with the reason and the last headend; must outlive the object.
  /// @param command as a person calls it, for messages: "ahs select".
  /// @param told mistakes printed earlier, which are not printed again; receives the new ones. May
  ///        be null.
  Selecting(const SelectPlan& plan, std::string command, std::set<std::string>* told = nullptr);
  /// Waits for the run's threads; after a time limit they may still wait for answers.
  ~Selecting();
  Selecting(const Selecting&) = delete;
  Selecting& operator=(const Selecting&) = delete;

  /// Whether there are headends to select from. If not, a message was printed; the fault is in
  /// usage or configuration.
  bool isReady() const { return m_isReady; }

  /// Runs the selection. To be called once, and only if `isReady`.
  /// @param password for the plan's user name at the proxy, if given.
  /// @param showsProgress on standard error, while it measures.
  /// @param untilDecided returns as soon as the first headend is decided; the others follow as far
  ///        as they are known. The measurement goes on until `leave`.
  /// @return the result; none, after a message, if the selection could not start.
  std::optional<SelectionResult> run(const std::optional<Secret>& password, bool showsProgress,
                                     bool untilDecided = false);

  /// The result now, after `run`: those who were out may have answered.
  /// @param isAwaited waits for the end of the measurement.
  SelectionResult latest(bool isAwaited) const;

  /// To be called last in a process that ends now. If threads still wait for answers, ends the
  /// process instead of waiting for them.
  /// @return `exitStatus`, if there are no such threads.
  int leave(int exitStatus);

 private:
  struct ReleaseCache {
    void operator()(CSelectionCache* cache) const { cache->releaseInstance(); }
  };

  bool prepare();
  void noteUnknownLast() const;
  bool runOnce(unsigned int reason, ProxyLogin& login, bool showsProgress, bool untilDecided);
  bool isOver(std::chrono::milliseconds longest, bool untilDecided);
  std::shared_ptr<BaitedRecord> record(unsigned int reason) const;
  LiveState look(unsigned int reason) const;
  SelectionResult resultOf(unsigned int reason, bool hadLogin) const;
  SelectionResult soFar() const;
  void tellRules(SelectionResult& result) const;
  void tellDoubt(SelectionResult& result) const;
  void endRun();

  const SelectPlan& m_plan;
  const std::string m_command;
  std::set<std::string>* const m_told;
  std::unique_ptr<CClientLibrary> m_library;
  // Keeps selections in memory after their runs.
  std::unique_ptr<CSelectionCache, ReleaseCache> m_cache;
  std::vector<Candidate> m_candidates;
  HS_SETTINGS m_settings{};
  std::shared_ptr<BaitedRecord> m_recorder;
  std::unique_ptr<SelectionRun> m_run;  // null when none is under way
  const bool m_isReady;
};

/// One selection, from options to the use of its result. Prints mistakes on standard error.
/// @param command as a person calls it: "ahs select".
/// @param use receives the result, and the object to ask for a later one; returns the exit status.
/// @return the exit status. May end the process, like `Selecting::leave`.
int selectOnce(
    const SelectOptions& options, const std::string& command,
    const std::function<int(const SelectionResult&, const SelectPlan&, const Selecting&)>& use);
