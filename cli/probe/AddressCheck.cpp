// A look at each address of a name. It is no measurement: it comes after one, and tells which of
// the addresses a measurement could have met. The resolver may stay silent for as long as it likes,
// so it is asked on a thread that nobody waits for.

#include "cli/probe/AddressCheck.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <system_error>
#include <utility>

#include "cli/Console.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/Common/Utility/Utf8Locale.h"
#include "vpn/include/Locks.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Names of more addresses are those of content networks, or a hoax.
constexpr std::size_t MostAddresses = 16;

constexpr std::size_t ResolverStackSize = std::size_t{256} * 1024;

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/// A question to the resolver, shared by who asks and who may have stopped waiting.
class Question {
 public:
  Question(std::string host, std::string port) : m_host(std::move(host)), m_port(std::move(port)) {}

  void ask() {
    // An international name is UTF-8, whatever locale the process runs in.
    const Utf8Locale utf8;
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_IDN;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &found);
    const CAutoLockT<CMonitor> guard(m_lock);
    m_found = Addresses(error == 0 ? found : nullptr, freeaddrinfo);
    m_error = error;
    m_isAnswered = true;
    m_lock.NotifyAll();
  }

  /// @return whether there is an answer.
  bool wait(milliseconds longest, Addresses& found, int& error) {
    const auto limit = Clock::now() + longest;
    const CAutoLockT<CMonitor> guard(m_lock);
    while (!m_isAnswered && Clock::now() < limit) {
      m_lock.WaitUntil(limit);
    }
    found.swap(m_found);
    error = m_error;
    return m_isAnswered;
  }

 private:
  const std::string m_host;
  const std::string m_port;
  CMonitor m_lock;
  bool m_isAnswered AHS_GUARDED_BY(m_lock) = false;
  int m_error AHS_GUARDED_BY(m_lock) = 0;
  Addresses m_found AHS_GUARDED_BY(m_lock){nullptr, freeaddrinfo};
};

void* askOnThread(void* argument) {
  const std::unique_ptr<std::shared_ptr<Question>> question(
      static_cast<std::shared_ptr<Question>*>(argument));
  (*question)->ask();
  return nullptr;
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
  const auto question = std::make_shared<Question>(host, std::to_string(port));
  auto shared = std::make_unique<std::shared_ptr<Question>>(question);
  if (startDetachedThread(askOnThread, shared.get(), ResolverStackSize) != 0) {
    check.problem = "the machine gives no thread to ask for it";
    return;
  }
  static_cast<void>(shared.release());  // the thread's
  Addresses found(nullptr, freeaddrinfo);
  int error = 0;
  if (!question->wait(limit, found, error)) {
    check.problem = "the name servers do not answer in time";
  } else if (error != 0) {
    check.problem = resolverError(error);
  } else {
    takeAddresses(found.get(), check);
  }
}

/// The number of the zone of an IPv6 address, which is a number or an interface's name; 0 for none.
unsigned int zoneNumber(const std::string& zone) {
  unsigned int number = 0;
  const char* const end = zone.data() + zone.size();
  const auto [stop, error] = std::from_chars(zone.data(), end, number);
  return error == std::errc() && stop == end ? number : if_nametoindex(zone.c_str());
}

/// No name server has to do with an address. Zones go with any IPv6 address here, as they do in
/// probes; the resolver takes names of interfaces for link-local ones alone.
void takeLiteral(const std::string& host, unsigned short port, AddressCheck& check) {
  const std::size_t zoneAt = host.find('%');
  CheckedAddress address;
  address.text = host;
  if (auto* v4 = reinterpret_cast<sockaddr_in*>(&address.address);
      inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(port);
    address.length = sizeof *v4;
    check.addresses.push_back(std::move(address));
    return;
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.address);
  if (inet_pton(AF_INET6, host.substr(0, zoneAt).c_str(), &v6->sin6_addr) != 1) {
    check.problem = "it is no address";
    return;
  }
  v6->sin6_family = AF_INET6;
  v6->sin6_port = htons(port);
  address.length = sizeof *v6;
  if (zoneAt != std::string::npos) {
    v6->sin6_scope_id = zoneNumber(host.substr(zoneAt + 1));
    if (v6->sin6_scope_id == 0) {
      check.problem = "this machine has no network interface '" +
                      Console::visible(host.substr(zoneAt + 1)) + "'";
      return;
    }
  }
  check.addresses.push_back(std::move(address));
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
      return "timed out";
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EADDRNOTAVAIL:
      return "unreachable";
    default:
      return std::generic_category().message(error);
  }
}

/// An attempt to connect. The socket closes with it.
class Attempt {
 public:
  explicit Attempt(CheckedAddress& target)
      : m_target(target),
        m_start(Clock::now()),
        m_socket(socket(target.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const bool isOver =
        m_socket < 0 ||
        connect(m_socket, reinterpret_cast<const sockaddr*>(&target.address), target.length) == 0;
    if (isOver || errno != EINPROGRESS) {
      end(m_socket >= 0 && isOver ? 0 : errno);
    }
  }
  ~Attempt() { close(); }
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;

  bool isUnderWay() const { return m_socket >= 0; }
  pollfd waiting() const { return {m_socket, POLLOUT, 0}; }

  void look() {
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
      error = errno;
    }
    end(error);
  }
  void end(int error) {
    m_target.outcome =
        error == EINVAL && needsZone(m_target) ? "needs a zone" : outcomeOfError(error);
    m_target.took = std::chrono::duration_cast<microseconds>(Clock::now() - m_start);
    close();
  }

 private:
  void close() {
    if (m_socket >= 0) {
      ::close(m_socket);
      m_socket = -1;
    }
  }

  CheckedAddress& m_target;
  const Clock::time_point m_start;
  int m_socket;
};

void connectToAll(std::vector<CheckedAddress>& addresses, milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  std::vector<std::unique_ptr<Attempt>> attempts;
  attempts.reserve(addresses.size());
  for (CheckedAddress& address : addresses) {
    attempts.push_back(std::make_unique<Attempt>(address));
  }
  const auto underWay = [](const auto& attempt) { return attempt->isUnderWay(); };
  while (std::any_of(attempts.begin(), attempts.end(), underWay)) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    std::vector<pollfd> waiting;  // one that has ended is -1, which poll leaves out
    waiting.reserve(attempts.size());
    for (const auto& attempt : attempts) {
      waiting.push_back(attempt->waiting());
    }
    if (left.count() > 0) {
      poll(waiting.data(), waiting.size(), static_cast<int>(left.count()));
    }
    for (std::size_t i = 0; i < attempts.size(); ++i) {
      if (waiting[i].revents != 0) {
        attempts[i]->look();
      } else if (left.count() <= 0 && attempts[i]->isUnderWay()) {
        attempts[i]->end(ETIMEDOUT);
      }
    }
  }
}

}  // namespace

AddressCheck checkAddresses(const std::string& host, unsigned short port, milliseconds limit) {
  AddressCheck check;
  if (isAddressLiteral(host)) {
    takeLiteral(host, port, check);
  } else {
    resolve(host, port, limit, check);
  }
  connectToAll(check.addresses, limit);
  return check;
}

bool isAddressLiteral(const std::string& host) {
  in_addr unused{};
  return inet_pton(AF_INET, host.c_str(), &unused) == 1 || host.find(':') != std::string::npos;
}

bool isSameAddress(const CheckedAddress& address, const std::string& told) {
  return address.text.substr(0, address.text.find('%')) == told.substr(0, told.find('%'));
}

const CheckedAddress* findConnected(const AddressCheck& check, const std::string& preferred) {
  const CheckedAddress* found = nullptr;
  for (const CheckedAddress& address : check.addresses) {
    const bool isConnected = address.outcome == "connected";
    if (isConnected && (found == nullptr || isSameAddress(address, preferred))) {
      found = &address;
    }
  }
  return found;
}
