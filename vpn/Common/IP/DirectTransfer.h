#pragma once

#include <netinet/in.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vpn/Common/IP/AddressLookup.h"
#include "vpn/Common/IP/AnswerReader.h"
#include "vpn/Common/IP/ConnectPatience.h"
#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/SocketLoop.h"
#include "vpn/Common/IP/TlsConnection.h"

/// Direct requests to one host over one connection: the first one opens it, and each later one goes
/// out on it again. Its sockets are waited for by `SocketLoop`. Used by one thread, and
/// during `send` by the one that leads the loop: the task's `unanswered`, `connected` and evidence
/// come from there. What TLS computes is left to the thread whose request it is.
class DirectTransfer {
 public:
  using Clock = ProbeRequest::Clock;

  /// Whether a request can be sent like this.
  static bool serves(const ProbeRequest& request);

  /// What is known of a host's addresses.
  struct Addresses {
    AddressLookup::Addresses all;
    AddressLookup::Late late;  ///< an answer that an earlier transfer has not waited for
  };

  /// @param keeps whether the rest of a short answer is wanted, so that the connection can be used
  ///        again.
  /// @param addresses of the host, found by the first transfer and then known to the later ones;
  ///        outlives it.
  DirectTransfer(const ProbeRequest& request, bool keeps, Addresses& addresses);
  ~DirectTransfer();
  DirectTransfer(const DirectTransfer&) = delete;
  DirectTransfer& operator=(const DirectTransfer&) = delete;

  /// Sends a request to the same target, which outlives it. Ends when the answer's head has come,
  /// the request has failed or timed out, or `limit` has passed. A rival whose limit had passed
  /// goes on meanwhile; then the first answer ends this, and one that had not connected ends it
  /// with whatever comes of its connection. @return whether it has its answer.
  /// @param mayStop also ends, to go on as a rival, when its task wants a second attempt to
  /// connect.
  bool send(const ProbeRequest& request, Clock::time_point limit = Clock::time_point::max(),
            DirectTransfer* rival = nullptr, bool mayStop = false);
  /// Whether it has ended after an attempt to connect was answered.
  bool wasHeard() const { return m_hasEnded && m_stands; }
  /// Whether it waits for an answer to its attempts to connect.
  bool isUnanswered() const { return !m_hasEnded && !m_stands && isConnecting(); }
  bool hasAnswer() const { return m_hasEnded && m_outcome.code == 0; }
  /// What came of the last request. To be called once.
  ProbeOutcome takeOutcome();

  /// Whether another request to the same target can be sent. Reads the rest of the answer if it
  /// comes within a round trip of its head, and checks that the connection is open and that nothing
  /// unasked has come, which could be taken for the next answer.
  bool isReadyFor(const ProbeRequest& request);

 private:
  static constexpr int NoSocket = -1;
  static constexpr long long Unknown = -1;
  using milliseconds = std::chrono::milliseconds;
  class Race;
  /// One socket, and the addresses of a family that it tries one after the other.
  struct Way {
    sa_family_t family = 0;
    std::size_t next = 0;  ///< of all addresses
    int socket = NoSocket;
    bool isKnown = false;    ///< to the loop
    bool hasFailed = false;  ///< its attempt has
    sockaddr_in6 address{};
    Clock::time_point start;
    Clock::time_point limit;  ///< then it is the next address' turn
  };

  void start();
  bool findAddresses();
  void beginToConnect();
  void connectOn();
  const sockaddr_in6* nextOf(Way& way) const;
  void open(Way& way, const sockaddr_in6& address);
  void close(Way& way);
  bool isConnecting() const;
  bool isConnectingDue(Clock::time_point now) const;
  Clock::time_point nextConnecting() const;
  void noteEvents(int socket, std::uint32_t events);
  void noteConnection(Way& way);
  void forEachSocket(SocketLoop::Wait& wait);
  void step();
  void shakeHands();
  void write();
  void read();
  bool isInTime() const;
  TlsConnection::State send(const char* bytes, std::size_t size, std::size_t& count);
  TlsConnection::State receive(char* bytes, std::size_t size, std::size_t& count);
  unsigned int codeOf(unsigned int plain) const;
  void fail(unsigned int code, int error);
  void end(unsigned int code);
  void checkTime(Clock::time_point now);
  void checkPatience(Clock::time_point now);
  void askPatience(milliseconds waited);
  bool wantsAnother(Clock::time_point now) const;
  Clock::time_point nextLook() const;
  void fetchBody();
  void close();
  bool isCancelled() const;
  long long now() const;

  const bool m_keeps;
  const ProbeRequest* m_request;
  bool m_hasEnded = false;
  ProbeOutcome m_outcome;  ///< what is known of it so far
  AnswerReader m_reader;
  std::size_t m_sent = 0;  ///< bytes of the request
  std::uint32_t m_events = 0;
  bool m_mustStep = false;  ///< something has happened that is for the request's own thread
  // The connection's, over all its requests.
  std::string m_text;  ///< the request
  Addresses& m_addresses;
  std::array<Way, 2> m_ways;  ///< the second one begins later
  std::size_t m_tried = 0;
  Clock::time_point m_secondAt;
  bool m_wasLeft = false;  ///< attempts were given up
  sockaddr_in6 m_address{};
  int m_socket = NoSocket;  ///< once it is connected
  bool m_isKnown = false;   ///< to the loop
  std::unique_ptr<TlsConnection> m_tls;
  bool m_isSecured = false;  ///< its handshake is done
  bool m_stands = false;
  bool m_opensAgain = false;  ///< an attempt to connect was repeated
  long long m_openedUs = 0;
  long long m_tookUs = 0;
  long long m_openingUs = Unknown;
  long long m_rttUs = Unknown;
  ConnectPatience m_patience;
  Clock::time_point m_startedAt;
  Clock::time_point m_openedAt;
  Clock::time_point m_nextLook;
  Clock::time_point m_headAt;
};
