// Answers as the protocols' own documents have them, not as the prober writes them.

#include "tests/support/DatagramGateway.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace tests {
namespace {

using Datagram = DatagramGateway::Datagram;

Datagram part(const Datagram& from, std::size_t at, std::size_t size) {
  return {from.begin() + static_cast<std::ptrdiff_t>(at),
          from.begin() + static_cast<std::ptrdiff_t>(at + size)};
}

Datagram joined(const std::vector<Datagram>& parts) {
  Datagram all;
  for (const Datagram& each : parts) {
    all.insert(all.end(), each.begin(), each.end());
  }
  return all;
}

}  // namespace

DatagramGateway::DatagramGateway(Script script) : m_script(std::move(script)) {
  m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(m_socket, generic, length) != 0 || getsockname(m_socket, generic, &length) != 0) {
    throw std::runtime_error("no UDP port");
  }
  m_where.port = ntohs(address.sin_port);
  m_thread = std::thread([this] { run(); });
}

DatagramGateway::~DatagramGateway() {
  m_mustEnd = true;
  m_thread.join();
  close(m_socket);
}

void DatagramGateway::run() {
  constexpr int LookEveryMs = 20;
  while (!m_mustEnd) {
    pollfd readable{m_socket, POLLIN, 0};
    if (poll(&readable, 1, LookEveryMs) != 1) {
      continue;
    }
    Datagram datagram(2048);
    sockaddr_in from{};
    socklen_t length = sizeof from;
    auto* const generic = reinterpret_cast<sockaddr*>(&from);
    const ssize_t size = recvfrom(m_socket, datagram.data(), datagram.size(), 0, generic, &length);
    if (size < 0) {
      continue;
    }
    datagram.resize(static_cast<std::size_t>(size));
    for (const Datagram& answer : m_script(datagram, m_count++)) {
      sendto(m_socket, answer.data(), answer.size(), 0, generic, length);
    }
  }
}

/// P_CONTROL_HARD_RESET_SERVER_V2, which acknowledges the client's packet.
std::vector<Datagram> DatagramGateway::OpenVpn(const Datagram& datagram, unsigned int /*number*/) {
  if (datagram.size() != 14 || datagram[0] != 0x38) {
    return {};
  }
  return {joined({{0x40},
                  {8, 7, 6, 5, 4, 3, 2, 1},
                  {1},
                  part(datagram, 10, 4),
                  part(datagram, 1, 8),
                  {0, 0, 0, 0}})};
}

/// A response that chooses no proposal.
std::vector<Datagram> DatagramGateway::Ike(const Datagram& datagram, unsigned int /*number*/) {
  const std::size_t told = datagram.size() < 28 ? 0 : datagram[26] * 256U + datagram[27];
  if (told != datagram.size() || datagram[16] != 33 || datagram[18] != 34 || datagram[19] != 8) {
    return {};
  }
  return {joined({part(datagram, 0, 8),
                  {8, 7, 6, 5, 4, 3, 2, 1},
                  {41, 0x20, 34, 0x20},
                  {0, 0, 0, 0},
                  {0, 0, 0, 36},
                  {0, 0, 0, 8, 0, 0, 0, 14}})};
}

/// Names the one version that it has.
std::vector<Datagram> DatagramGateway::Quic(const Datagram& datagram, unsigned int /*number*/) {
  if (datagram.size() < 1200 || datagram[0] < 0xc0 || datagram[5] != 8 || datagram[14] != 8) {
    return {};
  }
  return {joined(
      {{0xaa}, {0, 0, 0, 0}, {8}, part(datagram, 15, 8), {8}, part(datagram, 6, 8), {0, 0, 0, 1}})};
}

}  // namespace tests
