#pragma once

#include <memory>

#include "vpn/Common/IP/DirectTransfer.h"

/// The direct probes of one thread, which share a connection as long as the server lets them; see
/// `HttpProbe::KeptConnection`.
class KeptTransfer {
 public:
  ProbeOutcome send(const ProbeRequest& request);

 private:
  using Transfer = std::unique_ptr<DirectTransfer>;

  Transfer takeIdle(const ProbeRequest& request);

  ProbeTarget m_target;
  DirectTransfer::Addresses m_addresses;  // of the target; transfers use it
  bool m_keeps = false;
  Transfer m_idle;
};
