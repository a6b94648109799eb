// The system's proxy settings when they answer, fail, crash and hang, each in a helper that the
// host of the library must not notice.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "vpn/Common/IP/SystemProxy.h"
#include "vpn/Common/Trust/Environment.h"

namespace tests {
namespace {

using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using namespace std::chrono_literals;

using Entries = std::vector<std::string>;
using Outcome = SystemProxy::Outcome;

// A limit that no test reaches.
constexpr auto kPatience = 60s;
constexpr int kNever = -1;

/// @param host what the scripted libproxy does.
Outcome find(const std::string& host, Entries& entries, std::chrono::milliseconds limit = kPatience,
             int cancel = kNever) {
  entries.clear();
  return SystemProxy::find("http://" + host + ":443/", limit, cancel, entries);
}

/// Processes that run the scripted helper.
std::size_t helpers() {
  const auto helper = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "ahs-proxy";
  std::size_t count = 0;
  for (const auto& process : std::filesystem::directory_iterator("/proc")) {
    std::error_code gone;
    count += std::filesystem::read_symlink(process.path() / "exe", gone) == helper ? 1U : 0U;
  }
  return count;
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::atomic<int> signalsSeen{0};

/// A host that watches its children, signals and descriptors.
class SystemProxyTest : public testing::Test {
 protected:
  SystemProxyTest() {
    signalsSeen = 0;
    signal(SIGCHLD, [](int) { ++signalsSeen; });
    signal(SIGUSR1, SIG_IGN);
  }
  ~SystemProxyTest() override {
    EXPECT_EQ(signalsSeen, 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1);
    EXPECT_EQ(errno, ECHILD) << "a child is left";
    EXPECT_EQ(openDescriptors(), m_descriptors);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_TRUE(sigisemptyset(&blocked));
    EXPECT_TRUE(eventually([] { return helpers() == 0; })) << "a helper is left";
    signal(SIGCHLD, SIG_DFL);
    signal(SIGUSR1, SIG_DFL);
  }

  Entries entries;

 private:
  const std::size_t m_descriptors = openDescriptors();
};

TEST_F(SystemProxyTest, TheListIsHandedOverInItsOrderWithoutUsersAndPasswords) {
  EXPECT_EQ(find("names", entries), Outcome::Found);
  EXPECT_THAT(entries, ElementsAre("http://a:1", "http://b:2", "c:3", "http://d:4", "",
                                   "http://e:5", "socks5://f:6", "direct://"));
  EXPECT_EQ(find("speaks", entries), Outcome::Found) << "modules have standard streams";
  EXPECT_THAT(entries, ElementsAre("direct://"));
}

TEST_F(SystemProxyTest, AModuleThatThrowsCrashesOrEndsItsProcessIsAFailureAndNoMore) {
  for (const char* host : {"says-nothing", "throws", "crashes", "exits", "talks"}) {
    EXPECT_EQ(find(host, entries), Outcome::Failed) << host;
    EXPECT_THAT(entries, IsEmpty());
  }
}

TEST_F(SystemProxyTest, AModuleThatHangsIsLateAndEndsWithTheQuestion) {
  for (const auto limit : {0ms, 10ms, 300ms}) {
    EXPECT_EQ(find("hangs", entries, limit), Outcome::Late);
  }
  const int cancel = eventfd(1, EFD_CLOEXEC);
  EXPECT_EQ(find("hangs", entries, kPatience, cancel), Outcome::Failed) << "it is cancelled";
  close(cancel);
  std::vector<std::jthread> many;
  for (int i = 0; i < 8; ++i) {
    many.emplace_back([] {
      Entries none;
      EXPECT_EQ(find("hangs", none, 100ms), Outcome::Late);
      EXPECT_EQ(find("names", none), Outcome::Found) << "none holds up another";
    });
  }
}

TEST_F(SystemProxyTest, TheHelperHasNothingOfTheHostButItsUserAndItsEnvironment) {
  setenv("AHS_TEST_VARIABLE", "of the host", 1);
  const int inherited = fcntl(STDERR_FILENO, F_DUPFD, 700);
  EXPECT_EQ(find("tells", entries), Outcome::Found);
  close(inherited);
  const std::string user = geteuid() == 0 ? "65534" : std::to_string(geteuid());
  const std::string none(16, '0');
  for (const std::string& expected :
       {"Uid:\t" + user + "\t" + user + "\t" + user + "\t" + user, "SigBlk:\t" + none,
        "CapInh:\t" + none, "CapPrm:\t" + none, "CapEff:\t" + none, "CapAmb:\t" + none,
        std::string("NoNewPrivs:\t1"), std::string("descriptor 3"),
        std::string("AHS_TEST_VARIABLE=of the host")}) {
    EXPECT_THAT(entries, Contains(expected));
  }
  EXPECT_THAT(entries, Not(Contains(HasSubstr("descriptor 700"))));
  // Of a test started by posix_spawn(3), glibc leaves its own signal 32 ignored.
  EXPECT_THAT(entries, Contains(ContainsRegex("SigIgn:\t00000000[08]0000000")));
  if (geteuid() == 0) {
    EXPECT_THAT(entries, Contains("Groups:\t "));
  }

  Environment::prepare(true);
  EXPECT_EQ(find("tells", entries), Outcome::Found);
  EXPECT_THAT(entries, Not(Contains(HasSubstr("="))));
  unsetenv("AHS_TEST_VARIABLE");
}

TEST_F(SystemProxyTest, WithoutStandardStreamsItAnswersToo) {
  const int saved = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  close(STDIN_FILENO);
  EXPECT_EQ(find("names", entries), Outcome::Found);
  if (saved >= 0) {
    dup2(saved, STDIN_FILENO);
    close(saved);
  }
}

TEST(SystemProxy, TheHelperOfAProgramWithSetUserIdIsItsCallers) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "takes root";
  }
  const pid_t host = fork();
  if (host == 0) {
    constexpr uid_t Caller = 1234;
    Entries told;
    const bool isTold = setgroups(0, nullptr) == 0 && setresgid(Caller, 0, 0) == 0 &&
                        setresuid(Caller, 0, 0) == 0 && find("tells", told) == Outcome::Found;
    for (const char* line : {"Uid:\t1234\t1234\t1234\t1234", "Gid:\t1234\t1234\t1234\t1234",
                             "CapEff:\t0000000000000000", "CapPrm:\t0000000000000000"}) {
      EXPECT_THAT(told, Contains(line));
    }
    _exit(isTold && !HasFailure() ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(host, &status, 0), host);
  EXPECT_EQ(status, 0);
}

/// The next test's, which runs a copy of this program elsewhere.
TEST(DISABLED_Elsewhere, NamesADirectWay) {
  Entries entries;
  EXPECT_EQ(find("names", entries), Outcome::Found);
  EXPECT_THAT(entries, ElementsAre("direct://"));
}

TEST(SystemProxy, WhereNoHelperIsOrAnybodyMayHavePlacedItTheWayIsDirect) {
  std::filesystem::remove(AHS_HELPER);
  const auto here = std::filesystem::read_symlink("/proc/self/exe");
  const TemporaryDirectory elsewhere;
  const std::vector<std::string> command = {elsewhere.File("program"),
                                            "--gtest_also_run_disabled_tests",
                                            "--gtest_filter=DISABLED_Elsewhere.*"};
  std::filesystem::copy_file(here, command[0]);
  runToEnd(command, elsewhere.Path());
  std::filesystem::copy_file(here.parent_path() / "ahs-proxy", AHS_HELPER);
  EXPECT_ANY_THROW(runToEnd(command, elsewhere.Path())) << "the one that is installed is asked";
  std::filesystem::remove(AHS_HELPER);
  std::filesystem::copy_file(here.parent_path() / "ahs-proxy", elsewhere.File("ahs-proxy"));
  EXPECT_ANY_THROW(runToEnd(command, elsewhere.Path())) << "this one is asked";
  std::filesystem::permissions(elsewhere.Path(), std::filesystem::perms(01777));  // as /tmp has it
  runToEnd(command, elsewhere.Path());
}

}  // namespace
}  // namespace tests
