// Other tests and the benchmarks rely on the simulator, so it is measured too: the delay of
// packets, the refusal of wrong scenes, and that nothing of it is left. hostile_gateways_test
// covers its gateways.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "simulator/Scene.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace simulator {
namespace {

using testing::HasSubstr;

constexpr int NotPermitted = 77;

TEST(Scene, AWrongLineIsRefusedWithFileAndLine) {
  const tests::TemporaryDirectory directory;
  for (const char* line :
       {"answer a", "answer a loop x", "road 10.77.0.1", "path 10.77.0", "path 10.77.0.1 rtt",
        "path default rtt=nan", "path default rtt=60001", "path default loss=3%",
        "path default speed=3", "gateway 10.77.0.1:65536", "gateway fd77::1:443",
        "gateway 10.77.0.1:443 delay=x", "name a;b 10.77.0.1", "resolver x"}) {
    const std::string file =
        directory.Write("scene", std::string("path default rtt=1\n\n") + line + "\n");
    Scene scene;
    EXPECT_THAT([&] { scene.addFile(file); },
                testing::ThrowsMessage<SceneError>(HasSubstr(file + ":3: ")))
        << line;
  }
}

struct Ended {
  int status;
  std::string output;
};

/// Runs a program to its end. @param endAt output after which to ask the program to end.
Ended run(const std::vector<std::string>& command, const std::string& endAt = "") {
  const tests::TemporaryDirectory directory;
  const std::string output = directory.File("output");
  tests::ChildProcess process(command, output, directory.Path());
  if (!endAt.empty()) {
    EXPECT_TRUE(tests::eventually([&] { return tests::readFile(output) == endAt; }));
    kill(process.Pid(), SIGTERM);
  }
  EXPECT_TRUE(process.WaitForEnd(tests::Limit));
  return {process.ExitStatus(), tests::readFile(output)};
}

bool endsSoon(pid_t pid) {
  return tests::eventually([pid] { return kill(pid, 0) != 0 && errno == ESRCH; });
}

TEST(Gateways, AnUnknownBehaviourIsAUsageError) {
  const Ended ended = run({AHS_GATEWAYS, "--gateway", "127.0.77.1:0,behaviour=polite"});
  EXPECT_THAT(ended.output, HasSubstr("'polite'"));
  EXPECT_EQ(ended.status, 2);
}

/// Programs in their own network; skipped where none can be made.
class Wan : public testing::Test {
 protected:
  void SetUp() override {
    const Ended ended = run({AHS_WAN, "--", "true"});
    if (ended.status == NotPermitted) GTEST_SKIP() << ended.output;
    ASSERT_EQ(ended.status, 0) << ended.output;
  }
};

TEST_F(Wan, PingsTakeAsLongAsConfigured) {
  if (std::system("command -v fping >/dev/null") != 0) GTEST_SKIP() << "fping is not installed";
  const Ended ended = run({AHS_WAN, "--path", "10.77.0.1,rtt=5", "--path", "10.77.0.2,rtt=40.5",
                           "--path", "fd77::1,rtt=200", "--", "fping", "-q", "-C", "10", "-t",
                           "1000", "-p", "100", "10.77.0.1", "10.77.0.2", "fd77::1"});
  ASSERT_EQ(ended.status, 0) << ended.output;
  // Takes the smallest time: a busy machine must not look like a slow network.
  std::istringstream lines(ended.output);
  for (const double rtt : {5.0, 40.5, 200.0}) {
    std::string line;
    std::getline(lines, line);
    std::istringstream words(line.substr(line.find(" : ") + 3));
    double smallest = 1e9;
    // A packet that came too late is a dash.
    for (std::string word; words >> word;) {
      smallest = std::min(smallest, word == "-" ? smallest : std::stod(word));
    }
    EXPECT_GE(smallest, rtt - 0.1) << ended.output;
    EXPECT_LT(smallest, rtt + 4) << ended.output;
  }
}

TEST_F(Wan, TheExitStatusIsTheCommandsUnlessTheServersFail) {
  EXPECT_EQ(run({AHS_WAN, "--", "sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(run({AHS_WAN, "--", "sh", "-c", "kill -9 $$"}).status, 128 + SIGKILL);
  EXPECT_EQ(run({AHS_WAN, "--", "/no/such/command"}).status, 127);
  const Ended ended = run({AHS_WAN, "--servers", "false", "--", "echo", "never"});
  EXPECT_EQ(ended.output, "ahs-wan: the servers ended before they were ready\n");
  EXPECT_EQ(ended.status, 125);
}

TEST_F(Wan, NothingThatItStartedOutlivesIt) {
  // Two servers: one ignores SIGTERM, the other has lost its parent.
  const Ended ended = run(
      {AHS_WAN, "--servers", "sh -c 'echo $$ >&2; echo ready; exec sleep 600'", "--", "sh", "-c",
       "(trap '' TERM; sleep 600 & echo $!); (sh -c 'echo $$; : >told; exec sleep 600' &); "
       "until test -e told; do sleep 0.01; done"});
  std::istringstream output(ended.output);
  EXPECT_EQ(ended.status, 0);
  int started = 0;
  for (pid_t pid = 0; output >> pid; ++started) EXPECT_TRUE(endsSoon(pid)) << pid;
  EXPECT_EQ(started, 3);
}

TEST_F(Wan, ItPassesOnTheRequestToEnd) {
  const Ended ended = run({AHS_WAN, "--", "sh", "-c",
                           "trap 'echo asked; exit 3' TERM; echo up; while :; do sleep 0.01; done"},
                          "up\n");
  EXPECT_EQ(ended.output, "up\nasked\n");
  EXPECT_EQ(ended.status, 3);
}

}  // namespace
}  // namespace simulator
