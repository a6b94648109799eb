#pragma once

#include <memory>

#include "vpn/Common/IP/HttpTransfer.h"

/// The direct probes of one thread, which share a connection as long as the server lets them.
///
/// Outcomes are as without it. A request that a kept connection does not answer within a quarter of
/// the time-out is sent on a fresh one too, and the first answer counts; one that a kept connection
/// does anything but answer is sent on a fresh one alone. A server whose connection could not be
/// used again once is not asked to keep another.
class KeptTransfer {
 public:
  PROBE_OUTCOME Send(const PROBE_REQUEST& request);

 private:
  using Transfer = std::unique_ptr<HttpTransfer>;

  Transfer takeIdle(const PROBE_REQUEST& request);
  Transfer sendFresh(const PROBE_REQUEST& request, HttpTransfer* silent) const;

  HttpTransfer::Names m_names;  // first: transfers use it
  PROBE_TARGET m_target;
  bool m_keeps = false;
  Transfer m_idle;
};
