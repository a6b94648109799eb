// The system's proxy settings when they answer, fail, throw and hang.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/Gate.h"
#include "tests/unit/common/proxy_settings_double.h"
#include "vpn/Common/IP/SystemProxy.h"

using tests::Gate;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tests::eventually;
using tests::ProxySettingsDouble;
using namespace std::chrono_literals;

using Entries = std::vector<std::string>;

constexpr char kUrl[] = "http://gate.example:443/";
constexpr std::size_t kMostAtATime = 4;

// A limit that no test reaches.
constexpr auto kPatience = 60s;

SystemProxy::Outcome find(Entries& entries, std::chrono::milliseconds limit = kPatience) {
  entries.clear();
  return SystemProxy::find(kUrl, limit, entries);
}

/// Blocks every question until the gate opens; shared with abandoned threads.
ProxySettingsDouble::Script waitingFor(const std::shared_ptr<Gate>& gate) {
  return [gate](const std::string&) {
    gate->pass();
    return Entries{"http://late.example:1"};
  };
}

void expectQuestions(std::size_t count) {
  EXPECT_TRUE(eventually([count] { return ProxySettingsDouble::Asked().size() >= count; }));
  EXPECT_THAT(ProxySettingsDouble::Asked(), SizeIs(count));
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
  EXPECT_EQ(ProxySettingsDouble::factories().unwiped, 0U);
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
    const auto gate = std::make_shared<Gate>();
    const ProxySettingsDouble settings(waitingFor(gate));
    for (const auto limit : {10ms, 0ms, 10ms, 10ms}) {
      EXPECT_EQ(find(entries, limit), SystemProxy::Outcome::Late);
    }
    EXPECT_EQ(find(entries, kPatience), SystemProxy::Outcome::Failed);
    expectQuestions(kMostAtATime);
    gate->open();
  }
  for (int i = 0; i < 20; ++i) {
    // A released thread needs a moment to end.
    Entries next;
    EXPECT_TRUE(eventually([&next] { return find(next) == SystemProxy::Outcome::Found; }));
    EXPECT_THAT(next, ElementsAre("direct://"));
  }
  EXPECT_THAT(entries, IsEmpty()) << "late answers are dropped";
  EXPECT_LE(ProxySettingsDouble::factories().made, kMostAtATime) << "their threads serve again";
}

TEST(SystemProxy, WhoComesWhenAllAreBusyWaitsForOneToBeDone) {
  std::atomic<unsigned int> found{0};
  {
    const auto gate = std::make_shared<Gate>();
    const ProxySettingsDouble settings(waitingFor(gate));
    std::vector<std::jthread> callers;
    for (std::size_t i = 0; i < 3 * kMostAtATime; ++i) {
      callers.emplace_back([&found] {
        Entries entries;
        found += find(entries) == SystemProxy::Outcome::Found ? 1U : 0U;
      });
    }
    expectQuestions(kMostAtATime);
    Entries entries;
    EXPECT_EQ(find(entries, 10ms), SystemProxy::Outcome::Late);
    expectQuestions(kMostAtATime);
    gate->open();
  }
  EXPECT_EQ(found, 3 * kMostAtATime);
  EXPECT_LE(ProxySettingsDouble::factories().made, kMostAtATime);
  EXPECT_EQ(ProxySettingsDouble::factories().misused, 0U);
}

// Alone in its process, so that no factory exists yet.
TEST(SystemProxyAtFirst, AFactoryThatCannotBeMadeIsAFailureAndIsTriedAgain) {
  ProxySettingsDouble::factories().failToMake = true;
  Entries entries;
  const bool fresh = ProxySettingsDouble::factories().made == 0;
  const SystemProxy::Outcome outcome = find(entries);
  ProxySettingsDouble::factories().failToMake = false;
  EXPECT_EQ(outcome, fresh ? SystemProxy::Outcome::Failed : SystemProxy::Outcome::Found);
  EXPECT_EQ(find(entries), SystemProxy::Outcome::Found);
}

}  // namespace
