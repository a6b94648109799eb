// Answers to packets over UDP. No text is an answer but one that repeats what nobody can guess.

#include <cstdint>

#include "tests/fuzz/require.h"
#include "vpn/Common/IP/ProbePacket.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr unsigned short MarkedPort = 4500;
  for (const ProbeKind kind : {ProbeKind::OpenVpn, ProbeKind::Ike, ProbeKind::Quic}) {
    for (const unsigned short port : {static_cast<unsigned short>(500), MarkedPort}) {
      const auto packet = ProbePacket::make(kind, port);
      REQUIRE(packet && !packet->isAnsweredBy({data, size}));
    }
  }
  return 0;
}
