#pragma once

#include <string>
#include <vector>

/// Where the machine is, so that a person would call it the same network. In no particular order,
/// printable ASCII only:
///
/// - "router 02:00:5e:10:00:01" for each router of a default route, by its link address; by its
///   address, where that router's link address is not known,
/// - "network 192.0.2.0/24" for each IPv4 network, else IPv6 prefix, of those routes' interfaces,
/// - the resolver's words (`readResolverPlace`).
///
/// Default routes are those of the main table on interfaces that frame like Ethernet and are no
/// tunnels. Read afresh from the kernel at each call, in a second at most. Any thread may call it.
/// @return false when nobody can tell: the kernel gives no answer, or no router's link address is
///         known. `place` is then left alone.
bool readNetworkPlace(std::vector<std::string>& place);
