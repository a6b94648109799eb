// The kernel's messages about the network. They only say when to look: messages can be lost, and
// most do not affect the way to a headend. So this compares the state in the kernel's files
// (proc(5), /proc/net).

#include "cli/watch/NetworkChanges.h"

#include <errno.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <functional>
#include <memory>
#include <system_error>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds Rest{1000};
constexpr milliseconds LongestUnrest{10'000};
// The longest single wait. poll(2) does not count suspended time, so the clock is checked now and
// then.
constexpr milliseconds LongestPoll{10'000};
constexpr std::size_t MessageBytes = 8192;

/// A line of /proc/net/ipv6_route without counters and flags, which precede the link's name.
std::string withoutCounters(const std::string& route) {
  constexpr std::size_t CountersStart = 113;
  constexpr std::size_t CountersEnd = 140;
  return route.size() < CountersEnd ? route
                                    : route.substr(0, CountersStart) + route.substr(CountersEnd);
}

/// A link, whether it is up, and one of its IPv4 addresses.
std::string interfaceText(const ifaddrs& entry) {
  std::string text = entry.ifa_name + std::to_string(entry.ifa_flags & (IFF_UP | IFF_RUNNING));
  if (entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET) {
    const auto* place = reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
    text += " " + std::to_string(place->sin_addr.s_addr);
  }
  return text;
}

/// Milliseconds for poll(2) until `end`, at most `most`.
int timeUntil(BootClock::time_point end, milliseconds most) {
  const auto left = std::chrono::ceil<milliseconds>(end - BootClock::now());
  return static_cast<int>(std::clamp(left, milliseconds(0), most).count());
}

}  // namespace

BootClock::time_point BootClock::now() noexcept {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return time_point(std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec));
}

NetworkChanges::NetworkChanges(int output)
    : m_output(output),
      m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)) {
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (m_socket < 0 ||
      bind(m_socket, reinterpret_cast<const sockaddr*>(&groups), sizeof groups) != 0) {
    m_problem = std::system_category().message(errno);
  }
  remember();
}

NetworkChanges::~NetworkChanges() {
  if (m_socket >= 0) {
    close(m_socket);
  }
}

void NetworkChanges::remember() { m_remembered = stateOfNetwork(); }

/// Adds up hashes of lines, so that the result does not depend on their order and needs no memory.
/// An IPv6 address counts as changed after duplicate address detection, because it was unusable
/// before.
std::uint64_t NetworkChanges::stateOfNetwork() {
  std::uint64_t sum = 0;
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) == 0) {
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> all(first, freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
      sum += std::hash<std::string>()(interfaceText(*entry));
    }
  }
  for (const char* path : {"/proc/net/if_inet6", "/proc/net/route", "/proc/net/ipv6_route"}) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      sum += std::hash<std::string>()(withoutCounters(line));
    }
  }
  return sum;
}

NetworkChanges::Heard NetworkChanges::wait(milliseconds longest) {
  const auto end = BootClock::now() + longest;
  while (BootClock::now() < end) {
    std::array<pollfd, 2> waits{{{m_problem.empty() ? m_socket : -1, POLLIN, 0}, {m_output, 0, 0}}};
    poll(waits.data(), waits.size(), timeUntil(end, LongestPoll));
    if (waits[1].revents != 0) {
      return Heard::Closed;
    }
    if (waits[0].revents != 0) {
      waitForRest();
      if (stateOfNetwork() != m_remembered) {
        return Heard::Change;
      }
    }
  }
  return Heard::Nothing;
}

/// Takes messages until none has come for a while, or for at most a fixed time.
void NetworkChanges::waitForRest() const {
  const auto patience = BootClock::now() + LongestUnrest;
  pollfd message{m_socket, POLLIN, 0};
  do {
    drain();
  } while (BootClock::now() < patience && poll(&message, 1, timeUntil(patience, Rest)) > 0);
}

/// Takes all pending messages, and the error that some were lost.
void NetworkChanges::drain() const {
  alignas(nlmsghdr) std::array<char, MessageBytes> bytes;
  while (recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0 || errno == ENOBUFS ||
         errno == EINTR) {
  }
}
