#pragma once

#include <string>

#include "vpn/Api/PreferenceMgr.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/StatusCode.h"

class CExecutionContext;

/// Starts everything that a selection needs, and stops it again.
///
/// Construction prepares the environment, opens the log, reads preferences and profiles, applies
/// the preferences that concern the probes, and creates the API execution context, in this order.
/// Destruction goes the other way. A run that is still under way keeps what it has acquired; once
/// that is given back, a run that starts fails with the NO_INSTANCE codes. One object a process at
/// a time; construction and destruction on one thread.
class CClientLibrary {
 public:
  /// What is brought up.
  struct Options {
    PreferenceMgr::Sources sources;  ///< where preferences and profiles come from
    CAppLog::Targets log;            ///< where the log goes
    /// Why a log target could not be opened is reported here and does not stop the start.
    std::string logProblem;
    bool ignoresEnvironment = false;  ///< the environment counts as empty: `Environment::prepare`
  };

  /// @param options what to bring up; `logProblem` is the one field that is written.
  /// @param status receives 0, or the code of the part that could not be brought up, or
  ///        PREFERENCEMGR_ERROR_MEMALLOC_FAILED; the parts before it are then taken down again by
  ///        the destructor.
  CClientLibrary(Options& options, STATUSCODE& status);
  ~CClientLibrary();

  CClientLibrary(const CClientLibrary&) = delete;
  CClientLibrary& operator=(const CClientLibrary&) = delete;

 private:
  // One acquisition each, null for a part that was not brought up. Used by one thread.
  PreferenceMgr* m_pPreferenceMgr = nullptr;
  CExecutionContext* m_pExecutionContext = nullptr;
};
