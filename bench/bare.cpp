// The least that measuring costs this machine: the packets of a selection and nothing else. One
// thread connects, asks, takes the first bytes of the answer and closes, first for the first
// gateway, then three times in a row for each of them at once. It judges no answer.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int Usage = 2;
constexpr int PatienceMs = 30'000;

struct Gateway {
  sockaddr_in address{};
  std::string request;
  unsigned int pings = 0;  ///< that are to come
  int connection = -1;
  bool asked = false;
};

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class Bare {
 public:
  Bare(std::vector<Gateway>& gateways) : m_gateways(gateways) {
    if (m_epoll < 0) fail("epoll_create1");
  }
  ~Bare() { close(m_epoll); }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  /// Pings the first `count` gateways.
  void ping(std::size_t count, unsigned int times) {
    std::size_t running = count;
    for (std::size_t i = 0; i < count; ++i) {
      m_gateways[i].pings = times;
      connect(i);
    }
    std::array<epoll_event, 256> events{};
    while (running > 0) {
      const int ready =
          epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), PatienceMs);
      if (ready <= 0) throw std::runtime_error("a gateway is silent");
      for (int i = 0; i < ready; ++i) {
        running -= go(events.at(static_cast<std::size_t>(i)).data.u64) ? 1 : 0;
      }
    }
  }

 private:
  void connect(std::size_t index) {
    Gateway& gateway = m_gateways[index];
    gateway.asked = false;
    gateway.connection = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (gateway.connection < 0) fail("socket");
    if (::connect(gateway.connection, reinterpret_cast<const sockaddr*>(&gateway.address),
                  sizeof gateway.address) != 0 &&
        errno != EINPROGRESS) {
      fail("connect");
    }
    // Edges: the answer needs no second call.
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    event.data.u64 = index;
    if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, gateway.connection, &event) != 0) fail("epoll_ctl");
  }

  /// @return whether the gateway has had its last ping.
  bool go(std::size_t index) {
    Gateway& gateway = m_gateways[index];
    if (!gateway.asked) {
      gateway.asked = true;
      if (send(gateway.connection, gateway.request.data(), gateway.request.size(), MSG_NOSIGNAL) <
          0) {
        fail("send");
      }
      return false;
    }
    std::array<char, 4096> answer{};
    const ssize_t size = recv(gateway.connection, answer.data(), answer.size(), 0);
    if (size < 0 && errno == EAGAIN) return false;
    if (size <= 0) fail("recv");
    close(gateway.connection);
    if (--gateway.pings == 0) return true;
    connect(index);
    return false;
  }

  std::vector<Gateway>& m_gateways;
  const int m_epoll = epoll_create1(EPOLL_CLOEXEC);
};

std::vector<Gateway> parse(const std::vector<std::string>& arguments) {
  const auto port = static_cast<std::uint16_t>(std::stoul(arguments.at(0)));
  std::vector<Gateway> gateways;
  for (std::size_t i = 2; i < arguments.size(); ++i) {
    Gateway gateway;
    gateway.address.sin_family = AF_INET;
    gateway.address.sin_port = htons(port);
    if (inet_pton(AF_INET, arguments[i].c_str(), &gateway.address.sin_addr) != 1) {
      throw std::runtime_error(arguments[i] + " is no IPv4 address");
    }
    gateway.request = "GET / HTTP/1.1\r\nHost: " + arguments[i] + ":" + arguments[0] +
                      "\r\nUser-Agent: bench\r\nAccept: */*\r\n\r\n";
    gateways.push_back(gateway);
  }
  return gateways;
}

void allowDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::cerr << "usage: bench-bare PORT PINGS ADDRESS...\n";
    return Usage;
  }
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    std::vector<Gateway> gateways = parse(arguments);
    allowDescriptors();
    const auto start = std::chrono::steady_clock::now();
    Bare bare(gateways);
    bare.ping(1, 1);
    bare.ping(gateways.size(), static_cast<unsigned int>(std::stoul(arguments[1])));
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;
    std::cout << elapsed.count() << '\n';
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::cerr << "bench-bare: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
