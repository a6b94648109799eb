#pragma once

#include <memory>

#include "vpn/Common/IP/HttpTransfer.h"

/// The direct probes of one thread, which share a connection as long as the server lets them; see
/// `HttpProbe::KeptConnection`.
class KeptTransfer {
 public:
  ProbeOutcome send(const ProbeRequest& request);

 private:
  using Transfer = std::unique_ptr<HttpTransfer>;

  Transfer takeIdle(const ProbeRequest& request);

  const HttpTransfer::Names m_names = HttpTransfer::makeNames();  // first: transfers use it
  ProbeTarget m_target;
  bool m_keeps = false;
  Transfer m_idle;
};
