// The run and its end. Every run that was started ends in one results thread, which calls the
// client once: run thread and timer thread both call finishAHS, and the first one there decides
// what the client is told.

#include "vpn/Api/AHS/HeadendSelection.h"

#include <pthread.h>

#include <exception>
#include <new>
#include <utility>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/GuardedCall.h"

CHeadendSelection::CHeadendSelection(ClientIfcBase* pAHSCB, const std::string& lastHeadend,
                                     unsigned int uiReason, long& status)
    : m_pAHSCB(nullptr),
      m_uiReason(uiReason),
      m_terminatedThreads(false),
      m_AHSFinished(false),
      m_foundInCache(false),
      m_headendCacheLock(LockSpinCount),
      m_headendThreadLock(LockSpinCount),
      m_settings(),
      m_pTimer(nullptr),
      m_cache(nullptr),
      m_pProxy(nullptr),
      m_pResultsThread(nullptr),
      m_pSpareResultsThread(nullptr) {
  try {
    status = prepare(pAHSCB, lastHeadend);
  } catch (const std::exception&) {
    status = HEADENDSELECTION_ERROR_MEMALLOC_FAILED;  // nothing else throws here
    CAppLog::LogReturnCode("CHeadendSelection", LogSource, __LINE__, Logging::DBG_Error,
                           "CHeadendSelection::prepare", status, 0, nullptr);
  }
}

STATUSCODE CHeadendSelection::prepare(ClientIfcBase* pAHSCB, const std::string& lastHeadend) {
  STATUSCODE status = CSelectionCache::createSingletonInstance(m_cache);
  if (status != 0) {
    CAppLog::LogReturnCode("CHeadendSelection", LogSource, __LINE__, Logging::DBG_Error,
                           "CSelectionCache::createSingletonInstance", status, 0, nullptr);
    if (m_cache != nullptr) {
      m_cache->releaseInstance();
      m_cache = nullptr;
    }
    return status;
  }
  CAHSSettings::GetSettings(m_settings);
  status = getHeadendListFromProfile(lastHeadend);
  if (status != 0) {
    // The text names the cache, because people search logs for this failure by that name.
    CAppLog::LogReturnCode("CHeadendSelection", LogSource, __LINE__, Logging::DBG_Error,
                           "CSelectionCache::getHeadendListFromProfile", status, 0, nullptr);
    return status;
  }
  std::vector<std::string> headendList;
  retainLastHeadend(headendList);
  m_pSpareResultsThread = new CResultsThread(pAHSCB, m_uiReason, headendList,
                                             HEADENDSELECTION_ERROR_MEMALLOC_FAILED, "");
  m_pAHSCB = pAHSCB;
  return status;
}

CHeadendSelection::~CHeadendSelection() {
  const STATUSCODE status = waitForDelivery();
  if (status != 0 && status != THREAD_ERROR_INVALID_STATE) {
    CAppLog::LogReturnCode("~CHeadendSelection", LogSource, __LINE__, Logging::DBG_Error,
                           "CThread::WaitForCompletion", status, 0, nullptr);
  }
  deleteTimer();
  delete m_pProxy;
  m_pProxy = nullptr;
  delete m_pResultsThread;
  m_pResultsThread = nullptr;
  delete m_pSpareResultsThread;
  m_pSpareResultsThread = nullptr;
  if (m_cache != nullptr) {
    m_cache->releaseInstance();
  }
  for (std::size_t i = 0; i < m_pThreads.size(); ++i) {
    delete m_pThreads[i];
    m_pThreads[i] = nullptr;
  }
}

void CHeadendSelection::SetProxy(ProxyIfc* pProxy) { m_pProxy = pProxy; }

bool CHeadendSelection::isThreadTerminated() { return readSharedFlag(m_terminatedThreads); }

void CHeadendSelection::setThreadTerminated(bool termFlag) {
  writeSharedFlag(m_terminatedThreads, termFlag);
}

void CHeadendSelection::run() {
  // The conversion of %d takes an int: the low half of the identifier is what the line shows.
  CAppLog::LogVerboseMessage("run", "HeadendSelection", __LINE__, Logging::DBG_Info, CLC_VPN_API,
                             CUST_LOG_LEVEL_3, "CHeadendSelection thread ID '%d'",
                             static_cast<int>(pthread_self()));
  // The run's own view of the outcome; what the client gets is built by finishAHS.
  std::vector<std::string> headendList;
  std::string extraInfo;
  const STATUSCODE status = selectOrFail(headendList, extraInfo);
  if (status != 0) {
    CAppLog::LogReturnCode("run", LogSource, __LINE__, Logging::DBG_Warning,
                           "CHeadendSelection::selectHeadend", status, 0, nullptr);
  }
  finishAHS(true, status, extraInfo);
  // Abandoned workers may destroy the object later, on another thread. The client's callback is
  // over when this function returns all the same.
  waitForDelivery();
  if (status == HEADENDSELECTION_ERROR_TIMEOUT && !m_pThreads.empty()) {
    delete this;
  } else {
    deleteAndWait();  // a timer that is firing may hold it
  }
}

// The client hears of every run that was started, also of one that ran out of memory or whose
// provider, which is the client's, has thrown.
STATUSCODE CHeadendSelection::selectOrFail(std::vector<std::string>& headendList,
                                           std::string& extraInfo) {
  STATUSCODE status = HEADENDSELECTION_ERROR_UNEXPECTED;
  const auto select = [&] {
    try {
      status = selectHeadend(headendList, extraInfo);
    } catch (const std::bad_alloc&) {
      status = HEADENDSELECTION_ERROR_MEMALLOC_FAILED;
    }
  };
  guardedCall(select, [](const char* what) {
    CAppLog::LogDebugMessage("run", LogSource, __LINE__, Logging::DBG_Error,
                             "QIB ended by an exception: %s", what);
  });
  return status;
}

STATUSCODE CHeadendSelection::selectHeadend(std::vector<std::string>& headendList,
                                            std::string& extraInfo) {
  const std::string lastHost = m_lastHeadend.getHost();
  const std::string reasonText = getReasonText();
  CAppLog::LogDebugMessage("selectHeadend", LogSource, __LINE__, Logging::DBG_Info,
                           "Starting QIB processing during %s attempt. Last headend: %s",
                           reasonText.c_str(), lastHost.c_str());
  if (m_cache == nullptr) {
    CAppLog::LogDebugMessage("selectHeadend", LogSource, __LINE__, Logging::DBG_Error,
                             "QIB cache could not be created.");
    return HEADENDSELECTION_ERROR_CACHE_FAILURE;
  }
  if (m_headendList.empty()) {
    CAppLog::LogDebugMessage("selectHeadend", LogSource, __LINE__, Logging::DBG_Error,
                             "QIB has no hosts to process.");
    return HEADENDSELECTION_ERROR_NO_HEADENDS;
  }
  std::string knownHeadends = getKnownHeadends();
  m_foundInCache = m_cache->IsInCache(knownHeadends, getPingResults());
  if (m_foundInCache) {
    return 0;
  }
  const STATUSCODE status = startPingThreads(extraInfo);
  if (status != 0) {
    headendList.push_back(m_lastHeadend.getHostAndPort(false));
  }
  return status;
}

std::string CHeadendSelection::getReasonText() { return SelectionRules::reasonText(m_uiReason); }

void CHeadendSelection::finishAHS(bool killTimer, long statusReturnCode,
                                  const std::string& extraInfo) {
  const CAutoLockT<CManualLock> methodLock(m_headendThreadLock);
  if (m_AHSFinished) {
    deleteTimer();
    CAppLog::LogDebugMessage("finishAHS", LogSource, __LINE__, Logging::DBG_Info,
                             "QIB in finishAHS() a second time");
    return;
  }
  m_AHSFinished = true;
  CAppLog::LogDebugMessage("finishAHS", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB in finishAHS() for first time");
  if (killTimer) {
    deleteTimer();
  }
  writeSharedFlag(m_terminatedThreads, true);

  m_pResultsThread = makeResultsThread(statusReturnCode, extraInfo);
  m_pResultsThread->Start();
}

CHeadendSelection::CResultsThread* CHeadendSelection::makeResultsThread(
    long statusReturnCode, const std::string& extraInfo) {
  try {
    std::vector<std::string> headendList;
    const STATUSCODE status = decideResult(statusReturnCode, headendList);
    return new CResultsThread(m_pAHSCB, m_uiReason, headendList, status, extraInfo);
  } catch (const std::exception&) {
    CAppLog::LogReturnCode("finishAHS", LogSource, __LINE__, Logging::DBG_Error,
                           "CHeadendSelection::makeResultsThread",
                           HEADENDSELECTION_ERROR_MEMALLOC_FAILED, 0, nullptr);
    return std::exchange(m_pSpareResultsThread, nullptr);
  }
}

// What the client is told for the status that the run or its timer ended with.
STATUSCODE CHeadendSelection::decideResult(long statusReturnCode,
                                           std::vector<std::string>& headendList) {
  STATUSCODE status = statusReturnCode;
  if (status == HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED) {
    return status;  // nothing was measured, and the client has to log in at the proxy first
  }
  bool ranked = false;
  if (status == 0 || status == HEADENDSELECTION_ERROR_TIMEOUT) {
    // Out of time with some results is as good as done: the ranking's status counts.
    status = getBestHeadendsList(headendList);
    ranked = status == 0;
  }
  if (!ranked) {
    headendList.clear();
    retainLastHeadend(headendList);
  }
  if (headendList.empty()) {
    CAppLog::LogDebugMessage("finishAHS", LogSource, __LINE__, Logging::DBG_Info,
                             "Finished QIB thread, unable to select a host");
  } else {
    CAppLog::LogDebugMessage("finishAHS", LogSource, __LINE__, Logging::DBG_Info,
                             "Finished QIB thread, selected %s", headendList.front().c_str());
  }
  if (status == 0 && !m_foundInCache) {
    status = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
  }
  return status;
}

void CHeadendSelection::retainLastHeadend(std::vector<std::string>& headendList) {
  if (!m_lastHeadend.getHost().empty()) {
    headendList.push_back(m_lastHeadend.getHostAndPort(false));
  }
}

// Waits, without limit, until the client's callback has returned; 0 when there is none to wait for.
STATUSCODE CHeadendSelection::waitForDelivery() {
  CResultsThread* pResultsThread = nullptr;
  {
    const CAutoLockT<CManualLock> endOfRun(m_headendThreadLock);
    pResultsThread = m_pResultsThread;
  }
  unsigned int exitCode = 0;
  return pResultsThread == nullptr ? 0
                                   : pResultsThread->WaitForCompletion(exitCode, CThread::Infinite);
}

void CHeadendSelection::deleteTimer() {
  delete m_pTimer;
  m_pTimer = nullptr;
}

void CHeadendSelection::OnTimerExpired(void* ptrVal, unsigned long /*longVal*/) {
  CAppLog::LogDebugMessage("OnTimerExpired", LogSource, __LINE__, Logging::DBG_Warning,
                           "QIB timer expired");
  if (ptrVal == nullptr) {
    CAppLog::LogDebugMessage("OnTimerExpired", LogSource, __LINE__, Logging::DBG_Error,
                             "Invalid parameter sent to QIB OnTimerExpired");
    return;
  }
  static_cast<CHeadendSelection*>(ptrVal)->finishAHS(false, HEADENDSELECTION_ERROR_TIMEOUT, "");
}

CHeadendSelection::CResultsThread::CResultsThread(ClientIfcBase* pAHSCB, unsigned int uiReason,
                                                  const std::vector<std::string>& headendList,
                                                  long statusReturnCode,
                                                  const std::string& extraInfo)
    : CThread(0),
      m_pAHSCB(pAHSCB),
      m_uiReason(uiReason),
      m_lStatusReturnCode(statusReturnCode),
      m_tstrExtraInfo(extraInfo) {
  useReserve();
  const auto count = static_cast<unsigned int>(headendList.size());
  m_slHeadendList.resize(count);
  for (unsigned int i = 0; i < count; ++i) {
    // Up to the first NUL: a host name has none. NOLINTNEXTLINE(readability-redundant-string-cstr)
    m_slHeadendList[i] = headendList[i].c_str();
  }
}

CHeadendSelection::CResultsThread::~CResultsThread() = default;

STATUSCODE CHeadendSelection::CResultsThread::Run() {
  // The record is constant, but the callback may change the client.
  const_cast<ClientIfcBase*>(m_pAHSCB)->AHSSelectedHost(m_uiReason, m_slHeadendList,
                                                        m_lStatusReturnCode, m_tstrExtraInfo);
  return 0;
}
