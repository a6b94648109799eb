// A proxy credential in clear, and what is left of it in memory. Every block that this program
// releases is searched for the secret before it goes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "vpn/Api/ProxyIfc.h"

using Credential = ProxyIfc::UnprotectedCredential;

namespace {

// Longer than the buffer inside a std::string object, and shorter.
const char* const LongSecret = "correct-horse-battery-staple-0123456789";
const char* const ShortSecret = "hunter2!";

// What is looked for; null: nothing. A part of it counts.
std::atomic<const char*> g_lookedFor{nullptr};
std::atomic<int> g_leaks{0};

bool contains(const void* memory, std::size_t size, const char* text) {
  return memmem(memory, size, text, std::strlen(text)) != nullptr;
}

void release(void* memory) noexcept {
  const char* const lookedFor = g_lookedFor.load();
  if (memory != nullptr && lookedFor != nullptr &&
      contains(memory, malloc_usable_size(memory), lookedFor)) {
    ++g_leaks;
  }
  std::free(memory);
}

/// Counts released blocks that hold the text.
class LeakWatch {
 public:
  explicit LeakWatch(const char* text) {
    g_leaks = 0;
    g_lookedFor = text;
  }
  ~LeakWatch() { g_lookedFor = nullptr; }
  LeakWatch(const LeakWatch&) = delete;
  LeakWatch& operator=(const LeakWatch&) = delete;

  int Leaks() const { return g_leaks; }
};

/// A credential in storage that outlives it, so that its own bytes can be looked at afterwards.
class InPlace {
 public:
  template <class... Args>
  explicit InPlace(Args&&... args) {
    m_object = new (m_storage) Credential(std::forward<Args>(args)...);
  }
  Credential& operator*() { return *m_object; }
  void destroy() { m_object->~Credential(); }
  bool holds(const char* text) const { return contains(m_storage, sizeof m_storage, text); }

 private:
  alignas(Credential) unsigned char m_storage[sizeof(Credential)] = {};
  Credential* m_object;
};

}  // namespace

// Not inlined: the compiler would see malloc and free meet operator delete and new, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { release(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { release(memory); }

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
  { const std::string plain(LongSecret); }
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

TEST(UnprotectedCredential, AShorterValueLeavesNothingOfALongerOne) {
  const LeakWatch watch("staple");
  Credential credential;
  credential = LongSecret;
  const char* const buffer = credential.c_str();
  const std::size_t length = std::strlen(LongSecret);
  credential = "x";
  ASSERT_EQ(credential.c_str(), buffer) << "the buffer is kept, so its end can be looked at";
  EXPECT_FALSE(contains(buffer, length, "staple"));
  credential = Credential{std::string("yy")};
  EXPECT_FALSE(contains(buffer, length, "staple"));
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
