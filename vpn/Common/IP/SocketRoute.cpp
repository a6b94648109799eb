// Interface, source address and mark of sockets. A socket that cannot have all is not used: by
// another way a probe could measure the very tunnel that it must avoid.

#include "vpn/Common/IP/SocketRoute.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "vpn/include/StringUtils.h"

namespace {

std::string problem(const char* part, int error, const char* remedy) {
  const char* const description = strerrordesc_np(error);
  return std::string(part) + ": " + (description != nullptr ? description : std::to_string(error)) +
         (error == EPERM || error == EACCES ? remedy : "");
}

}  // namespace

std::string SocketRoute::take(const Wish& wish) {
  m_mark = wish.mark;
  m_interface = wish.interface;
  m_family = wish.family;
  if (m_interface.size() >= IFNAMSIZ) {
    return std::string(m_names.interface) + " is longer than an interface name can be";
  }
  if (std::string error = wish.source.empty() ? "" : takeSource(wish); !error.empty()) {
    return error;
  }
  if (m_mark == 0 && m_interface.empty() && m_sourceLength == 0) {
    return "";
  }
  const int trial =
      socket(m_family == AF_UNSPEC ? AF_INET : m_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (trial < 0) {
    return "";  // the probes will tell
  }
  std::string error = apply(trial);
  ::close(trial);
  return error;
}

std::string SocketRoute::takeSource(const Wish& wish) {
  m_sourceText = wish.source;
  addrinfo hints{};
  // An IPv4 address must have four numbers; the resolver would accept fewer.
  in_addr numbers{};
  const bool isSix = wish.source.find(':') != std::string::npos;
  hints.ai_family = isSix ? AF_INET6 : AF_INET;
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if ((!isSix && inet_pton(AF_INET, wish.source.c_str(), &numbers) != 1) ||
      getaddrinfo(wish.source.c_str(), nullptr, &hints, &found) != 0) {
    return std::string(m_names.source) + " is no IPv4 or IPv6 address";
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> address(found, freeaddrinfo);
  if (!allows(found->ai_family)) {
    return std::string(m_names.source) + " is an address of the other IP version";
  }
  memcpy(&m_source, found->ai_addr, found->ai_addrlen);
  m_sourceLength = found->ai_addrlen;
  m_family = found->ai_family;
  return "";
}

std::vector<std::string> SocketRoute::words() const {
  std::vector<std::string> words;
  if (m_mark != 0) {
    words.push_back("mark " + std::to_string(m_mark));
  }
  if (!m_interface.empty()) {
    words.push_back("interface " + CStringUtils::printable(m_interface));
  }
  if (m_sourceLength != 0) {
    words.push_back("source " + CStringUtils::printable(m_sourceText));
  } else if (m_family != AF_UNSPEC) {
    words.emplace_back(m_family == AF_INET ? "IPv4" : "IPv6");
  }
  return words;
}

std::string SocketRoute::apply(int socket) const {
  if (m_mark != 0 && setsockopt(socket, SOL_SOCKET, SO_MARK, &m_mark, sizeof m_mark) != 0) {
    return problem(m_names.mark, errno, "; it takes the capability CAP_NET_ADMIN");
  }
  if (!m_interface.empty() && setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, m_interface.c_str(),
                                         static_cast<socklen_t>(m_interface.size())) != 0) {
    return problem(m_names.interface, errno, "; it takes the capability CAP_NET_RAW");
  }
  if (m_sourceLength != 0) {
    // The port is chosen when the socket connects, so that a thousand probes do not use ports up.
    const int late = 1;
    static_cast<void>(setsockopt(socket, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &late, sizeof late));
    if (bind(socket, reinterpret_cast<const sockaddr*>(&m_source), m_sourceLength) != 0) {
      return problem(m_names.source, errno, "");
    }
  }
  return "";
}
