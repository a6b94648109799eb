// Tries each address of a name. This is no measurement: it follows one, and tells which addresses a
// measurement could have met. The resolver may stay silent for any time, so a detached thread asks
// it.

#include "cli/probe/AddressCheck.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <future>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "vpn/Common/Utility/Utf8Locale.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A name with more addresses belongs to a content network, or is a hoax.
constexpr std::size_t MostAddresses = 16;

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/// The resolver's answer.
struct Answer {
  int error = 0;
  Addresses found{nullptr, freeaddrinfo};
};

/// The zone number of an IPv6 address, from a number or an interface's name; 0 for none.
unsigned int zoneNumber(const std::string& zone) {
  constexpr int Decimal = 10;
  const unsigned int index = if_nametoindex(zone.c_str());
  return index != 0 ? index
                    : static_cast<unsigned int>(std::strtoul(zone.c_str(), nullptr, Decimal));
}

/// Like probes, allows a zone with any IPv6 address; the resolver takes an interface's name with
/// link-local addresses only.
Answer ask(const std::string& host, unsigned short port) {
  // An international name is UTF-8, whatever locale the process runs in.
  const Utf8Locale utf8;
  const std::size_t zoneAt = host.find('%');
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = isAddressLiteral(host) ? AI_NUMERICHOST : AI_IDN;
  addrinfo* found = nullptr;
  const int error =
      getaddrinfo(host.substr(0, zoneAt).c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error == 0 && zoneAt != std::string::npos && found->ai_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(found->ai_addr)->sin6_scope_id =
        zoneNumber(host.substr(zoneAt + 1));
  }
  return {error, Addresses(error == 0 ? found : nullptr, freeaddrinfo)};
}

std::string resolverError(int error) {
  switch (error) {
    case EAI_NONAME:
    case EAI_NODATA:
      return "the name servers know no address of it";
    case EAI_AGAIN:
    case EAI_FAIL:
      return "the name servers gave no answer that is of use";
    default:
      return gai_strerror(error);
  }
}

std::string textOf(const addrinfo& address) {
  std::array<char, NI_MAXHOST> text{};
  return getnameinfo(address.ai_addr, address.ai_addrlen, text.data(), text.size(), nullptr, 0,
                     NI_NUMERICHOST) == 0
             ? text.data()
             : "?";
}

void takeAddresses(const addrinfo* found, AddressCheck& check) {
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    if (check.addresses.size() == MostAddresses || one->ai_addrlen > sizeof(sockaddr_storage)) {
      ++check.leftOut;
      continue;
    }
    CheckedAddress address;
    address.text = textOf(*one);
    memcpy(&address.address, one->ai_addr, one->ai_addrlen);
    address.length = one->ai_addrlen;
    check.addresses.push_back(std::move(address));
  }
}

void resolve(const std::string& host, unsigned short port, milliseconds limit,
             AddressCheck& check) {
  std::packaged_task<Answer()> question([host, port] { return ask(host, port); });
  std::future<Answer> answer = question.get_future();
  std::thread(std::move(question)).detach();
  if (answer.wait_for(limit) != std::future_status::ready) {
    check.problem = "the name servers do not answer in time";
    return;
  }
  const Answer told = answer.get();
  check.problem = told.error == 0 ? "" : resolverError(told.error);
  takeAddresses(told.found.get(), check);
}

bool needsZone(const CheckedAddress& address) {
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address.address);
  return address.address.ss_family == AF_INET6 && v6->sin6_scope_id == 0 &&
         IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr);
}

std::string outcomeOfError(int error) {
  switch (error) {
    case 0:
      return "connected";
    case ECONNREFUSED:
      return "refused";
    case ETIMEDOUT:
    case EINPROGRESS:  // the time limit expired
      return "timed out";
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EADDRNOTAVAIL:
      return "unreachable";
    default:
      return std::generic_category().message(error);
  }
}

/// Replaces an IPv4 address by the one that stands for it.
void translate(CheckedAddress& target, const ProbeWay& way) {
  sockaddr_in from{};
  memcpy(&from, &target.address, sizeof from);
  sockaddr_in6 to{};
  if (from.sin_family == AF_INET && way.translate(from.sin_addr, to.sin6_addr)) {
    to.sin6_family = AF_INET6;
    to.sin6_port = from.sin_port;
    memcpy(&target.address, &to, sizeof to);
    target.length = sizeof to;
  }
}

void connectTo(CheckedAddress& target, milliseconds limit, const ProbeWay& way) {
  translate(target, way);
  const auto start = Clock::now();
  const int connection = socket(target.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // The time limit of writes also bounds a connect.
  const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
  const timeval longest{seconds.count(), std::chrono::microseconds(limit - seconds).count()};
  const bool mayConnect = connection < 0 || way.prepare(connection, target.address.ss_family);
  const bool isConnected =
      connection >= 0 && mayConnect &&
      setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest) == 0 &&
      connect(connection, reinterpret_cast<const sockaddr*>(&target.address), target.length) == 0;
  const int error = isConnected ? 0 : errno;
  target.took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
  target.outcome = !mayConnect                            ? "left out by the options"
                   : error == EINVAL && needsZone(target) ? "needs a zone"
                                                          : outcomeOfError(error);
  if (connection >= 0) {
    close(connection);
  }
}

void connectToAll(std::vector<CheckedAddress>& addresses, milliseconds limit, const ProbeWay& way) {
  std::vector<std::future<void>> attempts;
  attempts.reserve(addresses.size());
  for (CheckedAddress& address : addresses) {
    attempts.push_back(std::async([&address, limit, &way] { connectTo(address, limit, way); }));
  }
  for (const std::future<void>& attempt : attempts) {
    attempt.wait();
  }
}

}  // namespace

AddressCheck checkAddresses(const std::string& host, unsigned short port, milliseconds limit,
                            const ProbeWay& way) {
  AddressCheck check;
  resolve(host, port, limit, check);
  if (isAddressLiteral(host) && !check.addresses.empty()) {
    check.addresses.front().text = host;  // with its zone
  }
  connectToAll(check.addresses, limit, way);
  return check;
}

bool isAddressLiteral(const std::string& host) {
  in_addr unused{};
  return inet_pton(AF_INET, host.c_str(), &unused) == 1 || host.find(':') != std::string::npos;
}

bool isSameAddress(const CheckedAddress& address, const std::string& told) {
  return address.text.substr(0, address.text.find('%')) == told.substr(0, told.find('%'));
}
