// The simulator is what other tests and the benchmarks measure against, so it is measured itself:
// what a packet waits, that a scene that is wrong is refused, and that nothing of it stays behind.
// What its gateways do is seen by the probes of hostile_gateways_test.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "simulator/Scene.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace simulator {
namespace {

using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Lt;

constexpr int NotPermitted = 77;

// --- Scenes -------------------------------------------------------------------------------------

class WrongLine : public testing::TestWithParam<const char*> {};

TEST_P(WrongLine, IsRefused) {
  Scene scene;
  EXPECT_THROW(scene.addLine(GetParam()), SceneError);
}

INSTANTIATE_TEST_SUITE_P(Scene, WrongLine,
                         testing::Values("answer a", "answer a x", "answer a loop x",
                                         "road 10.77.0.1", "path", "path 10.77.0",
                                         "path 10.77.0.1 rtt",
                                         "path default rtt=", "path default rtt=-1",
                                         "path default rtt=nan", "path default rtt=60001",
                                         "path default loss=101", "path default loss=3%",
                                         "path default speed=3", "gateway 10.77.0.1",
                                         "gateway 10.77.0.1:", "gateway 10.77.0.1:65536",
                                         "gateway fd77::1:443", "gateway 10.77.0.1:443 delay=x",
                                         "name a", "name a b", "name a;b 10.77.0.1", "resolver x"));

TEST(Scene, AWrongLineOfAFileIsReportedWithFileAndLine) {
  const tests::TemporaryDirectory directory;
  const std::string file = directory.Write("scene", "path default rtt=1\n\nroad 10.77.0.1\n");
  Scene scene;
  EXPECT_THAT([&] { scene.addFile(file); },
              testing::ThrowsMessage<SceneError>(HasSubstr(file + ":3: 'road'")));
}

// --- Programs -----------------------------------------------------------------------------------

/// A program under test, with what it writes to both its outputs.
class Program {
 public:
  explicit Program(const std::vector<std::string>& arguments)
      : m_process(arguments, m_directory.File("output"), m_directory.Path()) {}

  /// Waits until the text has come, or the program has ended. @return all that has come.
  std::string readUntil(const std::string& text) {
    tests::eventually([&] {
      return !m_process.IsRunning() || (!text.empty() && output().find(text) != std::string::npos);
    });
    return output();
  }

  int waitForEnd() {
    EXPECT_TRUE(m_process.WaitForEnd(tests::Limit));
    return m_process.ExitStatus();
  }

  pid_t pid() const { return m_process.Pid(); }

 private:
  std::string output() const { return tests::readFile(m_directory.File("output")); }

  tests::TemporaryDirectory m_directory;
  tests::ChildProcess m_process;
};

bool isAlive(pid_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

bool endsSoon(pid_t pid) {
  return tests::eventually([pid] { return !isAlive(pid); });
}

TEST(Gateways, AnUnknownBehaviourIsAUsageError) {
  Program program({AHS_GATEWAYS, "--gateway", "127.0.77.1:0,behaviour=polite"});
  EXPECT_THAT(program.readUntil(""), HasSubstr("'polite'"));
  EXPECT_EQ(program.waitForEnd(), 2);
}

TEST(Gateways, TheyEndWithTheOneWhoStartedThem) {
  // The shell stays their parent, and dies without a chance to end them.
  Program shell({"/bin/sh", "-c", AHS_GATEWAYS " --gateway 127.0.77.1:0 & echo pid $! end; wait"});
  shell.readUntil("ready\n");
  const std::string output = shell.readUntil(" end\n");
  const pid_t gateways = std::stoi(output.substr(output.find("pid ") + 4));
  ASSERT_TRUE(isAlive(gateways));
  kill(shell.pid(), SIGKILL);
  shell.waitForEnd();
  EXPECT_TRUE(endsSoon(gateways));
}

/// Programs in a network of their own; skipped where there is none to be had.
class Wan : public testing::Test {
 protected:
  void SetUp() override {
    Program program({AHS_WAN, "--", "true"});
    const std::string output = program.readUntil("");
    const int status = program.waitForEnd();
    if (status == NotPermitted) GTEST_SKIP() << output;
    ASSERT_EQ(status, 0) << output;
  }
};

/// The smallest of the times that `fping -C` printed for an address.
double smallestOf(const std::string& output, const std::string& address) {
  const std::size_t begin = output.find(address + " ");
  if (begin == std::string::npos) return -1;
  std::istringstream line(output.substr(begin, output.find('\n', begin) - begin));
  std::string word;
  line >> word >> word;
  double smallest = 1e9;
  while (line >> word) {
    // A packet that came too late is a dash.
    if (word != "-") smallest = std::min(smallest, std::stod(word));
  }
  return smallest;
}

TEST_F(Wan, PingsTakeAsLongAsConfigured) {
  if (std::system("command -v fping >/dev/null") != 0) GTEST_SKIP() << "fping is not installed";
  Program program({"/bin/sh", "-c",
                   AHS_WAN " --path 10.77.0.1,rtt=5 --path 10.77.0.2,rtt=40.5 --path "
                           "10.77.0.3,rtt=200 --path fd77::1,rtt=20 -- fping -q -C 10 -t 1000 "
                           "-p 100 10.77.0.1 10.77.0.2 10.77.0.3 fd77::1"});
  const std::string output = program.readUntil("");
  ASSERT_EQ(program.waitForEnd(), 0) << output;
  // The smallest, so that a busy machine is not taken for a slow network.
  const auto isAbout = [](double rtt) { return AllOf(Ge(rtt - 0.1), Lt(rtt + 4)); };
  EXPECT_THAT(smallestOf(output, "10.77.0.1"), isAbout(5)) << output;
  EXPECT_THAT(smallestOf(output, "10.77.0.2"), isAbout(40.5)) << output;
  EXPECT_THAT(smallestOf(output, "10.77.0.3"), isAbout(200)) << output;
  EXPECT_THAT(smallestOf(output, "fd77::1"), isAbout(20)) << output;
}

TEST_F(Wan, TheCommandsExitStatusIsItsOwn) {
  EXPECT_EQ(Program({AHS_WAN, "--", "sh", "-c", "exit 7"}).waitForEnd(), 7);
  EXPECT_EQ(Program({AHS_WAN, "--", "sh", "-c", "kill -9 $$"}).waitForEnd(), 128 + SIGKILL);
  EXPECT_EQ(Program({AHS_WAN, "--", "/no/such/command"}).waitForEnd(), 127);
}

TEST_F(Wan, ServersThatFailAreAFailureOfItsOwn) {
  Program program({AHS_WAN, "--servers", "false", "--", "echo", "never"});
  EXPECT_EQ(program.readUntil(""), "ahs-wan: the servers ended before they were ready\n");
  EXPECT_EQ(program.waitForEnd(), 125);
}

TEST_F(Wan, NothingThatItStartedOutlivesIt) {
  const std::string told = testing::TempDir() + "orphan-told-" + std::to_string(getpid());
  // Servers, one that ignores being asked, and one that has lost its parent.
  Program program({AHS_WAN, "--servers", "sh -c 'echo $$ >&2; echo ready; exec sleep 600'", "--",
                   "sh", "-c",
                   "(trap '' TERM; sleep 600 & echo $!); (sh -c 'echo $$; : >" + told +
                       "; exec sleep 600' &); until test -e " + told + "; do sleep 0.01; done"});
  std::istringstream output(program.readUntil(""));
  EXPECT_EQ(program.waitForEnd(), 0);
  int started = 0;
  for (pid_t pid = 0; output >> pid; ++started) EXPECT_TRUE(endsSoon(pid)) << pid;
  EXPECT_EQ(started, 3);
  std::filesystem::remove(told);
}

TEST_F(Wan, ItPassesOnTheRequestToEnd) {
  Program program({AHS_WAN, "--", "sh", "-c",
                   "trap 'echo asked; exit 3' TERM; echo up; while :; do sleep 0.01; done"});
  program.readUntil("up\n");
  kill(program.pid(), SIGTERM);
  EXPECT_EQ(program.readUntil(""), "up\nasked\n");
  EXPECT_EQ(program.waitForEnd(), 3);
}

}  // namespace
}  // namespace simulator
