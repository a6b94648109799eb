// A start in a process that may not grow any more: whatever is left, it ends with its own code.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/unit/api/api_fixture.h"

namespace {

constexpr rlim_t Step = rlim_t{64} * 1024;
constexpr int Steps = 100;

rlim_t addressSpaceInUse() {
  rlim_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

enum Ending : int { Loaded = 0, WithoutMemory = 1, Wrong = 2 };

/// Runs a start in a child that may grow by so much.
/// @return how it ended; 128 and more for a signal.
int endingWith(rlim_t growth, const PreferenceMgr::Sources& sources) {
  const pid_t child = ::fork();
  if (child == 0) {
    const rlim_t limit = addressSpaceInUse() + growth;
    const rlimit limits{limit, limit};
    static_cast<void>(::setrlimit(RLIMIT_AS, &limits));
    const STATUSCODE status = PreferenceMgr::createInstance(sources);
    ::_exit(status == PREFERENCEMGR_SUCCESS                 ? Loaded
            : status == PREFERENCEMGR_ERROR_MEMALLOC_FAILED ? WithoutMemory
                                                            : Wrong);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

TEST(PreferenceMgrInAFullAddressSpace, EndsItsStartWithItsCode) {
  const tests::TemporaryDirectory directory;
  std::ostringstream hosts;
  for (int i = 0; i < 10000; ++i) {
    hosts << "<host name=\"Gateway " << i << "\" address=\"gw-" << i << "\"/>\n";
  }
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.MakeDirectory("profiles");
  directory.Write("profiles/a.xml", tests::profileWithHosts(hosts.str() + "<host/><hsot/>text"));
  int loaded = 0;
  int withoutMemory = 0;
  for (int i = 0; i < Steps; ++i) {
    const int ending = endingWith(static_cast<rlim_t>(i) * Step, sources);
    ASSERT_TRUE(ending == Loaded || ending == WithoutMemory) << i << " " << ending;
    ++(ending == Loaded ? loaded : withoutMemory);
  }
  EXPECT_GT(loaded, 0);
  EXPECT_GT(withoutMemory, 10);
}
