// Reads the resolver's name servers and search domains into a state of its own, so that a change of
// network is seen at once and the process's own resolver is not touched.

#include "vpn/Api/AHS/ResolverPlace.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>

#include "vpn/include/StringUtils.h"

namespace {

/// A resolver state that is closed at the end of its scope.
class CResolverState {
 public:
  CResolverState() : m_state(), m_open(res_ninit(&m_state) == 0) {}
  ~CResolverState() {
    if (m_open) {
      res_nclose(&m_state);
    }
  }
  CResolverState(const CResolverState&) = delete;
  CResolverState& operator=(const CResolverState&) = delete;

  bool isOpen() const { return m_open; }
  const struct __res_state& get() const { return m_state; }

 private:
  struct __res_state m_state;
  bool m_open;
};

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
  const CResolverState resolver;
  if (!resolver.isOpen()) {
    return false;
  }
  const struct __res_state& state = resolver.get();
  std::vector<std::string> found;
  for (int i = 0; i < std::min(state.nscount, MAXNS); ++i) {
    const std::string server = serverText(state, i);
    if (!server.empty()) {
      found.push_back("nameserver " + server);
    }
  }
  for (int i = 0; i < MAXDNSRCH && state.dnsrch[i] != nullptr; ++i) {
    found.push_back("search " + CStringUtils::printable(CStringUtils::toLower(state.dnsrch[i])));
  }
  place.swap(found);
  return true;
}
