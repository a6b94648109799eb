// Ranking and report: the measured headends in order of their metric, on a reconnection with the
// last one in front unless the best is better by the required percentage.

#include <algorithm>
#include <locale>
#include <sstream>

#include "vpn/Api/AHS/HeadendSelection.h"
#include "vpn/Common/Logging/AppLog.h"

void CHeadendSelection::addHeadendToList(const std::string& headend, unsigned int pingMetric) {
  const CAutoLockT<CManualLock> methodLock(m_headendCacheLock);
  if (headend.empty()) {
    CAppLog::LogDebugMessage("addHeadendToList", LogSource, __LINE__, Logging::DBG_Warning,
                             "Empty headend.");
    return;
  }
  const CHeadendRTT headendRTT(headend, pingMetric);
  m_pingResults.AddHeadend(headendRTT);
}

CCacheEntry& CHeadendSelection::getPingResults() {
  const CAutoLockT<CManualLock> methodLock(m_headendCacheLock);
  return m_pingResults;
}

STATUSCODE CHeadendSelection::getBestHeadendsList(std::vector<std::string>& headendList) {
  bool selectedBest = true;
  std::vector<CHeadendRTT> pingedHeadendList;
  STATUSCODE status = 0;
  {
    // When the timer ended the run, workers may be reporting at this moment.
    const CAutoLockT<CManualLock> noReports(m_headendCacheLock);
    status = m_pingResults.GetHeadendList(pingedHeadendList);
  }
  if (status != 0 || pingedHeadendList.empty()) {
    headendList.push_back(m_lastHeadend.getHostAndPort(false));
    CAppLog::LogDebugMessage("getBestHeadendsList", LogSource, __LINE__, Logging::DBG_Info,
                             status != 0
                                 ? "unable to get QIB results from CCacheEntry::GetHeadendList()"
                                 : "didn't get any QIB results from CCacheEntry::GetHeadendList()");
    status = HEADENDSELECTION_ERROR_SELECTION_FAILURE;
    selectedBest = false;
  } else {
    std::sort(pingedHeadendList.begin(), pingedHeadendList.end());
    if (m_uiReason == SelectionRules::ReasonReconnection) {
      selectedBest = rankForReconnection(pingedHeadendList, headendList);
    } else {
      for (const CHeadendRTT& result : pingedHeadendList) {
        headendList.push_back(result.GetHeadend());
      }
    }
    storeInCache();
  }
  logPingResults(pingedHeadendList, selectedBest);
  return status;
}

// Appends the ranked hosts, the last headend in front if its metric is below (100 + improvement)
// percent of the best one. Returns whether the best one was selected, that is, nothing retained.
bool CHeadendSelection::rankForReconnection(const std::vector<CHeadendRTT>& ranked,
                                            std::vector<std::string>& headendList) {
  bool selectedBest = true;
  const std::string lastServer = m_lastHeadend.getHostAndPort(false);
  const unsigned int bestRTT = ranked.front().GetRTT();
  for (const CHeadendRTT& result : ranked) {
    const std::string host = result.GetHeadend();
    if (host == lastServer &&
        SelectionRules::retentionOf(result.GetRTT(), bestRTT, m_settings.nImprovement).isRetained) {
      headendList.insert(headendList.begin(), host);
      selectedBest = false;
      continue;
    }
    headendList.push_back(host);
  }
  return selectedBest;
}

CCacheEntry CHeadendSelection::copyPingResults() {
  const CAutoLockT<CManualLock> noReports(m_headendCacheLock);
  return m_pingResults;
}

// Keeps a fresh result for the next run. A result from the cache does not get a new stamp.
void CHeadendSelection::storeInCache() {
  if (m_foundInCache || m_cache == nullptr) {
    return;
  }
  CCacheEntry cacheEntry = copyPingResults();
  cacheEntry.SetKnownHeadends(getKnownHeadends());
  m_cache->AddEntry(cacheEntry);
}

bool CHeadendSelection::compareRTT(unsigned int a, unsigned int b) { return a < b; }

void CHeadendSelection::logPingResults(std::vector<CHeadendRTT>& pingedHeadendList,
                                       bool selectedBest) {
  std::ostringstream resultStr;
  resultStr.imbue(std::locale::classic());  // the host's locale may group digits
  resultStr << "*** QIB Selection Results ***\n";
  resultStr << "QIB performed for " << getReasonText() << " attempt. Last server: '"
            << m_lastHeadend.getHostAndPort(false) << "'\n\n";
  if (pingedHeadendList.empty()) {
    resultStr << "Unable to generate search results. Retaining the last server.\n";
  } else {
    if (m_foundInCache) {
      resultStr << "Results obtained from QIB cache. No ping tests were performed.\n\n";
    }
    resultStr << "Server Address     RTT (ms)\n";
    for (const CHeadendRTT& result : pingedHeadendList) {
      resultStr << result.GetHeadend() << "     " << result.GetRTT() << "\n";
    }
    resultStr << "\n";
    if (selectedBest) {
      resultStr << "Selected '" << pingedHeadendList.front().GetHeadend()
                << "' as the optimal server.\n";
    } else {
      resultStr << "Retained the last server to maximize the user experience.\n";
    }
  }
  CAppLog::LogDebugMessage("logPingResults", LogSource, __LINE__, Logging::DBG_Info, "%s",
                           resultStr.str().c_str());
}
