#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

#include "vpn/Common/IP/AnswerHead.h"
#include "vpn/Common/IP/ConnectPatience.h"
#include "vpn/Common/IP/NameLookup.h"
#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/TlsWatch.h"

/// Requests to one target over one connection: the first one opens it, and each later one goes out
/// on it again. Its callbacks gather what comes of them. Used by one thread.
class HttpTransfer {
 public:
  using Clock = ProbeRequest::Clock;
  /// Addresses of names that transfers of one thread share; it outlives them. Null shares none.
  using Names = std::shared_ptr<void>;

  static Names makeNames();

  /// @param keeps whether the rest of a short answer is wanted, so that the connection can be used
  ///        again.
  HttpTransfer(const ProbeRequest& request, bool keeps, const Names& names);
  ~HttpTransfer();
  HttpTransfer(const HttpTransfer&) = delete;
  HttpTransfer& operator=(const HttpTransfer&) = delete;

  /// Sends a request to the same target, which outlives it. Ends when the answer's head has come,
  /// the request has failed or timed out, or `limit` has passed. A rival whose limit had passed
  /// goes on meanwhile; then the first answer ends this, and one that had not connected ends it
  /// with whatever comes of its connection. @return whether it has its answer.
  /// @param mayStop also ends, to go on as a rival, when its task wants a second attempt to
  /// connect.
  bool send(const ProbeRequest& request, Clock::time_point limit = Clock::time_point::max(),
            HttpTransfer* rival = nullptr, bool mayStop = false);
  /// Whether it has ended after an attempt to connect was answered.
  bool wasHeard() const { return m_hasEnded && m_stands; }
  /// Whether it waits for an answer to its attempts to connect.
  bool isUnanswered() const { return !m_hasEnded && !m_stands && m_openedCount > 0; }
  bool hasAnswer() const { return m_hasEnded && m_outcome.code == 0; }
  /// What came of the last request. To be called once.
  ProbeOutcome takeOutcome();

  /// Whether another request to the same target can be sent. Reads the rest of the answer if it
  /// comes within a round trip of its head, and checks that the connection is open and that nothing
  /// unasked has come, which could be taken for the next answer.
  bool isReadyFor(const ProbeRequest& request);

 private:
  static constexpr int NoSocket = -1;
  using milliseconds = std::chrono::milliseconds;
  /// An attempt to connect.
  struct Attempt {
    int socket = NoSocket;
    Clock::time_point start;
  };
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
  bool wait(milliseconds longest, int& ready);
  milliseconds longestWait(Clock::time_point limit) const;
  bool isCancelled() const;
  void noteConnection();
  void checkPatience();
  void askPatience(milliseconds waited);
  bool wantsAnother() const;
  milliseconds toNextLook(Clock::time_point current) const;
  void fetchBody();
  void detach();
  long long now() const { return sinceStart(Clock::now()); }
  long long sinceStart(Clock::time_point time) const;
  void collectTimes();

  Shortage shortageOfLookUp() const;

  int open(int family, int type, int protocol);
  int close(int connection);
  void noteOpening();
  void noteRequest(int localPort);

  const bool m_keeps;
  const ProbeRequest* m_request = nullptr;  ///< the one under way
  unsigned int m_setup = 0;
  bool m_hasEnded = false;
  ProbeOutcome m_outcome;  ///< what is known of it so far
  AnswerHead m_head;
  long long m_firstByteMark = 0;  ///< libcurl's time of it, which changes when one has come
  TlsWatch m_tlsWatch;
  // The connection's, over all its requests.
  bool m_lost = false;  ///< an address has failed and libcurl may turn to the next
  long long m_openedUs = 0;
  long long m_clockUs = 0;  ///< when libcurl's clock started, which a busy machine delays
  long long m_tookUs = 0;
  long long m_openingUs = -1;
  long long m_rttUs = -1;
  /// The last few that were made, more than libcurl makes at a time.
  std::array<Attempt, 4> m_opened;
  std::size_t m_openedCount = 0;
  Clock::time_point m_firstOpened;
  bool m_stands = false;   ///< an attempt was answered
  bool m_wasLeft = false;  ///< attempts were given up
  ConnectPatience m_patience;
  Clock::time_point m_nextLook;
  unsigned int m_triedAddresses = 0;  ///< for the connection that is being made
  NameLookup m_lookup;
  int m_socket = NoSocket;  ///< while it is open and once a request could be sent
  ssl_st* m_tls = nullptr;  ///< the same of a secure one
  /// The easy handle is with the multi handle. After a request it is only if a body is due.
  bool m_attached = false;
  Clock::time_point m_startedAt;
  Clock::time_point m_headAt;
  /// What libcurl says of a failure; as long as it demands.
  std::array<char, 256> m_failure{};
  const Names m_names;
  // Last, so that they go first: the callbacks of the closing sockets write to the others.
  const Handle m_multi;
  const Handle m_easy;
};
