// The way of probes: the route that the request asks for, and what the client does to each socket.

#include "capi/SocketWay.h"

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/GuardedCall.h"

namespace {

constexpr const char* SourceFile = "capi/SocketWay";

}  // namespace

SocketWay::SocketWay() = default;

std::string SocketWay::take(const ahs_request& request) {
  m_callback = request.on_socket;
  m_context = request.socket_context;
  const auto textOf = [](const char* text) { return std::string(text == nullptr ? "" : text); };
  return m_route.take({.interface = textOf(request.interface_name),
                       .source = textOf(request.source_address),
                       .mark = request.mark});
}

bool SocketWay::prepare(int socket, int family) {
  if (!m_route.allows(family)) {
    return false;
  }
  const std::string error = m_route.apply(socket);
  if (!error.empty()) {
    if (!m_hasFailed.exchange(true)) {
      CAppLog::LogDebugMessage("prepare", SourceFile, __LINE__, Logging::DBG_Warning,
                               "probes cannot leave as requested: %s", error.c_str());
    }
    return false;
  }
  return m_callback == nullptr || ask(socket);
}

/// Asks the client. An exception from the callback refuses the socket.
bool SocketWay::ask(int socket) {
  {
    const CAutoLockT<CMonitor> guard(m_lock);
    if (m_isClosed) {
      return false;
    }
    ++m_callbacks;
  }
  bool isGranted = false;
  guardedCall([&] { isGranted = m_callback(socket, m_context) == 0; },
              [](const char* what) {
                CAppLog::LogDebugMessage("ask", SourceFile, __LINE__, Logging::DBG_Error,
                                         "a callback of the client has thrown: %s", what);
              });
  const CAutoLockT<CMonitor> guard(m_lock);
  --m_callbacks;
  m_lock.notifyAll();
  return isGranted;
}

void SocketWay::close() {
  const CAutoLockT<CMonitor> guard(m_lock);
  m_isClosed = true;
  while (m_callbacks > 0) {
    m_lock.wait();
  }
}
