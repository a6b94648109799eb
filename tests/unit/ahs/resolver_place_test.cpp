// The resolver's settings as the C library really reads them, from files that the test puts in the
// place of the system's in a mount namespace of its own.

#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "vpn/Api/AHS/ResolverPlace.h"

namespace {

constexpr int NotPermitted = 77;

void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

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

class ResolverPlace : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/ahs-resolver-XXXXXX";
    const int descriptor = mkstemp(pattern);
    ASSERT_GE(descriptor, 0);
    close(descriptor);
    m_settings = pattern;
  }
  void TearDown() override { unlink(m_settings.c_str()); }

  std::string m_settings;
};

}  // namespace

TEST_F(ResolverPlace, NamesServersOfBothFamiliesAndSearchDomainsInLowerCase) {
  write(m_settings,
        "nameserver 192.0.2.1\nnameserver 2001:db8::1\nnameserver 192.0.2.2\n"
        "search one.test TWO.test\n");
  const int status = withSettings(m_settings, [] {
    const std::string place = presentPlace();
    EXPECT_EQ(place,
              "nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 2001:db8::1\n"
              "search one.test\nsearch two.test\n");
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  if (status == NotPermitted) {
    GTEST_SKIP() << "no right to make a mount namespace";
  }
  EXPECT_EQ(status, 0);
}

TEST_F(ResolverPlace, SeesAChangeAtTheNextReading) {
  write(m_settings, "nameserver 192.0.2.1\nsearch home.test\n");
  const int status = withSettings(m_settings, [this] {
    EXPECT_EQ(presentPlace(), "nameserver 192.0.2.1\nsearch home.test\n");
    write(m_settings, "nameserver 198.51.100.1\nsearch work.test\n");
    EXPECT_EQ(presentPlace(), "nameserver 198.51.100.1\nsearch work.test\n");
    return ::testing::Test::HasFailure() ? 1 : 0;
  });
  if (status == NotPermitted) {
    GTEST_SKIP() << "no right to make a mount namespace";
  }
  EXPECT_EQ(status, 0);
}

TEST_F(ResolverPlace, OfThisMachineNamesANameServer) {
  std::vector<std::string> place;
  ASSERT_TRUE(readResolverPlace(place));
  EXPECT_TRUE(std::any_of(place.begin(), place.end(), [](const std::string& part) {
    return part.rfind("nameserver ", 0) == 0 && part.size() > 11;
  }));
}
