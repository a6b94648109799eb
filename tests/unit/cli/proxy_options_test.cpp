// From the typed options about the proxy to a plan.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <array>
#include <vector>

#include "cli/login/ProxyOptions.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* Password = "correct-horse";

class ProxyOptionsTest : public testing::Test {
 protected:
  // Reading a password made the process opaque to tools.
  ~ProxyOptionsTest() override { prctl(PR_SET_DUMPABLE, 1, 0, 0, 0); }

  std::string make() {
    plan = ProxyPlan();
    return makeProxyPlan(options, plan);
  }

  ProxyOptions options;
  ProxyPlan plan;
};

}  // namespace

TEST_F(ProxyOptionsTest, NothingGivenLeavesTheProxyToTheFiles) {
  EXPECT_EQ(make(), "");
  EXPECT_TRUE(plan.preferences.empty());
  EXPECT_EQ(plan.user.length(), 0U);
  std::optional<Secret> password;
  EXPECT_EQ(readPassword(plan, password), "");
  EXPECT_FALSE(password);
}

TEST_F(ProxyOptionsTest, AProxyIsAHostWithOrWithoutAPort) {
  for (const auto& [text, host, port] : std::vector<std::array<const char*, 3>>{
           {"proxy.example.com:3128", "proxy.example.com", "3128"},
           {"proxy", "proxy", ""},
           {"192.0.2.7:8080", "192.0.2.7", "8080"},
           {"[2001:db8::7]:3128", "[2001:db8::7]", "3128"},
           {"[::1]", "[::1]", ""},
           {"::1", "[::1]", ""},
           {"http://proxy:3128/", "proxy", "3128"}}) {
    options.proxy = text;
    EXPECT_EQ(make(), "") << text;
    EXPECT_EQ(plan.preferences[ProxySettings], "override");
    EXPECT_EQ(plan.preferences[ProxyHost], host);
    EXPECT_EQ(plan.preferences[ProxyPort], port);
  }
}

TEST_F(ProxyOptionsTest, WhatIsNoProxyIsRefusedWithAnExample) {
  for (const char* wrong : {"", " ", "proxy:0", "proxy:99999", "proxy:x", "a b", "https://proxy",
                            "socks5://proxy", "http://proxy/path", "proxy\x1b"}) {
    options.proxy = wrong;
    EXPECT_THAT(make(), HasSubstr("proxy.example.com:3128")) << wrong;
    EXPECT_THAT(make(), Not(HasSubstr("\x1b")));
  }
}

TEST_F(ProxyOptionsTest, CredentialsInTheProxyAreRefusedWithoutRepeatingThem) {
  options.proxy = std::string("http://alice:") + Password + "@proxy:3128";
  EXPECT_THAT(make(), HasSubstr("--proxy-password-file FILE"));
  EXPECT_THAT(make(), Not(HasSubstr(Password)));
}

TEST_F(ProxyOptionsTest, NoProxyIsAChoiceTooAndAUserMayStandAlone) {
  options.noProxy = true;
  options.user = "DOMAIN\\alice";
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.preferences[ProxySettings], "none");
  EXPECT_STREQ(plan.user.c_str(), "DOMAIN\\alice");
}

TEST_F(ProxyOptionsTest, AUserThatCannotBeSentIsRefusedWithoutRepeatingIt) {
  for (const std::string& wrong : {std::string("alice:") + Password, std::string(Password) + "\n",
                                   std::string(Password) + std::string(1024, 'x')}) {
    options.user = wrong;
    EXPECT_THAT(make(), HasSubstr("--proxy-user: "));
    EXPECT_THAT(make(), Not(HasSubstr(Password)));
  }
  options.user = "";
  EXPECT_THAT(make(), HasSubstr("--proxy-user needs a user name"));
}

TEST_F(ProxyOptionsTest, ADescriptorIsANumberThatIsNoOutput) {
  options.user = "alice";
  for (const auto& [text, number] : {std::pair{"0", 0}, std::pair{"3", 3}, std::pair{"17", 17}}) {
    options.passwordDescriptor = text;
    EXPECT_EQ(make(), "");
    EXPECT_EQ(plan.passwordDescriptor, number);
  }
  for (const char* wrong : {"", "1", "2", "-1", "3x", "99999999999", Password}) {
    options.passwordDescriptor = wrong;
    EXPECT_THAT(make(), HasSubstr("--proxy-password-fd takes the number")) << wrong;
    EXPECT_THAT(make(), Not(HasSubstr(Password)));
  }
}

TEST_F(ProxyOptionsTest, ThePasswordIsReadFromWhereThePlanSaysAndNotDumpedOrIsAnError) {
  const tests::TemporaryDirectory directory;
  options.user = "alice";
  options.passwordFile = directory.Write("password", Password);
  ASSERT_EQ(chmod(options.passwordFile->c_str(), 0600), 0);
  ASSERT_EQ(make(), "");
  ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1, 0, 0, 0), 0);
  std::optional<Secret> password;
  EXPECT_EQ(readPassword(plan, password), "");
  ASSERT_TRUE(password);
  EXPECT_STREQ(password->c_str(), Password);
  EXPECT_EQ(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 0);

  const int file = open(options.passwordFile->c_str(), O_RDONLY | O_CLOEXEC);
  options.passwordFile.reset();
  options.passwordDescriptor = std::to_string(file);
  ASSERT_EQ(make(), "");
  password.reset();
  EXPECT_EQ(readPassword(plan, password), "");
  EXPECT_STREQ(password->c_str(), Password);

  options.passwordDescriptor.reset();
  options.passwordFile = "/nonexistent/password";
  ASSERT_EQ(make(), "");
  password.reset();
  EXPECT_THAT(readPassword(plan, password), HasSubstr("'/nonexistent/password' cannot be used"));
  EXPECT_FALSE(password);
}
