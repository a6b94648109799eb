// Threads that wait for their sockets, one of them for all.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "vpn/Common/IP/SocketLoop.h"

namespace tests {
namespace {

using Clock = SocketLoop::Clock;
constexpr auto Never = Clock::time_point::max();

/// Waits for a byte, a time or a word.
class Waiting : public SocketLoop::Wait {
 public:
  explicit Waiting(Clock::time_point until = Never) : m_until(until) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, m_pair), 0);
    m_thread = std::thread([this] {
      for (int i = 0; i < 2 && !isCalledOff; ++i) {
        forget();
        add(m_pair[0], m_isKnown);
        m_isOver = false;
        EXPECT_EQ(SocketLoop::wait(*this, m_until), 0);
        ++ended;
        m_until = Never;
      }
    });
  }
  ~Waiting() override {
    m_thread.join();
    close(m_pair[0]);
    close(m_pair[1]);
  }
  void send() const { EXPECT_EQ(write(m_pair[1], "x", 1), 1); }

  std::atomic<int> ended{0};
  std::atomic<bool> isCalledOff{false};

 private:
  void noteEvents(int socket, std::uint32_t) noexcept override {
    char byte = 0;
    m_isOver = m_isOver || recv(socket, &byte, 1, MSG_DONTWAIT) == 1;
  }
  bool isOver(Clock::time_point now, Clock::time_point& next) noexcept override {
    next = m_until;
    return m_isOver || isCalledOff || now >= m_until;
  }

  int m_pair[2] = {-1, -1};
  bool m_isKnown = false;
  bool m_isOver = false;
  Clock::time_point m_until;
  std::thread m_thread;
};

TEST(SocketLoop, EachWaitEndsWithItsOwnSocketWhoeverLeads) {
  std::vector<std::unique_ptr<Waiting>> all;
  for (int i = 0; i < 8; ++i) {
    all.push_back(std::make_unique<Waiting>());
  }
  for (int round = 1; round <= 2; ++round) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      all[i]->send();
      EXPECT_TRUE(eventually([&] { return all[i]->ended == round; })) << i;
      for (std::size_t other = i + 1; other < all.size(); ++other) {
        EXPECT_EQ(all[other]->ended, round - 1);
      }
    }
  }
}

TEST(SocketLoop, AWaitEndsAtItsTimeAndAllOfThemAreLookedAtOnDemand) {
  Waiting late;
  Waiting early(Clock::now() + std::chrono::milliseconds(20));
  EXPECT_TRUE(eventually([&] { return early.ended == 1; }));
  EXPECT_EQ(late.ended, 0);
  late.isCalledOff = early.isCalledOff = true;
  SocketLoop::lookAtAll();
  EXPECT_TRUE(eventually([&] { return late.ended == 1 && early.ended == 2; }));
}

}  // namespace
}  // namespace tests
