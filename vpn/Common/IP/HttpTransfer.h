#pragma once

#include <chrono>
#include <memory>

#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"

/// Requests to one target over one connection: the first one opens it, and each later one goes out
/// on it again. Used by one thread.
class HttpTransfer {
 public:
  using Clock = PROBE_REQUEST::Clock;
  /// Addresses of names that transfers of one thread share; it outlives them. Null shares none.
  using Names = std::shared_ptr<void>;

  static Names MakeNames();

  /// @param keeps whether the rest of a short answer is wanted, so that the connection can be used
  ///        again.
  HttpTransfer(const PROBE_REQUEST& request, bool keeps, const Names& names);
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  /// Begins to send a request of the same target, which outlives it.
  void Start(const PROBE_REQUEST& request);

  /// Goes on until the request has ended, until `limit`, or until a rival, which goes on meanwhile,
  /// has its answer. A request ends with the head of its answer, or within its time-out.
  void Run(Clock::time_point limit, HttpTransfer* rival = nullptr);
  bool HasEnded() const;
  bool HasAnswer() const;
  /// What came of a request that has ended. To be called once.
  PROBE_OUTCOME TakeOutcome();

  /// Whether another request of the same target can be sent: brings in what is left of the answer,
  /// if it is there or comes within a round trip of its head, and looks whether the connection is
  /// open and nothing has come that nobody asked for, which must not be taken for the next answer.
  bool IsReadyFor(const PROBE_REQUEST& request);

 private:
  class Impl;
  const std::unique_ptr<Impl> m_impl;
};
