// Brings the client library up and takes it down in the opposite order.

#include "vpn/Api/ClientLibrary.h"

#include <new>

#include "vpn/Api/ConfigurationFormat.h"
#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Utility/ExecutionContext.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "vpn/Api/ClientLibrary";

void applyProbePreferences(PreferenceMgr& preferenceMgr) {
  std::string value;
  preferenceMgr.getPreferenceValue(RoundTripTime, value);
  HttpProbe::setRoundTripMeasure(
      value == PreferenceBase::RoundTripResponse  ? HttpProbe::RoundTripMeasure::Response
      : value == PreferenceBase::RoundTripNetwork ? HttpProbe::RoundTripMeasure::Network
                                                  : HttpProbe::RoundTripMeasure::Auto);
  preferenceMgr.getPreferenceValue(SilentHeadends, value);
  HttpProbe::setLeavesSilent(value != "wait");
  preferenceMgr.getPreferenceValue(SelectionNeedsService, value);
  HttpProbe::setNeedsService(value == "true");
}

unsigned short portOf(const URL& url) {
  constexpr unsigned short DefaultPort = 443;
  const std::string& port = url.getPort();
  return port.empty() ? DefaultPort : ConfigurationFormat::portOf(port);
}

void applyProbeHows(PreferenceMgr& preferenceMgr, const PreferenceMgr::Sources& sources) {
  const auto choose = [&sources](const ProbeHow& own) {
    return ProbeHow{sources.probeKind.value_or(own.kind), sources.probePort.value_or(own.port)};
  };
  ProbeHows hows;
  hows.others = choose({});
  ProfileMgr* profiles = nullptr;
  if (preferenceMgr.getProfileMgr(profiles) == PREFERENCEMGR_SUCCESS) {
    for (const auto& [name, host] : profiles->getHostProfileMap()) {
      const URL& url = host->getUrl();
      hows.known.emplace(std::pair(CStringUtils::toLower(url.getHost()), portOf(url)),
                         choose(host->getHow()));
    }
  }
  HttpProbe::setHows(std::move(hows));
}

}  // namespace

CClientLibrary::CClientLibrary(Options& options, STATUSCODE& status) {
  Environment::prepare(options.ignoresEnvironment);
  const char* step = "CAppLog::open";
  try {
    options.logProblem = CAppLog::open(options.log);
    step = "PreferenceMgr::createInstance";
    status = PreferenceMgr::createInstance(options.sources);
    if (status == PREFERENCEMGR_SUCCESS) {
      // This object holds the acquisition that creation has counted, so the one that fetched the
      // instance is released.
      m_pPreferenceMgr = PreferenceMgr::acquireInstance();
      m_pPreferenceMgr->releaseInstance();
      applyProbePreferences(*m_pPreferenceMgr);
      applyProbeHows(*m_pPreferenceMgr, options.sources);
      step = "CExecutionContext::createInstance";
      status = CExecutionContext::createInstance(API_INSTANCE);
    }
    if (status == EXECUTIONCONTEXT_SUCCESS) {
      m_pExecutionContext = CExecutionContext::acquireInstance(API_INSTANCE);
      m_pExecutionContext->releaseInstance();
    }
  } catch (const std::bad_alloc&) {
    status = PREFERENCEMGR_ERROR_MEMALLOC_FAILED;
  }
  if (status != 0) {
    CAppLog::LogReturnCode("CClientLibrary", SourceFile, __LINE__, Logging::DBG_Error, step, status,
                           0, nullptr);
  }
}

CClientLibrary::~CClientLibrary() {
  if (m_pExecutionContext != nullptr) {
    m_pExecutionContext->releaseInstance();
  }
  if (m_pPreferenceMgr != nullptr) {
    m_pPreferenceMgr->releaseInstance();
  }
  CAppLog::close();
}
