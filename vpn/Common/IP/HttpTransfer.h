#pragma once

#include <array>
#include <chrono>
#include <memory>

#include "vpn/Common/IP/AnswerHead.h"
#include "vpn/Common/IP/NameLookup.h"
#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/TlsWatch.h"

/// One request by libcurl: through a proxy, or a mere handshake. Its callbacks gather what comes of
/// it. Used by one thread.
class HttpTransfer {
 public:
  using Clock = ProbeRequest::Clock;

  /// @param request outlives it.
  explicit HttpTransfer(const ProbeRequest& request);
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  /// Ends when the answer's head has come, or the request has failed or timed out.
  void send();
  /// What came of it. To be called once.
  ProbeOutcome takeOutcome();

 private:
  static constexpr int NoSocket = -1;
  using milliseconds = std::chrono::milliseconds;
  using Handle = std::unique_ptr<void, void (*)(void*)>;

  template <class Option, class T>
  void set(Option option, T value);
  template <class T, class Info>
  T get(Info info) const;

  void setUpCallbacks();
  void setUpTelling();
  void start();
  void step();
  void end(unsigned int code);
  unsigned int resultOfEnded();
  void noteFirstByte();
  bool wait();
  milliseconds longestWait() const;
  bool isCancelled() const;
  void detach();
  long long now() const;
  void collectTimes();

  Shortage shortageOfLookUp() const;

  int open(int family, int type, int protocol);
  int close(int connection);
  void noteRequest();

  const ProbeRequest& m_request;
  unsigned int m_setup = 0;
  bool m_hasEnded = false;
  ProbeOutcome m_outcome;  ///< what is known of it so far
  AnswerHead m_head;
  long long m_firstByteMark = 0;  ///< libcurl's time of it, which changes when one has come
  TlsWatch m_tlsWatch;
  bool m_lost = false;  ///< an address has failed and libcurl may turn to the next
  long long m_openedUs = 0;
  long long m_clockUs = 0;  ///< when libcurl's clock started, which a busy machine delays
  long long m_rttUs = -1;
  unsigned int m_triedAddresses = 0;  ///< for the connection that is being made
  NameLookup m_lookup;
  /// The easy handle is with the multi handle.
  bool m_attached = false;
  Clock::time_point m_startedAt;
  // What libcurl says of a failure; as long as it demands.
  std::array<char, 256> m_failure{};
  // Last, so that they go first: the callbacks of the closing sockets write to the others.
  const Handle m_multi;
  const Handle m_easy;
};
