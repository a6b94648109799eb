// The measurement: a timer that bounds it, one test probe that finds out whether a proxy wants a
// login, and one worker a headend, all at once. Once the timer is armed the run may be finished
// under our feet at any moment; then no further worker is started.

#include <new>
#include <utility>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Common/IP/HttpHeaderResponse.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/Clock.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/include/InstanceSmartPtr.h"

namespace {

/// The test probe needs the headers as well: a proxy's challenge names its realm there.
constexpr unsigned int TestPingOptions =
    HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS | HttpProbe::HTTP_PROBE_RETURN_STATUSCODE |
    HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR | HttpProbe::HTTP_PROBE_RETURN_RTT;
constexpr unsigned int PingOptions = HttpProbe::HTTP_PROBE_RETURN_STATUSCODE |
                                     HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR |
                                     HttpProbe::HTTP_PROBE_RETURN_RTT;

/// "Proxy Authentication Required" (RFC 9110, section 15.5.8).
constexpr unsigned int HttpStatusProxyAuthenticationRequired = 407;

unsigned int now() { return static_cast<unsigned int>(GetCurrentTimeMillis()); }

}  // namespace

STATUSCODE CHeadendSelection::startPingThreads(std::string& extraInfo) {
  HttpProbe::HTTP_PROBE_RESULTS results{};
  const unsigned int totalTime = m_uiReason == SelectionRules::ReasonReconnection
                                     ? m_settings.nReconnectTimeout
                                     : m_settings.nConnectTimeout;

  const CInstanceSmartPtr<CExecutionContext> ispExecutionContext(API_INSTANCE);
  if (ispExecutionContext == nullptr) {
    CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Error,
                           "CInstanceSmartPtr<CExecutionContext>",
                           EXECUTIONCONTEXT_ERROR_NO_INSTANCE, 0, nullptr);
    return EXECUTIONCONTEXT_ERROR_NO_INSTANCE;
  }
  STATUSCODE status = startTimer(ispExecutionContext->GetTimerList(), totalTime);
  if (status != 0) {
    return status;
  }

  if (m_uiReason != SelectionRules::ReasonReconnection) {
    status = sendTestPing(results, extraInfo);
    if (status != 0) {
      return status;
    }
    CAppLog::LogDebugMessage("startPingThreads", LogSource, __LINE__, Logging::DBG_Info,
                             "QIB test ping took %d", results.uiRtt);
    if (readSharedFlag(m_terminatedThreads)) {
      CAppLog::LogDebugMessage("startPingThreads", LogSource, __LINE__, Logging::DBG_Warning,
                               "QIB timer expired before any servers could be pinged.");
      return HEADENDSELECTION_ERROR_TIMEOUT;
    }
  }

  // A test probe that took longer than the budget makes this wrap; the timer then bounds the rest.
  status = startWorkers(totalTime - results.uiRtt);
  if (status != 0) {
    return status;
  }
  waitForWorkers();
  return HEADENDSELECTION_SUCCESS;
}

STATUSCODE CHeadendSelection::startTimer(CTimerList& timerList, unsigned int totalTime) {
  STATUSCODE status = 0;
  m_pTimer = new CTimer(status, &timerList, OnTimerExpired, this, 0);
  if (status != 0) {
    CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Error, "CTimer",
                           status, 0, nullptr);
    return status;
  }
  m_pTimer->keepAlive(*this);
  status = m_pTimer->StartTimer(totalTime);
  if (status != 0) {
    CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Error,
                           "CTimer::StartTimer", status, 0, nullptr);
  }
  return status;
}

// Sends one probe by way of the proxy. Only a proxy that asks for a login ends the measurement
// here; a headend that does not answer may be the only one that is down. The credentials are gone
// from memory when this returns.
STATUSCODE CHeadendSelection::sendTestPing(HttpProbe::HTTP_PROBE_RESULTS& results,
                                           std::string& extraInfo) {
  if (m_lastHeadend.getHost().empty()) {
    const CAutoLockT<CManualLock> endOfRun(m_headendThreadLock);
    m_lastHeadend = m_headendList[0];
  }
  unsigned int port = SelectionRules::portOf(m_lastHeadend);
  bool isSecure = false;
  PROXY_DATA proxyData;
  ProxyIfc::UnprotectedCredential proxyPswd;
  ProxyIfc::UnprotectedCredential proxyUser;
  if (m_pProxy != nullptr) {
    proxyPswd = m_pProxy->getProxyPswd().c_str();
    proxyUser = m_pProxy->getProxyUser().c_str();
    if (!proxyUser.empty()) {
      proxyData.proxyUser = proxyUser.c_str();
      proxyData.proxyPswd = proxyPswd.c_str();
      port = SelectionRules::DefaultPort;
      isSecure = true;
    }
  }
  if (m_pProxy == nullptr || m_pProxy->getProxyHost().empty()) {
    proxyData.proxyServer = getProxyServer();
  } else {
    proxyData.determineProxy = true;
  }

  const std::string tstrUserAgent;
  CAppLog::LogDebugMessage("startPingThreads", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB Sending test ping to %s:%d", m_lastHeadend.getHost().c_str(), port);
  // The time-out goes as it stands, in seconds, unlike the workers' which are milliseconds.
  const STATUSCODE status = HttpProbe::SendHttpProbe(
      m_lastHeadend.getHost(), isSecure, false, static_cast<unsigned short>(port), tstrUserAgent,
      m_settings.nTestPingTimeout, proxyData, TestPingOptions, results);
  if (SelectionRules::worthOfProbe(status) != SelectionRules::ProbeWorth::Sample) {
    // The transport's own error says more than the status, which many errors share.
    CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Error,
                           "HttpProbe::SendHttpProbe QIB test ping failed", results.uiLastError, 0,
                           nullptr);
  }
  if (results.uiHttpStatusCode != HttpStatusProxyAuthenticationRequired) {
    return 0;
  }
  deleteTimer();
  CAppLog::LogDebugMessage("startPingThreads", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB: Encountered an auth proxy");
  CHttpHeaderResponse response;
  response.set(results.tstrResponseHeaders);
  const std::string tstrProxyAuthScheme = "Basic";
  extraInfo = response.getProxyAuthRealm(tstrProxyAuthScheme);
  return HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
}

STATUSCODE CHeadendSelection::startWorkers(unsigned int timeout) {
  m_pThreads.resize(m_headendList.size(), nullptr);
  for (std::size_t i = 0; i < m_pThreads.size(); ++i) {
    if (readSharedFlag(m_terminatedThreads)) {
      // The workers started so far go on by themselves; they keep alive what they use.
      CAppLog::LogDebugMessage("startPingThreads", LogSource, __LINE__, Logging::DBG_Warning,
                               "QIB timer expired before starting thread %d", static_cast<int>(i));
      return HEADENDSELECTION_ERROR_TIMEOUT;
    }
    startWorker(i, timeout);
  }
  return 0;
}

// If a worker cannot be had, its headend takes no part; the others remain to choose from.
void CHeadendSelection::startWorker(std::size_t index, unsigned int timeout) {
  try {
    m_pThreads[index] = new CSelectionThread(
        *this, m_headendList[index], m_settings.nPingsPerHeadend, timeout, m_settings.nPingTimeout);
  } catch (const std::bad_alloc&) {
    CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Warning,
                           "CSelectionThread", HEADENDSELECTION_ERROR_MEMALLOC_FAILED, 0, nullptr);
    return;
  }
  m_pThreads[index]->Start();
}

void CHeadendSelection::waitForWorkers() {
  for (CSelectionThread* pThread : m_pThreads) {
    if (pThread == nullptr) {
      continue;
    }
    unsigned int statusCode = 0;
    const STATUSCODE waitStatus = pThread->WaitForCompletion(statusCode, CThread::Infinite);
    if (waitStatus != 0) {
      CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Warning,
                             "CSelectionThread::WaitForCompletion", waitStatus, 0, nullptr);
    }
    if (statusCode != 0) {
      CAppLog::LogReturnCode("startPingThreads", LogSource, __LINE__, Logging::DBG_Warning,
                             "CSelectionThread::Run", statusCode, 0, nullptr);
    }
  }
}

CHeadendSelection::CSelectionThread::CSelectionThread(CHeadendSelection& parent, URL headend,
                                                      unsigned int numPings, unsigned int timeout,
                                                      unsigned int pingTimeout)
    : CThread(0),
      m_parent(parent),
      m_headend(std::move(headend)),
      m_terminateFlag(false),
      m_numPings(numPings),
      m_timeout(timeout),
      m_pingTimeout(pingTimeout),
      m_headendPingThreadLock(LockSpinCount) {
  keepAlive(m_parent);
}

CHeadendSelection::CSelectionThread::~CSelectionThread() = default;

STATUSCODE CHeadendSelection::CSelectionThread::Run() {
  const unsigned int port = SelectionRules::portOf(m_headend);
  CAppLog::LogDebugMessage("Run", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB starting thread named %s", m_headend.getHost().c_str());
  ProxyIfc* const pProxy = m_parent.getProxy();
  const bool isSecure = pProxy != nullptr && pProxy->getProxyType() != NoProxy;
  const std::string tstrUserAgent;
  const PROXY_DATA noProxy;  // a round trip through a proxy would measure the proxy
  const HttpProbe::KeptConnection connection;

  SelectionRules::Tally tally;
  const unsigned int startTimer = now();
  STATUSCODE status = 0;
  bool probing = true;
  for (unsigned int i = 0; probing && i < m_numPings; ++i) {
    const unsigned int timeSoFar = now() - startTimer;
    if (isThreadTerminated() || timeSoFar > m_timeout) {
      status = HEADENDSELECTION_ERROR_TIMEOUT;
      break;
    }
    HttpProbe::HTTP_PROBE_RESULTS results{};
    status = HttpProbe::SendHttpProbe(m_headend.getHost(), isSecure, false,
                                      static_cast<unsigned short>(port), tstrUserAgent,
                                      m_pingTimeout / 1000, noProxy, PingOptions, results);
    probing = takeSample(status, results, tally);
  }
  if (probing) {
    addHeadendToList(tally.samplesMs);
  }
  CAppLog::LogDebugMessage("Run", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB terminating thread for %s", GetHeadend().c_str());
  return status;
}

// Evaluates one probe. Returns whether to probe the headend again; if not, the worker is marked as
// terminated and reports nothing, not even samples from earlier probes.
bool CHeadendSelection::CSelectionThread::takeSample(STATUSCODE status,
                                                     const HttpProbe::HTTP_PROBE_RESULTS& results,
                                                     SelectionRules::Tally& tally) {
  switch (tally.take(status, results.uiRtt)) {
    case SelectionRules::ProbeWorth::ConnectFailure:
      CAppLog::LogDebugMessage("Run", LogSource, __LINE__, Logging::DBG_Warning,
                               "QIB ping timeout or couldn't connect: %s",
                               m_headend.getHost().c_str());
      if (tally.hasGivenUp) {
        setThreadTerminated(true);
      }
      break;
    case SelectionRules::ProbeWorth::Unresolved:
      setThreadTerminated(true);
      CAppLog::LogDebugMessage("Run", LogSource, __LINE__, Logging::DBG_Warning,
                               "QIB: DNS error for %s, time: %d", m_headend.getHost().c_str(),
                               results.uiRtt);
      break;
    case SelectionRules::ProbeWorth::SampleDespiteError:
      CAppLog::LogDebugMessage("Run", LogSource, __LINE__, Logging::DBG_Warning,
                               "QIB ping error for %s: %d", m_headend.getHost().c_str(),
                               results.uiLastError);
      break;
    case SelectionRules::ProbeWorth::Sample:
      break;
  }
  return !tally.hasGivenUp;
}

void CHeadendSelection::CSelectionThread::TerminateThread() {
  CAppLog::LogDebugMessage("TerminateThread", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB forcibly terminating thread for %s", GetHeadend().c_str());
  setThreadTerminated(true);
}

bool CHeadendSelection::CSelectionThread::isThreadTerminated() {
  const CAutoLockT<CManualLock> methodLock(m_headendPingThreadLock);
  return m_terminateFlag;
}

void CHeadendSelection::CSelectionThread::setThreadTerminated(bool termFlag) {
  const CAutoLockT<CManualLock> methodLock(m_headendPingThreadLock);
  m_terminateFlag = termFlag;
}

void CHeadendSelection::CSelectionThread::addHeadendToList(const std::vector<unsigned int>& pings) {
  if (isThreadTerminated() || pings.empty()) {
    return;
  }
  const std::string headend = GetHeadend();
  logThreadPingResults(headend, pings);
  const unsigned int pingMetric = calculateRTTMetric(pings);
  m_parent.addHeadendToList(headend, pingMetric);
}

void CHeadendSelection::CSelectionThread::logThreadPingResults(
    const std::string& headend, const std::vector<unsigned int>& pings) {
  std::string resultStr = "no pings recorded";
  if (!pings.empty()) {
    resultStr = "(";
    for (const unsigned int ping : pings) {
      resultStr += std::to_string(ping) + " ";
    }
    resultStr += ")";
  }
  CAppLog::LogDebugMessage("logThreadPingResults", LogSource, __LINE__, Logging::DBG_Info,
                           "QIB ping results for %s: %s", headend.c_str(), resultStr.c_str());
}

unsigned int CHeadendSelection::CSelectionThread::calculateRTTMetric(
    const std::vector<unsigned int>& rttList) {
  return SelectionRules::metricOfSamples(rttList, m_numPings);
}

std::string CHeadendSelection::CSelectionThread::GetHeadend() {
  return m_headend.getHostAndPort(false);
}
