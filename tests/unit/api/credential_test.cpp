// A proxy credential in clear text, and what it leaves in memory. Every block is searched for the
// secret before this program frees it.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "tests/support/ReleasedMemory.h"
#include "vpn/Api/ProxyIfc.h"

using Credential = ProxyIfc::UnprotectedCredential;
using InPlace = tests::InPlace<Credential>;
using tests::FailingAllocation;
using tests::LeakWatch;

static_assert(std::has_virtual_destructor_v<ProxyIfc>, "a provider is deleted through it");

namespace {

// Longer than the buffer inside a std::string object, and shorter.
const char* const LongSecret = "correct-horse-battery-staple-0123456789";
const char* const ShortSecret = "hunter2!";
const std::string Longer(5000, 'z');

}  // namespace

TEST(UnprotectedCredential, ItHoldsTheTextItIsGiven) {
  Credential credential;
  EXPECT_TRUE(credential.empty());
  EXPECT_STREQ(credential.c_str(), "");
  credential = Credential{std::string("abc\0def", 7)};
  EXPECT_EQ(credential.GetValue(), std::string("abc\0def", 7));
  EXPECT_EQ(credential.GetLength(), 7U);
  EXPECT_EQ(credential.length(), 7U);
  EXPECT_STREQ(credential.c_str(), "abc");
  credential = "abc\0def";
  EXPECT_EQ(credential.GetValue(), "abc");
  credential += static_cast<const char*>(nullptr);
  (credential += Credential{std::string("@realm")}) += "!";
  EXPECT_EQ(credential.GetValue(), "abc@realm!");
  credential = static_cast<const char*>(nullptr);
  EXPECT_TRUE(credential.empty());
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

TEST(UnprotectedCredential, ItCanBeAssignedAndAppendedToItselfInWholeAndInPart) {
  Credential credential{std::string(LongSecret)};
  const Credential& same = credential;
  credential = same;
  credential = credential.c_str();
  EXPECT_EQ(credential.GetValue(), LongSecret);
  credential += credential;
  credential += credential.c_str();
  EXPECT_EQ(credential.GetLength(), 4 * std::strlen(LongSecret));
  credential = credential.c_str() + credential.length() - 8;
  EXPECT_STREQ(credential.c_str(), LongSecret + std::strlen(LongSecret) - 8);
  credential = credential.c_str() + credential.length();
  EXPECT_TRUE(credential.empty());
}

TEST(UnprotectedCredential, NothingIsLeftOfALongSecret) {
  class Provider : public ProxyIfc {
   public:
    UnprotectedCredential getProxyUser() override { return {}; }
    UnprotectedCredential getProxyPswd() override { return Credential() = LongSecret; }
    std::string getProxyHost() override { return ""; }
    ProxyType getProxyType() override { return BasicProxy; }
  };
  struct Case {
    const char* after;
    std::function<void(Credential&)> change;
  };
  const Case cases[] = {
      {"its destruction", [](Credential&) {}},
      {"its growth", [](Credential& credential) { credential += Longer.c_str(); }},
      {"a longer text", [](Credential& credential) { credential = Longer.c_str(); }},
      {"a longer credential", [](Credential& credential) { credential = Credential{Longer}; }},
      {"a part of itself", [](Credential& credential) { credential = credential.c_str() + 30; }},
      {"a move", [](Credential& credential) { const Credential moved(std::move(credential)); }},
      {"a move to another", [](Credential& from) { Credential().operator=(std::move(from)); }},
      {"a provider's", [](Credential& to) { to = Provider().getProxyPswd().c_str(); }},
      {"an assignment without memory",
       [](Credential& credential) {
         const Credential other{Longer};
         const FailingAllocation failing(1);
         EXPECT_THROW(credential = other, std::bad_alloc);
         EXPECT_TRUE(credential.empty());
       }},
      {"a growth without memory",
       [](Credential& credential) {
         const FailingAllocation failing(1);
         EXPECT_THROW(credential += Longer.c_str(), std::bad_alloc);
         EXPECT_STREQ(credential.c_str(), LongSecret);
       }},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.after);
    const LeakWatch watch("staple");
    {
      InPlace credential;
      *credential = LongSecret;
      one.change(*credential);
      credential.destroy();
      EXPECT_FALSE(credential.holds("staple"));
    }
    EXPECT_EQ(watch.Leaks(), 0);
  }
}

TEST(UnprotectedCredential, NothingIsLeftOfAShortSecretInsideTheObject) {
  InPlace credential;
  *credential = ShortSecret;
  EXPECT_TRUE(credential.holds("unter2"));
  *credential += "a text that does not fit inside the object any more";
  EXPECT_FALSE(credential.holds("unter2")) << "after its growth out of the object";
  credential.destroy();
  EXPECT_FALSE(credential.holds("unter2"));

  InPlace destroyed;
  *destroyed = ShortSecret;
  destroyed.destroy();
  EXPECT_FALSE(destroyed.holds("unter2"));

  // Longer than what remains in the object's own buffer after growth.
  InPlace grown;
  *grown = "0123456789-hunt";
  EXPECT_TRUE(grown.holds("89-hunt"));
  *grown += "a text that does not fit inside the object any more";
  grown.destroy();
  EXPECT_FALSE(grown.holds("89-hunt"));

  InPlace source;
  *source = ShortSecret;
  Credential assigned;
  assigned = std::move(*source);
  EXPECT_STREQ(assigned.c_str(), ShortSecret);
  source.destroy();
  EXPECT_FALSE(source.holds("unter2"));
}

TEST(UnprotectedCredential, AShorterValueLeavesNothingOfALongerOne) {
  Credential credential{std::string(LongSecret)};
  const char* const buffer = credential.c_str();
  credential = "x";
  ASSERT_EQ(credential.c_str(), buffer) << "the buffer is kept, so its end can be looked at";
  EXPECT_FALSE(tests::holds(buffer, std::strlen(LongSecret), "staple"));
}

TEST(ProxyIfc, TheNumbersOfTheProxyTypesAreFixed) {
  EXPECT_EQ(BasicProxy, 0);
  EXPECT_EQ(NTLMProxy, 1);
  EXPECT_EQ(KerberosProxy, 2);
  EXPECT_EQ(NoProxy, 3);
  EXPECT_EQ(ProxyTypeMax, 4);
}
