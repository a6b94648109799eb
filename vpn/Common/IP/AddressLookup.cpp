// Names are looked up by getaddrinfo(3), which heeds what the machine is set to (nsswitch.conf) and
// cannot be stopped: a thread asks for each, and is left behind when nobody waits any more.

#include "vpn/Common/IP/AddressLookup.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "vpn/Common/IP/NameLookup.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/Utility/DetachedThread.h"
#include "vpn/include/Locks.h"

namespace {

using std::chrono::milliseconds;

// Some modules of the name service switch take more than our other threads.
constexpr std::size_t LookupStack = std::size_t{1024} * 1024;

bool hasIpv6() {
  static const bool has = [] {
    const int trial = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (trial >= 0) {
      close(trial);
    }
    return trial >= 0;
  }();
  return has;
}

/// Nobody is asked for these (RFC 6761, section 6.3).
bool isLocalhost(std::string_view name) {
  constexpr std::string_view Local = "localhost";
  const std::size_t dot = name.rfind('.');
  const std::string_view last = name.substr(dot == std::string_view::npos ? 0 : dot + 1);
  return last.size() == Local.size() && strncasecmp(last.data(), Local.data(), last.size()) == 0;
}

sockaddr_in6 addressOf(const std::string& literal, std::uint32_t zone, unsigned short port) {
  sockaddr_in6 address{};
  auto& v4 = reinterpret_cast<sockaddr_in&>(address);
  if (inet_pton(AF_INET, literal.c_str(), &v4.sin_addr) == 1) {
    address.sin6_family = AF_INET;
  } else {
    address = sockaddr_in6{};
    address.sin6_family = AF_INET6;
    inet_pton(AF_INET6, literal.c_str(), &address.sin6_addr);
    address.sin6_scope_id = zone;
  }
  address.sin6_port = htons(port);  // at the same place in both families
  return address;
}

/// Of "[fe80::1%25eth0]".
std::uint32_t zoneOf(const std::string& host) {
  const std::size_t mark = host.find("%25");
  if (mark == std::string::npos) {
    return 0;
  }
  const std::string zone = host.substr(mark + 3, host.size() - mark - 4);
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(zone.data(), zone.data() + zone.size(), number);
  return error == std::errc() && end == zone.data() + zone.size() ? number
                                                                  : if_nametoindex(zone.c_str());
}

AddressLookup failed(unsigned int code, Shortage shortage = Shortage::None) {
  return {{}, code, shortage};
}

}  // namespace

/// A question, and the first answer to it of those threads that ask.
struct AddressLookup::Question {
  Question(std::string host, unsigned short port)
      : name(std::move(host)), service(std::to_string(port)) {}
  ~Question() {
    if (bell >= 0) {
      close(bell);
    }
  }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  /// @return the number of the next thread that asks.
  unsigned int next() {
    const CAutoLockT<CManualLock> guard(m_lock);
    return ++m_asked;
  }
  /// Takes an answer. A failure is one only if nobody has asked since.
  void take(unsigned int number, Addresses found) {
    const CAutoLockT<CManualLock> guard(m_lock);
    if (!m_answer && (!found.empty() || number == m_asked)) {
      m_answer = std::move(found);
      eventfd_write(bell, 1);
    }
  }
  /// @return the addresses, none if there are none; nothing before the answer.
  std::optional<Addresses> answer() const {
    const CAutoLockT<CManualLock> guard(m_lock);
    return m_answer;
  }

  const std::string name;
  const std::string service;
  const int bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

 private:
  mutable CManualLock m_lock;
  unsigned int m_asked AHS_GUARDED_BY(m_lock) = 0;
  std::optional<Addresses> m_answer AHS_GUARDED_BY(m_lock);
};

namespace {

using Addresses = AddressLookup::Addresses;

/// What a thread asks, and as which one.
struct Asked {
  AddressLookup::Late question;
  unsigned int number;
};

Addresses addressesOf(const AddressLookup::Question& question) {
  Addresses found;
  addrinfo hints{};
  hints.ai_family = hasIpv6() ? AF_UNSPEC : AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* all = nullptr;
  if (getaddrinfo(question.name.c_str(), question.service.c_str(), &hints, &all) != 0) {
    return found;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(all, freeaddrinfo);
  for (const addrinfo* one = all; one != nullptr; one = one->ai_next) {
    if (one->ai_family == AF_INET || one->ai_family == AF_INET6) {
      memcpy(&found.emplace_back(), one->ai_addr, one->ai_addrlen);
    }
  }
  return found;
}

void* ask(void* shared) {
  const std::unique_ptr<Asked> own(static_cast<Asked*>(shared));
  Addresses found;
  try {
    found = addressesOf(*own->question);
  } catch (...) {
    found.clear();  // for want of memory
  }
  own->question->take(own->number, std::move(found));
  return nullptr;
}

/// Waits for the answer.
std::optional<Addresses> awaitAnswer(const AddressLookup::Question& question, const ProbeTask* task,
                                     AddressLookup::Clock::time_point limit) {
  for (;;) {
    std::optional<Addresses> answer = question.answer();
    const auto left = std::chrono::ceil<milliseconds>(limit - AddressLookup::Clock::now());
    if (answer || left.count() <= 0 || (task != nullptr && task->isCancelled())) {
      return answer;
    }
    std::array<pollfd, 2> both{
        {{question.bell, POLLIN, 0}, {task != nullptr ? task->cancelDescriptor() : -1, POLLIN, 0}}};
    poll(both.data(), both.size(), static_cast<int>(left.count()));
  }
}

AddressLookup answered(Addresses addresses) {
  return addresses.empty() ? failed(CURLE_COULDNT_RESOLVE_HOST)
                           : AddressLookup{std::move(addresses)};
}

AddressLookup lookUp(const ProbeRequest& request, AddressLookup::Clock::time_point limit,
                     AddressLookup::Late& late) {
  std::optional<Addresses> known = late ? late->answer() : std::nullopt;
  if (known && !known->empty()) {
    return answered(std::move(*known));
  }
  if (!late || known) {
    late = std::make_shared<AddressLookup::Question>(request.host, request.port);
  }
  if (late->bell < 0) {
    late.reset();
    return failed(CURLE_COULDNT_RESOLVE_HOST, Shortages::fromErrno(errno));
  }
  auto asked = std::make_unique<Asked>(Asked{late, late->next()});
  NameLookup lookup;
  if (!lookup.begin()) {
    return failed(CURLE_COULDNT_RESOLVE_HOST, Shortage::Threads);
  }
  const int error = startDetachedThread(ask, asked.get(), LookupStack);
  lookup.noteStart();
  if (error != 0) {
    lookup.end(true);
    return failed(CURLE_COULDNT_RESOLVE_HOST, Shortage::Threads);
  }
  static_cast<void>(asked.release());
  std::optional<Addresses> answer = awaitAnswer(*late, request.task, limit);
  lookup.end(answer.has_value());
  if (!answer) {
    return failed(request.task != nullptr && request.task->isCancelled()
                      ? CURLE_ABORTED_BY_CALLBACK
                      : CURLE_OPERATION_TIMEDOUT);
  }
  return answered(std::move(*answer));
}

}  // namespace

AddressLookup AddressLookup::of(const ProbeRequest& request, Clock::time_point limit, Late& late) {
  if (const std::string literal = literalOf(request.host); !literal.empty()) {
    return {{addressOf(literal, zoneOf(request.host), request.port)}};
  }
  if (isLocalhost(request.host)) {
    AddressLookup local;
    for (const char* const address : {"::1", "127.0.0.1"}) {
      if (*address != ':' || hasIpv6()) {
        local.addresses.push_back(addressOf(address, 0, request.port));
      }
    }
    return local;
  }
  return lookUp(request, limit, late);
}

std::string textOf(const sockaddr_in6& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
  const void* const bytes = address.sin6_family == AF_INET6
                                ? static_cast<const void*>(&address.sin6_addr)
                                : static_cast<const void*>(&v4.sin_addr);
  inet_ntop(address.sin6_family, bytes, text.data(), text.size());
  return text.data();
}

std::string literalOf(const std::string& host) {
  in_addr binary{};
  if (host.starts_with('[')) {
    return host.substr(1, std::min(host.find('%'), host.size() - 1) - 1);
  }
  return inet_pton(AF_INET, host.c_str(), &binary) == 1 ? host : "";
}
