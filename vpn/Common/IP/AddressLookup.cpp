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
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>
#include <string_view>

#include "vpn/Common/IP/NameLookup.h"
#include "vpn/Common/IP/ProbeTask.h"
#include "vpn/Common/Utility/DetachedThread.h"

namespace {

using std::chrono::milliseconds;

// Some modules of the name service switch take more than our other threads.
constexpr std::size_t LookupStack = std::size_t{1024} * 1024;

/// A question and its answer, which the asking thread writes before it rings.
struct Question {
  Question() = default;
  ~Question() {
    if (bell >= 0) {
      close(bell);
    }
  }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  std::string name;
  std::string service;
  int family = AF_UNSPEC;
  const int bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::vector<sockaddr_in6> found;
  std::atomic<bool> isAnswered{false};
};

void answer(Question& question) {
  addrinfo hints{};
  hints.ai_family = question.family;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* all = nullptr;
  if (getaddrinfo(question.name.c_str(), question.service.c_str(), &hints, &all) != 0) {
    return;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(all, freeaddrinfo);
  for (const addrinfo* one = all; one != nullptr; one = one->ai_next) {
    if (one->ai_family == AF_INET || one->ai_family == AF_INET6) {
      memcpy(&question.found.emplace_back(), one->ai_addr, one->ai_addrlen);
    }
  }
}

void* ask(void* shared) {
  const std::unique_ptr<std::shared_ptr<Question>> own(
      static_cast<std::shared_ptr<Question>*>(shared));
  Question& question = **own;
  try {
    answer(question);
  } catch (...) {
    question.found.clear();  // for want of memory
  }
  question.isAnswered = true;
  eventfd_write(question.bell, 1);
  return nullptr;
}

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

/// Waits for the answer.
bool isAnswered(const Question& question, const ProbeTask* task,
                AddressLookup::Clock::time_point limit) {
  while (!question.isAnswered) {
    const auto left = std::chrono::ceil<milliseconds>(limit - AddressLookup::Clock::now());
    if (left.count() <= 0 || (task != nullptr && task->isCancelled())) {
      return false;
    }
    std::array<pollfd, 2> both{
        {{question.bell, POLLIN, 0}, {task != nullptr ? task->cancelDescriptor() : -1, POLLIN, 0}}};
    poll(both.data(), both.size(), static_cast<int>(left.count()));
  }
  return true;
}

AddressLookup lookUp(const ProbeRequest& request, AddressLookup::Clock::time_point limit) {
  const auto question = std::make_shared<Question>();
  if (question->bell < 0) {
    return failed(CURLE_COULDNT_RESOLVE_HOST, Shortages::fromErrno(errno));
  }
  question->name = request.host;
  question->service = std::to_string(request.port);
  question->family = hasIpv6() ? AF_UNSPEC : AF_INET;
  auto hold = std::make_unique<std::shared_ptr<Question>>(question);
  NameLookup lookup;
  if (!lookup.begin()) {
    return failed(CURLE_COULDNT_RESOLVE_HOST, Shortage::Threads);
  }
  const int error = startDetachedThread(ask, hold.get(), LookupStack);
  lookup.noteStart();
  if (error != 0) {
    lookup.end(true);
    return failed(CURLE_COULDNT_RESOLVE_HOST, Shortage::Threads);
  }
  static_cast<void>(hold.release());
  const bool isOver = isAnswered(*question, request.task, limit);
  lookup.end(isOver);
  if (!isOver) {
    return failed(request.task != nullptr && request.task->isCancelled()
                      ? CURLE_ABORTED_BY_CALLBACK
                      : CURLE_OPERATION_TIMEDOUT);
  }
  return question->found.empty() ? failed(CURLE_COULDNT_RESOLVE_HOST)
                                 : AddressLookup{std::move(question->found)};
}

}  // namespace

AddressLookup AddressLookup::of(const ProbeRequest& request, Clock::time_point limit) {
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
  return lookUp(request, limit);
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
