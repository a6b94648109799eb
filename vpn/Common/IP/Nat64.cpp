// Finds the prefix by the addresses 192.0.0.170 and 192.0.0.171, which "ipv4only.arpa" has, in the
// IPv6 addresses that the resolver makes of them.

#include "vpn/Common/IP/Nat64.h"

#include <netdb.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <system_error>
#include <thread>

namespace {

// RFC 6052, section 2.2: the byte between the address's halves is 0.
constexpr std::size_t GapByte = 8;
// In bytes; the longest first, in which the known address may not be by chance.
constexpr std::size_t Lengths[] = {12, 8, 7, 6, 5, 4};

using Bytes = unsigned char[4];

/// Calls `use` with each byte of the IPv4 address behind a prefix.
template <class Address, class Use>
void eachByte(Address& whole, std::size_t prefixBytes, Use use) {
  std::size_t at = prefixBytes;
  for (std::size_t i = 0; i < sizeof(Bytes); ++i, ++at) {
    at += at == GapByte ? 1 : 0;
    use(whole.s6_addr[at], i);
  }
}

std::optional<Nat64> ask() {
  addrinfo hints{};
  hints.ai_family = AF_INET6;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo("ipv4only.arpa", nullptr, &hints, &found) != 0) {
    return std::nullopt;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> all(found, freeaddrinfo);
  std::optional<Nat64> prefix;
  for (const addrinfo* one = found; one != nullptr && !prefix; one = one->ai_next) {
    prefix = Nat64::of(reinterpret_cast<const sockaddr_in6*>(one->ai_addr)->sin6_addr);
  }
  return prefix;
}

}  // namespace

std::optional<Nat64> Nat64::of(const in6_addr& made) {
  for (const std::size_t length : Lengths) {
    Bytes address{};
    eachByte(made, length, [&address](unsigned char byte, std::size_t i) { address[i] = byte; });
    const bool isKnown = address[0] == 192 && address[1] == 0 && address[2] == 0 &&
                         (address[3] == 170 || address[3] == 171);
    if (isKnown && made.s6_addr[GapByte] == 0) {
      return Nat64(made, length);
    }
  }
  return std::nullopt;
}

std::optional<Nat64> Nat64::find(std::chrono::milliseconds limit) {
  std::packaged_task<std::optional<Nat64>()> question(ask);
  std::future<std::optional<Nat64>> answer = question.get_future();
  try {
    std::thread(std::move(question)).detach();
  } catch (const std::system_error&) {
    return std::nullopt;
  }
  return answer.wait_for(limit) == std::future_status::ready ? answer.get() : std::nullopt;
}

in6_addr Nat64::addressOf(const in_addr& address) const {
  Bytes bytes{};
  memcpy(bytes, &address, sizeof bytes);
  in6_addr whole{};
  memcpy(&whole, &m_prefix, m_bytes);
  eachByte(whole, m_bytes, [&bytes](unsigned char& byte, std::size_t i) { byte = bytes[i]; });
  return whole;
}

bool hasRouteTo(const in_addr& address) {
  const int trial = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in where{};
  where.sin_family = AF_INET;
  where.sin_port = htons(443);
  where.sin_addr = address;
  const bool found =
      trial >= 0 && connect(trial, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
  if (trial >= 0) {
    close(trial);
  }
  return found;
}
