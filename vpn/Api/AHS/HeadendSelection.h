#pragma once

#include <map>
#include <string>
#include <vector>

#include "vpn/Api/AHS/AHSSettings.h"
#include "vpn/Api/AHS/CacheEntry.h"
#include "vpn/Api/AHS/HeadendRTT.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionCache.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/Api/ClientIfcBase.h"
#include "vpn/Api/ProxyIfc.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Utility/ApiRunnable.h"
#include "vpn/Common/Utility/Thread.h"
#include "vpn/Common/Utility/TimerList.h"
#include "vpn/Common/Utility/URL.h"
#include "vpn/include/HttpSession.h"
#include "vpn/include/Locks.h"
#include "vpn/include/StatusCode.h"

class ProfileMgr;

/// One automatic headend selection.
///
/// A run gathers the headends that the profiles allow, asks the selection cache, on a miss measures
/// all of them at once within a time limit, ranks them, and calls the client back exactly once. On
/// a reconnection the headend used last stays first unless another is better by the percentage of
/// the settings.
///
/// Life: construct it, look at the status, hand over a proxy provider if there is one, call `run`
/// on a thread of its own, and forget it: it deletes itself. A run whose construction status is not
/// 0 is not run but deleted. Construction and `SetProxy` happen on one thread, before `run`.
///
/// Threads of a run: the one that calls `run`; the timer thread of the API execution context, which
/// ends the run when its time is over; one worker per headend; the results thread, which calls the
/// client. Whoever of run thread and timer thread comes first to `finishAHS` decides the result.
class CHeadendSelection : public ApiRunnable {
 public:
  /// Reads settings and profiles; starts nothing.
  /// @param pAHSCB the client to call back; not owned, must outlive the run.
  /// @param lastHeadend name of the host entry that was used last, in any letter case; may be
  /// empty.
  /// @param uiReason 0 connection, 1 reconnection, 2 preferences change, 3 proxy authentication,
  ///        4 process launch, 5 disconnect; any other value is passed through. Only 1 changes what
  ///        the run does.
  /// @param status receives 0 or the reason why the run must not be started.
  CHeadendSelection(ClientIfcBase* pAHSCB, const std::string& lastHeadend, unsigned int uiReason,
                    long& status);

  /// Waits, without limit, until the client's callback has returned.
  ~CHeadendSelection() override;

  /// Runs the selection to its end and deletes the object. To be called once. When it returns, the
  /// client's callback has returned, and the object is gone, unless the timer fired before the last
  /// worker was started: then the last worker to end deletes it.
  void run() override;

  /// Hands over a provider of proxy credentials, which the run owns from now on and deletes at its
  /// own end. Before `run` only.
  void SetProxy(ProxyIfc* pProxy);

  /// Whether the run has been finished; any thread may ask. Setting it is the run's own affair.
  /// @{
  bool isThreadTerminated();
  void setThreadTerminated(bool termFlag);
  /// @}

 private:
  class CSelectionThread;
  class CResultsThread;

  CHeadendSelection(const CHeadendSelection&);

  /// The source that the log lines of all of the class name.
  static constexpr const char* LogSource = "vpn/Api/AHS/HeadendSelection";
  /// How often a thread that waits for one of the locks here tries again before it sleeps.
  static constexpr unsigned long LockSpinCount = 500;

  // The run and its end: HeadendSelection.cpp
  STATUSCODE prepare(ClientIfcBase* pAHSCB, const std::string& lastHeadend);
  STATUSCODE selectOrFail(std::vector<std::string>& headendList, std::string& extraInfo);
  STATUSCODE selectHeadend(std::vector<std::string>& headendList, std::string& extraInfo);
  std::string getReasonText();
  void finishAHS(bool killTimer, long statusReturnCode, const std::string& extraInfo);
  CResultsThread* makeResultsThread(long statusReturnCode, const std::string& extraInfo)
      AHS_REQUIRES(m_headendThreadLock);
  STATUSCODE decideResult(long statusReturnCode, std::vector<std::string>& headendList)
      AHS_REQUIRES(m_headendThreadLock);
  void retainLastHeadend(std::vector<std::string>& headendList);
  STATUSCODE waitForDelivery();
  void deleteTimer();
  static void OnTimerExpired(void* ptrVal, unsigned long longVal);

  // The measurement: HeadendSelectionProbing.cpp
  STATUSCODE startPingThreads(std::string& extraInfo);
  STATUSCODE startTimer(CTimerList& timerList, unsigned int totalTime);
  STATUSCODE sendTestPing(HttpProbe::HTTP_PROBE_RESULTS& results, std::string& extraInfo);
  STATUSCODE startWorkers(unsigned int timeout);
  void startWorker(std::size_t index, unsigned int timeout);
  void waitForWorkers();

  // Headends and proxy: HeadendSelectionInputs.cpp
  STATUSCODE getHeadendListFromProfile(const std::string& lastHeadend);
  static std::map<std::string, bool> findProfilesWithAHS(ProfileMgr& profileMgr);
  std::string getKnownHeadends();
  ProxyIfc* getProxy();
  std::string getProxyServer();

  // Ranking and report: HeadendSelectionResults.cpp
  void addHeadendToList(const std::string& headend, unsigned int pingMetric);
  CCacheEntry& getPingResults();
  STATUSCODE getBestHeadendsList(std::vector<std::string>& headendList);
  bool rankForReconnection(const std::vector<CHeadendRTT>& ranked,
                           std::vector<std::string>& headendList);
  CCacheEntry copyPingResults();
  void storeInCache();
  bool compareRTT(unsigned int a, unsigned int b);
  void logPingResults(std::vector<CHeadendRTT>& pingedHeadendList, bool selectedBest);

  ClientIfcBase* m_pAHSCB;  // null until construction has fully succeeded; constant from then on

  // The run thread alone writes it. Before the timer is armed it does so freely; from then on under
  // m_headendThreadLock, which finishAHS holds while it reads on the timer thread.
  URL m_lastHeadend;

  unsigned int m_uiReason;   // constant
  bool m_terminatedThreads;  // read without a lock: see readSharedFlag
  bool m_AHSFinished AHS_GUARDED_BY(m_headendThreadLock);
  bool m_foundInCache;  // written before any other thread of the run exists

  // The cache look-up fills it unlocked, before any other thread of the run exists.
  CCacheEntry m_pingResults AHS_GUARDED_BY(m_headendCacheLock);

  std::vector<URL> m_headendList;             // written by construction only
  std::vector<CSelectionThread*> m_pThreads;  // the run thread's, and the destructor's
  CManualLock m_headendCacheLock;
  CManualLock m_headendThreadLock;
  HS_SETTINGS m_settings;  // written by construction only

  // The run thread creates it before arming it. In the first finishAHS, the only one that can run
  // beside the run thread's other accesses, the timer's own callback never touches it.
  CTimer* m_pTimer;

  CSelectionCache* m_cache;  // written by construction only; has a lock of its own
  PROXY_DATA m_proxyData;    // the run thread's
  ProxyIfc* m_pProxy;        // written by SetProxy before any thread of the run exists
  CResultsThread* m_pResultsThread AHS_GUARDED_BY(m_headendThreadLock);

  // Tells the client that there is no memory; made while there was some. Never started unless
  // m_pResultsThread cannot be made. Written by construction, and by finishAHS under its lock.
  CResultsThread* m_pSpareResultsThread;
};

/// Measures one headend: sends it probe after probe without a pause, reduces the round-trip times
/// to one metric, and reports that to the run at most once.
class CHeadendSelection::CSelectionThread : public CThread {
 public:
  /// @param parent the run that owns the worker.
  /// @param numPings probes to send. @param timeout time budget of all, in milliseconds.
  /// @param pingTimeout time limit of one probe, in milliseconds; whole seconds count.
  CSelectionThread(CHeadendSelection& parent, URL headend, unsigned int numPings,
                   unsigned int timeout, unsigned int pingTimeout);
  ~CSelectionThread() override;

  /// The thread's body. @return 0, or why there is no result or the last probe had none.
  STATUSCODE Run() override;

  /// Asks the worker to stop before its next probe. Any thread may call it.
  void TerminateThread();
  bool isThreadTerminated();
  void setThreadTerminated(bool termFlag);

  void addHeadendToList(const std::vector<unsigned int>& pings);
  void logThreadPingResults(const std::string& headend, const std::vector<unsigned int>& pings);

  /// See `SelectionRules::metricOfSamples`.
  unsigned int calculateRTTMetric(const std::vector<unsigned int>& rttList);

  /// The headend as host, or host ":" port.
  std::string GetHeadend();

 private:
  bool takeSample(STATUSCODE status, const HttpProbe::HTTP_PROBE_RESULTS& results,
                  SelectionRules::Tally& tally);

  CHeadendSelection& m_parent;
  URL m_headend;  // constant
  bool m_terminateFlag AHS_GUARDED_BY(m_headendPingThreadLock);
  unsigned int m_numPings;     // constant
  unsigned int m_timeout;      // constant
  unsigned int m_pingTimeout;  // constant
  CManualLock m_headendPingThreadLock;
};

/// Calls the client with the outcome of a run. It shares nothing with the run, so that the client
/// may take its time, and it runs even when the system gives no thread. All members are constant
/// once it is built.
class CHeadendSelection::CResultsThread : public CThread {
 public:
  CResultsThread(ClientIfcBase* pAHSCB, unsigned int uiReason,
                 const std::vector<std::string>& headendList, long statusReturnCode,
                 const std::string& extraInfo);
  ~CResultsThread() override;

  STATUSCODE Run() override;

 private:
  const ClientIfcBase* m_pAHSCB;
  unsigned int m_uiReason;
  std::vector<std::string> m_slHeadendList;
  long m_lStatusReturnCode;
  std::string m_tstrExtraInfo;
};
