// The system's proxy settings when they answer, fail, throw and hang.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/common/proxy_settings_double.h"
#include "vpn/Common/IP/SystemProxy.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tests::ProxySettingsDouble;
using namespace std::chrono_literals;

using Entries = std::vector<std::string>;

constexpr char kUrl[] = "http://gate.example:443/";
constexpr std::size_t kMostAtATime = 4;

// Nothing waits for it to pass.
constexpr auto kPatience = 60s;

SystemProxy::Outcome find(Entries& entries, std::chrono::milliseconds limit = kPatience) {
  entries.clear();
  return SystemProxy::find(kUrl, limit, entries);
}

/// Holds every question up until it is opened.
class Barrier {
 public:
  Entries Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_open; });
    --m_waiting;
    m_changed.notify_all();
    return {"http://late.example:1"};
  }
  void WaitFor(std::size_t waiting) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [&] { return m_waiting == waiting; });
  }
  void Open() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_waiting == 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::size_t m_waiting = 0;
  bool m_open = false;
};

/// Waits until questions are answered again: a thread that has been let go takes a moment to end.
void waitUntilAnswered() {
  Entries entries;
  for (int i = 0; i < 2000 && find(entries) != SystemProxy::Outcome::Found; ++i) {
    std::this_thread::sleep_for(5ms);
  }
  ASSERT_THAT(entries, ElementsAre("direct://"));
}

TEST(SystemProxy, TheListIsHandedOverInItsOrderWithoutUsersAndPasswordsWhichAreWipedAtTheirSource) {
  const ProxySettingsDouble settings([](const std::string&) {
    return Entries{"http://user:secret@a:1",
                   "http://us%40er:se:c@r@et@b:2",
                   "user:secret@c:3",
                   "http://user:sec/ret@d:4",
                   "@",
                   "http://@e:5",
                   "socks5://f:6",
                   "direct://"};
  });
  Entries entries;
  EXPECT_EQ(find(entries), SystemProxy::Outcome::Found);
  EXPECT_THAT(entries, ElementsAre("http://a:1", "http://b:2", "c:3", "http://d:4", "",
                                   "http://e:5", "socks5://f:6", "direct://"));
  EXPECT_EQ(ProxySettingsDouble::GivenBackUnwiped(), 0U);
}

TEST(SystemProxy, WhatIsThrownOrNoListIsAFailureAndTheNextQuestionIsAnswered) {
  Entries entries;
  const ProxySettingsDouble::Script scripts[] = {
      [](const std::string&) -> Entries { throw ProxySettingsDouble::NoList(); },
      [](const std::string&) -> Entries { throw std::runtime_error("a module's trouble"); },
      [](const std::string&) -> Entries { throw 1; }};
  for (const ProxySettingsDouble::Script& script : scripts) {
    const ProxySettingsDouble settings(script);
    for (std::size_t i = 0; i <= kMostAtATime; ++i) {
      EXPECT_EQ(find(entries), SystemProxy::Outcome::Failed);
      EXPECT_THAT(entries, IsEmpty());
    }
  }
  EXPECT_EQ(find(entries), SystemProxy::Outcome::Found);
}

TEST(SystemProxy, WhenAsManyAreLateAsMayAskTheNextIsToldAtOnceThatThereIsNoAnswer) {
  Entries entries;
  {
    Barrier barrier;
    const ProxySettingsDouble settings([&](const std::string&) { return barrier.Wait(); });
    for (const auto limit : {10ms, 0ms, 10ms, 10ms}) {
      EXPECT_EQ(find(entries, limit), SystemProxy::Outcome::Late);
    }
    EXPECT_EQ(find(entries, kPatience), SystemProxy::Outcome::Failed);
    barrier.WaitFor(kMostAtATime);
    EXPECT_THAT(ProxySettingsDouble::Asked(), SizeIs(kMostAtATime));
    barrier.Open();
  }
  EXPECT_THAT(entries, IsEmpty()) << "late answers are dropped";
  for (int i = 0; i < 20; ++i) {
    waitUntilAnswered();
  }
  EXPECT_LE(ProxySettingsDouble::Made(), kMostAtATime) << "their threads serve again";
}

TEST(SystemProxy, WhoComesWhenAllAreBusyWaitsForOneToBeDone) {
  std::atomic<unsigned int> found{0};
  std::vector<std::thread> callers;
  {
    Barrier barrier;
    const ProxySettingsDouble settings([&](const std::string&) { return barrier.Wait(); });
    for (std::size_t i = 0; i < 3 * kMostAtATime; ++i) {
      callers.emplace_back([&found] {
        Entries entries;
        found += find(entries) == SystemProxy::Outcome::Found ? 1U : 0U;
      });
    }
    barrier.WaitFor(kMostAtATime);
    Entries entries;
    EXPECT_EQ(find(entries, 10ms), SystemProxy::Outcome::Late);
    EXPECT_THAT(ProxySettingsDouble::Asked(), SizeIs(kMostAtATime));
    barrier.Open();
    for (std::thread& caller : callers) {
      caller.join();
    }
  }
  EXPECT_EQ(found, 3 * kMostAtATime);
  EXPECT_LE(ProxySettingsDouble::Made(), kMostAtATime);
  EXPECT_EQ(ProxySettingsDouble::Misused(), 0U);
}

// Alone in its process, so that no factory has been made before.
TEST(SystemProxyAtFirst, AFactoryThatCannotBeMadeIsAFailureAndIsTriedAgain) {
  ProxySettingsDouble::FailToMake(true);
  Entries entries;
  const bool fresh = ProxySettingsDouble::Made() == 0;
  const SystemProxy::Outcome outcome = find(entries);
  ProxySettingsDouble::FailToMake(false);
  EXPECT_EQ(outcome, fresh ? SystemProxy::Outcome::Failed : SystemProxy::Outcome::Found);
  EXPECT_EQ(find(entries), SystemProxy::Outcome::Found);
}

}  // namespace
