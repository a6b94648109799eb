// Brings the client library up and takes it down in the opposite order. Each member stands for one
// part that is up; destruction takes down exactly those.

#include "vpn/Api/ClientLibrary.h"

#include <new>

#include "vpn/Common/IP/HttpProbe.h"
#include "vpn/Common/Utility/ExecutionContext.h"

namespace {

constexpr const char* Function = "CClientLibrary";
constexpr const char* SourceFile = "vpn/Api/ClientLibrary";

void applyProbePreferences(PreferenceMgr& preferenceMgr) {
  std::string value;
  preferenceMgr.getPreferenceValue(RoundTripTime, value);
  HttpProbe::SetRoundTripMeasure(value == PreferenceBase::RoundTripResponse
                                     ? HttpProbe::RoundTripMeasure::Response
                                     : HttpProbe::RoundTripMeasure::Network);
}

}  // namespace

CClientLibrary::CClientLibrary(Options& options, STATUSCODE& status)
    : m_pPreferenceMgr(nullptr), m_pExecutionContext(nullptr) {
  try {
    status = start(options);
  } catch (const std::bad_alloc&) {
    status = PREFERENCEMGR_ERROR_MEMALLOC_FAILED;
    CAppLog::LogReturnCode(Function, SourceFile, __LINE__, Logging::DBG_Error,
                           "CClientLibrary::start", status, 0, nullptr);
  }
}

STATUSCODE CClientLibrary::start(Options& options) {
  options.logProblem = CAppLog::Open(options.log);

  STATUSCODE status = PreferenceMgr::createInstance(options.sources);
  if (status != PREFERENCEMGR_SUCCESS) {
    CAppLog::LogReturnCode(Function, SourceFile, __LINE__, Logging::DBG_Error,
                           "PreferenceMgr::createInstance", status, 0, nullptr);
    return status;
  }
  // Creation has counted the acquisition that this object holds; the one made to get at the
  // instance goes back.
  m_pPreferenceMgr = PreferenceMgr::acquireInstance();
  m_pPreferenceMgr->releaseInstance();
  applyProbePreferences(*m_pPreferenceMgr);

  status = CExecutionContext::createInstance(API_INSTANCE);
  if (status != EXECUTIONCONTEXT_SUCCESS) {
    CAppLog::LogReturnCode(Function, SourceFile, __LINE__, Logging::DBG_Error,
                           "CExecutionContext::createInstance", status, 0, nullptr);
    return status;
  }
  m_pExecutionContext = CExecutionContext::acquireInstance(API_INSTANCE);
  m_pExecutionContext->releaseInstance();
  return status;
}

CClientLibrary::~CClientLibrary() {
  if (m_pExecutionContext != nullptr) {
    m_pExecutionContext->releaseInstance();
  }
  if (m_pPreferenceMgr != nullptr) {
    m_pPreferenceMgr->releaseInstance();
  }
  CAppLog::Close();
}
