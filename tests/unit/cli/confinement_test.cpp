// What the command can still do once it has given up what it does not need.

#include "cli/Confinement.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

namespace tests {
namespace {

/// Whether a call is refused, in a process that is confined so.
bool isRefused(Confinement::Programs programs, const std::function<long()>& call) {
  const pid_t child = fork();
  if (child == 0) {
    Confinement::begin(programs);
    _exit(call() < 0 && errno == EPERM ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status) == 1;
}

long runTrue() { return execl("/bin/true", "true", nullptr); }
long readOthers() { return process_vm_readv(getppid(), nullptr, 0, nullptr, 0, 0); }
// Where it is not refused, a second process returns too and ends like the first.
long makeNamespace() { return syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, 0, 0, 0, 0); }
// Not setuid(3), which has all threads do it, a sanitizer's own too.
long becomeItself() { return syscall(SYS_setuid, getuid()); }

TEST(Confinement, RefusesWhatTheCommandNeverDoesAndProgramsWhereItStartsNone) {
  using enum Confinement::Programs;
  for (const auto& call : {makeNamespace, readOthers}) {
    EXPECT_TRUE(isRefused(None, call));
    EXPECT_TRUE(isRefused(OurHelper, call));
  }
  for (const auto& call : {runTrue, becomeItself}) {
    EXPECT_TRUE(isRefused(None, call));
    EXPECT_FALSE(isRefused(OurHelper, call));
  }
  EXPECT_FALSE(isRefused(None, [] { return static_cast<long>(getppid()); }));
}

}  // namespace
}  // namespace tests
