// Asks the kernel, by rtnetlink(7), for the routers of the default routes. A router's link address
// tells networks apart that use the same numbers, as most homes do. What the kernel sends is
// bounded in size and time: a machine with the routes of the whole Internet has no place.

#include "vpn/Api/AHS/NetworkPlace.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string_view>

#include "vpn/Api/AHS/ResolverPlace.h"
#include "vpn/Common/Trust/FileTrust.h"

namespace {

/// Most of one answer, and the longest wait for a part of it: the kernel answers at once.
constexpr std::size_t MostBytes = std::size_t{1} << 20;
constexpr timeval LongestWait{0, 250'000};

/// Attributes by their type; the bytes are the message's.
using Attributes = std::map<unsigned short, std::string_view>;

template <class Header>
Header headerOf(std::string_view bytes) {
  Header header{};
  std::memcpy(&header, bytes.data(), std::min(sizeof header, bytes.size()));
  return header;
}

Attributes attributesOf(std::string_view bytes) {
  Attributes attributes;
  while (bytes.size() >= sizeof(rtattr)) {
    const auto header = headerOf<rtattr>(bytes);
    if (header.rta_len < sizeof header || header.rta_len > bytes.size()) {
      break;
    }
    attributes[header.rta_type & NLA_TYPE_MASK] =
        bytes.substr(sizeof header, header.rta_len - sizeof header);
    bytes.remove_prefix(std::min<std::size_t>(RTA_ALIGN(header.rta_len), bytes.size()));
  }
  return attributes;
}

/// What follows a message's own header of this type.
template <class Header>
Attributes attributesAfter(std::string_view bytes) {
  return attributesOf(
      bytes.substr(std::min<std::size_t>(NLMSG_ALIGN(sizeof(Header)), bytes.size())));
}

std::string_view find(const Attributes& attributes, unsigned short type) {
  const auto found = attributes.find(type);
  return found == attributes.end() ? std::string_view() : found->second;
}

template <class Number>
Number numberOf(std::string_view bytes, Number otherwise) {
  return bytes.size() < sizeof(Number) ? otherwise : headerOf<Number>(bytes);
}

/// A conversation with the kernel.
class Kernel {
 public:
  using Visitor = std::function<void(std::string_view message)>;

  Kernel() : m_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
    setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &LongestWait, sizeof LongestWait);
  }

  /// Asks for one object, or for all of a kind. @return whether the answer came whole.
  template <class Header>
  bool ask(unsigned short type, unsigned short flags, const Header& header, const Visitor& visit,
           std::string_view destination = {}) {
    std::array<char, 128> request{};
    nlmsghdr head{};
    head.nlmsg_len = NLMSG_LENGTH(sizeof header);
    head.nlmsg_type = type;
    head.nlmsg_flags = static_cast<unsigned short>(NLM_F_REQUEST | flags);
    head.nlmsg_seq = ++m_sequence;
    std::memcpy(request.data() + NLMSG_HDRLEN, &header, sizeof header);
    if (!destination.empty()) {
      rtattr attribute{};
      attribute.rta_type = NDA_DST;
      attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(destination.size()));
      char* const end = request.data() + NLMSG_ALIGN(head.nlmsg_len);
      std::memcpy(end, &attribute, sizeof attribute);
      std::memcpy(end + RTA_LENGTH(0), destination.data(), destination.size());
      head.nlmsg_len =
          static_cast<unsigned int>(NLMSG_ALIGN(head.nlmsg_len) + RTA_LENGTH(destination.size()));
    }
    std::memcpy(request.data(), &head, sizeof head);
    return send(m_socket.get(), request.data(), head.nlmsg_len, 0) >= 0 &&
           receive((flags & NLM_F_DUMP) != 0, visit);
  }

 private:
  bool receive(bool isDump, const Visitor& visit) {
    for (std::size_t all = 0; all < MostBytes;) {
      sockaddr_nl from{};
      socklen_t length = sizeof from;
      const ssize_t size = recvfrom(m_socket.get(), m_answer.data(), m_answer.size(), 0,
                                    reinterpret_cast<sockaddr*>(&from), &length);
      if (size < 0) {
        return false;
      }
      if (from.nl_pid != 0) {
        continue;  // another process's
      }
      all += static_cast<std::size_t>(size);
      std::string_view rest(m_answer.data(), static_cast<std::size_t>(size));
      while (rest.size() >= sizeof(nlmsghdr)) {
        const auto head = headerOf<nlmsghdr>(rest);
        if (head.nlmsg_len < NLMSG_HDRLEN || head.nlmsg_len > rest.size()) {
          return false;
        }
        if (head.nlmsg_seq == m_sequence) {
          if (head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR) {
            return head.nlmsg_type == NLMSG_DONE;
          }
          visit(rest.substr(NLMSG_HDRLEN, head.nlmsg_len - NLMSG_HDRLEN));
          if (!isDump) {
            return true;
          }
        }
        rest.remove_prefix(std::min<std::size_t>(NLMSG_ALIGN(head.nlmsg_len), rest.size()));
      }
    }
    return false;
  }

  const FileTrust::Descriptor m_socket;
  std::vector<char> m_answer = std::vector<char>(32UL * 1024);  // the kernel sends no more at once
  unsigned int m_sequence = 0;
};

/// A way of a default route: an interface, and the router's address, empty for none.
struct Hop {
  int interface = 0;
  int family = AF_UNSPEC;
  std::string router;

  auto operator<=>(const Hop&) const = default;
};

/// @param attributes of a route, or of one of its ways.
Hop hopOf(int interface, int family, const Attributes& attributes) {
  const std::string_view via = find(attributes, RTA_VIA);
  if (via.size() > sizeof(rtvia)) {
    return {interface, headerOf<rtvia>(via).rtvia_family, std::string(via.substr(sizeof(rtvia)))};
  }
  return {interface, family, std::string(find(attributes, RTA_GATEWAY))};
}

void addHops(std::string_view route, std::set<Hop>& hops) {
  const auto header = headerOf<rtmsg>(route);
  const Attributes attributes = attributesAfter<rtmsg>(route);
  const auto table = numberOf<unsigned int>(find(attributes, RTA_TABLE), header.rtm_table);
  if (header.rtm_dst_len != 0 || header.rtm_type != RTN_UNICAST || table != RT_TABLE_MAIN) {
    return;
  }
  constexpr unsigned int Unusable = RTNH_F_DEAD | RTNH_F_LINKDOWN;
  std::string_view ways = find(attributes, RTA_MULTIPATH);
  if (ways.empty() && (header.rtm_flags & Unusable) == 0) {
    const int interface = numberOf(find(attributes, RTA_OIF), 0);
    hops.insert(hopOf(interface, header.rtm_family, attributes));
  }
  while (ways.size() >= sizeof(rtnexthop)) {
    const auto way = headerOf<rtnexthop>(ways);
    if (way.rtnh_len < sizeof way || way.rtnh_len > ways.size()) {
      break;
    }
    if ((way.rtnh_flags & Unusable) == 0) {
      const auto of = attributesOf(ways.substr(sizeof way, way.rtnh_len - sizeof way));
      hops.insert(hopOf(way.rtnh_ifindex, header.rtm_family, of));
    }
    ways.remove_prefix(std::min<std::size_t>(RTNH_ALIGN(way.rtnh_len), ways.size()));
  }
}

/// Whether an interface joins the machine to a network of its neighbours. Tunnels that frame like
/// Ethernet tell by their kind; others, and modems, have no link addresses.
bool isEthernet(Kernel& kernel, int interface) {
  // Without a destructor: a run may ask while the process exits.
  static constexpr std::array<std::string_view, 8> Tunnels{
      "tun", "gretap", "ip6gretap", "erspan", "ip6erspan", "vxlan", "geneve", "bareudp"};
  bool is = false;
  ifinfomsg header{};
  header.ifi_index = interface;
  const bool isKnown = kernel.ask(RTM_GETLINK, 0, header, [&](std::string_view link) {
    const Attributes info = attributesOf(find(attributesAfter<ifinfomsg>(link), IFLA_LINKINFO));
    const std::string_view kind = find(info, IFLA_INFO_KIND);
    is = headerOf<ifinfomsg>(link).ifi_type == ARPHRD_ETHER &&
         std::ranges::find(Tunnels, kind.substr(0, kind.find('\0'))) == Tunnels.end();
  });
  return isKnown && is;
}

/// Empty if the kernel does not know it.
std::string linkAddress(Kernel& kernel, const Hop& hop) {
  std::string text;
  ndmsg header{};
  header.ndm_family = static_cast<unsigned char>(hop.family);
  header.ndm_ifindex = hop.interface;
  static_cast<void>(kernel.ask(
      RTM_GETNEIGH, 0, header,
      [&text](std::string_view neighbour) {
        const std::string_view address = find(attributesAfter<ndmsg>(neighbour), NDA_LLADDR);
        for (const char byte : address) {
          constexpr std::string_view Digits = "0123456789abcdef";
          const auto value = static_cast<unsigned char>(byte);
          text += text.empty() ? "" : ":";
          text += Digits[value >> 4U];
          text += Digits[value & 15U];
        }
      },
      hop.router));
  return text;
}

std::string addressText(int family, std::string_view address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  return address.size() == size &&
                 inet_ntop(family, address.data(), text.data(), text.size()) != nullptr
             ? text.data()
             : "";
}

/// The networks of interfaces: IPv4's, or IPv6's where an interface has none of those, because
/// IPv6 comes a second or two later to a machine that wakes up.
bool addNetworks(Kernel& kernel, const std::set<int>& interfaces, std::set<std::string>& words) {
  std::map<std::pair<int, int>, std::set<std::string>> networks;
  const bool isWhole =
      kernel.ask(RTM_GETADDR, NLM_F_DUMP, ifaddrmsg{}, [&](std::string_view message) {
        const auto header = headerOf<ifaddrmsg>(message);
        const auto interface = static_cast<int>(header.ifa_index);
        const Attributes attributes = attributesAfter<ifaddrmsg>(message);
        const auto flags = numberOf<unsigned int>(find(attributes, IFA_FLAGS), header.ifa_flags);
        std::string address(find(attributes, IFA_ADDRESS));
        if (!interfaces.contains(interface) || header.ifa_scope >= RT_SCOPE_LINK ||
            (flags & (IFA_F_DEPRECATED | IFA_F_TENTATIVE)) != 0) {
          return;
        }
        for (std::size_t bit = header.ifa_prefixlen; bit < address.size() * 8; ++bit) {
          address[bit / 8] = static_cast<char>(static_cast<unsigned char>(address[bit / 8]) &
                                               ~(0x80U >> (bit % 8)));
        }
        networks[{interface, header.ifa_family}].insert("network " +
                                                        addressText(header.ifa_family, address) +
                                                        "/" + std::to_string(header.ifa_prefixlen));
      });
  for (auto& [of, texts] : networks) {
    if (of.second == AF_INET || !networks.contains({of.first, AF_INET})) {
      words.merge(texts);
    }
  }
  return isWhole;
}

/// @return whether a router is known by its link address.
bool addRouters(Kernel& kernel, std::set<std::string>& words) {
  std::set<Hop> hops;
  for (const int family : {AF_INET, AF_INET6}) {
    rtmsg header{};
    header.rtm_family = static_cast<unsigned char>(family);
    if (!kernel.ask(RTM_GETROUTE, NLM_F_DUMP, header,
                    [&hops](std::string_view route) { addHops(route, hops); })) {
      return false;
    }
  }
  bool isAnyKnown = false;
  std::set<int> interfaces;
  for (const Hop& hop : hops) {
    if (hop.router.empty() ||
        (!interfaces.contains(hop.interface) && !isEthernet(kernel, hop.interface))) {
      continue;
    }
    interfaces.insert(hop.interface);
    const std::string link = linkAddress(kernel, hop);
    isAnyKnown = isAnyKnown || !link.empty();
    words.insert("router " + (link.empty() ? addressText(hop.family, hop.router) : link));
  }
  return isAnyKnown && addNetworks(kernel, interfaces, words);
}

}  // namespace

bool readNetworkPlace(std::vector<std::string>& place) {
  Kernel kernel;
  std::set<std::string> words;
  std::vector<std::string> all;
  if (!addRouters(kernel, words) || !readResolverPlace(all)) {
    return false;
  }
  all.insert(all.end(), words.begin(), words.end());
  place.swap(all);
  return true;
}
