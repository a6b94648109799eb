// The kernel's messages about the network. What they say is not read beyond its kind: that there
// was one is the news. Messages lost to a full buffer are news as well.

#include "cli/NetworkChanges.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds Rest{1000};
constexpr milliseconds LongestUnrest{10'000};
constexpr std::size_t MessageBytes = 8192;

milliseconds until(steady_clock::time_point end) {
  return std::max(std::chrono::duration_cast<milliseconds>(end - steady_clock::now()),
                  milliseconds(0));
}

/// Whether a batch holds a message that tells a change, not merely how neighbours are reached.
bool tellsChange(const char* bytes, std::size_t size) {
  auto left = static_cast<unsigned int>(size);
  for (const auto* message = reinterpret_cast<const nlmsghdr*>(bytes); NLMSG_OK(message, left);
       message = NLMSG_NEXT(message, left)) {
    switch (message->nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
      case RTM_NEWADDR:
      case RTM_DELADDR:
      case RTM_NEWROUTE:
      case RTM_DELROUTE:
        return true;
      default:
        break;
    }
  }
  return false;
}

}  // namespace

NetworkChanges::NetworkChanges()
    : m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (m_socket < 0 ||
      bind(m_socket, reinterpret_cast<const sockaddr*>(&groups), sizeof groups) != 0) {
    m_problem = strerrordesc_np(errno);
  }
}

NetworkChanges::~NetworkChanges() {
  if (m_socket >= 0) {
    close(m_socket);
  }
}

NetworkChanges::Heard NetworkChanges::wait(milliseconds longest) {
  const auto end = steady_clock::now() + longest;
  while (true) {
    if (!readable(until(end))) {
      return Heard::Nothing;
    }
    if (drain()) {
      break;
    }
  }
  const auto patience = steady_clock::now() + LongestUnrest;
  while (until(patience).count() > 0 && readable(std::min(Rest, until(patience)))) {
    drain();
  }
  return Heard::Change;
}

/// Waits until there is a message, whatever interrupts the wait.
bool NetworkChanges::readable(milliseconds longest) const {
  const auto end = steady_clock::now() + longest;
  pollfd socket{m_problem.empty() ? m_socket : -1, POLLIN, 0};
  while (true) {
    const auto left = std::min<milliseconds::rep>(until(end).count(), INT_MAX);
    const int ready = poll(&socket, 1, static_cast<int>(left));
    if (ready > 0) {
      return true;
    }
    if (until(end).count() == 0) {
      return false;
    }
  }
}

/// Reads all that is there. @return whether it tells a change.
bool NetworkChanges::drain() const {
  bool changed = false;
  alignas(nlmsghdr) std::array<char, MessageBytes> bytes;
  while (true) {
    const ssize_t size = recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size > 0) {
      changed = tellsChange(bytes.data(), static_cast<std::size_t>(size)) || changed;
    } else if (size < 0 && errno == ENOBUFS) {
      changed = true;
    } else if (size == 0 || errno != EINTR) {
      return changed;
    }
  }
}
