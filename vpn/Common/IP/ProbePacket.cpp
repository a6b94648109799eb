// The first packets of three protocols. Each asks as little of the gateway as it can: IKE proposes
// what no gateway takes any more, so that it refuses without computing; QUIC names a version that
// there is none of.

#include "vpn/Common/IP/ProbePacket.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>

namespace {

using Bytes = ProbePacket::Bytes;

// OpenVPN: "wire protocol" in src/openvpn/ssl_pkt.h: opcode and key in a byte, the sender's
// session, acknowledged packets and whose session they are of, the packet's own number.
constexpr std::uint8_t HardResetClientV2 = 7U << 3U;
constexpr std::uint8_t HardResetServerV2 = 8U << 3U;

// RFC 7296, sections 3.1 to 3.4 and 3.9.
constexpr std::uint8_t IkeVersion2 = 0x20;
constexpr std::uint8_t IkeSaInit = 34;
constexpr std::uint8_t FromInitiator = 0x08;
constexpr std::uint8_t IsResponse = 0x20;
constexpr unsigned short NatTraversalPort = 4500;
constexpr std::size_t MarkBytes = 4;
constexpr std::size_t IkeHeaderBytes = 28;

// RFC 9000, sections 6 and 17.2; a version of this form is always one that there is none of.
constexpr std::uint8_t LongHeader = 0xc0;
constexpr std::uint32_t NoVersion = 0x1a2a3a4a;
constexpr std::size_t LeastQuicBytes = 1200;

/// Whether bytes stand at a place.
template <class Id>
bool hasAt(Bytes all, std::size_t place, const Id& bytes) {
  return all.size() >= place + bytes.size() &&
         std::equal(bytes.begin(), bytes.end(), all.begin() + static_cast<std::ptrdiff_t>(place));
}

}  // namespace

std::optional<ProbePacket> ProbePacket::make(ProbeKind kind, unsigned short port) {
  ProbePacket packet(kind, kind == ProbeKind::Ike && port == NatTraversalPort);
  packet.addRandom(packet.m_id.size() + packet.m_otherId.size());
  if (!packet.m_isComplete) {
    return std::nullopt;
  }
  std::memcpy(packet.m_id.data(), packet.m_bytes.data(), packet.m_id.size());
  std::memcpy(packet.m_otherId.data(), packet.m_bytes.data() + packet.m_id.size(),
              packet.m_otherId.size());
  packet.m_bytes.clear();
  switch (kind) {
    case ProbeKind::Http:
      return std::nullopt;
    case ProbeKind::OpenVpn:
      packet.writeOpenVpn();
      break;
    case ProbeKind::Ike:
      packet.writeIke();
      break;
    case ProbeKind::Quic:
      packet.writeQuic();
      break;
  }
  return packet.m_isComplete ? std::optional(std::move(packet)) : std::nullopt;
}

void ProbePacket::add(std::uint64_t value, std::size_t bytes) {
  constexpr std::size_t Bits = 8;
  while (bytes-- > 0) {
    m_bytes.push_back(static_cast<std::uint8_t>(value >> bytes * Bits));
  }
}

void ProbePacket::add(const Id& id) { m_bytes.insert(m_bytes.end(), id.begin(), id.end()); }

void ProbePacket::addRandom(std::size_t bytes) {
  const std::size_t before = m_bytes.size();
  m_bytes.resize(before + bytes);
  m_isComplete =
      m_isComplete && getrandom(m_bytes.data() + before, bytes, 0) == static_cast<ssize_t>(bytes);
}

void ProbePacket::writeOpenVpn() {
  add(HardResetClientV2, 1);
  add(m_id);
  add(0, 1);  // acknowledges nothing
  add(0, 4);  // the session's first packet
}

void ProbePacket::writeIke() {
  constexpr std::uint16_t Group768 = 1;
  constexpr std::size_t PublicBytes = 768 / 8;
  constexpr std::size_t NonceBytes = 32;
  struct Transform {
    std::uint8_t type;
    std::uint16_t id;
  };
  // Triple DES, HMAC-MD5, HMAC-MD5-96, a group of 768 bits: forbidden since RFC 8247.
  constexpr std::array<Transform, 4> Transforms = {{{1, 3}, {2, 1}, {3, 1}, {4, Group768}}};
  constexpr std::size_t TransformBytes = 8;
  constexpr std::size_t ProposalBytes = 8 + Transforms.size() * TransformBytes;
  constexpr std::size_t SaBytes = 4 + ProposalBytes;
  constexpr std::size_t KeyBytes = 8 + PublicBytes;
  constexpr std::size_t NonceWhole = 4 + NonceBytes;
  enum : std::uint8_t {
    None = 0,
    MoreTransforms = 3,
    SecurityAssociation = 33,
    Key = 34,
    Nonce = 40
  };

  add(0, m_isMarked ? MarkBytes : 0);
  add(m_id);
  add(0, 8);  // the gateway's, not known yet
  add(SecurityAssociation, 1);
  add(IkeVersion2, 1);
  add(IkeSaInit, 1);
  add(FromInitiator, 1);
  add(0, 4);  // the first message
  add(IkeHeaderBytes + SaBytes + KeyBytes + NonceWhole, 4);
  add(Key, 1);
  add(0, 1);
  add(SaBytes, 2);
  add(None, 2);  // the only proposal
  add(ProposalBytes, 2);
  add(1, 1);  // its number
  add(1, 1);  // of IKE itself
  add(0, 1);
  add(Transforms.size(), 1);
  for (const Transform& transform : Transforms) {
    add(&transform == &Transforms.back() ? None : MoreTransforms, 1);
    add(0, 1);
    add(TransformBytes, 2);
    add(transform.type, 1);
    add(0, 1);
    add(transform.id, 2);
  }
  add(Nonce, 1);
  add(0, 1);
  add(KeyBytes, 2);
  add(Group768, 2);
  add(0, 2);
  addRandom(PublicBytes);
  add(None, 1);
  add(0, 1);
  add(NonceWhole, 2);
  addRandom(NonceBytes);
}

void ProbePacket::writeQuic() {
  add(LongHeader, 1);
  add(NoVersion, 4);
  add(m_otherId.size(), 1);
  add(m_otherId);
  add(m_id.size(), 1);
  add(m_id);
  addRandom(LeastQuicBytes - m_bytes.size());
}

bool ProbePacket::isAnsweredBy(Bytes answer) const {
  switch (m_kind) {
    case ProbeKind::Http:
      return false;
    case ProbeKind::OpenVpn: {
      constexpr std::size_t CountAt = 9;
      constexpr std::size_t NumberBytes = 4;
      const std::size_t acknowledged = answer.size() > CountAt ? answer[CountAt] : 0;
      const std::size_t idAt = CountAt + 1 + acknowledged * NumberBytes;
      return acknowledged > 0 && (answer[0] & 0xf8U) == HardResetServerV2 &&
             hasAt(answer, idAt, m_id) && answer.size() >= idAt + m_id.size() + NumberBytes;
    }
    case ProbeKind::Ike: {
      const Bytes message = answer.subspan(std::min(m_isMarked ? MarkBytes : 0, answer.size()));
      const auto told = [&message] {  // how long it is
        return std::size_t{message[26]} << 8U | message[27];
      };
      return message.size() >= IkeHeaderBytes && hasAt(message, 0, m_id) &&
             message[18] == IkeSaInit && (message[19] & IsResponse) != 0 &&
             told() == message.size();
    }
    case ProbeKind::Quic: {
      constexpr std::array<std::uint8_t, 4> Negotiation{};
      constexpr std::size_t IdAt = 6;
      constexpr std::size_t VersionBytes = 4;
      const auto length = static_cast<std::uint8_t>(m_id.size());
      return answer.size() > IdAt && (answer[0] & 0x80U) != 0 && hasAt(answer, 1, Negotiation) &&
             answer[IdAt - 1] == length && hasAt(answer, IdAt, m_id) &&
             hasAt(answer, IdAt + length + 1, m_otherId) &&
             answer.size() >= IdAt + 2 * length + 1 + VersionBytes;
    }
  }
  return false;
}
