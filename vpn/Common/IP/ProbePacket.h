#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "vpn/Common/IP/ProbeKind.h"

/// A datagram that opens a session, and which answer belongs to it.
class ProbePacket {
 public:
  using Bytes = std::span<const std::uint8_t>;

  /// @param kind not Http. @param port where it goes: IKE has a mark at 4500 (RFC 3948).
  /// @return none if the system gives no random numbers.
  static std::optional<ProbePacket> make(ProbeKind kind, unsigned short port);

  Bytes bytes() const { return m_bytes; }
  /// Whether a datagram can only come from somebody who has seen this one, and is an answer.
  bool isAnsweredBy(Bytes answer) const;

 private:
  /// What tells a session from all others; nobody can guess it.
  using Id = std::array<std::uint8_t, 8>;

  ProbePacket(ProbeKind kind, bool isMarked) : m_kind(kind), m_isMarked(isMarked) {}
  void writeOpenVpn();
  void writeIke();
  void writeQuic();
  void add(std::uint64_t value, std::size_t bytes);
  void add(const Id& id);
  void addRandom(std::size_t bytes);

  ProbeKind m_kind;
  bool m_isMarked;
  bool m_isComplete = true;
  Id m_id{};
  Id m_otherId{};  ///< that QUIC gives the server
  std::vector<std::uint8_t> m_bytes;
};
