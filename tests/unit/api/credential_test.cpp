// A proxy credential in clear, and what is left of it in memory. Every block that this program
// releases is searched for the secret before it goes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "tests/support/ReleasedMemory.h"
#include "vpn/Api/ProxyIfc.h"

using Credential = ProxyIfc::UnprotectedCredential;
using InPlace = tests::InPlace<Credential>;
using tests::FailingAllocation;
using tests::LeakWatch;

namespace {

// Longer than the buffer inside a std::string object, and shorter.
const char* const LongSecret = "correct-horse-battery-staple-0123456789";
const char* const ShortSecret = "hunter2!";

}  // namespace

TEST(UnprotectedCredential, ADefaultOneIsEmpty) {
  const Credential credential;
  EXPECT_TRUE(credential.empty());
  EXPECT_EQ(credential.GetLength(), 0U);
  EXPECT_EQ(credential.length(), 0U);
  EXPECT_STREQ(credential.c_str(), "");
}

TEST(UnprotectedCredential, ItHoldsTheStringItIsMadeOf) {
  const Credential credential{std::string(LongSecret)};
  EXPECT_FALSE(credential.empty());
  EXPECT_EQ(credential.GetValue(), LongSecret);
  EXPECT_STREQ(credential.c_str(), LongSecret);
  EXPECT_EQ(credential.GetLength(), std::strlen(LongSecret));
  EXPECT_EQ(credential.length(), std::strlen(LongSecret));
}

TEST(UnprotectedCredential, ACopyOwnsItsBufferAlone) {
  Credential copy;
  {
    const Credential original{std::string(LongSecret)};
    const Credential second(original);
    EXPECT_NE(second.c_str(), original.c_str());
    copy = second;
  }
  EXPECT_EQ(copy.GetValue(), LongSecret);
}

TEST(UnprotectedCredential, AssignmentOfACStringTakesWhatIsBeforeTheFirstNul) {
  Credential credential{std::string("before")};
  credential = "abc\0def";
  EXPECT_EQ(credential.GetValue(), "abc");
  credential = "";
  EXPECT_TRUE(credential.empty());
}

TEST(UnprotectedCredential, AssignmentOfAnotherTakesAllOfIt) {
  const Credential other{std::string("abc\0def", 7)};
  Credential credential;
  credential = other;
  EXPECT_EQ(credential.GetLength(), 7U);
  EXPECT_EQ(credential.GetValue(), other.GetValue());
  EXPECT_STREQ(credential.c_str(), "abc");
}

TEST(UnprotectedCredential, ANullPointerIsAnEmptyText) {
  Credential credential{std::string("abc")};
  credential += static_cast<const char*>(nullptr);
  EXPECT_EQ(credential.GetValue(), "abc");
  credential = static_cast<const char*>(nullptr);
  EXPECT_TRUE(credential.empty());
}

TEST(UnprotectedCredential, ItCanBeAssignedToItselfInWholeAndInPart) {
  Credential credential{std::string(LongSecret)};
  const Credential& same = credential;
  credential = same;
  EXPECT_EQ(credential.GetValue(), LongSecret);
  credential = credential.c_str();
  EXPECT_EQ(credential.GetValue(), LongSecret);
  credential = credential.c_str() + 8;
  EXPECT_STREQ(credential.c_str(), LongSecret + 8);
  credential = credential.c_str() + credential.length();
  EXPECT_TRUE(credential.empty());
}

TEST(UnprotectedCredential, TextIsAppended) {
  Credential credential;
  credential += "user";
  credential += Credential{std::string("@realm")};
  (credential += "!") += "?";
  EXPECT_EQ(credential.GetValue(), "user@realm!?");
}

TEST(UnprotectedCredential, ItCanBeAppendedToItself) {
  Credential credential{std::string(LongSecret)};
  credential += credential;
  EXPECT_EQ(credential.GetValue(), std::string(LongSecret) + LongSecret);
  credential += credential.c_str();
  EXPECT_EQ(credential.GetLength(), 4 * std::strlen(LongSecret));
}

TEST(UnprotectedCredential, TheSearchOfReleasedMemoryFindsWhatIsNotWiped) {
  const LeakWatch watch(LongSecret);
  {
    const std::string plain(LongSecret);
    tests::use(plain.data());
  }
  EXPECT_EQ(watch.Leaks(), 1);
}

TEST(UnprotectedCredential, DestructionLeavesNothingOfALongSecret) {
  const LeakWatch watch("staple");
  InPlace credential;
  *credential = LongSecret;
  credential.destroy();
  EXPECT_EQ(watch.Leaks(), 0);
  EXPECT_FALSE(credential.holds("staple"));
}

TEST(UnprotectedCredential, DestructionLeavesNothingOfAShortSecretInsideTheObject) {
  InPlace credential;
  *credential = ShortSecret;
  EXPECT_TRUE(credential.holds("unter2"));
  credential.destroy();
  EXPECT_FALSE(credential.holds("unter2"));
}

TEST(UnprotectedCredential, GrowthLeavesNothingInTheBufferThatItOutgrows) {
  const LeakWatch watch("staple");
  Credential credential;
  credential = LongSecret;
  for (int i = 0; i < 200; ++i) {
    credential += "0123456789";
  }
  EXPECT_EQ(credential.GetLength(), std::strlen(LongSecret) + 2000);
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(UnprotectedCredential, GrowthOutOfTheObjectLeavesNothingInIt) {
  InPlace credential;
  *credential = ShortSecret;
  *credential += "a text that does not fit inside the object any more";
  EXPECT_FALSE(credential.holds("unter2"));
  credential.destroy();
}

TEST(UnprotectedCredential, GrowthOutOfTheObjectLeavesNothingInItAfterItsDestructionEither) {
  InPlace credential;
  *credential = "0123456789-hunt";
  EXPECT_TRUE(credential.holds("89-hunt"));
  *credential += "a text that does not fit inside the object any more";
  credential.destroy();
  EXPECT_FALSE(credential.holds("89-hunt"));
}

TEST(UnprotectedCredential, WhatIsMovedIsCopiedSoNothingIsLeftUnwipedInTheSource) {
  const LeakWatch watch("staple");
  InPlace source;
  *source = ShortSecret;
  {
    Credential longOne;
    longOne = LongSecret;
    const Credential moved(std::move(longOne));
    EXPECT_STREQ(moved.c_str(), LongSecret);
    Credential assigned;
    assigned = std::move(*source);
    EXPECT_STREQ(assigned.c_str(), ShortSecret);
  }
  source.destroy();
  EXPECT_FALSE(source.holds("unter2"));
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(UnprotectedCredential, WhatFindsNoMemoryLeavesNothingBehind) {
  const std::string longer(5000, 'z');
  Credential other;
  other = longer.c_str();
  const LeakWatch watch("staple");
  {
    Credential copied;
    copied = LongSecret;
    Credential assigned(copied);
    const FailingAllocation failing(1);
    EXPECT_THROW(assigned = other, std::bad_alloc);
    EXPECT_TRUE(assigned.empty());
    EXPECT_TRUE(failing.HasFailed());
  }
  {
    Credential grown;
    grown = LongSecret;
    const FailingAllocation failing(1);
    EXPECT_THROW(grown += other, std::bad_alloc);
    EXPECT_STREQ(grown.c_str(), LongSecret);
    EXPECT_TRUE(failing.HasFailed());
  }
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(UnprotectedCredential, AShorterValueLeavesNothingOfALongerOne) {
  const LeakWatch watch("staple");
  Credential credential;
  credential = LongSecret;
  const char* const buffer = credential.c_str();
  const std::size_t length = std::strlen(LongSecret);
  credential = "x";
  ASSERT_EQ(credential.c_str(), buffer) << "the buffer is kept, so its end can be looked at";
  EXPECT_FALSE(tests::holds(buffer, length, "staple"));
  credential = Credential{std::string("yy")};
  EXPECT_FALSE(tests::holds(buffer, length, "staple"));
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(UnprotectedCredential, ALongerValueLeavesNothingOfTheOneBefore) {
  const LeakWatch watch("staple");
  const std::string longer(5000, 'z');
  Credential credential;
  credential = LongSecret;
  credential = longer.c_str();
  Credential second;
  second = LongSecret;
  second = credential;
  EXPECT_EQ(second.GetValue(), longer);
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(UnprotectedCredential, APartOfItselfLeavesNothingOfTheRest) {
  const LeakWatch watch("staple");
  {
    Credential credential;
    credential = LongSecret;
    credential = credential.c_str() + 30;
  }
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(UnprotectedCredential, ATemporaryOfAProviderLeavesNothing) {
  class Provider : public ProxyIfc {
   public:
    UnprotectedCredential getProxyUser() override { return UnprotectedCredential(); }
    UnprotectedCredential getProxyPswd() override {
      UnprotectedCredential password;
      password = LongSecret;
      return password;
    }
    std::string getProxyHost() override { return ""; }
    ProxyType getProxyType() override { return BasicProxy; }
  };
  const LeakWatch watch("staple");
  {
    Provider provider;
    Credential password;
    password = provider.getProxyPswd().c_str();
    EXPECT_EQ(password.GetValue(), LongSecret);
  }
  EXPECT_EQ(watch.Leaks(), 0);
}

TEST(ProxyIfc, TheNumbersOfTheProxyTypesAreFixed) {
  EXPECT_EQ(BasicProxy, 0);
  EXPECT_EQ(NTLMProxy, 1);
  EXPECT_EQ(KerberosProxy, 2);
  EXPECT_EQ(NoProxy, 3);
  EXPECT_EQ(ProxyTypeMax, 4);
}

TEST(ProxyIfc, AProviderIsDeletedThroughTheInterface) {
  class Provider : public ProxyIfc {
   public:
    explicit Provider(bool& deleted) : m_deleted(deleted) {}
    ~Provider() override { m_deleted = true; }
    UnprotectedCredential getProxyUser() override { return {}; }
    UnprotectedCredential getProxyPswd() override { return {}; }
    std::string getProxyHost() override { return ""; }
    ProxyType getProxyType() override { return NoProxy; }

   private:
    bool& m_deleted;
  };
  bool deleted = false;
  ProxyIfc* provider = new Provider(deleted);
  delete provider;
  EXPECT_TRUE(deleted);
}
