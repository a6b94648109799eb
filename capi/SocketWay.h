#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "ahs/ahs.h"
#include "vpn/Common/IP/SocketRoute.h"
#include "vpn/include/Locks.h"

/// How the sockets of a selection leave the machine.
class SocketWay {
 public:
  SocketWay();

  /// Takes interface, source address and mark from a request, and tries them on a socket.
  /// @return an empty text, or which member is wrong and why.
  std::string take(const ahs_request& request);

  /// The way in words that distinguish it from others.
  std::vector<std::string> words() const { return m_route.words(); }

  /// Prepares a socket, and lets the client look at it. The first failure is logged. Any thread may
  /// call it. @return whether it may be used.
  bool prepare(int socket, int family);

  /// Refuses every socket from now on, and waits for a running callback of the client. Any thread
  /// may call it, except inside that callback.
  void close();

 private:
  bool ask(int socket);

  // Constant from `take` on.
  SocketRoute m_route{{"request.interface_name", "request.source_address", "request.mark"}};
  ahs_socket_callback m_callback = nullptr;
  void* m_context = nullptr;

  std::atomic<bool> m_hasFailed{false};
  CMonitor m_lock;  // notified of a callback's end
  bool m_isClosed AHS_GUARDED_BY(m_lock) = false;
  unsigned int m_callbacks AHS_GUARDED_BY(m_lock) = 0;  // running now
};
