// Brings the client library up and takes it down in the opposite order.

#include "vpn/Api/ClientLibrary.h"

#include <new>

#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Utility/ExecutionContext.h"

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
