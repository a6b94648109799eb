#pragma once

#include <type_traits>

#include "tests/support/private_access.h"
#include "vpn/Api/AHS/HeadendSelection.h"

// What the tests of a selection run reach of its private part.

AHS_EXPOSE(Callback, &CHeadendSelection::m_pAHSCB);
AHS_EXPOSE(LastHeadend, &CHeadendSelection::m_lastHeadend);
AHS_EXPOSE(FoundInCache, &CHeadendSelection::m_foundInCache);
AHS_EXPOSE(PingResults, &CHeadendSelection::m_pingResults);
AHS_EXPOSE(HeadendList, &CHeadendSelection::m_headendList);
AHS_EXPOSE(Workers, &CHeadendSelection::m_pThreads);
AHS_EXPOSE(CacheLock, &CHeadendSelection::m_headendCacheLock);
AHS_EXPOSE(EndLock, &CHeadendSelection::m_headendThreadLock);
AHS_EXPOSE(Settings, &CHeadendSelection::m_settings);
AHS_EXPOSE(Timer, &CHeadendSelection::m_pTimer);
AHS_EXPOSE(Cache, &CHeadendSelection::m_cache);
AHS_EXPOSE(ProxyData, &CHeadendSelection::m_proxyData);
AHS_EXPOSE(Results, &CHeadendSelection::m_pResultsThread);

AHS_EXPOSE(SelectHeadend, &CHeadendSelection::selectHeadend);
AHS_EXPOSE(GetReasonText, &CHeadendSelection::getReasonText);
AHS_EXPOSE(FinishAHS, &CHeadendSelection::finishAHS);
AHS_EXPOSE(OnTimerExpired, &CHeadendSelection::OnTimerExpired);
AHS_EXPOSE(StartPingThreads, &CHeadendSelection::startPingThreads);
AHS_EXPOSE(GetHeadendListFromProfile, &CHeadendSelection::getHeadendListFromProfile);
AHS_EXPOSE(GetKnownHeadends, &CHeadendSelection::getKnownHeadends);
AHS_EXPOSE(GetProxy, &CHeadendSelection::getProxy);
AHS_EXPOSE(GetProxyServer, &CHeadendSelection::getProxyServer);
AHS_EXPOSE(AddHeadendToList, &CHeadendSelection::addHeadendToList);
AHS_EXPOSE(GetPingResults, &CHeadendSelection::getPingResults);
AHS_EXPOSE(GetBestHeadendsList, &CHeadendSelection::getBestHeadendsList);

AHS_EXPOSE(WorkerHeadend, &CHeadendSelection::CSelectionThread::m_headend);
AHS_EXPOSE(WorkerNumPings, &CHeadendSelection::CSelectionThread::m_numPings);
AHS_EXPOSE(WorkerTimeout, &CHeadendSelection::CSelectionThread::m_timeout);
AHS_EXPOSE(WorkerPingTimeout, &CHeadendSelection::CSelectionThread::m_pingTimeout);
AHS_EXPOSE(WorkerLock, &CHeadendSelection::CSelectionThread::m_headendPingThreadLock);

AHS_EXPOSE(UrlPort, &URL::m_sPort);

namespace tests {

using Worker = std::remove_pointer_t<std::remove_reference_t<decltype(member<Workers>(
    std::declval<CHeadendSelection&>()))>::value_type>;
using ResultsThread = std::remove_pointer_t<
    std::remove_reference_t<decltype(member<Results>(std::declval<CHeadendSelection&>()))>>;

}  // namespace tests
