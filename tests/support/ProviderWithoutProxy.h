#pragma once

#include <string>

#include "vpn/Api/ProxyIfc.h"

namespace tests {

/// A proxy provider that knows neither a proxy nor a user: all that is left of it is that the
/// workers' probes are sent over TLS.
class ProviderWithoutProxy : public ProxyIfc {
 public:
  UnprotectedCredential getProxyUser() override { return UnprotectedCredential(); }
  UnprotectedCredential getProxyPswd() override { return UnprotectedCredential(); }
  std::string getProxyHost() override { return ""; }
  ProxyType getProxyType() override { return BasicProxy; }
};

}  // namespace tests
