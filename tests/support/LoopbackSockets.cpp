// Loopback endpoints with and without servers. The ports lie below the kernel's range for outgoing
// connections. Each process of the test run uses its own window, so that parallel tests do not take
// each other's ports.

#include "tests/support/LoopbackSockets.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace tests {

namespace {

constexpr unsigned int FirstPort = 20000;
constexpr unsigned int LastPort = 31999;
/// Ports of one process: more than a test has servers.
constexpr unsigned int PortsPerProcess = 40;

struct AddressInfoDeleter {
  void operator()(addrinfo* info) const { ::freeaddrinfo(info); }
};

std::unique_ptr<addrinfo, AddressInfoDeleter> resolve(const Endpoint& where) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* info = nullptr;
  const int error =
      ::getaddrinfo(where.address.c_str(), std::to_string(where.port).c_str(), &hints, &info);
  if (error != 0) {
    throw std::runtime_error(where.address + " is no address: " + ::gai_strerror(error));
  }
  return std::unique_ptr<addrinfo, AddressInfoDeleter>(info);
}

/// A socket bound to an endpoint; -1 with errno if that fails.
/// @param reuse whether closed connections of an earlier server may linger; then other sockets can
///        be bound to the endpoint as well, until one of them listens.
int bindSocket(const Endpoint& where, bool reuse = true) {
  const auto info = resolve(where);
  const int handle = ::socket(info->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = reuse ? 1 : 0;
  if (handle >= 0 && (::setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
                      ::bind(handle, info->ai_addr, info->ai_addrlen) != 0)) {
    const int error = errno;
    ::close(handle);
    errno = error;
    return -1;
  }
  return handle;
}

int listenOrThrow(Endpoint where) {
  const int handle = boundSocket(where);
  if (::listen(handle, SOMAXCONN) != 0) {
    const int error = errno;
    ::close(handle);
    throw std::runtime_error("cannot listen at " + where.Text() + ": " + std::strerror(error));
  }
  return handle;
}

}  // namespace

std::string Endpoint::Text() const {
  const bool isIPv6 = address.find(':') != std::string::npos;
  return (isIPv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

bool hasAddress(const std::string& address) {
  const int handle = bindSocket({address, 0});
  if (handle >= 0) {
    ::close(handle);
  }
  return handle >= 0;
}

Endpoint freeEndpoint(const std::string& address) {
  // Cycles through the ports, so that no port is soon used again.
  static unsigned int next = 0;
  const unsigned int windows = (LastPort - FirstPort + 1) / PortsPerProcess;
  const unsigned int window = static_cast<unsigned int>(::getpid()) % windows;
  for (unsigned int tried = 0; tried < PortsPerProcess; ++tried) {
    const unsigned int port = FirstPort + window * PortsPerProcess + next++ % PortsPerProcess;
    Endpoint candidate{address, static_cast<unsigned short>(port)};
    const int handle = bindSocket(candidate);
    if (handle >= 0) {
      const bool isFree = ::listen(handle, 1) == 0;
      ::close(handle);
      if (isFree) {
        return candidate;
      }
    }
  }
  throw std::runtime_error("no free port left for this test on " + address);
}

int boundSocket(Endpoint& where) {
  const int handle = bindSocket(where);
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  if (handle < 0 || ::getsockname(handle, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    throw std::runtime_error("cannot bind " + where.Text() + ": " + std::strerror(errno));
  }
  where.port =
      ntohs(bound.ss_family == AF_INET ? reinterpret_cast<sockaddr_in*>(&bound)->sin_port
                                       : reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
  return handle;
}

int connectingSocket(const Endpoint& where, int flags) {
  const auto info = resolve(where);
  const int handle = ::socket(info->ai_family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (handle >= 0 && ::connect(handle, info->ai_addr, info->ai_addrlen) != 0 &&
      errno != EINPROGRESS) {
    ::close(handle);
    return -1;
  }
  return handle;
}

bool isListening(const Endpoint& endpoint) {
  const int handle = connectingSocket(endpoint);
  if (handle >= 0) {
    ::close(handle);
  }
  return handle >= 0;
}

RefusingPort::RefusingPort(const std::string& address) {
  // A parallel test's server must not take the port.
  for (unsigned int tried = 0; m_socket < 0 && tried < PortsPerProcess; ++tried) {
    m_where = freeEndpoint(address);
    m_socket = bindSocket(m_where, false);
  }
  if (m_socket < 0) {
    throw std::runtime_error("no port of " + address + " is this test's own");
  }
}

RefusingPort::~RefusingPort() { ::close(m_socket); }

SilentListener::SilentListener(const std::string& address)
    : m_where(freeEndpoint(address)), m_socket(listenOrThrow(m_where)) {}

SilentListener::~SilentListener() {
  for (const int connection : m_connections) {
    ::close(connection);
  }
  ::close(m_socket);
}

std::size_t SilentListener::ConnectionCount() {
  for (;;) {
    const int connection = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      return m_connections.size();
    }
    m_connections.push_back(connection);
  }
}

}  // namespace tests
