// The C++ header on top of the C interface: what it adds to it, against gateways on the loopback
// interface.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <ahs/ahs.hpp>
#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tests::Gateway;
using tests::RefusingPort;
using tests::ScriptedServer;
using tests::SilentListener;

constexpr std::chrono::milliseconds NotAtOnce{5};

/// Answers later than a round trip that counts as none.
Gateway::Settings notAtOnce() {
  Gateway::Settings settings;
  settings.delays.assign(10, NotAtOnce);
  return settings;
}

/// One probe a gateway, which measures until the answer, and no proxy.
ahs::Options optionsFor(std::vector<ahs::Headend> headends) {
  return {.headends = std::move(headends),
          .preferences = {{"SelectionPingsPerHeadend", "1"}, {"RoundTripTime", "response"}},
          .proxy = ""};
}

/// The same, with callbacks in dispatch() alone.
ahs::Options ownLoopFor(std::vector<ahs::Headend> headends) {
  ahs::Options options = optionsFor(std::move(headends));
  options.ownLoop = true;
  return options;
}

/// Does what comes, as an event loop would, until a condition holds.
bool loopUntil(ahs::Library& library, const std::function<bool()>& condition) {
  while (!condition()) {
    pollfd descriptor{library.descriptor(), POLLIN, 0};
    const std::chrono::milliseconds limit = tests::Limit;
    if (poll(&descriptor, 1, static_cast<int>(limit.count())) != 1) {
      return false;
    }
    library.dispatch();
  }
  return true;
}

std::string textOf(ahs_status status) { return ahs_status_text(status); }

TEST(CppDoor, ASelectionGivesEachCandidateWithWhatWasMeasured) {
  const Gateway gateway(notAtOnce());
  const RefusingPort closed("127.0.0.1");
  ahs::Library library(
      optionsFor({{"Nowhere", closed.Where().Text()}, {"Here", gateway.Address()}}));
  ASSERT_TRUE(library) << library.error();
  const ahs::Result result = library.select({.reason = ahs::Reason::ProcessLaunch});

  ASSERT_TRUE(result) << result.error;
  EXPECT_EQ(result.status, ahs::AddedToCache);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.reason, ahs::Reason::ProcessLaunch);
  EXPECT_THAT(result.headends, testing::Contains(gateway.Address()));
  EXPECT_FALSE(result.fromCache);
  EXPECT_EQ(result.cacheAge, std::nullopt);
  EXPECT_GE(result.elapsed, NotAtOnce);

  ASSERT_EQ(result.candidates.size(), 2U);
  const ahs::Candidate& here = result.candidates[0];
  EXPECT_EQ(here.name, "Here");
  EXPECT_EQ(here.headend, gateway.Address());
  EXPECT_EQ(here.address, "127.0.0.1");
  EXPECT_EQ(here.outcome, ahs::Outcome::Answered);
  EXPECT_EQ(here.samples.size(), 1U) << "not as many as the preference says";
  EXPECT_EQ(here.metric, here.samples.at(0));
  const ahs::Candidate& nowhere = result.candidates[1];
  EXPECT_EQ(nowhere.name, "Nowhere");
  EXPECT_EQ(nowhere.outcome, ahs::Outcome::CannotConnect);
  EXPECT_EQ(nowhere.metric, std::nullopt);
  EXPECT_THAT(nowhere.samples, IsEmpty());

  const ahs::Result again = library.select();
  EXPECT_EQ(again.status, ahs::Success);
  EXPECT_TRUE(again.fromCache);
  EXPECT_NE(again.cacheAge, std::nullopt);
}

TEST(CppDoor, AFailureIsToldInASentenceWithTheHeadendUsedLast) {
  const RefusingPort first("127.0.0.1");
  const RefusingPort last("127.0.0.1");
  ahs::Library library(optionsFor({first.Where().Text(), {"Home", last.Where().Text()}}));
  const ahs::Result result = library.select({.lastHeadend = "home"});
  EXPECT_FALSE(result);
  EXPECT_EQ(result.status, ahs::SelectionFailure);
  EXPECT_EQ(result.error, textOf(AHS_ERROR_SELECTION_FAILURE));
  EXPECT_THAT(result.headends, ElementsAre(last.Where().Text()));
}

TEST(CppDoor, ASelectionTellsItsClientTheResultOnce) {
  const Gateway gateway;
  ahs::Library library(optionsFor({gateway.Address()}));
  std::promise<ahs::Result> told;  // a second result would throw, and end the test program
  const ahs::Selection selection =
      library.select({}, [&](const ahs::Result& result) noexcept { told.set_value(result); });
  ASSERT_TRUE(selection) << selection.error();
  const ahs::Result result = told.get_future().get();
  EXPECT_THAT(result.headends, ElementsAre(gateway.Address()));
  EXPECT_EQ(selection.wait().headends, result.headends);
}

TEST(CppDoor, AWaitEndsAtItsTimeAndMayBeRepeated) {
  Gateway gateway(Gateway::silent());
  ahs::Library library(optionsFor({gateway.Address()}));
  const ahs::Selection selection = library.select({}, nullptr);
  EXPECT_FALSE(selection.wait(std::chrono::milliseconds(-1)));
  EXPECT_FALSE(selection.wait(std::chrono::milliseconds(20)));
  gateway.Answer(UINT_MAX);
  const std::optional<ahs::Result> result = selection.wait(std::chrono::hours(24 * 365));
  ASSERT_TRUE(result);
  EXPECT_TRUE(*result) << result->error;
}

TEST(CppDoor, ProgressTellsThatEachProbeStartsAndEndsBeforeTheResult) {
  const Gateway gateway(notAtOnce());
  ahs::Library library(optionsFor({{"Here", gateway.Address()}}));
  std::vector<ahs::Probe> probes;
  ahs::Request request{.reason = ahs::Reason::Reconnection};  // which needs no probe for the proxy
  request.onProgress = [&](const ahs::Probe& probe) { probes.push_back(probe); };
  std::promise<std::size_t> told;
  const ahs::Selection selection =
      library.select(request, [&](const ahs::Result&) { told.set_value(probes.size()); });
  ASSERT_EQ(told.get_future().get(), 2U);

  EXPECT_FALSE(probes[0].ended);
  EXPECT_EQ(probes[0].probesStarted, 1U);
  EXPECT_EQ(probes[0].probesEnded, 0U);
  const ahs::Probe& end = probes[1];
  EXPECT_TRUE(end.ended);
  EXPECT_EQ(end.name, "Here");
  EXPECT_EQ(end.headend, gateway.Address());
  EXPECT_EQ(end.outcome, ahs::Outcome::Answered);
  EXPECT_GE(end.roundTrip, NotAtOnce);
  EXPECT_EQ(end.address, "127.0.0.1");
  EXPECT_EQ(end.probesEnded, 1U);
  EXPECT_EQ(end.headendsAnswered, 1U);
  EXPECT_EQ(end.headendCount, 1U);
}

TEST(CppDoor, AProgressCallbackCancelsASelectionThatItsClientWaitsFor) {
  const SilentListener silent("127.0.0.1");
  ahs::Library library(optionsFor({silent.Where().Text()}));
  ahs::Request request{.reason = ahs::Reason::Reconnection};
  request.onProgress = [](const ahs::Probe& probe) { probe.cancel(); };
  EXPECT_EQ(library.select(request).status, ahs::Cancelled);
}

TEST(CppDoor, WithAnOwnLoopCallbacksComeWhereItDispatches) {
  const Gateway gateway;
  ahs::Library library(ownLoopFor({gateway.Address()}));
  std::vector<std::thread::id> threads;
  std::optional<ahs::Result> told;
  ahs::Request request{.reason = ahs::Reason::Reconnection};
  request.onProgress = [&](const ahs::Probe&) { threads.push_back(std::this_thread::get_id()); };
  const ahs::Selection selection = library.select(request, [&](const ahs::Result& result) {
    threads.push_back(std::this_thread::get_id());
    told = result;
  });
  EXPECT_TRUE(selection.wait()) << "the result is there without the loop";
  EXPECT_FALSE(told) << "it was told outside the loop";
  ASSERT_TRUE(loopUntil(library, [&] { return told.has_value(); }));
  EXPECT_THAT(told->headends, ElementsAre(gateway.Address()));
  EXPECT_THAT(threads,
              testing::AllOf(testing::SizeIs(3), testing::Each(std::this_thread::get_id())));
}

TEST(CppDoor, ASelectionThatEndsEarlyCallsNobody) {
  Gateway gateway(Gateway::silent());
  std::atomic<int> calls{0};
  {
    ahs::Library library(optionsFor({gateway.Address()}));
    {
      const ahs::Selection selection = library.select({}, [&](const ahs::Result&) { ++calls; });
      ASSERT_TRUE(gateway.WaitUntilAsked());
    }
    gateway.Answer(UINT_MAX);
    // One that ends later.
    EXPECT_TRUE(library.select());
  }
  EXPECT_EQ(calls, 0);
}

TEST(CppDoor, ACallbackMayEndItsOwnSelectionAndKeepsItsVariables) {
  const Gateway gateway;
  ahs::Library library(ownLoopFor({gateway.Address()}));
  std::optional<ahs::Selection> selection;
  auto variable = std::make_shared<int>(0);
  const std::weak_ptr<int> alive = variable;
  bool aliveAfterwards = false;
  selection = library.select({}, [&, variable = std::move(variable)](const ahs::Result&) {
    selection.reset();
    aliveAfterwards = !alive.expired();
  });
  ASSERT_TRUE(loopUntil(library, [&] { return !selection; }));
  EXPECT_TRUE(aliveAfterwards);
  EXPECT_TRUE(alive.expired()) << "they outlive it";
}

TEST(CppDoor, AMovedSelectionGoesOnAndTheOneItReplacesEnds) {
  Gateway gateway(Gateway::silent());
  ahs::Library library(optionsFor({gateway.Address()}));
  auto replaced = std::make_shared<int>(0);
  const std::weak_ptr<int> replacedAlive = replaced;
  ahs::Selection target =
      library.select({}, [replaced = std::move(replaced)](const ahs::Result&) {});
  ahs::Selection source = library.select({}, nullptr);
  target = std::move(source);
  EXPECT_TRUE(replacedAlive.expired());
  // What is left of the source is none, and says so.
  EXPECT_FALSE(source);                                // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(source.wait().status, ahs::BadParameter);  // NOLINT(bugprone-use-after-move)
  EXPECT_NE(source.error(), "");                       // NOLINT(bugprone-use-after-move)
  gateway.Answer(UINT_MAX);
  EXPECT_TRUE(target.wait());
}

TEST(CppDoor, AMovedLibraryGoesOn) {
  const Gateway gateway;
  ahs::Library source(optionsFor({gateway.Address()}));
  ahs::Library target(std::move(source));
  EXPECT_FALSE(source);                                  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(source.select().status, ahs::BadParameter);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(target.select());
}

TEST(CppDoor, ALibraryThatDidNotStartSaysWhyEverywhereAndDoesNothing) {
  const ahs::Library first(optionsFor({"gw1.example.com"}));
  ahs::Library library(optionsFor({"gw2.example.com"}));
  EXPECT_FALSE(library);
  EXPECT_EQ(library.status(), ahs::AlreadyStarted);
  EXPECT_NE(library.error(), "");

  const ahs::Result result = library.select();
  EXPECT_EQ(result.status, ahs::AlreadyStarted);
  EXPECT_EQ(result.error, library.error());
  const ahs::Selection selection =
      library.select({}, [](const ahs::Result&) { ADD_FAILURE() << "it was told something"; });
  EXPECT_FALSE(selection);
  EXPECT_EQ(selection.status(), ahs::AlreadyStarted);
  selection.cancel();
  const std::optional<ahs::Result> waited = selection.wait(std::chrono::milliseconds(0));
  ASSERT_TRUE(waited);
  EXPECT_EQ(waited->error, library.error());

  EXPECT_THAT(library.problems(), IsEmpty());
  EXPECT_EQ(library.descriptor(), -1);
  EXPECT_EQ(library.dispatch(), ahs::BadParameter);
}

TEST(CppDoor, OptionsAndRequestsThatAreWrongStartNothingAndAreNamed) {
  const ahs::Library wrong(optionsFor({"gw1.example.com", "a b"}));
  EXPECT_EQ(wrong.status(), ahs::BadParameter);
  EXPECT_THAT(wrong.error(), HasSubstr("headends[1]"));
  ahs::Library library(optionsFor({"gw1.example.com"}));
  const ahs::Selection selection =
      library.select({.sourceAddress = "nowhere"},
                     [](const ahs::Result&) { ADD_FAILURE() << "it was told something"; });
  EXPECT_EQ(selection.status(), ahs::BadParameter);
  EXPECT_THAT(selection.error(), HasSubstr("source_address"));
}

TEST(CppDoor, ProblemsOfProfilesAreListedWithTheirPlace) {
  const tests::TemporaryDirectory directory;
  const std::string file = directory.Write(
      "europe.xml", "<profile version=\"1\">\n  <hosts>\n    <host/>\n  </hosts>\n</profile>\n");
  const ahs::Library library({.profileDirectory = directory.Path()});
  ASSERT_TRUE(library) << library.error();
  const std::vector<ahs::Problem> problems = library.problems();
  ASSERT_EQ(problems.size(), 1U);
  EXPECT_EQ(problems[0].file, file);
  EXPECT_EQ(problems[0].line, 3U);
  EXPECT_EQ(problems[0].column, 5U);
  EXPECT_THAT(problems[0].text, HasSubstr("name"));
}

TEST(CppDoor, TheLogIsHeardFromTheLevelOnThatIsAskedFor) {
  const tests::TemporaryDirectory directory;
  directory.Write("europe.xml", "<profile version=\"1\"><hosts><host/></hosts></profile>");
  std::mutex mutex;
  std::vector<ahs::LogMessage> messages;
  ahs::Options options = optionsFor({});
  options.profileDirectory = directory.Path();
  options.logFile = directory.File("ahs.log");
  options.logLevel = ahs::LogLevel::Warning;
  options.onLog = [&](const ahs::LogMessage& message) {
    const std::lock_guard lock(mutex);
    messages.push_back(message);
  };
  {
    ahs::Library library(options);
    EXPECT_EQ(library.select().status, ahs::NoHeadends);
  }
  EXPECT_THAT(messages,
              testing::Contains(testing::Field(&ahs::LogMessage::text, HasSubstr("europe.xml"))));
  EXPECT_THAT(messages,
              Not(testing::Contains(testing::Field(&ahs::LogMessage::level, ahs::LogLevel::Info))));
  EXPECT_THAT(tests::readFile(directory.File("ahs.log")), HasSubstr("europe.xml"));
  EXPECT_THAT(messages, Not(testing::Contains(testing::Field(&ahs::LogMessage::function, ""))));
}

TEST(CppDoor, WhatACallbackThrowsStaysWithTheClient) {
  const Gateway gateway;
  std::atomic<bool> logged{false};
  std::atomic<bool> progressed{false};
  std::promise<void> told;
  {
    ahs::Options options = optionsFor({gateway.Address()});
    options.onLog = [&](const ahs::LogMessage&) {
      logged = true;
      throw std::runtime_error("of the log");
    };
    ahs::Library library(options);
    ahs::Request request;
    request.onProgress = [&](const ahs::Probe&) {
      progressed = true;
      throw std::runtime_error("of the progress");
    };
    const ahs::Selection selection = library.select(request, [&](const ahs::Result&) {
      told.set_value();
      throw std::runtime_error("of the result");
    });
    told.get_future().wait();
    EXPECT_TRUE(selection.wait());
  }
  EXPECT_TRUE(logged);
  EXPECT_TRUE(progressed);
}

TEST(CppDoor, ASelectionThatEndsWaitsForASocketCallbackThatRuns) {
  const Gateway gateway;
  ahs::Library library(optionsFor({gateway.Address()}));
  std::promise<void> entered;
  std::promise<void> released;
  std::atomic<bool> done{false};
  ahs::Request request{.reason = ahs::Reason::Reconnection};
  request.onSocket = [&](int) {
    entered.set_value();
    released.get_future().wait();
    done = true;
    return true;
  };
  ahs::Selection selection = library.select(request, nullptr);
  entered.get_future().wait();
  auto ended = std::async(std::launch::async, [&] {
    selection = ahs::Selection();
    return done.load();
  });
  // Time for an end that does not wait; one that does is never over now.
  ended.wait_for(std::chrono::milliseconds(20));
  released.set_value();
  EXPECT_TRUE(ended.get()) << "the callback outlived the selection";
}

TEST(CppDoor, ASocketCallbackThatThrowsRefusesTheSocket) {
  const Gateway gateway;
  ahs::Library library(optionsFor({gateway.Address()}));
  ahs::Request request{.reason = ahs::Reason::Reconnection};
  request.onSocket = [](int) -> bool { throw std::runtime_error("no mark"); };
  const ahs::Result result = library.select(request);
  EXPECT_EQ(result.status, ahs::SelectionFailure);
  ASSERT_EQ(result.candidates.size(), 1U);
  EXPECT_EQ(result.candidates[0].outcome, ahs::Outcome::CannotConnect);
}

TEST(CppDoor, AProxyThatAsksForALoginIsToldWithItsRealm) {
  const ScriptedServer proxy(
      tests::answering("HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic "
                       "realm=\"office\"\r\nContent-Length: 0\r\n\r\n"));
  const Gateway gateway;
  ahs::Options options = optionsFor({gateway.Address()});
  options.proxy = "127.0.0.1:" + std::to_string(proxy.port());
  ahs::Library library(options);
  const ahs::Result result = library.select();
  EXPECT_EQ(result.status, ahs::AuthProxyDetected);
  EXPECT_EQ(result.proxyRealm, "office");
}

TEST(CppDoor, AWipedTextIsEmptyAndWasOverwritten) {
  std::string text(100, 'x');
  ahs::wipe(text);
  EXPECT_EQ(text, "");
  const volatile char* const bytes = text.data();
  EXPECT_EQ(bytes[1], '\0');
  EXPECT_EQ(bytes[99], '\0');
}

/// An example program under way.
class Example {
 public:
  explicit Example(const std::vector<std::string>& command)
      : m_process(command, m_directory.File("output"), m_directory.Path()) {}

  int End() {
    EXPECT_TRUE(m_process.WaitForEnd(tests::Limit));
    return m_process.ExitStatus();
  }
  void Interrupt() { kill(m_process.Pid(), SIGINT); }
  std::string Output() const { return tests::readFile(m_directory.File("output")); }

 private:
  tests::TemporaryDirectory m_directory;
  tests::ChildProcess m_process;
};

TEST(Examples, TheOneOfTheReadmePrintsTheNearestGateway) {
  const Gateway gateway;
  const RefusingPort closed("127.0.0.1");
  Example example({AHS_EXAMPLE_EMBED, closed.Where().Text(), gateway.Address()});
  EXPECT_EQ(example.End(), 0);
  EXPECT_EQ(example.Output(), gateway.Address() + "\n");
}

TEST(Examples, TheOneOfTheReadmeSaysWhyThereIsNoGateway) {
  const RefusingPort closed("127.0.0.1");
  Example example({AHS_EXAMPLE_EMBED, closed.Where().Text()});
  EXPECT_EQ(example.End(), 1);
  EXPECT_EQ(example.Output(), textOf(AHS_ERROR_SELECTION_FAILURE) + "\n");
}

TEST(Examples, AnEventLoopShowsProbesAndTheRanking) {
  const Gateway gateway;
  Example example({AHS_EXAMPLE_EVENT_LOOP, "1", gateway.Address()});
  EXPECT_EQ(example.End(), 0);
  EXPECT_THAT(example.Output(), HasSubstr("] " + gateway.Address() + " ...\n"));
  EXPECT_THAT(example.Output(), HasSubstr("] " + gateway.Address() + " answered after "));
  EXPECT_THAT(example.Output(),
              HasSubstr(gateway.Address() + " at 127.0.0.1: answered, samples: "));
}

TEST(Examples, AnEventLoopEndsWithCtrlC) {
  Gateway gateway(Gateway::silent());
  Example example({AHS_EXAMPLE_EVENT_LOOP, "0", gateway.Address()});
  ASSERT_TRUE(gateway.WaitUntilAsked());
  example.Interrupt();
  EXPECT_EQ(example.End(), 130);
  EXPECT_THAT(example.Output(), HasSubstr(textOf(AHS_ERROR_CANCELLED)));
}

}  // namespace
