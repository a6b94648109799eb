// The `ahs` command as a user sees it: the real program, real sockets on the loopback interface,
// both outputs, the exit status, and a terminal if it matters. The loopback interface takes no
// time, so late answers stand for distance and the preferences measure the response.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "tests/integration/command_test.h"
#include "tests/integration/running_program.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/DatagramGateway.h"
#include "tests/support/HeldGateway.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::AnyOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// One test probe, and two of three probes.
constexpr unsigned int AllButTheLast = 3;

class SelectCommandTest : public CommandTest {
 protected:
  json selectJson(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "select");
    return runJson(arguments, 0);
  }
};

// ---- What is selected -------------------------------------------------------------------------

TEST_F(SelectCommandTest, TheNearestHostComesFirst) {
  const Gateway far(Far);
  const Gateway near(Near);
  const json object = selectJson({far.address(), near.address()});
  EXPECT_EQ(object.at("headends"), json({near.address(), far.address()}));
  EXPECT_EQ(object.at("status"), "0xFE530010");
  EXPECT_GE(object.at("elapsedMs"), 3 * Far.count());
  const json result = resultOf(object, far.address());
  EXPECT_EQ(result.at("outcome"), "answered");
  EXPECT_EQ(result.at("samplesMs").size(), 3U);
  EXPECT_EQ(result.at("metricMs"),
            *std::min_element(result.at("samplesMs").begin(), result.at("samplesMs").end()));
  EXPECT_GE(result.at("metricMs"), Far.count());
  EXPECT_EQ(result.at("probes").size(), 3U);
  EXPECT_EQ(result.at("probes").at(0).at("httpStatus"), 200);
  EXPECT_EQ(result.at("probes").at(0).at("address"), "127.0.0.1");
}

TEST_F(SelectCommandTest, AGatewayIsAskedAsItsHostEntryOrTheCommandLineSays) {
  const DatagramGateway gateway(DatagramGateway::OpenVpn);
  const std::string address = gateway.Where().Text();
  EXPECT_EQ(run({"select", address}).exitStatus, 1) << "it speaks no TCP";
  const json asked = selectJson({address, "--probe", "openvpn"});
  EXPECT_EQ(resultOf(asked, address).at("outcome"), "answered");
  EXPECT_EQ(selectJson({address, "--probe", "openvpn"}).at("fromCache"), true);
  const std::string port = std::to_string(gateway.Where().port);
  writeFile(".config/ahs/profiles/udp.xml",
            "<profile version='1'><preferences><preference name='EnableAutomaticServerSelection' "
            "value='true'/></preferences><hosts><host name='Bern' address='127.0.0.1:1' "
            "probe='openvpn' probe-port='" +
                port + "'/></hosts></profile>");
  EXPECT_EQ(selectJson({}).at("headends"), json({"127.0.0.1:1"}));
  const json probed = runJson({"probe", "Bern"}, 0);
  EXPECT_EQ(probed.at("probe"), "openvpn");
  EXPECT_EQ(probed.at("probePort"), gateway.Where().port);
}

TEST_F(SelectCommandTest, TheSecondRunIsAnsweredByTheCacheUnlessThereIsNone) {
  const Gateway gateway(Near);
  EXPECT_EQ(selectJson({gateway.address(), "--no-cache"}).at("fromCache"), false);
  EXPECT_FALSE(std::filesystem::exists(home + "/.cache"));
  const json first = selectJson({gateway.address()});
  EXPECT_EQ(first.at("fromCache"), false);
  const unsigned int requests = gateway.requests();
  const json second = selectJson({gateway.address()});
  EXPECT_LE(gateway.requests(), requests + 1) << "one connection finds the gateway alive";
  EXPECT_EQ(second.at("fromCache"), true);
  EXPECT_EQ(second.at("status"), "0x00000000");
  EXPECT_EQ(second.at("headends"), first.at("headends"));
  const json result = resultOf(second, gateway.address());
  EXPECT_EQ(result.at("metricMs"), resultOf(first, gateway.address()).at("metricMs"));
  EXPECT_EQ(result.at("samplesMs"), json::array());
  EXPECT_EQ(result.at("outcome"), "from cache");
}

TEST_F(SelectCommandTest, WhereNothingWasMeasuredOnlyALastHeadendThatWasNamedIsKept) {
  const RefusingPort closed("127.0.0.1");
  const std::string other = "127.0.0.2:" + std::to_string(closed.Where().port);
  const std::string last = closed.Where().Text();
  for (const auto& [named, kept] : {std::pair{std::string(), std::string()}, {last, last + "\n"}}) {
    const std::vector<std::string> words = {"select", last, other, "--last", named};
    Outcome outcome = run(words);
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_THAT(outcome.out, HasSubstr(kept.empty() ? "Headends: none\n" : "1. " + last));
    EXPECT_THAT(outcome.out,
                HasSubstr(std::string("No headend could be measured.") +
                          (kept.empty() ? "\nCode:   0x" : " The last headend is kept")));
    outcome = run({words[0], words[1], words[2], words[3], words[4], "--quiet"});
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_EQ(outcome.out, kept);
  }
}

TEST_F(SelectCommandTest, AnIPv6AddressMayHaveBrackets) {
  const Outcome outcome = run({"select", "[::1]", "::2", "[::1]:443"});
  EXPECT_THAT(outcome.out, HasSubstr("\n      [::1]  ")) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("\n      [::2]  "));
  EXPECT_EQ(run({"exec", "--set", "RoundTripTime=network", "[::1]", "--", "echo", "{host}"}).out,
            "::1\n");
  EXPECT_THAT(run({"select", "[gw,gw]"}).err, HasSubstr("'[gw,gw]' cannot be used"));
}

TEST_F(SelectCommandTest, AProxyThatDoesNotServeIsToldWithWhatItCost) {
  const Gateway gateway(Near);
  const RefusingPort closed("127.0.0.1");
  const std::string proxy = closed.Where().Text();
  const Outcome outcome = run({"select", gateway.address(), "--proxy", proxy, "--explain"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  for (const char* const label : {"Test probe: ", "  proxy:      "}) {
    EXPECT_THAT(outcome.out, HasSubstr(label + ("the proxy " + proxy + " refuses connections")));
  }
  EXPECT_THAT(
      runJson({"select", closed.Where().Text(), "--no-cache", "--proxy", gateway.address()}, 1)
          .at("testProbe")
          .at("words"),
      testing::StartsWith("only the proxy " + gateway.address() + " answers"));
}

TEST_F(SelectCommandTest, ProbesLeaveByTheWayThatTheOptionsName) {
  const Gateway gateway(Near);
  for (const auto& [option, value, exitStatus, says] :
       {std::tuple{"-4", "--no-cache", 0, ""},
        {"-6", "--no-cache", 1, "this network has no NAT64"},
        {"--source", "127.0.0.3", 0, ""},
        {"--source", "::1", 1, "no headend was selected"},
        {"--interface", "lo", 0, ""},
        {"--interface", "no-such", 2, "--interface: No such device. 'ip address' shows"},
        {"--source", "192.0.2.1", 2, "--source: Cannot assign requested address."}}) {
    const Outcome outcome = run({"select", gateway.address(), option, value});
    EXPECT_EQ(outcome.exitStatus, exitStatus) << option << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(says));
  }
  EXPECT_EQ(run({"probe", gateway.address(), "-c", "1", "-4"}).exitStatus, 0);
  EXPECT_THAT(run({"probe", gateway.address(), "-c", "1", "-6"}).out,
              HasSubstr("left out by the options"));
}

TEST_F(SelectCommandTest, AnIPv4AddressIsReachedByNat64WhereNothingElseLeadsOut) {
  if (geteuid() != 0 || unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
    GTEST_SKIP() << "making a network takes the right to (CAP_SYS_ADMIN)";
  }
  writeFile("hosts", "64:ff9b::c000:aa ipv4only.arpa\n");
  ChildProcess setUp({"/bin/sh", "-c",
                      "mount --make-rprivate / && mount --bind hosts /etc/hosts && "
                      "ip link set lo up && ip addr add 64:ff9b::c000:207 dev lo nodad"},
                     home + "/output", home);
  ASSERT_TRUE(setUp.WaitForEnd(std::chrono::seconds(10)) && setUp.ExitStatus() == 0);
  ScriptedServer behind(answering(Welcome), "64:ff9b::c000:207");
  const std::string address = "192.0.2.7:" + std::to_string(behind.port());
  const json probe = resultOf(selectJson({address}), address).at("probes").at(0);
  EXPECT_EQ(probe.at("address"), "64:ff9b::c000:207");
  EXPECT_EQ(run({"probe", address, "-c", "1"}).exitStatus, 0);
}

TEST_F(SelectCommandTest, AnErrorOfTheServersIsToldWhereverTheHeadendIsListed) {
  const Gateway gateway(Near, "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n");
  const Outcome outcome = run({"select", gateway.address(), "--explain", "--html", home + "/page"});
  EXPECT_THAT(outcome.out, ContainsRegex(" ms \\(answers 503\\)"));
  EXPECT_THAT(outcome.out, ContainsRegex("best: .*, answers 503\n"));
  EXPECT_THAT(readFile(home + "/page"), HasSubstr("<td>answers 503</td>"));
  EXPECT_EQ(selectJson({gateway.address(), "--no-cache"}).at("results").at(0).at("httpStatus"),
            503);
}

// ---- Why --------------------------------------------------------------------------------------

TEST_F(SelectCommandTest, OnAReconnectionTheThresholdOfThePreferencesCountsAndIsExplained) {
  writePreferences(preference("SelectionImprovement", "100"));
  const Gateway far(2 * Far);
  const Gateway near(Near);
  const Gateway alike(2 * Far + Near);
  for (const auto& [other, ratio] :
       {std::pair{&near, "not less: it goes\n"}, std::pair{&alike, "less: it stays\n"}}) {
    const Outcome outcome =
        run({"select", "--explain", "--no-cache", far.address(), other->address(), "--reason",
             "reconnection", "--last", far.address()});
    EXPECT_THAT(outcome.out,
                HasSubstr("than 2.00 times the best one's (SelectionImprovement 100 %)\n"));
    EXPECT_THAT(outcome.out, testing::ContainsRegex(std::string("  ratio: +[0-9]+ / [0-9]+ = "
                                                                "[0-9]+\\.[0-9]+, ") +
                                                    ratio));
  }
}

// ---- What is printed --------------------------------------------------------------------------

TEST_F(SelectCommandTest, AnOutputThatCannotBeWrittenIsAnError) {
  const Gateway near(Near);
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  const Outcome outcome =
      Program({"select", near.address()}, environment, Program::Terminal::None, full).finish();
  close(full);
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("could not be written to standard output: No space left"));
}

TEST_F(SelectCommandTest, AReaderThatHasGoneEndsItQuietly) {
  const Gateway near(Near);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"select", near.address()}, {"--help"}, {"preferences", "show"}}) {
    const Outcome outcome = runForNobody(command, environment);
    EXPECT_EQ(outcome.exitStatus, 128 + SIGPIPE) << command.front();
    EXPECT_EQ(outcome.err, "") << command.front();
  }
}

// ---- What is refused --------------------------------------------------------------------------

TEST_F(SelectCommandTest, WithoutHostsAndProfilesItSaysWhereItLooked) {
  const Outcome outcome = run({"select"});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr(home + "/.config/ahs/profiles"));
  EXPECT_THAT(outcome.err, HasSubstr("/etc/ahs/profiles"));
  EXPECT_THAT(outcome.err, HasSubstr("ahs select gw1.example.com"));
}

TEST_F(SelectCommandTest, AHostEntrysNameStandsForItsAddress) {
  const Gateway near(Near);
  writeProfile("true", host("Near office", near.address()) + host("Other", "other.invalid"));
  for (const char* spelling : {"Near office", "near OFFICE"}) {
    const Outcome outcome = run({"select", "--no-cache", spelling});
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr(near.address() + "  Near office  "));
    EXPECT_THAT(outcome.out, Not(HasSubstr("other.invalid")));
  }
}

// ---- The terminal and the end -----------------------------------------------------------------

// Erases the table, from its only row up to the headline.
const std::string TableRemoved = "\r\x1b[1A\x1b[J";

TEST_F(SelectCommandTest, ATableIsShownOnATerminalAndRemovedAndTheRankingStays) {
  // No time limit ends the wait for the test probe.
  writePreferences(preference("SelectionConnectTimeout", "60000") +
                   preference("SelectionPingTimeout", "60000") +
                   preference("SelectionTestPingTimeout", "60"));
  HeldGateway held;
  Program program({"select", held.Address()}, environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext("\rMeasuring: 0 of 1 answered"));
  held.Answer(AllButTheLast);
  ASSERT_TRUE(program.waitForNext("1 of 1 answered, "));
  ASSERT_TRUE(program.waitForNext("\n" + held.Address() + " "));
  ASSERT_TRUE(program.waitForNext("waits for answer 3 of 3"));
  held.Release();
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 0);
  const std::size_t removed = outcome.err.rfind(TableRemoved);
  ASSERT_NE(removed, std::string::npos) << outcome.err;
  const std::string last = outcome.err.substr(removed + TableRemoved.size());
  EXPECT_THAT(last, StartsWith("Headends, in order of choice:\r\n   1. " + held.Address()));
  EXPECT_EQ(last.find(held.Address(), last.find(held.Address()) + 1), std::string::npos);
  EXPECT_THAT(last, Not(HasSubstr("\x1b["))) << "nothing is drawn over it or erased";
}

TEST_F(SelectCommandTest, QuietEndsWithTheDecisionWhichIsRememberedAndTheTableShowsIt) {
  writePreferences(preference("SelectionConnectTimeout", "60000") +
                   preference("SelectionPingTimeout", "60000"));
  const Gateway near(Near);
  HeldGateway far(HeldGateway::Settings{.answers = 1, .delay = Far});
  const std::vector<std::string> quiet = {"select",      "--quiet",  near.address(),
                                          far.Address(), "--reason", "reconnection"};
  EXPECT_EQ(run(quiet).out, near.address() + "\n");
  EXPECT_EQ(selectJson({near.address(), far.Address()}).at("fromCache"), true);
  HeldGateway other(HeldGateway::Settings{.answers = 2, .delay = Far});
  Program program({"select", near.address(), other.Address()}, environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForNext("  decided"));
  other.Release();
  EXPECT_EQ(program.finish().exitStatus, 0);
}

TEST_F(SelectCommandTest, AWindowThatBecomesNarrowerKeepsWhatStandsAboveTheTable) {
  const SilentListener silent("127.0.0.1");
  Program program({"select", silent.Where().Text()}, environment, Program::Terminal::Errors, -1,
                  {90, 24});
  ASSERT_TRUE(program.waitForNext(" answered, "));
  program.resize({25, 24});
  ASSERT_TRUE(program.waitForNext("Measuring: 0 of 1\x1b[K"));
  program.type("\x03");
  EXPECT_THAT(program.finish().err, Not(HasSubstr("\x1b[3A")));
}

TEST_F(SelectCommandTest, WithoutATerminalALineTellsTheProgressNowAndThen) {
  const SilentListener silent("127.0.0.1");
  const Outcome outcome =
      run({"select", "--no-cache", "--reason", "reconnection", silent.Where().Text()});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.err, StartsWith("Measuring: 0 of 1 answered, "));
  EXPECT_THAT(outcome.err, Not(HasSubstr("\x1b")));
}

TEST_F(SelectCommandTest, NothingIsRedrawnOnATerminalThatCannotOrWhenAProgramReads) {
  const Gateway far(Far);
  for (const char* form : {"--json", "--quiet"}) {
    EXPECT_EQ(Program({"select", "--no-cache", form, far.address()}, environment,
                      Program::Terminal::Errors)
                  .finish()
                  .err,
              "");
  }
  environment[1] = "TERM=dumb";
  // A table appears at once; lines of progress come later, if at all.
  const Outcome outcome =
      Program({"select", "--no-cache", far.address()}, environment, Program::Terminal::Errors)
          .finish();
  EXPECT_THAT(outcome.err, AnyOf("", StartsWith("Measuring: ")));
  EXPECT_THAT(outcome.err, Not(HasSubstr("\x1b")));
}

TEST_F(SelectCommandTest, CtrlZRemovesTheTableUntilItIsBroughtBackAndCtrlCForGood) {
  const SilentListener silent("127.0.0.1");
  Program program({"select", silent.Where().Text()}, environment, Program::Terminal::Job);
  ASSERT_TRUE(program.waitForNext("Measuring"));
  program.type("\x1a");
  ASSERT_TRUE(program.waitForStop());
  program.bringBack();
  ASSERT_TRUE(program.waitForNext(TableRemoved + "\rMeasuring")) << program.soFar().err;
  program.type("\x03");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 130);
  EXPECT_THAT(outcome.err, testing::EndsWith(TableRemoved));
}

TEST_F(SelectCommandTest, HasGivenUpWhatItNeverDoesWhenItMeasures) {
  const Gateway far(Far);
  Program program({"select", far.address(), "--log-level", "info"}, environment);
  ASSERT_TRUE(program.waitForError("\n"));
  EXPECT_THAT(readFile("/proc/" + std::to_string(program.pid()) + "/status"),
              HasSubstr("\nSeccomp:\t2\n"));
  EXPECT_EQ(program.finish().exitStatus, 0);
}

TEST_F(SelectCommandTest, ATerminationSignalEndsItWhileNobodyReadsItsOutput) {
  const Gateway near(Near);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  // Fills the pipe, so that the program's own write waits.
  ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const std::string filling(65536, 'x');
  while (write(ends[1], filling.data(), filling.size()) > 0) {
  }
  ASSERT_EQ(fcntl(ends[1], F_SETFL, 0), 0);
  Program program({"select", near.address(), "--log-level", "info"}, environment,
                  Program::Terminal::None, ends[1]);
  ASSERT_TRUE(program.waitForError("*** QIB Selection Results ***"));
  ASSERT_EQ(kill(program.pid(), SIGTERM), 0);
  EXPECT_EQ(program.finish().exitStatus, 143);
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
}  // namespace tests
