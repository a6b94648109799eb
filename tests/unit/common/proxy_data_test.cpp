// The proxy record, and what is left of its secrets in memory.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

#include "tests/support/ReleasedMemory.h"
#include "vpn/include/HttpSession.h"

namespace tests {
namespace {

// Longer than the buffer inside a std::string object, and shorter.
constexpr const char* LongSecret = "correct-horse-battery-staple-0123456789";
constexpr const char* ShortSecret = "hunter2-hunter";

/// Fills a record with copies that it does not share.
void fill(PROXY_DATA& data, const char* user, const char* pswd) {
  data.determineProxy = true;
  data.proxyServer = "http=http://proxy:3128";
  data.proxyUser = user;
  data.proxyPswd = pswd;
}

TEST(ProxyData, ItStartsWithoutAProxy) {
  const PROXY_DATA data;
  EXPECT_FALSE(data.determineProxy);
  EXPECT_EQ(data.proxyServer + data.proxyUser + data.proxyPswd, "");
}

TEST(ProxyData, DestructionLeavesNothingOfLongSecrets) {
  const LeakWatch watch("staple");
  {
    PROXY_DATA data;
    fill(data, LongSecret, LongSecret);
  }
  EXPECT_EQ(watch.Blocks(), 3);
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(ProxyData, DestructionLeavesNothingOfShortSecretsInsideTheRecordEvenIfALongOneReplacedOne) {
  for (const char* const password : {ShortSecret, LongSecret}) {
    InPlace<PROXY_DATA> data;
    fill(*data, ShortSecret, ShortSecret);
    data->proxyPswd = password;
    EXPECT_TRUE(data.holds("unter2-hunter"));
    data.destroy();
    EXPECT_FALSE(data.holds("unter"));
    EXPECT_FALSE(data.holds("2-hu"));
  }
}

TEST(ProxyData, ItsDestructionLeavesTheStringsThatItWasFilledFromIntact) {
  const std::string user = LongSecret;
  const std::string pswd = ShortSecret;
  {
    PROXY_DATA data;
    data.proxyUser = user;
    data.proxyPswd = pswd;
  }
  EXPECT_EQ(user, LongSecret);
  EXPECT_EQ(pswd, ShortSecret);
}

TEST(ProxyData, WhatIsMovedIsCopiedSoNothingIsLeftUnwipedInTheSource) {
  InPlace<PROXY_DATA> source;
  fill(*source, ShortSecret, LongSecret);
  const LeakWatch watch("staple");
  {
    const PROXY_DATA moved(std::move(*source));
    EXPECT_EQ(moved.proxyUser, ShortSecret);
    PROXY_DATA assigned;
    assigned = std::move(*source);
    EXPECT_EQ(assigned.proxyPswd, LongSecret);
  }
  source.destroy();
  EXPECT_FALSE(source.holds("unter"));
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(ProxyData, ACopyThatFindsNoMemoryLeavesNothingBehind) {
  PROXY_DATA data;
  fill(data, LongSecret, LongSecret);
  for (const long number : {1L, 2L, 3L}) {
    const LeakWatch watch("staple");
    {
      const FailingAllocation failing(number);
      EXPECT_THROW(PROXY_DATA{data}, std::bad_alloc);
      EXPECT_TRUE(failing.HasFailed());
    }
    EXPECT_EQ(watch.Leaks(), 0) << number;
  }
}

TEST(ProxyData, ACopyOrAnAssignmentTakesEveryFieldAndLeavesNothingOfTheFormerSecrets) {
  PROXY_DATA other;
  fill(other, "user", "short");
  PROXY_DATA data;
  data.proxyPswd = std::string(100, 'x');
  const char* const buffer = data.proxyPswd.data();
  data = other;
  ASSERT_EQ(data.proxyPswd.data(), buffer);
  EXPECT_EQ(std::count(buffer, buffer + 100, 'x'), 0);
  const PROXY_DATA copy(other);
  for (const PROXY_DATA* const taken : {&static_cast<const PROXY_DATA&>(data), &copy}) {
    EXPECT_TRUE(taken->determineProxy);
    EXPECT_EQ(taken->proxyServer, other.proxyServer);
    EXPECT_EQ(taken->proxyUser, "user");
    EXPECT_EQ(taken->proxyPswd, "short");
  }
}

TEST(ProxyData, AnAssignmentThatOutgrowsItsBuffersLeavesNothingWhetherOrNotItFindsMemory) {
  PROXY_DATA other;
  fill(other, std::string(500, 'u').c_str(), std::string(500, 'p').c_str());
  for (const long number : {0L, 1L, 2L}) {
    const LeakWatch watch("staple");
    {
      PROXY_DATA data;
      fill(data, LongSecret, LongSecret);
      if (number == 0) {
        data = other;
        EXPECT_EQ(data.proxyPswd, std::string(500, 'p'));
        EXPECT_GE(watch.Blocks(), 2);
      } else {
        const FailingAllocation failing(number);
        EXPECT_THROW(data = other, std::bad_alloc);
      }
    }
    EXPECT_EQ(watch.Leaks(), 0) << number;
  }
}

TEST(ProxyData, AssignmentToItselfKeepsItsSecrets) {
  PROXY_DATA data;
  data.proxyUser = "user";
  data.proxyPswd = "password";
  PROXY_DATA& same = data;
  data = same;
  EXPECT_EQ(data.proxyUser, "user");
  EXPECT_EQ(data.proxyPswd, "password");
}

}  // namespace
}  // namespace tests
