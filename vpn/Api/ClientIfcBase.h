#pragma once

#include <string>
#include <vector>

/// What a client implements to be told the outcome of a selection.
class ClientIfcBase {
 public:
  ClientIfcBase() = default;
  virtual ~ClientIfcBase() = default;

  /// The outcome of one selection run, called exactly once per run on a thread of its own.
  ///
  /// @param reason the reason code that the run was given.
  /// @param headends host, or host ":" port, best first; may be empty. Valid during the call only.
  /// @param status 0 for a selection from the cache, HEADENDSELECTION_ERROR_ADDED_TO_CACHE for a
  ///        fresh one, else why there is none (the list may then hold the headend used last).
  /// @param extraInfo the realm of an authenticating proxy for
  ///        HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED. Valid during the call only.
  virtual void AHSSelectedHost(unsigned int reason, const std::vector<std::string>& headends,
                               long status, const std::string& extraInfo) = 0;

 protected:
  /// The class has no data; copying serves clients that are copied themselves.
  /// @{
  ClientIfcBase(const ClientIfcBase&) = default;
  ClientIfcBase& operator=(const ClientIfcBase&) = default;
  /// @}
};
