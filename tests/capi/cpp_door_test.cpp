// What the C++ header adds to the C interface: moves, waits, captured variables, exceptions. The
// other tests look at what it passes on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/capi/c_door_fixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {
namespace {

using testing::Contains;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

TEST(CppDoor, AWaitEndsAtItsTimeAndMayBeRepeated) {
  Gateway gateway;
  ahs::Library library(optionsFor({gateway.Address()}));
  const ahs::Selection selection = library.select({}, nullptr);
  EXPECT_FALSE(selection.wait(std::chrono::milliseconds(-1)));
  EXPECT_FALSE(selection.wait(std::chrono::milliseconds(20)));
  gateway.Release();
  const std::optional<ahs::Result> result = selection.wait(std::chrono::hours(24 * 365));
  ASSERT_TRUE(result);
  EXPECT_TRUE(*result) << result->error;
}

TEST(CppDoor, ACallbackMayEndItsOwnSelectionAndKeepsItsVariables) {
  ahs::Options options = optionsFor({});
  options.ownLoop = true;
  ahs::Library library(options);
  std::optional<ahs::Selection> selection;
  auto variable = std::make_shared<int>(0);
  const std::weak_ptr<int> alive = variable;
  bool aliveAfterwards = false;
  selection = library.select({}, [&, variable = std::move(variable)](const ahs::Result&) {
    selection.reset();
    aliveAfterwards = !alive.expired();
  });
  selection->wait();
  library.dispatch();
  EXPECT_FALSE(selection);
  EXPECT_TRUE(aliveAfterwards);
  EXPECT_TRUE(alive.expired()) << "they outlive it";
}

TEST(CppDoor, AMovedSelectionGoesOnAndTheOneItReplacesEnds) {
  Gateway gateway;
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
  gateway.Release();
  EXPECT_TRUE(target.wait());
}

TEST(CppDoor, AMovedLibraryGoesOn) {
  const Gateway gateway(Gateway::All);
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

TEST(CppDoor, ProblemsOfProfilesAreListedWithTheirPlaceAndHeardFromTheLogLevelOnThatIsAskedFor) {
  const TemporaryDirectory directory;
  const std::string file = directory.Write(
      "europe.xml", "<profile version=\"1\">\n  <hosts>\n    <host/>\n  </hosts>\n</profile>\n");
  std::mutex mutex;
  std::vector<ahs::LogMessage> messages;
  {
    ahs::Library library({.profileDirectory = directory.Path(),
                          .logFile = directory.File("ahs.log"),
                          .logLevel = ahs::LogLevel::Warning,
                          .onLog = [&](const ahs::LogMessage& message) {
                            const std::lock_guard lock(mutex);
                            messages.push_back(message);
                          }});
    const std::vector<ahs::Problem> problems = library.problems();
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems[0].file, file);
    EXPECT_EQ(problems[0].line, 3U);
    EXPECT_EQ(problems[0].column, 5U);
    EXPECT_THAT(problems[0].text, HasSubstr("name"));
    EXPECT_EQ(library.select().status, ahs::NoHeadends);
  }
  EXPECT_THAT(messages, Contains(Field(&ahs::LogMessage::text, HasSubstr("europe.xml"))));
  EXPECT_THAT(messages, Not(Contains(Field(&ahs::LogMessage::level, ahs::LogLevel::Info))));
  EXPECT_THAT(messages, Not(Contains(Field(&ahs::LogMessage::function, ""))));
  EXPECT_THAT(readFile(directory.File("ahs.log")), HasSubstr("europe.xml"));
}

TEST(CppDoor, WhatACallbackThrowsStaysWithTheClient) {
  const Gateway gateway(Gateway::All);
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

TEST(CppDoor, AWipedTextIsEmptyAndWasOverwritten) {
  std::string text(100, 'x');
  ahs::wipe(text);
  EXPECT_EQ(text, "");
  const volatile char* const bytes = text.data();
  EXPECT_EQ(bytes[1], '\0');
  EXPECT_EQ(bytes[99], '\0');
}

/// The event loop of the examples, which shows probes and the ranking.
TEST(Examples, AnEventLoopEndsWithItsSelectionOrWithCtrlC) {
  for (const bool isInterrupted : {false, true}) {
    Gateway gateway(isInterrupted ? 0 : Gateway::All);
    const TemporaryDirectory directory;
    ChildProcess example({AHS_EXAMPLE_EVENT_LOOP, isInterrupted ? "0" : "1", gateway.Address()},
                         directory.File("output"), directory.Path());
    ASSERT_TRUE(gateway.WaitUntilAsked(1));
    if (isInterrupted) {
      kill(example.Pid(), SIGINT);
    }
    EXPECT_TRUE(example.WaitForEnd(Limit));
    EXPECT_EQ(example.ExitStatus(), isInterrupted ? 130 : 0);
    const std::vector<std::string> shown =
        isInterrupted ? std::vector<std::string>{ahs::Cancelled.text()}
                      : std::vector{"] " + gateway.Address() + " ...\n",
                                    "] " + gateway.Address() + " answered after ",
                                    gateway.Address() + " at 127.0.0.1: answered, samples: "};
    for (const std::string& line : shown) {
      EXPECT_THAT(readFile(directory.File("output")), HasSubstr(line));
    }
  }
}

}  // namespace
}  // namespace tests
