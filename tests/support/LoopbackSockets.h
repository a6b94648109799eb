#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tests {

/// An IP address of this machine with a port.
struct Endpoint {
  std::string address;  ///< "127.0.0.1" or "::1"
  unsigned short port = 0;

  /// As it is written in a profile: "127.0.0.1:8443", "[::1]:8443".
  std::string Text() const;
};

/// Whether this machine has an address ("::1").
bool hasAddress(const std::string& address);

/// An endpoint that nothing listens on now, and that the kernel gives to no one by itself.
/// @throws std::runtime_error when none can be found.
Endpoint freeEndpoint(const std::string& address);

/// A socket bound to an endpoint; where the port is 0 it becomes the kernel's choice.
/// @throws std::runtime_error.
int boundSocket(Endpoint& where);

/// A socket that connects to an endpoint, -1 when it cannot. @param flags SOCK_NONBLOCK: it may not
/// be connected yet.
int connectingSocket(const Endpoint& where, int flags = 0);

/// Whether something takes connections at an endpoint.
bool isListening(const Endpoint& endpoint);

/// An endpoint that refuses connections, and that nobody else can take as long as this lives.
class RefusingPort {
 public:
  explicit RefusingPort(const std::string& address);
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  const Endpoint& Where() const { return m_where; }

 private:
  Endpoint m_where;
  int m_socket = -1;
};

/// A listener that lets the kernel take every connection and never says a word. Used by one thread.
class SilentListener {
 public:
  /// At a free port of `address`. @throws std::runtime_error.
  explicit SilentListener(const std::string& address);
  ~SilentListener();
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;

  const Endpoint& Where() const { return m_where; }

  /// Connections so far; they stay open.
  std::size_t ConnectionCount();

 private:
  Endpoint m_where;
  int m_socket;
  std::vector<int> m_connections;
};

}  // namespace tests
