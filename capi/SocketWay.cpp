// Interface, source address and mark of probes. A socket that cannot have all three is not used: by
// another way the probe could measure the very tunnel that it must avoid.

#include "capi/SocketWay.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "vpn/Common/Logging/AppLog.h"
#include "vpn/Common/Utility/GuardedCall.h"
#include "vpn/include/StringUtils.h"

namespace {

constexpr const char* SourceFile = "capi/SocketWay";

std::string problem(const char* member, int error, const char* remedy) {
  const char* const description = strerrordesc_np(error);
  return std::string("request.") + member + ": " +
         (description != nullptr ? description : std::to_string(error)) +
         (error == EPERM || error == EACCES ? remedy : "");
}

}  // namespace

SocketWay::SocketWay() = default;

std::string SocketWay::take(const ahs_request& request) {
  m_mark = request.mark;
  m_callback = request.on_socket;
  m_context = request.socket_context;
  m_interface = request.interface_name == nullptr ? "" : request.interface_name;
  if (m_interface.size() >= IFNAMSIZ) {
    return "request.interface_name is longer than an interface name can be";
  }
  if (request.source_address != nullptr && *request.source_address != '\0') {
    m_sourceText = request.source_address;
    addrinfo hints{};
    // An IPv4 address must have four numbers; the resolver would accept fewer.
    in_addr numbers{};
    const bool isSix = strchr(request.source_address, ':') != nullptr;
    hints.ai_family = isSix ? AF_INET6 : AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if ((!isSix && inet_pton(AF_INET, request.source_address, &numbers) != 1) ||
        getaddrinfo(request.source_address, nullptr, &hints, &found) != 0) {
      return "request.source_address is no IPv4 or IPv6 address";
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> address(found, freeaddrinfo);
    memcpy(&m_source, found->ai_addr, found->ai_addrlen);
    m_sourceLength = found->ai_addrlen;
  }
  if (m_mark == 0 && m_interface.empty() && m_sourceLength == 0) {
    return "";
  }
  const int family = m_sourceLength != 0 ? m_source.ss_family : AF_INET;
  const int trial = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (trial < 0) {
    return "";  // the probes will tell
  }
  std::string error = apply(trial);
  ::close(trial);
  return error;
}

std::vector<std::string> SocketWay::words() const {
  std::vector<std::string> words;
  if (m_mark != 0) {
    words.push_back("mark " + std::to_string(m_mark));
  }
  if (!m_interface.empty()) {
    words.push_back("interface " + CStringUtils::printable(m_interface));
  }
  if (m_sourceLength != 0) {
    words.push_back("source " + CStringUtils::printable(m_sourceText));
  }
  return words;
}

bool SocketWay::prepare(int socket, int family) {
  if (m_sourceLength != 0 && m_source.ss_family != family) {
    return false;
  }
  const std::string error = apply(socket);
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

std::string SocketWay::apply(int socket) const {
  if (m_mark != 0 && setsockopt(socket, SOL_SOCKET, SO_MARK, &m_mark, sizeof m_mark) != 0) {
    return problem("mark", errno, "; it takes the capability CAP_NET_ADMIN");
  }
  if (!m_interface.empty() && setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, m_interface.c_str(),
                                         static_cast<socklen_t>(m_interface.size())) != 0) {
    return problem("interface_name", errno, "; it takes the capability CAP_NET_RAW");
  }
  if (m_sourceLength != 0) {
    // The port is chosen when the socket connects, so that a thousand probes do not use ports up.
    const int late = 1;
    static_cast<void>(setsockopt(socket, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &late, sizeof late));
    if (bind(socket, reinterpret_cast<const sockaddr*>(&m_source), m_sourceLength) != 0) {
      return problem("source_address", errno, "");
    }
  }
  return "";
}
