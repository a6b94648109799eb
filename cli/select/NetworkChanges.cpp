// The kernel's messages about the network. They say when to look, not what to see: messages can be
// lost, and most of them change nothing that a gateway is reached by, so what is compared is the
// state that the kernel shows in files (proc(5), /proc/net).

#include "cli/select/NetworkChanges.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds Rest{1000};
constexpr milliseconds LongestUnrest{10'000};
constexpr std::size_t MessageBytes = 8192;
// Routes and addresses beyond this many do not take part: more would be a router's, not a client's.
constexpr std::size_t MostLines = 4096;

milliseconds until(steady_clock::time_point end) {
  return std::max(std::chrono::duration_cast<milliseconds>(end - steady_clock::now()),
                  milliseconds(0));
}

using Lines = std::set<std::string>;

/// Adds the named columns of each line of a file of /proc/net.
template <std::size_t N>
void addColumns(const char* path, const std::array<std::size_t, N>& columns, Lines& lines) {
  std::ifstream file(path);
  std::string line;
  while (lines.size() < MostLines && std::getline(file, line)) {
    std::istringstream text(line);
    std::vector<std::string> words;
    for (std::string word; text >> word;) {
      words.push_back(word);
    }
    std::string kept;
    for (const std::size_t column : columns) {
      kept += column < words.size() ? words[column] + " " : "";
    }
    lines.insert(kept);
  }
}

/// Adds the links, up or not, and the IPv4 addresses.
void addInterfaces(Lines& lines) {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) {
    return;
  }
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> all(first, freeifaddrs);
  for (const ifaddrs* entry = first; entry != nullptr && lines.size() < MostLines;
       entry = entry->ifa_next) {
    std::string line = entry->ifa_name;
    line += (entry->ifa_flags & IFF_UP) != 0 ? " up" : " down";
    line += (entry->ifa_flags & IFF_RUNNING) != 0 ? " running" : "";
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
      std::array<char, INET_ADDRSTRLEN> text{};
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size());
      line += std::string(" ") + text.data();
    }
    lines.insert(line);
  }
}

/// What gateways are reached by. Counters are left out; an IPv6 address counts as another one when
/// it has been found to be the machine's own, because it cannot be used before.
std::string stateOfNetwork() {
  Lines lines;
  addInterfaces(lines);
  addColumns("/proc/net/if_inet6", std::array<std::size_t, 4>{0, 2, 4, 5}, lines);
  addColumns("/proc/net/route", std::array<std::size_t, 6>{0, 1, 2, 3, 6, 7}, lines);
  addColumns("/proc/net/ipv6_route", std::array<std::size_t, 7>{0, 1, 2, 3, 4, 5, 9}, lines);
  std::string state;
  for (const std::string& line : lines) {
    state += line + "\n";
  }
  return state;
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
  remember();
}

NetworkChanges::~NetworkChanges() {
  if (m_socket >= 0) {
    close(m_socket);
  }
}

void NetworkChanges::remember() { m_remembered = stateOfNetwork(); }

NetworkChanges::Heard NetworkChanges::wait(milliseconds longest) {
  const auto end = steady_clock::now() + longest;
  while (readable(until(end))) {
    const auto patience = steady_clock::now() + LongestUnrest;
    do {
      drain();
    } while (until(patience).count() > 0 && readable(std::min(Rest, until(patience))));
    if (stateOfNetwork() != m_remembered) {
      return Heard::Change;
    }
  }
  return Heard::Nothing;
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

/// Takes all messages that are there, and the news that some were lost.
void NetworkChanges::drain() const {
  alignas(nlmsghdr) std::array<char, MessageBytes> bytes;
  while (recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0 || errno == ENOBUFS ||
         errno == EINTR) {
  }
}
