// Starts and stops of the library, and all that comes between them on many threads.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "tests/capi/c_door_fixture.h"

namespace tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

TEST(Start, WithEqualOptionsSharesTheLibrary) {
  const Gateway gateway;
  Log log;
  Library first({gateway.Address()});
  const Library second({gateway.Address()}, {}, [&](ahs_options& options) {
    log.Hear(options);
    options.own_loop = 1;
  });
  ASSERT_EQ(second.Status(), AHS_SUCCESS) << "callbacks, contexts and own_loop do not count";
  EXPECT_NE(first.Get(), second.Get());
  EXPECT_EQ(selectOnce(first).status, AHS_ADDED_TO_CACHE);
  EXPECT_EQ(selectOnce(second).status, AHS_SUCCESS) << "they have one cache";

  first.Stop();
  EXPECT_EQ(selectOnce(second).status, AHS_SUCCESS) << "it goes on";
  ahs_dispatch(second.Get());
  EXPECT_THAT(log.All(), testing::Not(IsEmpty()));
}

TEST(Start, WithOtherOptionsIsRefusedAndTheFirstGoesOn) {
  static constexpr ahs_headend headend = {"other", "127.0.0.1:1"};
  static constexpr ahs_preference preference = {"SelectionImprovement", "21"};
  const std::pair<const char*, void (*)(ahs_options&)> differences[] = {
      {"profiles", [](ahs_options& o) { o.profile_directory = "/nowhere"; }},
      {"user's preferences", [](ahs_options& o) { o.user_preferences_file = "/nowhere"; }},
      {"machine's preferences", [](ahs_options& o) { o.global_preferences_file = "/nowhere"; }},
      {"headends",
       [](ahs_options& o) {
         o.headends = &headend;
         o.headend_count = 1;
       }},
      {"preferences",
       [](ahs_options& o) {
         o.preferences = &preference;
         o.preference_count = 1;
       }},
      {"proxy", [](ahs_options& o) { o.proxy = "127.0.0.1:1"; }},
      {"no proxy of its own", [](ahs_options& o) { o.proxy = nullptr; }},
      {"cache", [](ahs_options& o) { o.cache_directory = "/nowhere/cache"; }},
      {"log", [](ahs_options& o) { o.log_file = "/nowhere/log"; }},
      {"level", [](ahs_options& o) { o.log_level = AHS_LOG_ERROR; }}};
  const Gateway gateway;
  const Library first({gateway.Address()});
  for (const auto& [name, change] : differences) {
    const Library second({gateway.Address()}, {}, change);
    EXPECT_EQ(second.Status(), AHS_ERROR_ALREADY_STARTED) << name;
    EXPECT_STRNE(ahs_error_text(), "");
  }
  EXPECT_EQ(selectOnce(first).status, AHS_ADDED_TO_CACHE);
}

TEST(Start, IsPossibleAgainWhileASelectionOfTheFormerLibraryIsKept) {
  const Gateway gateway;
  Client client;
  Library former({gateway.Address()});
  const Selection selection(former, client);
  ASSERT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE);
  former.Stop();
  const Library other({});
  ASSERT_EQ(other.Status(), AHS_SUCCESS) << ahs_error_text();
  EXPECT_EQ(selectOnce(other).status, AHS_ERROR_NO_HEADENDS);
  const Result kept = selection.Wait();
  EXPECT_THAT(kept.headends, testing::ElementsAre(gateway.Address()));
  EXPECT_EQ(kept.Of(gateway.Address()).headend, gateway.Address());
}

TEST(Callbacks, ComeOneAtATimeOnOneThreadThatIsNotTheClients) {
  constexpr int Selections = 4;
  const Gateway gateway;
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
  struct Context {
    std::function<void()> enter;
  } context{enter};
  Client clients[Selections];
  {
    const Library library({gateway.Address()}, {}, [&](ahs_options& options) {
      options.on_log = [](const ahs_log_message*, void* c) { static_cast<Context*>(c)->enter(); };
      options.log_context = &context;
    });
    std::vector<std::unique_ptr<Selection>> selections;
    for (Client& client : clients) {
      client.atResult = [&](ahs_selection*) { enter(); };
      client.atProbe = [&](const ahs_probe&, ahs_selection*) { enter(); };
      selections.push_back(std::make_unique<Selection>(library, client));
    }
    for (Client& client : clients) {
      EXPECT_TRUE(client.WaitUntilTold());
    }
  }
  EXPECT_FALSE(overlap);
  ASSERT_THAT(threads, testing::Not(IsEmpty()));
  EXPECT_NE(threads.front(), std::this_thread::get_id());
  EXPECT_THAT(threads, testing::Each(threads.front()));
}

TEST(Callbacks, ThatTakeLongHoldUpNoMeasurement) {
  Gateway gateway;
  Signal mayReturn;
  Client client;
  client.atProbe = [&](const ahs_probe&, ahs_selection*) { mayReturn.Wait(); };
  const Library library({gateway.Address()}, {{"SelectionPingsPerHeadend", "3"}});
  const Selection selection(library, client);
  EXPECT_TRUE(gateway.WaitUntilAsked(3));
  EXPECT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE);
  EXPECT_THAT(client.Results(), IsEmpty());
  mayReturn.Give();
  EXPECT_TRUE(client.WaitUntilTold());
}

TEST(Callbacks, MayStartASelection) {
  const Gateway gateway;
  Client inner;
  Client outer;
  const Library library({gateway.Address()});
  outer.atResult = [&](ahs_selection*) {
    EXPECT_EQ(ahs_select(library.Get(), nullptr, Client::OnResult, &inner, &inner.selection),
              AHS_SUCCESS);
    EXPECT_NE(ahs_wait(inner.selection, AHS_WAIT_FOREVER), nullptr);
  };
  const Selection selection(library, outer);
  EXPECT_TRUE(inner.WaitUntilTold());
  EXPECT_EQ(inner.Status(), AHS_SUCCESS);
  ahs_free(inner.selection);
}

TEST(Threads, MayAllUseALibraryAtOnce) {
  constexpr int Threads = 4;
  constexpr int Rounds = 20;
  const Gateway gateway;
  const Library library({gateway.Address()});
  std::atomic<int> wrong{0};
  const auto work = [&](int number) {
    for (int round = 0; round < Rounds; ++round) {
      Client client;
      Selection selection(library, client);
      if ((number + round) % 3 == 0) {
        ahs_cancel(selection.Get());
      }
      if ((number + round) % 3 == 1) {
        wrong += selection.Free() == AHS_SUCCESS ? 0 : 1;
        continue;
      }
      const ahs_status status = selection.Wait().status;
      const ahs_problem* const* problems = nullptr;
      wrong += ahs_is_success(status) != 0 || status == AHS_ERROR_CANCELLED ? 0 : 1;
      wrong += ahs_problems(library.Get(), &problems) == 0 ? 0 : 1;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < Threads; ++i) {
    threads.emplace_back(work, i);
  }
  std::ranges::for_each(threads, &std::thread::join);
  EXPECT_EQ(wrong, 0);
}

TEST(Threads, MayStartAndStopAtOnce) {
  constexpr int Threads = 4;
  constexpr int Rounds = 20;
  const Gateway gateway;
  std::atomic<int> wrong{0};
  const auto work = [&] {
    for (int round = 0; round < Rounds; ++round) {
      Client client;
      Library library({gateway.Address()});
      const Selection selection(library, client);
      library.Stop();
      const ahs_status status = client.Status();
      wrong += ahs_is_success(status) != 0 || status == AHS_ERROR_CANCELLED ? 0 : 1;
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < Threads; ++i) {
    threads.emplace_back(work);
  }
  std::ranges::for_each(threads, &std::thread::join);
  EXPECT_EQ(wrong, 0);
}

/// Starts a library that counts the messages it hears, selects, and stops it.
int messagesOfASelection() {
  std::atomic<int> heard{0};
  ahs_options options = AHS_OPTIONS_INIT;
  options.on_log = [](const ahs_log_message*, void* count) {
    ++*static_cast<std::atomic<int>*>(count);
  };
  options.log_context = &heard;
  ahs_library* library = nullptr;
  ahs_selection* selection = nullptr;
  EXPECT_EQ(ahs_start(&options, &library), AHS_SUCCESS);
  EXPECT_EQ(ahs_select(library, nullptr, ahs_no_callback, nullptr, &selection), AHS_SUCCESS);
  EXPECT_NE(ahs_wait(selection, AHS_WAIT_FOREVER), nullptr);
  ahs_free(selection);
  ahs_stop(library);
  return heard;
}

TEST(Threads, ThatStartAndStopDoNotTakeTheLogFromOneAnother) {
  constexpr int Rounds = 2000;
  const int alone = messagesOfASelection();
  EXPECT_GT(alone, 0);
  auto other = std::async(std::launch::async, [] {
    for (int round = 0; round < Rounds; ++round) {
      messagesOfASelection();
    }
  });
  for (int round = 0; round < Rounds; ++round) {
    // Those of the other's selections are heard besides.
    ASSERT_GE(messagesOfASelection(), alone) << "round " << round;
  }
  other.get();
}

/// A library whose callbacks come when it is told to make them.
class OwnLoop : public testing::Test {
 protected:
  bool HasSomethingToTell(int timeoutMs) const {
    pollfd entry{ahs_descriptor(m_library.Get()), POLLIN, 0};
    return poll(&entry, 1, timeoutMs) == 1;
  }

  bool WaitUntilSomethingIsDue() const {
    return HasSomethingToTell(std::chrono::milliseconds(Limit).count());
  }

  Gateway m_gateway{Gateway::silent()};
  Client m_client;
  Library m_library{{m_gateway.Address()}, {}, [](ahs_options& options) { options.own_loop = 1; }};
};

TEST_F(OwnLoop, TellsInsideTheDispatchAndNowhereElse) {
  EXPECT_FALSE(HasSomethingToTell(0));
  EXPECT_EQ(ahs_dispatch(m_library.Get()), AHS_SUCCESS) << "it does not wait";
  std::thread::id thread;
  m_client.atResult = [&](ahs_selection*) { thread = std::this_thread::get_id(); };
  const Selection selection(m_library, m_client);
  ASSERT_TRUE(m_gateway.WaitUntilAsked());
  m_gateway.Answer(UINT_MAX);
  EXPECT_EQ(selection.Wait().status, AHS_ADDED_TO_CACHE) << "the wait needs no dispatch";
  EXPECT_TRUE(WaitUntilSomethingIsDue());
  EXPECT_THAT(m_client.Results(), IsEmpty());
  EXPECT_THAT(m_client.Probes(), IsEmpty());

  EXPECT_EQ(ahs_dispatch(m_library.Get()), AHS_SUCCESS);
  EXPECT_EQ(m_client.Status(), AHS_ADDED_TO_CACHE);
  EXPECT_THAT(m_client.Probes(), SizeIs(2));
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_FALSE(HasSomethingToTell(0));
}

TEST_F(OwnLoop, TellsNothingOfASelectionThatWasGivenBack) {
  Selection selection(m_library, m_client);
  ASSERT_TRUE(m_gateway.WaitUntilAsked());
  ahs_cancel(selection.Get());
  selection.Free();
  ahs_dispatch(m_library.Get());
  EXPECT_THAT(m_client.Results(), IsEmpty());
  EXPECT_THAT(m_client.Probes(), IsEmpty());
}

TEST_F(OwnLoop, DispatchInsideACallbackDoesNothing) {
  Client second;
  m_client.atResult = [&](ahs_selection*) {
    EXPECT_EQ(ahs_dispatch(m_library.Get()), AHS_SUCCESS);
    EXPECT_THAT(second.Results(), IsEmpty());
  };
  const Selection one(m_library, m_client);
  const Selection two(m_library, second);
  ahs_cancel(one.Get());
  ahs_cancel(two.Get());
  ahs_dispatch(m_library.Get());
  EXPECT_EQ(m_client.Status(), AHS_ERROR_CANCELLED);
  EXPECT_EQ(second.Status(), AHS_ERROR_CANCELLED) << "it goes on until there are none";
}

TEST_F(OwnLoop, StopTellsWhatIsDueOnItsThread) {
  std::thread::id thread;
  m_client.atResult = [&](ahs_selection*) { thread = std::this_thread::get_id(); };
  const Selection selection(m_library, m_client);
  ASSERT_TRUE(m_gateway.WaitUntilAsked());
  const int descriptor = ahs_descriptor(m_library.Get());
  EXPECT_GE(fcntl(descriptor, F_GETFD), 0);
  m_library.Stop();
  EXPECT_EQ(m_client.Status(), AHS_ERROR_CANCELLED);
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "it is closed";
}

TEST_F(OwnLoop, DispatchMayStopTheLibrary) {
  m_client.atResult = [this](ahs_selection*) { m_library.Stop(); };
  const Selection selection(m_library, m_client);
  ahs_library* const library = m_library.Get();
  ahs_cancel(selection.Get());
  ahs_dispatch(library);
  EXPECT_EQ(m_client.Status(), AHS_ERROR_CANCELLED);
  EXPECT_EQ(ahs_dispatch(library), AHS_ERROR_BAD_PARAMETER);
}

TEST(WithoutAnOwnLoop, ThereIsNoDescriptorAndNoDispatch) {
  const Library library({});
  EXPECT_EQ(ahs_descriptor(library.Get()), -1);
  EXPECT_EQ(ahs_dispatch(library.Get()), AHS_ERROR_BAD_PARAMETER);
}

}  // namespace
}  // namespace tests
