// `ahs watch`: when it selects, what it prints, and the command it runs. Tests that change the
// network make their own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/command_test.h"
#include "tests/integration/running_program.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

// The interval causes no selection.
constexpr const char* Never = "86400";

// Delay of a gateway that loses against a far one.
constexpr std::chrono::milliseconds MuchFarther = 4 * Far;

class WatchCommandTest : public CommandTest {
 protected:
  Outcome end(Program& program) const {
    kill(program.pid(), SIGTERM);
    return program.finish();
  }

  static void expectOnce(const std::string& text, const std::string& what) {
    const std::size_t first = text.find(what);
    ASSERT_NE(first, std::string::npos) << text;
    EXPECT_EQ(text.find(what, first + 1), std::string::npos) << text;
  }

  static std::vector<json> linesOf(const Outcome& outcome) {
    std::vector<json> lines;
    for (std::size_t at = 0; at < outcome.out.size();) {
      const std::size_t end = outcome.out.find('\n', at);
      lines.push_back(json::parse(outcome.out.substr(at, end - at)));
      at = end + 1;
    }
    return lines;
  }
};

/// Like WatchCommandTest, in a network that the test may change.
class NetworkWatchTest : public WatchCommandTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) {
      GTEST_SKIP() << "making a network takes the right to (CAP_SYS_ADMIN)";
    }
    runToEnd({"/bin/sh", "-c", "ip link set lo up"}, home);
  }

  void change(const std::string& what) const { runToEnd({"/bin/sh", "-c", "ip " + what}, home); }
};

TEST_F(WatchCommandTest, ALineTellsTheFirstChoiceAndEachNewOneAndTheCommandIsTold) {
  Gateway first(Near);
  const Gateway second(Far);
  Program program(
      {"watch", first.address(), second.address(), "--interval", "1", "--json", "--exec",
       "echo printed; echo \"[$AHS_CAUSE $AHS_HEADEND $AHS_HOST $AHS_PORT before "
       "$AHS_PREVIOUS_HEADEND]\" >&2; exit 4"},
      environment);
  ASSERT_TRUE(program.waitForOutput(first.address()));
  ASSERT_TRUE(program.waitForError("the command of --exec ended with status 4"));
  first.setDelay(MuchFarther);
  ASSERT_TRUE(program.waitForError("[interval " + second.address() + " 127.0.0.1 " + second.port() +
                                   " before " + first.address() + "]"));
  const Outcome outcome = end(program);
  EXPECT_EQ(outcome.exitStatus, 128 + SIGTERM);
  const std::vector<json> lines = linesOf(outcome);
  ASSERT_EQ(lines.size(), 2U) << "what the command prints is none: " << outcome.out;
  EXPECT_EQ(lines[0].at("cause"), "start");
  EXPECT_EQ(lines[0].at("previousHeadend"), nullptr);
  EXPECT_GE(lines[0].at("metricMs"), Near.count());
  EXPECT_EQ(lines[1].at("cause"), "interval");
  EXPECT_EQ(lines[1].at("previousHeadend"), first.address());
  EXPECT_EQ(lines[1].at("name"), second.address());
}

TEST_F(WatchCommandTest, AChoiceThatStaysIsNotToldAgainThoughItIsMeasuredAgain) {
  const Gateway gateway(Near);
  Program program({"watch", gateway.address(), "--interval", "1"}, environment);
  ASSERT_TRUE(program.waitForOutput(gateway.address()));
  ASSERT_TRUE(eventually([&] { return gateway.requests() >= 9; }));
  const Outcome outcome = end(program);
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1) << outcome.out;
  EXPECT_THAT(outcome.out, HasSubstr("; first choice\n"));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(WatchCommandTest, BetweenGatewaysNextDoorTheChoiceStays) {
  writeFile("network.xml", "<preferences version=\"1\"/>\n");
  const Gateway one(Near);
  const Gateway another(Near);
  const Gateway third(Near);
  Program program({"watch", one.address(), another.address(), third.address(), "--interval", "1",
                   "--preferences", home + "/network.xml"},
                  environment);
  ASSERT_TRUE(eventually([&] { return third.requests() >= 36; }));
  const Outcome outcome = end(program);
  // On a busy machine one of a dozen selections may find a gateway more distant than next door.
  EXPECT_LE(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 3) << outcome.out;
}

TEST_F(WatchCommandTest, ProfilesThatHaveChangedCountAndThoseThatAreGoneAreNotTheEnd) {
  const Gateway gateway(Near);
  const Gateway other(Near);
  writeProfile("true", host("Berlin", gateway.address()) + "<host adress=\"x\"/>\n");
  Program program({"watch", "--interval", "1"}, environment);
  ASSERT_TRUE(program.waitForOutput("Berlin (" + gateway.address() + "), "));
  ASSERT_TRUE(eventually([&] { return gateway.requests() >= 9; }));
  std::filesystem::remove(home + "/.config/ahs/profiles/office.xml");
  ASSERT_TRUE(program.waitForError("no usable profile was found"));
  writeProfile("true", host("Lagos", other.address()));
  ASSERT_TRUE(program.waitForOutput("Lagos (" + other.address() + "), "));
  const Outcome outcome = end(program);
  EXPECT_THAT(outcome.out, HasSubstr("; before: Berlin ("));
  expectOnce(outcome.err, "unknown attribute \"adress\"");
  expectOnce(outcome.err, "no usable profile was found");
}

TEST_F(WatchCommandTest, NothingMeasuredAndAnUnknownLastHeadendAreToldOnceAndAreNotTheEnd) {
  writePreferences(preference("SelectionPingTimeout", "1000"));
  Gateway gateway(std::chrono::seconds(5));
  Program program(
      {"watch", gateway.address(), "--last", "Nope", "--interval", "1", "--exec", "echo ran >&2"},
      environment);
  ASSERT_TRUE(program.waitForError("No headend could be measured."));
  EXPECT_EQ(program.soFar().out, "") << "nobody has chosen it";
  ASSERT_TRUE(program.waitForError("It is tried again every 1 s, and when the network changes."));
  gateway.setDelay(Near);
  ASSERT_TRUE(program.waitForError("headends can be measured again"));
  ASSERT_TRUE(program.waitForOutput(gateway.address()));
  ASSERT_TRUE(program.waitForError("ran\n"));
  const std::string shown = end(program).err;
  expectOnce(shown, "ran\n");
  expectOnce(shown, "No headend could be measured.");
  expectOnce(shown, "no host entry that takes part is named 'Nope'");
}

TEST_F(WatchCommandTest, OneCommandRunsAtATimeAndTheNewestChoiceWaits) {
  Gateway first(Near);
  Gateway second(Far);
  const std::string gate = home + "/gate";
  Program program({"watch", first.address(), second.address(), "--interval", "1", "--exec",
                   "echo \"[begin $AHS_HEADEND]\" >&2; while ! test -e " + gate +
                       "; do sleep 0.05; done; echo \"[end $AHS_HEADEND]\" >&2"},
                  environment);
  ASSERT_TRUE(program.waitForError("[begin " + first.address()));
  first.setDelay(Far + Far);
  second.setDelay(Near);
  ASSERT_TRUE(program.waitForOutput("  " + second.address()));
  EXPECT_THAT(program.soFar().err, Not(HasSubstr("[begin " + second.address())));
  writeFile("gate", "");
  ASSERT_TRUE(program.waitForError("[end " + second.address()));
  const std::string shown = end(program).err;
  EXPECT_LT(shown.find("[end " + first.address()), shown.find("[begin " + second.address()));
}

TEST_F(WatchCommandTest, AReaderThatGoesAwayEndsItThoughNothingIsToBeTold) {
  const Gateway gateway(Near);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  Program program({"watch", gateway.address(), "--interval", Never}, environment,
                  Program::Terminal::None, ends[1]);
  close(ends[1]);
  char first = 0;
  ASSERT_EQ(read(ends[0], &first, 1), 1);
  close(ends[0]);
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 128 + SIGPIPE);
  EXPECT_EQ(outcome.err, "");
}

TEST_F(NetworkWatchTest, ANewAddressAsksForASelection) {
  Gateway first(Near);
  const Gateway second(Far);
  Program program({"watch", first.address(), second.address(), "--interval", Never, "--json"},
                  environment);
  ASSERT_TRUE(program.waitForOutput(first.address()));
  first.setDelay(MuchFarther);
  change("addr add 192.0.2.9/24 dev lo");
  ASSERT_TRUE(program.waitForOutput("\"headend\":\"" + second.address()));
  EXPECT_EQ(linesOf(end(program)).at(1).at("cause"), "network");
}

}  // namespace
}  // namespace tests
