#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "vpn/Common/IP/AnswerHead.h"
#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/TlsWatch.h"

/// Requests to one target over one connection: the first one opens it, and each later one goes out
/// on it again. Its callbacks gather what comes of them. Used by one thread.
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
  bool HasEnded() const { return m_hasEnded; }
  bool HasAnswer() const { return m_hasEnded && m_code == 0; }
  /// What came of a request that has ended. To be called once.
  PROBE_OUTCOME TakeOutcome();

  /// Whether another request of the same target can be sent: brings in what is left of the answer,
  /// if it is there or comes within a round trip of its head, and looks whether the connection is
  /// open and nothing has come that nobody asked for, which must not be taken for the next answer.
  bool IsReadyFor(const PROBE_REQUEST& request);

 private:
  /// What the callbacks gather of one request. Times are in microseconds since the probe started, 0
  /// for what did not happen.
  struct GATHERED {
    AnswerHead head;
    std::string request;
    long long tlsStartUs = 0;
    long long requestUs = 0;    ///< when the first request was about to be sent
    long long firstByteUs = 0;  ///< of the last answer
    long long endedUs = 0;
    long long firstByteMark = 0;  ///< libcurl's time of it, which changes when one has come
  };
  using Handle = std::unique_ptr<void, void (*)(void*)>;

  template <class Option, class T>
  void set(Option option, T value);
  template <class T, class Info>
  T get(Info info) const;

  void setUpCallbacks();
  void setUpTelling();
  void step();
  void end(unsigned int code);
  unsigned int resultOfEnded();
  void noteFirstByte();
  bool wait(std::chrono::milliseconds longest, int otherSocket, int& ready);
  std::chrono::milliseconds longestWait(Clock::time_point limit) const;
  bool isCancelled() const;
  void fetchBody();
  void detach();
  long long now() const { return sinceStart(Clock::now()); }
  long long sinceStart(Clock::time_point time) const;
  void collectTimes(PROBE_OUTCOME& outcome);

  int open(int family, int type, int protocol);
  int close(int connection);
  void noteRequest(int localPort);

  static constexpr int kNoSocket = -1;

  const bool m_keeps;
  const PROBE_REQUEST* m_request = nullptr;  ///< the one under way
  unsigned int m_setup = 0;
  bool m_hasEnded = false;
  unsigned int m_code = 0;
  GATHERED m_seen;
  TlsWatch m_tlsWatch;
  // The connection's, over all its requests.
  bool m_reused = false;
  bool m_lost = false;  ///< an address has failed and libcurl may turn to the next
  long long m_openedUs = 0;
  long long m_tookUs = 0;
  long long m_rttUs = -1;
  /// The last few sockets that were made, more than libcurl tries at a time.
  std::array<int, 4> m_opened{kNoSocket, kNoSocket, kNoSocket, kNoSocket};
  std::size_t m_openedCount = 0;
  int m_socket = kNoSocket;  ///< while it is open and once a request could be sent
  ssl_st* m_tls = nullptr;   ///< the same of a secure one
  /// The easy handle is with the multi handle. After a request it is only if a body is due.
  bool m_attached = false;
  Clock::time_point m_startedAt;
  Clock::time_point m_headAt;
  const Names m_names;
  // Last, so that they go first: the callbacks of the closing sockets write to the others.
  const Handle m_multi;
  const Handle m_easy;
};
