// What tells networks apart, in a network namespace of the test's own. Neighbours are permanent, so
// that no time passes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "vpn/Api/AHS/NetworkPlace.h"

namespace tests {
namespace {

using Words = std::set<std::string>;

constexpr const char* Interfaces =
    "ip link add wifi0 type veth peer name wifi1; ip link set wifi1 up; ip link set wifi0 up;"
    "ip link add wire0 type veth peer name wire1; ip link set wire1 up; ip link set wire0 up;"
    "ip link set vpn0 up;"
    "ip address add 192.0.2.7/24 dev wifi0; ip address add 198.51.100.9/25 dev wire0;"
    "ip address add 10.9.8.7/24 dev vpn0;"
    "ip -6 address add 2001:db8:1::7/64 dev wifi0 nodad;"
    "ip -6 address add 2001:db8:2::7/64 dev vpn0 nodad;"
    "ip neighbour add 192.0.2.1 lladdr 02:00:00:00:00:01 dev wifi0;"
    "ip neighbour add 198.51.100.1 lladdr 02:00:00:00:00:02 dev wire0;"
    "ip neighbour add 10.9.8.1 lladdr 02:00:00:00:00:03 dev vpn0;"
    "ip neighbour add fe80::1 lladdr 02:00:00:00:00:04 dev wifi0;";

/// A tunnel that frames like Ethernet. It has a carrier while this process holds it.
bool makeTunnel() {
  ifreq request{{"vpn0"}, {}};
  request.ifr_flags = IFF_TAP;
  return ioctl(open("/dev/net/tun", O_RDWR), TUNSETIFF, &request) == 0;
}

/// The place after some commands in a new namespace, but for the resolver's words; none if nobody
/// can tell.
Words placeAfter(const std::string& commands) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    std::string text = "cannot be made\n";
    if (unshare(geteuid() == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER) == 0 &&
        makeTunnel() && system((Interfaces + commands).c_str()) == 0) {
      text.clear();
      std::vector<std::string> place;
      if (readNetworkPlace(place)) {
        for (const std::string& word : place) {
          text += word + "\n";
        }
      }
    }
    _exit(write(ends[1], text.data(), text.size()) < 0 ? 1 : 0);
  }
  close(ends[1]);
  Words words;
  FILE* const stream = fdopen(ends[0], "r");
  for (char line[256]; fgets(line, sizeof line, stream) != nullptr;) {
    const std::string word(line, std::string(line).find('\n'));
    if (!word.starts_with("nameserver ") && !word.starts_with("search ")) {
      words.insert(word);
    }
  }
  fclose(stream);
  waitpid(child, nullptr, 0);
  return words;
}

TEST(NetworkPlace, IsTheDefaultRoutesRoutersByLinkAddressAndTheirNetworks) {
  const Words wifi{"router 02:00:00:00:00:01", "network 192.0.2.0/24"};
  const Words both{"router 02:00:00:00:00:01", "network 192.0.2.0/24", "router 02:00:00:00:00:02",
                   "network 198.51.100.0/25"};
  const std::string overWifi = "ip route add default via 192.0.2.1 metric 9;";
  struct Row {
    const char* what;
    std::string commands;
    Words place;
  };
  const Row rows[] = {
      {"one default route", overWifi, wifi},
      {"two", overWifi + "ip route add default via 198.51.100.1", both},
      {"one of two ways", "ip route add default nexthop via 192.0.2.1 nexthop via 198.51.100.1",
       both},
      {"a tunnel before it", overWifi + "ip route add default via 10.9.8.1", wifi},
      {"a tunnel with halves", overWifi + "ip route add 0.0.0.0/1 via 10.9.8.1", wifi},
      {"a route of another table", overWifi + "ip route add default via 198.51.100.1 table 7",
       wifi},
      {"one whose cable is out",
       overWifi + "ip route add default via 198.51.100.1; ip link set wire1 down;"
                  "while ip route show default dev wire0 | grep -qv linkdown; do :; done",
       wifi},
      {"the same router over IPv6",
       overWifi + "ip -6 neighbour replace fe80::1 lladdr 02:00:00:00:00:01 dev wifi0;"
                  "ip -6 route add default via fe80::1 dev wifi0",
       wifi},
      {"IPv6 alone",
       "ip address flush dev wifi0 scope global; ip -6 address add 2001:db8:1::7/64 dev wifi0 "
       "nodad; ip -6 route add default via fe80::1 dev wifi0",
       {"router 02:00:00:00:00:04", "network 2001:db8:1::/64"}},
      {"a router whose link address is not yet known beside one that is",
       overWifi + "ip route add default via 198.51.100.2",
       {"router 02:00:00:00:00:01", "network 192.0.2.0/24", "router 198.51.100.2",
        "network 198.51.100.0/25"}},
      {"no other router", "ip route add default via 192.0.2.2", {}},
      {"a route without a router", "ip route add default dev wifi0", {}},
      {"no route", "true", {}},
      {"no route but a tunnel's", "ip route add default via 10.9.8.1", {}}};
  for (const Row& row : rows) {
    EXPECT_EQ(placeAfter(row.commands), row.place) << row.what;
  }
}

}  // namespace
}  // namespace tests
