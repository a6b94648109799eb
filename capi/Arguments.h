#pragma once

#include <memory>
#include <string>

#include "ahs/ahs.h"
#include "vpn/Api/ClientLibrary.h"
#include "vpn/Api/ProxyIfc.h"

/// What a library is started with, checked.
struct StartPlan {
  PreferenceMgr::Sources sources;
  CAppLog::Targets log;
  ahs_log_callback onLog = nullptr;
  void* logContext = nullptr;
  bool ownLoop = false;
  bool ignoresEnvironment = false;

  /// Whether another start asks for the same library.
  bool isSame(const StartPlan& other) const;
};

/// Checks options. @param options null for AHS_OPTIONS_INIT.
/// @return an empty text, or which one is wrong and how to mend it.
std::string takeOptions(const ahs_options* options, StartPlan& plan);

/// Copies the members that a request has, and checks them. The texts stay the caller's.
/// @param request null for AHS_REQUEST_INIT.
/// @return an empty text, or what is wrong and how to mend it.
std::string takeRequest(const ahs_request* request, ahs_request& copy);

/// The provider that a checked request asks for; null for none.
/// @param isSystemProxy the preferences name the system's proxy.
std::unique_ptr<ProxyIfc> providerFor(const ahs_request& request, bool isSystemProxy);
