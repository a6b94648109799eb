#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <thread>
#include <vector>

#include "tests/support/LoopbackSockets.h"

namespace tests {

/// A gateway that speaks UDP on the loopback: answers each datagram as its script says.
class DatagramGateway {
 public:
  using Datagram = std::vector<std::uint8_t>;
  /// @param number of the datagram, from 0. @return the answers, in their order.
  using Script =
      std::function<std::vector<Datagram>(const Datagram& datagram, unsigned int number)>;

  explicit DatagramGateway(Script script);
  ~DatagramGateway();
  DatagramGateway(const DatagramGateway&) = delete;
  DatagramGateway& operator=(const DatagramGateway&) = delete;

  const Endpoint& Where() const { return m_where; }
  /// How many datagrams have come.
  unsigned int Count() const { return m_count; }

  /// What an OpenVPN, an IKE or a QUIC server answers; nothing to what it does not know.
  static std::vector<Datagram> OpenVpn(const Datagram& datagram, unsigned int number);
  static std::vector<Datagram> Ike(const Datagram& datagram, unsigned int number);
  static std::vector<Datagram> Quic(const Datagram& datagram, unsigned int number);

 private:
  void run();

  const Script m_script;
  Endpoint m_where{"127.0.0.1", 0};
  int m_socket;
  std::atomic<bool> m_mustEnd{false};
  std::atomic<unsigned int> m_count{0};
  std::thread m_thread;
};

}  // namespace tests
