// Reads the resolver's name servers and search domains into a state of its own, so that a change of
// network is seen at once and the process's own resolver is not touched.

#include "vpn/Api/AHS/ResolverPlace.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <memory>

#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/include/StringUtils.h"

namespace {

/// The address of a name server; empty for a slot that holds none. The C library keeps IPv4 servers
/// in one array and IPv6 servers, at the same index, in another.
std::string serverText(const struct __res_state& state, int index) {
  char text[INET6_ADDRSTRLEN] = "";
  const sockaddr_in& v4 = state.nsaddr_list[index];
  const sockaddr_in6* v6 = state._u._ext.nsaddrs[index];
  if (v4.sin_family == AF_INET) {
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
  } else if (v6 != nullptr && v6->sin6_family == AF_INET6) {
    inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
  }
  return text;
}

}  // namespace

bool readResolverPlace(std::vector<std::string>& place) {
  struct __res_state state {};
  // The C library would read on and on.
  if (!FileTrust::isBounded(_PATH_RESCONF) || res_ninit(&state) != 0) {
    return false;
  }
  const std::unique_ptr<struct __res_state, decltype(&res_nclose)> closed(&state, &res_nclose);
  place.clear();
  for (int i = 0; i < std::min(state.nscount, MAXNS); ++i) {
    const std::string server = serverText(state, i);
    if (!server.empty()) {
      place.push_back("nameserver " + server);
    }
  }
  for (int i = 0; i < MAXDNSRCH && state.dnsrch[i] != nullptr; ++i) {
    place.push_back("search " + CStringUtils::printable(CStringUtils::toLower(state.dnsrch[i])));
  }
  return true;
}
