// The kernel's messages about the network. They say when to look, not what to see: messages can be
// lost, and most of them change nothing that a gateway is reached by, so what is compared is the
// state that the kernel shows in files (proc(5), /proc/net).

#include "cli/watch/NetworkChanges.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <system_error>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr milliseconds Rest{1000};
constexpr milliseconds LongestUnrest{10'000};
constexpr std::size_t MessageBytes = 8192;

/// A place of the kernel's state, and which columns of its lines tell what gateways are reached by.
/// Counters do not.
struct Source {
  const char* path;
  std::vector<std::size_t> columns;
};

std::string takeColumns(const std::string& line, const std::vector<std::size_t>& columns) {
  std::istringstream text(line);
  std::string word;
  std::string kept;
  std::size_t at = 0;
  for (const std::size_t column : columns) {
    for (; at <= column && text >> word; ++at) {
    }
    kept += word + " ";
  }
  return kept;
}

/// A link, up or not, and an IPv4 address that it has.
std::string interfaceText(const ifaddrs& entry) {
  std::string text = entry.ifa_name;
  text += (entry.ifa_flags & IFF_UP) != 0 ? " up" : " down";
  text += (entry.ifa_flags & IFF_RUNNING) != 0 ? " running" : "";
  if (entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET) {
    std::array<char, INET_ADDRSTRLEN> address{};
    const auto* place = reinterpret_cast<const sockaddr_in*>(entry.ifa_addr);
    inet_ntop(AF_INET, &place->sin_addr, address.data(), address.size());
    text += std::string(" ") + address.data();
  }
  return text;
}

int timeoutOf(milliseconds time) {
  return static_cast<int>(std::clamp<milliseconds::rep>(time.count(), 0, INT_MAX));
}

milliseconds until(BootClock::time_point end) {
  return std::chrono::ceil<milliseconds>(end - BootClock::now());
}

/// Lets a timer go off, also in a machine that wakes up late.
void setTimer(int timer, milliseconds time) {
  constexpr long NanosecondsPerMillisecond = 1'000'000;
  constexpr long MillisecondsPerSecond = 1000;
  const long count = std::max<long>(time.count(), 1);
  const itimerspec when{
      {0, 0},
      {count / MillisecondsPerSecond, count % MillisecondsPerSecond * NanosecondsPerMillisecond}};
  timerfd_settime(timer, 0, &when, nullptr);
}

}  // namespace

BootClock::time_point BootClock::now() noexcept {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return time_point(std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec));
}

NetworkChanges::NetworkChanges(int output)
    : m_output(output),
      m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)),
      m_timer(timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC)) {
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
  for (const int descriptor : {m_socket, m_timer}) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

void NetworkChanges::remember() { m_remembered = stateOfNetwork(); }

/// Lines add up to a sum that does not depend on their order, so that any number of them takes no
/// memory. An IPv6 address counts as another one when it has been found to be the machine's own,
/// because it cannot be used before.
NetworkChanges::State NetworkChanges::stateOfNetwork() {
  State state;
  const auto add = [&state](const std::string& line) {
    state.sum += std::hash<std::string>()(line);
    ++state.lines;
  };
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) == 0) {
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> all(first, freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
      add(interfaceText(*entry));
    }
  }
  for (const Source& source :
       {Source{"/proc/net/if_inet6", {0, 2, 4, 5}}, Source{"/proc/net/route", {0, 1, 2, 3, 6, 7}},
        Source{"/proc/net/ipv6_route", {0, 1, 2, 3, 4, 5, 9}}}) {
    std::ifstream file(source.path);
    for (std::string line; std::getline(file, line);) {
      add(takeColumns(line, source.columns));
    }
  }
  return state;
}

NetworkChanges::Heard NetworkChanges::wait(milliseconds longest) {
  const auto end = BootClock::now() + longest;
  setTimer(m_timer, longest);
  while (until(end).count() > 0) {
    std::array<pollfd, 3> waits{
        {{m_problem.empty() ? m_socket : -1, POLLIN, 0}, {m_timer, POLLIN, 0}, {m_output, 0, 0}}};
    poll(waits.data(), waits.size(), timeoutOf(until(end)));
    if (waits[2].revents != 0) {
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

/// Takes messages until none has come for a while, or for too long.
void NetworkChanges::waitForRest() const {
  const auto patience = BootClock::now() + LongestUnrest;
  pollfd message{m_socket, POLLIN, 0};
  do {
    drain();
  } while (until(patience).count() > 0 &&
           poll(&message, 1, timeoutOf(std::min(Rest, until(patience)))) > 0);
}

/// Takes all messages that are there, and the news that some were lost.
void NetworkChanges::drain() const {
  alignas(nlmsghdr) std::array<char, MessageBytes> bytes;
  while (recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0 || errno == ENOBUFS ||
         errno == EINTR) {
  }
}
