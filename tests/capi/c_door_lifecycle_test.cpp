// Starts and stops of the library, and everything in between, on many threads.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "tests/capi/c_door_fixture.h"

namespace tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

TEST(Start, WithEqualOptionsSharesTheLibraryAndItsCacheUntilTheLastStop) {
  const Gateway gateway(Gateway::All);
  std::atomic<int> messages{0};
  ahs::Options options = optionsFor({gateway.Address()});
  ahs::Library first(options);
  options.onLog = [&](const ahs::LogMessage&) { ++messages; };
  options.ownLoop = true;
  ahs::Library second(options);
  ASSERT_TRUE(second) << "callbacks, contexts and own_loop do not count";
  EXPECT_EQ(first.select(Reconnection).status, ahs::AddedToCache);
  EXPECT_EQ(second.select(Reconnection).status, ahs::Success);

  stop(first);
  EXPECT_EQ(second.select(Reconnection).status, ahs::Success) << "it goes on";
  second.dispatch();
  EXPECT_GT(messages, 0);
  stop(second);
  EXPECT_EQ(ahs::Library(options).select(Reconnection).status, ahs::AddedToCache);
}

TEST(Start, WithOtherOptionsIsRefusedAndTheFirstGoesOn) {
  const std::pair<const char*, void (*)(ahs::Options&)> differences[] = {
      {"profiles", [](ahs::Options& o) { o.profileDirectory = "/nowhere"; }},
      {"user's preferences", [](ahs::Options& o) { o.userPreferencesFile = "/nowhere"; }},
      {"machine's preferences", [](ahs::Options& o) { o.globalPreferencesFile = "/nowhere"; }},
      {"headends",
       [](ahs::Options& o) {
         o.headends = {{"other", "127.0.0.1:1"}};
       }},
      {"preferences",
       [](ahs::Options& o) {
         o.preferences = {{"SelectionImprovement", "21"}};
       }},
      {"proxy", [](ahs::Options& o) { o.proxy = "127.0.0.1:1"; }},
      {"no proxy of its own", [](ahs::Options& o) { o.proxy.reset(); }},
      {"cache", [](ahs::Options& o) { o.cacheDirectory = "/nowhere/cache"; }},
      {"log", [](ahs::Options& o) { o.logFile = "/nowhere/log"; }},
      {"level", [](ahs::Options& o) { o.logLevel = ahs::LogLevel::Error; }},
      {"environment", [](ahs::Options& o) { o.ignoreEnvironment = true; }}};
  const Gateway gateway(Gateway::All);
  ahs::Library first(optionsFor({gateway.Address()}));
  for (const auto& [name, change] : differences) {
    ahs::Options options = optionsFor({gateway.Address()});
    change(options);
    const ahs::Library second(options);
    EXPECT_EQ(second.status(), ahs::AlreadyStarted) << name;
    EXPECT_NE(second.error(), "");
  }
  EXPECT_TRUE(first.select(Reconnection));
}

TEST(Start, IsPossibleAgainWhileASelectionOfTheFormerLibraryIsKept) {
  const Gateway gateway(Gateway::All);
  ahs::Library former(optionsFor({gateway.Address()}));
  const ahs::Selection selection = former.select(Reconnection, nullptr);
  ASSERT_TRUE(selection.wait());
  stop(former);
  ahs::Library other(optionsFor({}));
  EXPECT_EQ(other.select().status, ahs::NoHeadends) << other.error();
  EXPECT_THAT(selection.wait().headends, testing::ElementsAre(gateway.Address()));
}

TEST(Callbacks, ComeOneAtATimeOnOneThreadThatIsNotTheClients) {
  constexpr int Selections = 4;
  const Gateway gateway(Gateway::All);
  std::atomic<int> inside{0};
  std::atomic<bool> overlap{false};
  std::mutex mutex;
  std::vector<std::thread::id> threads;
  const auto enter = [&] {
    if (++inside != 1) {
      overlap = true;
    }
    {
      const std::lock_guard<std::mutex> guard(mutex);
      threads.push_back(std::this_thread::get_id());
    }
    std::this_thread::yield();
    --inside;
  };
  Client clients[Selections];
  {
    ahs::Options options = optionsFor({gateway.Address()});
    options.onLog = [&](const ahs::LogMessage&) { enter(); };
    ahs::Library library(options);
    std::vector<ahs::Selection> selections;
    for (Client& client : clients) {
      client.atResult = enter;
      client.atProbe = [&](const ahs::Probe&) { enter(); };
      selections.push_back(client.Select(library));
    }
    for (const Client& client : clients) {
      EXPECT_TRUE(client.WaitUntilTold());
    }
  }
  EXPECT_FALSE(overlap);
  ASSERT_THAT(threads, testing::Not(IsEmpty()));
  EXPECT_NE(threads.front(), std::this_thread::get_id());
  EXPECT_THAT(threads, testing::Each(threads.front()));
}

TEST(Callbacks, ThatTakeLongHoldUpNoMeasurement) {
  Gateway gateway(Gateway::All);
  Signal mayReturn;
  Client client;
  client.atProbe = [&](const ahs::Probe&) { mayReturn.Wait(); };
  ahs::Library library(optionsFor({gateway.Address()}, {{"SelectionPingsPerHeadend", "3"}}));
  const ahs::Selection selection = client.Select(library);
  EXPECT_TRUE(gateway.WaitUntilAsked(3));
  EXPECT_EQ(selection.wait().status, ahs::AddedToCache);
  EXPECT_THAT(client.Results(), IsEmpty());
  mayReturn.Give();
  EXPECT_TRUE(client.WaitUntilTold());
}

/// Calls `work` on four threads at once, twenty times each.
void onThreads(const std::function<void(int)>& work) {
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&work, thread] {
      for (int round = 0; round < 20; ++round) {
        work(thread + round);
      }
    });
  }
}

bool isResultOrCancelled(ahs::Status status) { return status || status == ahs::Cancelled; }

TEST(Threads, MayAllUseALibraryAtOnce) {
  const Gateway gateway(Gateway::All);
  ahs::Library library(optionsFor({gateway.Address()}));
  onThreads([&](int number) {
    Client client;
    const ahs::Selection selection = client.Select(library);
    if (number % 3 == 0) {
      selection.cancel();
    }
    if (number % 3 != 1) {
      EXPECT_TRUE(isResultOrCancelled(selection.wait().status));
      EXPECT_THAT(library.problems(), IsEmpty());
    }
  });
}

TEST(Threads, MayStartAndStopAtOnce) {
  const Gateway gateway(Gateway::All);
  onThreads([&](int) {
    Client client;
    ahs::Library library(optionsFor({gateway.Address()}));
    const ahs::Selection selection = client.Select(library);
    stop(library);
    EXPECT_TRUE(isResultOrCancelled(client.Status()));
  });
}

/// Starts a library that counts its log messages, selects, and stops it.
int messagesOfASelection() {
  std::atomic<int> heard{0};
  {
    ahs::Library library({.onLog = [&](const ahs::LogMessage&) { ++heard; }});
    EXPECT_EQ(library.select().status, ahs::NoHeadends);
  }
  return heard;
}

TEST(Threads, ThatStartAndStopDoNotTakeTheLogFromOneAnother) {
  constexpr int Rounds = 2000;
  const int alone = messagesOfASelection();
  EXPECT_GT(alone, 0);
  const auto other = std::async(std::launch::async, [] {
    for (int round = 0; round < Rounds; ++round) {
      messagesOfASelection();
    }
  });
  for (int round = 0; round < Rounds; ++round) {
    // This library may also receive the other's messages.
    ASSERT_GE(messagesOfASelection(), alone) << "round " << round;
  }
}

/// A library that calls back only on `ahs_dispatch`.
class OwnLoop : public testing::Test {
 protected:
  OwnLoop() {
    ahs::Options options = optionsFor({m_gateway.Address()});
    options.ownLoop = true;
    m_library.emplace(options);
    m_client.atResult = [this] { m_thread = std::this_thread::get_id(); };
  }

  bool HasSomethingToTell(std::chrono::milliseconds limit = Limit) const {
    pollfd entry{m_library->descriptor(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(limit.count())) == 1;
  }

  Gateway m_gateway;
  Client m_client;
  std::thread::id m_thread;
  std::optional<ahs::Library> m_library;
};

TEST_F(OwnLoop, TellsInsideTheDispatchAndNowhereElse) {
  EXPECT_FALSE(HasSomethingToTell({}));
  EXPECT_EQ(m_library->dispatch(), ahs::Success) << "it does not wait";
  const ahs::Selection selection = m_client.Select(*m_library);
  ASSERT_TRUE(m_gateway.WaitUntilAsked());
  m_gateway.Release();
  EXPECT_EQ(selection.wait().status, ahs::AddedToCache) << "the wait needs no dispatch";
  EXPECT_TRUE(HasSomethingToTell());
  EXPECT_THAT(m_client.Results(), IsEmpty());
  EXPECT_THAT(m_client.Probes(), IsEmpty());

  EXPECT_EQ(m_library->dispatch(), ahs::Success);
  EXPECT_EQ(m_client.Status(), ahs::AddedToCache);
  EXPECT_THAT(m_client.Probes(), SizeIs(2));
  EXPECT_EQ(m_thread, std::this_thread::get_id());
  EXPECT_FALSE(HasSomethingToTell({}));
}

TEST_F(OwnLoop, TellsNothingOfASelectionThatWasGivenBack) {
  ahs::Selection selection = m_client.Select(*m_library);
  ASSERT_TRUE(m_gateway.WaitUntilAsked());
  selection.cancel();
  selection = ahs::Selection();
  m_library->dispatch();
  EXPECT_THAT(m_client.Results(), IsEmpty());
  EXPECT_THAT(m_client.Probes(), IsEmpty());
}

TEST_F(OwnLoop, DispatchInsideACallbackDoesNothing) {
  Client second;
  m_client.atResult = [&] {
    EXPECT_EQ(m_library->dispatch(), ahs::Success);
    EXPECT_THAT(second.Results(), IsEmpty());
  };
  const ahs::Selection one = m_client.Select(*m_library);
  const ahs::Selection two = second.Select(*m_library);
  one.cancel();
  two.cancel();
  m_library->dispatch();
  EXPECT_EQ(m_client.Status(), ahs::Cancelled);
  EXPECT_EQ(second.Status(), ahs::Cancelled) << "it goes on until there are none";
}

TEST_F(OwnLoop, StopTellsWhatIsDueOnItsThread) {
  const ahs::Selection selection = m_client.Select(*m_library);
  ASSERT_TRUE(m_gateway.WaitUntilAsked());
  const int descriptor = m_library->descriptor();
  EXPECT_GE(fcntl(descriptor, F_GETFD), 0);
  m_library.reset();
  EXPECT_EQ(m_client.Status(), ahs::Cancelled);
  EXPECT_EQ(m_thread, std::this_thread::get_id());
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "it is closed";
}

TEST_F(OwnLoop, DispatchMayStopTheLibrary) {
  m_client.atResult = [this] { stop(*m_library); };
  const ahs::Selection selection = m_client.Select(*m_library);
  selection.cancel();
  m_library->dispatch();
  EXPECT_EQ(m_client.Status(), ahs::Cancelled);
  EXPECT_FALSE(*m_library);
}

TEST(WithoutAnOwnLoop, ThereIsNoDescriptorAndNoDispatch) {
  const ahs::Library library(optionsFor({}));
  EXPECT_EQ(library.descriptor(), -1);
  EXPECT_EQ(library.dispatch(), ahs::BadParameter);
}

}  // namespace
}  // namespace tests
