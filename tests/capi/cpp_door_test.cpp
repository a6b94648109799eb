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
#include "tests/support/LoopbackSockets.h"
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

/// An example program under way.
class Example {
 public:
  explicit Example(const std::vector<std::string>& command)
      : m_process(command, m_directory.File("output"), m_directory.Path()) {}

  int End() {
    EXPECT_TRUE(m_process.WaitForEnd(Limit));
    return m_process.ExitStatus();
  }
  void Interrupt() { kill(m_process.Pid(), SIGINT); }
  std::string Output() const { return readFile(m_directory.File("output")); }

 private:
  TemporaryDirectory m_directory;
  ChildProcess m_process;
};

TEST(Examples, TheOneOfTheReadmePrintsTheNearestGateway) {
  const Gateway gateway(Gateway::All);
  const RefusingPort closed("127.0.0.1");
  Example example({AHS_EXAMPLE_EMBED, closed.Where().Text(), gateway.Address()});
  EXPECT_EQ(example.End(), 0);
  EXPECT_EQ(example.Output(), gateway.Address() + "\n");
}

TEST(Examples, TheOneOfTheReadmeSaysWhyThereIsNoGateway) {
  const RefusingPort closed("127.0.0.1");
  Example example({AHS_EXAMPLE_EMBED, closed.Where().Text()});
  EXPECT_EQ(example.End(), 1);
  EXPECT_EQ(example.Output(), std::string(ahs::SelectionFailure.text()) + "\n");
}

TEST(Examples, AnEventLoopShowsProbesAndTheRanking) {
  const Gateway gateway(Gateway::All);
  Example example({AHS_EXAMPLE_EVENT_LOOP, "1", gateway.Address()});
  EXPECT_EQ(example.End(), 0);
  EXPECT_THAT(example.Output(), HasSubstr("] " + gateway.Address() + " ...\n"));
  EXPECT_THAT(example.Output(), HasSubstr("] " + gateway.Address() + " answered after "));
  EXPECT_THAT(example.Output(),
              HasSubstr(gateway.Address() + " at 127.0.0.1: answered, samples: "));
}

TEST(Examples, AnEventLoopEndsWithCtrlC) {
  Gateway gateway;
  Example example({AHS_EXAMPLE_EVENT_LOOP, "0", gateway.Address()});
  ASSERT_TRUE(gateway.WaitUntilAsked());
  example.Interrupt();
  EXPECT_EQ(example.End(), 130);
  EXPECT_THAT(example.Output(), HasSubstr(ahs::Cancelled.text()));
}

}  // namespace
}  // namespace tests
