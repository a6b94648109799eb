// `ahs exec` with real programs: their arguments and environment, the choice of another headend,
// and signals and descriptors as from a shell.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "tests/integration/command_test.h"
#include "tests/integration/running_program.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/HeldGateway.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ExecCommandTest : public CommandTest {
 protected:
  /// `ahs exec` with two gateways and a shell script.
  Outcome runScript(const std::vector<std::string>& options, const std::string& script) const {
    return run(command(options, script));
  }

  std::vector<std::string> command(const std::vector<std::string>& options,
                                   const std::string& script) const {
    std::vector<std::string> words = {"exec", far.address(), near.address()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"--", "sh", "-c", script, "{headend}", "{host}", "{port}"});
    return words;
  }

  /// A shell's command line that calls `ahs`.
  Outcome shell(const std::string& line) const {
    const std::string output = home + "/output";
    const std::string named = "ahs() { command \"" + std::string(AHS_PROGRAM) + "\" \"$@\"; }; ";
    std::vector<std::string> words = {"/usr/bin/env", "-i"};
    words.insert(words.end(), environment.begin(), environment.end());
    words.insert(words.end(), {"/bin/sh", "-c", named + line});
    ChildProcess process(words, output, home);
    EXPECT_TRUE(process.WaitForEnd(Limit));
    return {process.ExitStatus(), readFile(output), ""};
  }

  const Gateway far{Far};
  const Gateway near{Near};
};

/// A signal mask in hexadecimal, without the signals that end threads: the C library keeps these
/// for itself (nptl(7)) and lets started programs ignore them.
unsigned long programsSignals(const std::string& mask) {
  constexpr unsigned long Programs = 0xFFFFFFFE7FFFFFFF;
  return std::stoul(mask, nullptr, 16) & Programs;
}

TEST_F(ExecCommandTest, TheProgramIsToldTheBestHeadendInItsArgumentsAndItsEnvironment) {
  const Outcome outcome = runScript(
      {},
      "echo $0 $1 $2; echo $AHS_HEADEND $AHS_HOST $AHS_PORT $AHS_NAME; echo \"$AHS_METRIC_MS\"");
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_THAT(outcome.out,
              StartsWith(near.address() + " 127.0.0.1 " + near.port() + "\n" + near.address() +
                         " 127.0.0.1 " + near.port() + " " + near.address() + "\n"));
  EXPECT_THAT(outcome.err, HasSubstr("running with " + near.address() + ", "));
}

TEST_F(ExecCommandTest, TheProgramHasTheLimitOfDescriptorsThatTheCommandWasStartedWith) {
  const std::string hosts = far.address() + " " + near.address();
  const Outcome outcome =
      shell("ulimit -Sn 300; ahs exec " + hosts + " -- sh -c 'ulimit -n' 2>/dev/null");
  EXPECT_EQ(outcome.out, "300\n");
}

TEST_F(ExecCommandTest, HostsComeFromStandardInputAndGoIntoATable) {
  const Outcome outcome =
      shell("printf '" + near.address() + "\\n" + far.address() + "\\n' | ahs select - --csv 2>&1");
  EXPECT_THAT(outcome.out, HasSubstr("\n1," + near.address() + ","));
  EXPECT_THAT(outcome.out, HasSubstr("\n2," + far.address() + ","));
}

TEST_F(ExecCommandTest, WhatTheMachineLacksIsToldAndNotRemembered) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer opens a pipe to look at an object";
#endif
  const std::string inherits =
      "exec 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-; ";  // no more than it needs
  const Outcome outcome = shell(inherits + "(ulimit -n 6; ahs select " + near.address() +
                                " no.such.example); ahs cache show");
  EXPECT_THAT(outcome.out, HasSubstr("no.such.example  this machine ran out of descriptors\n"));
  EXPECT_THAT(outcome.out,
              HasSubstr("ahs: this machine ran out of descriptors: 2 of 2 headends were not"));
  EXPECT_THAT(outcome.out, HasSubstr("Selections: 0\n"));
}

TEST_F(ExecCommandTest, AFileThatMayNotGrowIsAFailureWithAMessage) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the sanitizer writes a file as it starts";
#endif
  const Outcome outcome = shell("(ulimit -f 0; ahs cache path 2>&3 >out; echo $? >&3) 3>&1 | cat");
  EXPECT_THAT(outcome.out, HasSubstr("could not be written to standard output: File too large"));
  EXPECT_THAT(outcome.out, testing::EndsWith("2\n"));
}

TEST_F(ExecCommandTest, AHostEntrysNameIsInTheEnvironmentWhateverItHolds) {
  writeProfile("true", host("-rf $(touch x) `id`", near.address()));
  const Outcome outcome = run({"exec", "--", "printenv", "AHS_NAME"});
  EXPECT_EQ(outcome.out, "-rf $(touch x) `id`\n") << outcome.err;
}

TEST_F(ExecCommandTest, AProgramThatFailsAtOnceIsTriedWithTheNextHeadend) {
  const Outcome outcome = runScript({}, "echo $0; test $0 = " + far.address() + " || exit 9");
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(outcome.out, near.address() + "\n" + far.address() + "\n");
  EXPECT_THAT(outcome.err,
              HasSubstr("ahs: for " + near.address() + ", 'sh' ended with status 9 after "));
  EXPECT_THAT(outcome.err, HasSubstr("ahs: trying " + far.address()));
}

TEST_F(ExecCommandTest, TheProgramStartsAtTheDecisionAndIsTriedWithOneThatIsOut) {
  writePreferences(preference("SelectionConnectTimeout", "60000") +
                   preference("SelectionPingTimeout", "60000"));
  HeldGateway held(HeldGateway::Settings{.answers = 2, .delay = Far});
  const Outcome outcome = run({"exec", near.address(), held.Address(), "--", "sh", "-c",
                               "echo $0; test $0 = " + held.Address() + " || exit 9", "{headend}"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(outcome.out, near.address() + "\n" + held.Address() + "\n") << outcome.err;
}

TEST_F(ExecCommandTest, WhenAllFailTheLastStatusIsTheCommands) {
  const Outcome outcome = runScript({}, "test $0 = " + far.address() + " && exit 255; exit 9");
  EXPECT_EQ(outcome.exitStatus, 255);
  EXPECT_THAT(outcome.err, HasSubstr("'sh' ended with status 255 after")) << "no signal";
  EXPECT_THAT(outcome.err, HasSubstr("there is no other headend to try"));
}

TEST_F(ExecCommandTest, NoOtherHeadendIsTriedThanTheOptionsAllow) {
  for (const auto& [option, value, script] :
       {std::tuple{"--tries", "1", "echo $0; exit 9"},
        // The program has outlived the start time.
        std::tuple{"--start-time", "1", "echo $0; sleep 5; exit 9"},
        std::tuple{"--start-time", "0", "echo $0; exit 9"}}) {
    const Outcome outcome = runScript({option, value}, script);
    EXPECT_EQ(outcome.exitStatus, 9);
    EXPECT_EQ(outcome.out, near.address() + "\n");
  }
}

TEST_F(ExecCommandTest, AProgramThatASignalEndsCountsAsFailed) {
  const Outcome outcome = runScript({}, "test $0 = " + far.address() + " && exit 0; kill -SEGV $$");
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.err, HasSubstr("'sh' was ended by signal 11"));
}

TEST_F(ExecCommandTest, AProgramThatDoesNotExistIsToldAndNoOtherHeadendIsTried) {
  const Outcome outcome =
      run({"exec", far.address(), near.address(), "--", "no-such-program", "{headend}"});
  EXPECT_EQ(outcome.exitStatus, 127);
  EXPECT_THAT(outcome.err, HasSubstr("'no-such-program' cannot be run: No such file or directory"));
  EXPECT_THAT(outcome.err, Not(HasSubstr("trying")));
  EXPECT_EQ(run({"exec", near.address(), "--", home, "x"}).exitStatus, 126);
  EXPECT_EQ(run({"exec", near.address(), "--", "echo", "--help", "--", "--json"}).out,
            "--help -- --json\n")
      << "its own options are its own";
}

TEST_F(ExecCommandTest, NothingIsRunWhenAProxyAsksForALogin) {
  const Gateway proxy(Near, Challenge);
  const Outcome outcome =
      run({"exec", near.address(), "--proxy", proxy.address(), "--", "echo", "ran"});
  EXPECT_EQ(outcome.exitStatus, 3) << outcome.err;
  EXPECT_EQ(outcome.out, "");
}

TEST_F(ExecCommandTest, ALastHeadendThatWasKeptIsRunWith) {
  const RefusingPort closed("127.0.0.1");
  const Outcome outcome = run({"exec", closed.Where().Text(), "--last", closed.Where().Text(), "--",
                               "sh", "-c", "echo \"$0 [$AHS_METRIC_MS]\"", "{headend}"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(outcome.out, closed.Where().Text() + " []\n");
}

TEST_F(ExecCommandTest, WhereNothingWasMeasuredAllAreTriedInTheirOrderTheLastHeadendFirst) {
  const RefusingPort one("127.0.0.1");
  const std::string first = "127.0.0.2:" + std::to_string(one.Where().port);
  const std::string second = one.Where().Text();
  for (const auto& [last, order] : {std::pair{std::string(), first + " " + second + " "},
                                    {second, second + " " + first + " "}}) {
    const Outcome outcome = run({"exec", first, second, "--last", last, "--", "sh", "-c",
                                 "printf '%s ' $0; exit 9", "{headend}"});
    EXPECT_EQ(outcome.exitStatus, 9);
    EXPECT_EQ(outcome.out, order);
  }
}

TEST_F(ExecCommandTest, TheProgramHasTheSignalsAndRightsThatTheCommandWasStartedWith) {
  for (const char* const state : {"SigBlk", "SigIgn", "NoNewPrivs", "Seccomp"}) {
    const std::string look =
        "sed -n 's/^" + std::string(state) + ":[[:space:]]*//p' /proc/self/status";
    const Outcome outcome = run({"exec", near.address(), "--", "sh", "-c", look});
    ChildProcess directly({"/bin/sh", "-c", look}, home + "/" + state, home);
    ASSERT_TRUE(directly.WaitForEnd(Limit));
    EXPECT_EQ(programsSignals(outcome.out), programsSignals(readFile(home + "/" + state))) << state;
  }
}

TEST_F(ExecCommandTest, TheProgramInheritsNoDescriptorOfTheCommand) {
  // A waiting worker has more open descriptors than one that is done.
  const SilentListener silent("127.0.0.1");
  writePreferences(preference("SelectionConnectTimeout", "3000") +
                   preference("SelectionPingTimeout", "20000"));
  const Outcome outcome = run({"exec", near.address(), silent.Where().Text(), "--log-file",
                               home + "/ahs.log", "--", "sh", "-c", "ls -l /proc/$$/fd"});
  EXPECT_THAT(outcome.out, HasSubstr(" 1 -> pipe:"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("socket:")));
  EXPECT_THAT(outcome.out, Not(HasSubstr("anon_inode")));
  EXPECT_THAT(outcome.out, Not(HasSubstr(home)));
}

TEST_F(ExecCommandTest, TheProgramInheritsWhatTheCommandWasGivenAndStandardDescriptors) {
  const Outcome outcome =
      shell("exec 7>" + home + "/given; ahs exec --log-file " + home + "/ahs.log " +
            near.address() + " -- sh -c 'echo written >&7; ls -l /proc/$$/fd' <&- 2>&-");
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(readFile(home + "/given"), "written\n");
  EXPECT_THAT(outcome.out, AllOf(HasSubstr(" 0 -> /dev/null"), HasSubstr(" 2 -> /dev/null")));
}

TEST_F(ExecCommandTest, AHangUpOfTheTerminalReachesTheProgram) {
  auto program = std::make_unique<Program>(command({}, "trap 'echo hung up >" + home +
                                                           "/told; exit 5' HUP; echo ready; "
                                                           "while :; do sleep 0.05; done"),
                                           environment, Program::Terminal::All);
  ASSERT_TRUE(program->waitForError("ready"));
  program->hangUp();
  EXPECT_TRUE(eventually([this] { return readFile(home + "/told") == "hung up\n"; }));
}

TEST_F(ExecCommandTest, ASignalIsHandedToTheProgramAndNoOtherHeadendIsTried) {
  Program program(
      command({}, "trap 'echo ended; exit 5' USR1; echo ready; while :; do sleep 0.05; done"),
      environment);
  ASSERT_TRUE(program.waitForOutput("ready"));
  kill(program.pid(), SIGUSR1);
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 5);
  EXPECT_EQ(outcome.out, "ready\nended\n");
  EXPECT_THAT(outcome.err, Not(HasSubstr("trying")));
}

TEST_F(ExecCommandTest, CtrlCReachesTheProgramOnceAndNoOtherHeadendIsTried) {
  Program program(command({},
                          "n=0; trap 'n=$((n+1))' INT; echo ready; "
                          "while [ $n -eq 0 ]; do sleep 0.05; done; "
                          "sleep 0.2; echo interrupted $n; exit 7"),
                  environment, Program::Terminal::All);
  ASSERT_TRUE(program.waitForError("ready"));
  program.type("\x03");
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 7);
  EXPECT_THAT(outcome.err, HasSubstr("interrupted 1"));
  EXPECT_THAT(outcome.err, Not(HasSubstr("trying")));
}

TEST_F(ExecCommandTest, CtrlZStopsBothUntilTheyAreBroughtBack) {
  Program program(command({}, "echo ready; while ! test -e " + home +
                                  "/gate; do sleep 0.05; done; echo went on; exit 6"),
                  environment, Program::Terminal::Job);
  ASSERT_TRUE(program.waitForError("ready"));
  program.type("\x1a");
  ASSERT_TRUE(program.waitForStop());
  writeFile("gate", "");
  program.bringBack();
  const Outcome outcome = program.finish();
  EXPECT_THAT(outcome.err, HasSubstr("went on"));
  EXPECT_EQ(outcome.exitStatus, 6);
}

}  // namespace
}  // namespace tests
