// The resolver's settings as the C library really reads them, from files that the test puts in the
// place of the system's in a mount namespace of its own.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/AHS/ResolverPlace.h"

namespace {

constexpr int NotPermitted = 77;

/// What the resolver says, sorted, a line each.
std::string presentPlace() {
  std::vector<std::string> place;
  if (!readResolverPlace(place)) {
    return "unreadable";
  }
  std::sort(place.begin(), place.end());
  std::string text;
  for (const std::string& part : place) {
    text += part + "\n";
  }
  return text;
}

/// Runs `body` in a process that sees the file at `path` as the resolver's settings.
int withSettings(const std::string& path, const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    const int spaces = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS;
    if (unshare(spaces) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(path.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) {
      _exit(NotPermitted);
    }
    _exit(body());
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
    return -1;
  }
  return WEXITSTATUS(status);
}

}  // namespace

TEST(ResolverPlace, NamesServersOfBothFamiliesAndSearchDomainsInLowerCaseAsTheyAreNow) {
  const tests::TemporaryDirectory directory;
  const std::string settings =
      directory.Write("resolv.conf",
                      "nameserver 192.0.2.1\nnameserver 2001:db8::1\nnameserver 192.0.2.2\n"
                      "search one.test TWO.test\n");
  const int status = withSettings(settings, [&] {
    EXPECT_EQ(presentPlace(),
              "nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 2001:db8::1\n"
              "search one.test\nsearch two.test\n");
    directory.Write("resolv.conf", "nameserver 198.51.100.1\nsearch work.test\n");
    EXPECT_EQ(presentPlace(), "nameserver 198.51.100.1\nsearch work.test\n");
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  if (status == NotPermitted) {
    GTEST_SKIP() << "no right to make a mount namespace";
  }
  EXPECT_EQ(status, 0);
}

TEST(ResolverPlace, OfSettingsWithoutAnEndIsUnreadableAtOnce) {
  const tests::TemporaryDirectory directory;
  const std::string pipe = directory.File("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string large = directory.Write("large", std::string((1 << 20) + 1, '\n'));
  for (const std::string& path : {pipe, std::string("/dev/zero"), large}) {
    const int status = withSettings(path, [] {
      alarm(10);  // the C library would wait, or fill the memory
      return presentPlace() == "unreadable" ? 0 : 1;
    });
    if (status == NotPermitted) {
      GTEST_SKIP() << "no right to make a mount namespace";
    }
    EXPECT_EQ(status, 0) << path;
  }
}
