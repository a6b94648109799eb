#pragma once

#include <memory>

#include "vpn/Common/IP/HttpTransfer.h"

/// The direct probes of one thread, which share a connection as long as the server lets them; see
/// `HttpProbe::KeptConnection`.
class KeptTransfer {
 public:
  PROBE_OUTCOME Send(const PROBE_REQUEST& request);

 private:
  using Transfer = std::unique_ptr<HttpTransfer>;

  Transfer takeIdle(const PROBE_REQUEST& request);

  const HttpTransfer::Names m_names = HttpTransfer::MakeNames();  // first: transfers use it
  PROBE_TARGET m_target;
  bool m_keeps = false;
  Transfer m_idle;
};
