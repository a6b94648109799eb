#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vpn/Common/IP/ConnectPatience.h"
#include "vpn/Common/IP/ProbeOutcome.h"
#include "vpn/Common/IP/ProbePacket.h"
#include "vpn/Common/IP/ProbeRequest.h"
#include "vpn/Common/IP/SocketLoop.h"

/// One probe over UDP: sends a packet to a gateway's addresses, again and again until one answers.
/// Each copy is a packet of its own, so that an answer tells which one it is for. Used by one
/// thread.
class DatagramTransfer : private SocketLoop::Wait {
 public:
  using Clock = ProbeRequest::Clock;

  /// @param request direct, its kind not Http; outlives it.
  explicit DatagramTransfer(const ProbeRequest& request) : m_request(request) {}
  ~DatagramTransfer() override;

  /// Ends when an answer has come, all addresses refuse, or the request has timed out. The round
  /// trip is from the kernel's time of the packet to that of the answer (SO_TIMESTAMPING in
  /// Linux's Documentation/networking/timestamping.rst).
  ProbeOutcome send();

 private:
  static constexpr int NoSocket = -1;
  static constexpr std::size_t MostAddresses = 4;
  using milliseconds = std::chrono::milliseconds;

  /// One packet.
  struct Attempt {
    ProbePacket packet;
    Clock::time_point sentAt;
    long long kernelSentUs = -1;  ///< by the kernel's clock
  };
  struct Way {
    sockaddr_in6 address{};
    int socket = NoSocket;
    bool isKnown = false;  ///< to the loop
    Clock::time_point nextAt;
    std::vector<Attempt> attempts;
  };

  void noteEvents(int socket, std::uint32_t events) noexcept override;
  bool isOver(Clock::time_point now, Clock::time_point& next) noexcept override;

  void findAddresses();
  void work();
  void checkTime();
  void askPatience(Clock::time_point now);
  void open(Way& way);
  void sendOn(Way& way);
  void read(Way& way);
  void readSendTimes(Way& way);
  void take(const Way& way, const Attempt& attempt, long long kernelUs);
  void close(Way& way);
  void end(unsigned int code);
  bool isCancelled() const;
  long long sinceStart(Clock::time_point when) const;

  const ProbeRequest& m_request;
  ProbeOutcome m_outcome;
  bool m_hasEnded = false;
  bool m_hasEvents = false;
  std::array<Way, MostAddresses> m_ways;
  std::size_t m_count = 0;
  ConnectPatience m_patience;
  Clock::time_point m_startedAt;
  Clock::time_point m_openedAt;
  Clock::time_point m_nextLook;
  Clock::time_point m_wakesAt;
};
