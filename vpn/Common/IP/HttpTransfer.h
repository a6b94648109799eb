#pragma once

#include <memory>

#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"

/// A request that can be sent, once or again and again, and the connection that it goes through.
/// Used by one thread.
class HttpTransfer {
 public:
  enum class Connection {
    /// Goes with the answer.
    Once,
    /// Stays open for the next time, if the server lets it and its answer is short.
    Kept,
  };

  /// @param request its time-out is not looked at. Credentials need not outlive the first
  /// `Perform`.
  HttpTransfer(const PROBE_REQUEST& request, Connection connection);
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  /// Whether this is the transfer for a request: all that is sent, and to whom, is the same, and so
  /// is what is trusted.
  bool Serves(const PROBE_REQUEST& request) const;

  /// Sends the request within what is left of its time-out, and waits for the head of the answer.
  /// What had to be done before it could be sent is noted in the request as time spent.
  PROBE_OUTCOME Perform(PROBE_REQUEST& request);

  /// Prepares the process for transfers. False if that could not be done.
  static bool Initialise(bool secure);

 private:
  class Impl;
  const std::unique_ptr<Impl> m_impl;
};
