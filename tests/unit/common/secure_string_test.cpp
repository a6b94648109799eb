// The holder of secrets, for both kinds of characters, and what it leaves in memory. Searches
// blocks when they are freed and objects after their destruction; the build is optimised, to test
// what the optimiser leaves of wiping.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tests/support/ReleasedMemory.h"
#include "vpn/include/StringUtils.h"

namespace tests {
namespace {

/// Too long for a string's own object, and a part to search for.
constexpr std::string_view Long = "correct-horse-battery-staple-0123456789";
constexpr std::string_view Part = "staple";

template <class StrT>
class SecureStringTest : public testing::Test {
 protected:
  using Secret = SecureString<StrT>;
  using Char = typename StrT::value_type;

  static StrT text(std::string_view ascii) { return StrT(ascii.begin(), ascii.end()); }

  /// A text with a NUL inside.
  static StrT broken() { return text(std::string_view("ab\0c", 4)); }

  /// The bytes of a text, for the search in memory.
  static std::string_view bytes(const StrT& characters) {
    return {reinterpret_cast<const char*>(characters.data()), characters.size() * sizeof(Char)};
  }

  /// A view of the text, without a copy.
  static std::basic_string_view<Char> textOf(const Secret& secret) {
    return {secret.c_str(), secret.length()};
  }

  /// The longest text that fits into a string's object; all characters differ.
  static StrT shortText() {
    return text(std::string_view("0123456789abcde").substr(0, StrT().capacity()));
  }

  static bool isZero(const Char* buffer, std::size_t count) {
    return std::all_of(buffer, buffer + count, [](Char c) { return c == 0; });
  }

  const StrT m_long = text(Long);
  const StrT m_part = text(Part);
};

using StringTypes = testing::Types<std::string, std::wstring>;

TYPED_TEST_SUITE(SecureStringTest, StringTypes);

template <class Function>
void expectNullError(const Function& function) {
  EXPECT_THAT(function, testing::ThrowsMessage<std::logic_error>(
                            "basic_string::_S_construct null not valid"));
}

TYPED_TEST(SecureStringTest, FromAPointerOrAStringItTakesACopyUpToTheFirstNulAndWithALengthAll) {
  const TypeParam source = this->broken();
  const SecureString<TypeParam> fromPointer(source.c_str());
  const SecureString<TypeParam> fromString(source);
  const SecureString<TypeParam> whole(source.c_str(), source.length());
  const SecureString<TypeParam> copy(whole);
  for (const auto* const cut : {&fromPointer, &fromString, &copy}) {
    EXPECT_EQ(this->textOf(*cut), this->text("ab"));
    EXPECT_EQ(cut->c_str()[2], 0);
    EXPECT_NE(cut->c_str(), source.c_str());
  }
  EXPECT_EQ(this->textOf(whole), source);
  EXPECT_EQ(SecureString<TypeParam>().length(), 0U);
}

TYPED_TEST(SecureStringTest, FromANullPointerItThrowsUnlessTheLengthIsZero) {
  const typename TypeParam::value_type* const null = nullptr;
  expectNullError([&] { const SecureString<TypeParam> secret(null); });
  expectNullError([&] { const SecureString<TypeParam> secret(null, 1); });
  expectNullError([&] { SecureString<TypeParam>::GetAndClear(null); });
  const SecureString<TypeParam> secret(null, 0);
  EXPECT_EQ(secret.length(), 0U);
}

TYPED_TEST(SecureStringTest, ACopyOwnsItsBufferSoDestroyingOneLeavesTheOtherIntact) {
  for (const TypeParam& source : {this->text("abc"), this->m_long}) {
    InPlace<SecureString<TypeParam>> original(source);
    const SecureString<TypeParam> copy(*original);
    EXPECT_NE(copy.c_str(), original->c_str());
    original.destroy();
    EXPECT_EQ(this->textOf(copy), source);
  }
}

TYPED_TEST(SecureStringTest, AssignmentTakesTheOthersCharactersUpToTheFirstNulAndLeavesNoOthers) {
  const TypeParam source = this->broken();
  const SecureString<TypeParam> other(source.c_str(), source.length());
  SecureString<TypeParam> secret(this->m_long);
  const typename TypeParam::value_type* const buffer = secret.c_str();
  EXPECT_EQ(&(secret = other), &secret);
  EXPECT_EQ(this->textOf(secret), this->text("ab"));
  ASSERT_EQ(secret.c_str(), buffer) << "the buffer is kept, so its end can be looked at";
  EXPECT_TRUE(this->isZero(buffer + 2, this->m_long.length() - 2));
}

TYPED_TEST(SecureStringTest, AssignmentToItselfEmptiesIt) {
  SecureString<TypeParam> secret(this->m_long);
  const typename TypeParam::value_type* const buffer = secret.c_str();
  SecureString<TypeParam>& same = secret;
  secret = same;
  EXPECT_EQ(secret.length(), 0U);
  EXPECT_TRUE(this->isZero(buffer, this->m_long.length()));
}

TYPED_TEST(SecureStringTest, AssignmentOfALongerTextLeavesNothingAndWithoutMemoryAnEmptyText) {
  const SecureString<TypeParam> longer(TypeParam(5000, 'z'));
  for (const bool fails : {false, true}) {
    SecureString<TypeParam> secret(this->m_long);
    const LeakWatch watch(this->bytes(this->m_part));
    if (fails) {
      const FailingAllocation failing(1);
      EXPECT_THROW(secret = longer, std::bad_alloc);
    } else {
      secret = longer;
      EXPECT_GE(watch.Blocks(), 1);
    }
    EXPECT_EQ(secret.length(), fails ? 0U : 5000U);
    EXPECT_EQ(watch.Leaks(), 0);
  }
}

TYPED_TEST(SecureStringTest, BelowTheCapacityTextIsAppendedInPlace) {
  SecureString<TypeParam> secret(this->text("a"));
  TypeParam& inner = secret;
  inner.reserve(100);
  const typename TypeParam::value_type* const buffer = secret.c_str();
  const std::size_t capacity = inner.capacity();
  const TypeParam added(capacity - 2, 'b');
  EXPECT_EQ(&(secret += added), &secret);
  EXPECT_EQ(secret.length(), capacity - 1);
  EXPECT_EQ(this->textOf(secret), this->text("a") + added);
  EXPECT_EQ(secret.c_str(), buffer);
  EXPECT_EQ(inner.capacity(), capacity);
}

TYPED_TEST(SecureStringTest, AtTheCapacityAndBeyondTextMovesToALargerBufferAndTheOldOneIsWiped) {
  for (const std::size_t beyond : {0U, 3000U}) {
    SecureString<TypeParam> secret(this->m_long);
    TypeParam& inner = secret;
    inner.reserve(100);
    const TypeParam added(inner.capacity() - secret.length() + beyond, 'b');
    TypeParam sum = this->m_long + added;
    const LeakWatch watch(this->bytes(this->m_part));
    secret += added;
    EXPECT_EQ(this->textOf(secret), sum);
    EXPECT_GE(inner.capacity(), sum.length() + 256);
    EXPECT_GE(watch.Blocks(), 2) << "the old buffer and the temporary one";
    EXPECT_EQ(watch.Leaks(), 0);
    const typename TypeParam::value_type* const buffer = secret.c_str();
    for (int i = 0; i < 255; ++i) {
      secret += this->text("c");
    }
    EXPECT_EQ(secret.c_str(), buffer) << "small appends do not move it each time";
    sum.append(255, 'c');
    EXPECT_EQ(this->textOf(secret), sum);
  }
}

TYPED_TEST(SecureStringTest, WhatIsAppendedEndsAtItsFirstNulAndWhatWasThereStaysWhole) {
  const TypeParam before = this->broken();
  for (const std::size_t length : {4U, 2000U}) {  // in place, and to a larger buffer
    SecureString<TypeParam> secret(before.c_str(), before.length());
    TypeParam& inner = secret;
    inner.reserve(100);
    TypeParam added = this->broken();
    added.resize(length, 'x');
    secret += added;
    EXPECT_EQ(this->textOf(secret), before + this->text("ab"));
    EXPECT_GE(inner.capacity(), before.length() + length)
        << "the room that is needed counts what stands behind the NUL";
    secret += TypeParam();
    EXPECT_EQ(this->textOf(secret), before + this->text("ab")) << "nothing changes nothing";
  }
}

TYPED_TEST(SecureStringTest, ItCanBeAppendedToItself) {
  SecureString<TypeParam> secret(this->m_long);
  const LeakWatch watch(this->bytes(this->m_part));
  TypeParam& inner = secret;
  std::size_t length = this->m_long.length();
  for (int i = 0; i < 5; ++i) {  // in place and beyond the headroom
    secret += inner;
    length *= 2;
    EXPECT_EQ(secret.length(), length);
  }
  EXPECT_EQ(inner.compare(length - this->m_long.length(), TypeParam::npos, this->m_long), 0);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, AppendingThatFindsNoMemoryLeavesNothingBehind) {
  const TypeParam added(3000, 'b');
  for (const long number : {1L, 2L}) {  // the temporary copy, the new buffer
    SecureString<TypeParam> secret(this->m_long);
    const LeakWatch watch(this->bytes(this->m_part));
    {
      const FailingAllocation failing(number);
      EXPECT_THROW(secret += added, std::bad_alloc);
      EXPECT_TRUE(failing.HasFailed());
    }
    EXPECT_EQ(watch.Leaks(), 0);
    EXPECT_EQ(secret.length(), number == 1 ? this->m_long.length() : 0U);
  }
}

TYPED_TEST(SecureStringTest, ResetZeroesTheBufferInPlaceWithWhatALongerTextLeftAndKeepsIt) {
  for (const std::size_t length : {this->m_long.length(), std::size_t{3}, std::size_t{0}}) {
    TypeParam secret = this->m_long;
    secret.resize(length);
    const typename TypeParam::value_type* const buffer = secret.data();
    const std::size_t capacity = secret.capacity();
    SecureString<TypeParam>::Reset(secret);
    EXPECT_TRUE(secret.empty());
    EXPECT_EQ(secret.data(), buffer);
    EXPECT_EQ(secret.capacity(), capacity);
    EXPECT_TRUE(this->isZero(buffer, this->m_long.length())) << length;
  }
}

TYPED_TEST(SecureStringTest, ResetOfAnEmptyStringLeavesItEmptyAndAllocatesNothing) {
  TypeParam empty;
  const FailingAllocation failing(1);
  SecureString<TypeParam>::Reset(empty);
  EXPECT_TRUE(empty.empty());
  EXPECT_FALSE(failing.HasFailed());
}

TYPED_TEST(SecureStringTest, ResetLeavesAStringThatWasCopiedFromItIntact) {
  TypeParam secret = this->text("abc");
  const TypeParam other = secret;
  SecureString<TypeParam>::Reset(secret);
  EXPECT_EQ(other, this->text("abc"));
  EXPECT_TRUE(secret.empty());
}

TYPED_TEST(SecureStringTest, ResetReachesAShortTextInsideTheObjectAlsoWhenItOutgrewIt) {
  const TypeParam last = this->shortText().substr(this->shortText().length() - 1);
  const std::string_view tail =
      sizeof(last[0]) == 1 ? std::string_view("89abcde") : this->bytes(last);
  for (const std::size_t grown : {0U, 100U}) {
    InPlace<TypeParam> secret(this->shortText());
    *secret += TypeParam(grown, 'x');
    ASSERT_TRUE(secret.holds(tail)) << "else there is nothing to be tested";
    const typename TypeParam::value_type* const buffer = secret->data();
    SecureString<TypeParam>::Reset(*secret);
    EXPECT_FALSE(secret.holds(tail));
    EXPECT_EQ(secret->data(), buffer);
  }
}

TYPED_TEST(SecureStringTest, DestructionLeavesNothingOfALongTextOrItsCopiesOrOfSwappedTexts) {
  const LeakWatch watch(this->bytes(this->m_part));
  {
    SecureString<TypeParam> secret(this->m_long);
    const auto length = [](SecureString<TypeParam> copy) { return copy.length(); };
    EXPECT_EQ(length(secret), this->m_long.length());
    SecureString<TypeParam> other(this->text("x"));
    std::swap(secret, other);  // through a temporary object
    EXPECT_EQ(this->textOf(secret), this->text("x"));
    EXPECT_TRUE(this->textOf(other) == this->m_long);
  }
  EXPECT_GE(watch.Blocks(), 4);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, DestructionLeavesNothingOfAShortTextInsideTheObjectEvenIfItGrew) {
  for (const std::size_t grown : {0U, 100U}) {
    InPlace<SecureString<TypeParam>> secret(this->shortText());
    EXPECT_TRUE(secret.holds(this->bytes(this->shortText())));
    *secret += TypeParam(grown, 'x');
    secret.destroy();
    for (std::size_t i = 0; i + 1 < this->shortText().length(); ++i) {
      EXPECT_FALSE(secret.holds(this->bytes(this->shortText().substr(i, 2)))) << i;
    }
  }
}

TYPED_TEST(SecureStringTest, GetAndClearTakesTheTextAndZeroesItsSource) {
  TypeParam source = this->text(std::string_view("abc123\0z", 8));
  const SecureString<TypeParam> secret = SecureString<TypeParam>::GetAndClear(source.c_str());
  EXPECT_EQ(this->textOf(secret), this->text("abc123"));
  EXPECT_EQ(source, this->text(std::string_view("\0\0\0\0\0\0\0z", 8))) << "up to the NUL only";
  EXPECT_EQ(SecureString<TypeParam>::GetAndClear(source.c_str()).length(), 0U);
}

TYPED_TEST(SecureStringTest, GetAndClearThatFindsNoMemoryLeavesTheSourceAsItWas) {
  const TypeParam source = this->m_long;
  {
    const FailingAllocation failing(1);
    EXPECT_THROW(SecureString<TypeParam>::GetAndClear(source.c_str()), std::bad_alloc);
  }
  EXPECT_EQ(source, this->m_long);
}

}  // namespace
}  // namespace tests
