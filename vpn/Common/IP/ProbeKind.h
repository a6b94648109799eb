#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

/// What a gateway is asked. All but `Http` go over UDP and are answered to any stranger, unless the
/// gateway is set to answer none (OpenVPN's tls-auth and tls-crypt; WireGuard never answers).
enum class ProbeKind : unsigned char {
  Http,     ///< one HTTP request over TCP
  OpenVpn,  ///< a client's hard reset, which opens a session
  Ike,      ///< IKE_SA_INIT (RFC 7296, section 1.2)
  Quic,     ///< version negotiation (RFC 9000, section 6)
};

/// How a gateway is probed.
struct ProbeHow {
  ProbeKind kind = ProbeKind::Http;
  /// Where; 0: at the headend's own port, of `Ike` at 500 (RFC 7296, section 2).
  unsigned short port = 0;

  bool operator==(const ProbeHow&) const = default;
  unsigned short portAt(unsigned short headends) const {
    constexpr unsigned short IkePort = 500;
    return port != 0 ? port : kind == ProbeKind::Ike ? IkePort : headends;
  }
};

/// How gateways are probed.
struct ProbeHows {
  /// By host, in lower case and without brackets, and port.
  std::map<std::pair<std::string, unsigned short>, ProbeHow> known;
  ProbeHow others;
};

/// As files and people write the kinds, in their order.
constexpr std::array<std::string_view, 4> ProbeKindNames = {"http", "openvpn", "ike", "quic"};

constexpr std::optional<ProbeKind> probeKindOf(std::string_view name) {
  for (std::size_t i = 0; i < ProbeKindNames.size(); ++i) {
    if (ProbeKindNames[i] == name) {
      return static_cast<ProbeKind>(i);
    }
  }
  return std::nullopt;
}
