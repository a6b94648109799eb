// The holder of secrets, for both kinds of characters, and what is left of them in memory. Blocks
// are searched as they are given back, objects after their destruction; what the optimiser makes of
// wiping is part of what is tested.

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "tests/support/ReleasedMemory.h"
#include "vpn/include/StringUtils.h"

namespace tests {
namespace {

/// Longer than what a string keeps inside itself, and a part that is looked for.
constexpr std::string_view Long = "correct-horse-battery-staple-0123456789";
constexpr std::string_view Part = "staple";

template <class StrT>
class SecureStringTest : public testing::Test {
 protected:
  using Secret = SecureString<StrT>;
  using Char = typename StrT::value_type;

  static StrT text(std::string_view ascii) { return StrT(ascii.begin(), ascii.end()); }

  /// The bytes of a text's characters, as they are looked for in memory.
  static std::string_view bytes(const StrT& characters) {
    return {reinterpret_cast<const char*>(characters.data()), characters.size() * sizeof(Char)};
  }

  /// The text, not copied.
  static std::basic_string_view<Char> textOf(const Secret& secret) {
    return {secret.c_str(), secret.length()};
  }

  /// The longest text that a string keeps inside its object, all characters different.
  static StrT shortText() {
    return text(std::string_view("0123456789abcde").substr(0, StrT().capacity()));
  }

  static bool isZero(const Char* buffer, std::size_t count) {
    return std::all_of(buffer, buffer + count, [](Char c) { return c == 0; });
  }

  static bool isInside(const void* object, std::size_t size, const void* pointer) {
    const auto* const start = static_cast<const char*>(object);
    const auto* const at = static_cast<const char*>(pointer);
    return at >= start && at < start + size;
  }

  const StrT m_long = text(Long);
  const StrT m_part = text(Part);
};

using StringTypes = testing::Types<std::string, std::wstring>;

class StringTypeNames {
 public:
  template <class StrT>
  static std::string GetName(int /*index*/) {
    return std::is_same_v<StrT, std::string> ? "Narrow" : "Wide";
  }
};

TYPED_TEST_SUITE(SecureStringTest, StringTypes, StringTypeNames);

template <class Function>
std::string errorOf(const Function& function) {
  try {
    function();
  } catch (const std::logic_error& error) {
    return error.what();
  }
  return "no error";
}

constexpr const char* NullError = "basic_string::_S_construct null not valid";

// ---- Construction -------------------------------------------------------------------------------

TYPED_TEST(SecureStringTest, ADefaultOneIsEmpty) {
  const SecureString<TypeParam> secret;
  EXPECT_EQ(secret.length(), 0U);
  EXPECT_EQ(secret.c_str()[0], 0);
}

TYPED_TEST(SecureStringTest, FromAPointerItTakesTheCharactersUpToTheNul) {
  const TypeParam source = this->text(std::string_view("ab\0c", 4));
  const SecureString<TypeParam> secret(source.c_str());
  EXPECT_EQ(this->textOf(secret), this->text("ab"));
  EXPECT_EQ(secret.c_str()[2], 0);
}

TYPED_TEST(SecureStringTest, FromANullPointerItThrows) {
  const typename TypeParam::value_type* const null = nullptr;
  EXPECT_EQ(errorOf([&] { const SecureString<TypeParam> secret(null); }), NullError);
}

TYPED_TEST(SecureStringTest, FromAPointerAndALengthItTakesExactlySoManyCharactersNulsIncluded) {
  const TypeParam source = this->text(std::string_view("ab\0cd", 5));
  const SecureString<TypeParam> secret(source.c_str(), 4);
  EXPECT_EQ(this->textOf(secret), this->text(std::string_view("ab\0c", 4)));
}

TYPED_TEST(SecureStringTest, FromANullPointerAndNoLengthItIsEmpty) {
  const typename TypeParam::value_type* const null = nullptr;
  const SecureString<TypeParam> secret(null, 0);
  EXPECT_EQ(secret.length(), 0U);
}

TYPED_TEST(SecureStringTest, FromANullPointerAndALengthItThrows) {
  const typename TypeParam::value_type* const null = nullptr;
  EXPECT_EQ(errorOf([&] { const SecureString<TypeParam> secret(null, 1); }), NullError);
}

TYPED_TEST(SecureStringTest, FromAStringItTakesTheCharactersUpToTheFirstNul) {
  const SecureString<TypeParam> secret(this->text(std::string_view("ab\0c", 4)));
  EXPECT_EQ(this->textOf(secret), this->text("ab"));
}

TYPED_TEST(SecureStringTest, FromAStringItHasABufferOfItsOwn) {
  TypeParam source = this->m_long;
  const SecureString<TypeParam> secret(source);
  EXPECT_NE(secret.c_str(), source.c_str());
  SecureString<TypeParam>::Reset(source);
  EXPECT_EQ(this->textOf(secret), this->m_long);
}

TYPED_TEST(SecureStringTest, ACopyTakesTheCharactersUpToTheFirstNul) {
  const TypeParam source = this->text(std::string_view("ab\0c", 4));
  const SecureString<TypeParam> original(source.c_str(), source.length());
  const SecureString<TypeParam> copy(original);
  EXPECT_EQ(original.length(), 4U);
  EXPECT_EQ(this->textOf(copy), this->text("ab"));
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

TYPED_TEST(SecureStringTest, WhatIsMovedIsCopiedSoNothingIsLeftUnwipedInTheSource) {
  SecureString<TypeParam> source(this->m_long);
  const SecureString<TypeParam> moved(std::move(source));
  EXPECT_EQ(this->textOf(moved), this->m_long);
  // NOLINTNEXTLINE(bugprone-use-after-move): that it is unchanged is the point
  EXPECT_EQ(this->textOf(source), this->m_long);
}

// ---- Assignment ---------------------------------------------------------------------------------

TYPED_TEST(SecureStringTest, AssignmentTakesTheOthersCharactersUpToTheFirstNul) {
  const TypeParam source = this->text(std::string_view("ab\0c", 4));
  const SecureString<TypeParam> other(source.c_str(), source.length());
  SecureString<TypeParam> secret(this->m_long);
  EXPECT_EQ(&(secret = other), &secret);
  EXPECT_EQ(this->textOf(secret), this->text("ab"));
}

TYPED_TEST(SecureStringTest, AssignmentToItselfEmptiesIt) {
  SecureString<TypeParam> secret(this->m_long);
  const typename TypeParam::value_type* const buffer = secret.c_str();
  SecureString<TypeParam>& same = secret;
  secret = same;
  EXPECT_EQ(secret.length(), 0U);
  EXPECT_TRUE(this->isZero(buffer, this->m_long.length()));
}

TYPED_TEST(SecureStringTest, AssignmentOfAShorterTextLeavesNothingOfTheLongerOne) {
  SecureString<TypeParam> secret(this->m_long);
  const typename TypeParam::value_type* const buffer = secret.c_str();
  secret = SecureString<TypeParam>(this->text("x"));
  ASSERT_EQ(secret.c_str(), buffer) << "the buffer is kept, so its end can be looked at";
  EXPECT_TRUE(this->isZero(buffer + 1, this->m_long.length() - 1));
}

TYPED_TEST(SecureStringTest, AssignmentOfALongerTextLeavesNothingInTheBufferThatItOutgrows) {
  const SecureString<TypeParam> longer(TypeParam(5000, 'z'));
  SecureString<TypeParam> secret(this->m_long);
  const LeakWatch watch(this->bytes(this->m_part));
  secret = longer;
  EXPECT_GE(watch.Blocks(), 1);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, AssignmentThatFindsNoMemoryLeavesAnEmptyText) {
  const SecureString<TypeParam> longer(TypeParam(5000, 'z'));
  SecureString<TypeParam> secret(this->m_long);
  const LeakWatch watch(this->bytes(this->m_part));
  {
    const FailingAllocation failing(1);
    EXPECT_THROW(secret = longer, std::bad_alloc);
  }
  EXPECT_EQ(secret.length(), 0U);
  EXPECT_EQ(watch.Leaks(), 0);
}

// ---- Appending ----------------------------------------------------------------------------------

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

TYPED_TEST(SecureStringTest, AtTheCapacityTextMovesToALargerBufferWithHeadroom) {
  SecureString<TypeParam> secret(this->m_long);
  TypeParam& inner = secret;
  inner.reserve(100);
  const std::size_t capacity = inner.capacity();
  const TypeParam added(capacity - secret.length(), 'b');
  const TypeParam sum = this->m_long + added;
  const LeakWatch watch(this->bytes(this->m_part));
  secret += added;
  EXPECT_EQ(secret.length(), capacity);
  EXPECT_EQ(this->textOf(secret), sum);
  EXPECT_GE(inner.capacity(), capacity + 256);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, BeyondTheCapacityTheOldBufferIsWipedBeforeItIsGivenBack) {
  const TypeParam added(3000, 'b');
  const TypeParam sum = this->m_long + added;
  SecureString<TypeParam> secret(this->m_long);
  const LeakWatch watch(this->bytes(this->m_part));
  secret += added;
  EXPECT_EQ(this->textOf(secret), sum);
  EXPECT_GE(static_cast<TypeParam&>(secret).capacity(), secret.length() + 256);
  EXPECT_GE(watch.Blocks(), 2) << "the old buffer and the temporary one";
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, SmallAppendsAfterThatDoNotMoveItEachTime) {
  SecureString<TypeParam> secret(this->m_long);
  secret += TypeParam(100, 'b');
  const typename TypeParam::value_type* const buffer = secret.c_str();
  for (int i = 0; i < 255; ++i) {
    secret += this->text("c");
  }
  EXPECT_EQ(secret.c_str(), buffer);
  EXPECT_EQ(this->textOf(secret), this->m_long + TypeParam(100, 'b') + TypeParam(255, 'c'));
}

TYPED_TEST(SecureStringTest, WhatIsAppendedEndsAtItsFirstNul) {
  const TypeParam added = this->text(std::string_view("cd\0e", 4));
  SecureString<TypeParam> inPlace(this->text("ab"));
  static_cast<TypeParam&>(inPlace).reserve(100);
  inPlace += added;
  EXPECT_EQ(this->textOf(inPlace), this->text("abcd"));
  SecureString<TypeParam> moved(this->m_long);
  static_cast<TypeParam&>(moved).reserve(100);
  TypeParam much = added;
  much.resize(2000, 'x');
  moved += much;
  EXPECT_EQ(this->textOf(moved), this->m_long + this->text("cd"));
  EXPECT_GE(static_cast<TypeParam&>(moved).capacity(), this->m_long.length() + 2000)
      << "the room that is needed counts what stands behind the NUL";
}

TYPED_TEST(SecureStringTest, NulsInsideItStayWhetherOrNotItMoves) {
  const TypeParam source = this->text(std::string_view("ab\0c", 4));
  SecureString<TypeParam> secret(source.c_str(), source.length());
  const TypeParam added(3000, 'b');
  secret += added;
  EXPECT_EQ(this->textOf(secret), source + added);
}

TYPED_TEST(SecureStringTest, AppendingNothingChangesNothing) {
  SecureString<TypeParam> secret(this->m_long);
  secret += TypeParam();
  EXPECT_EQ(this->textOf(secret), this->m_long);
  SecureString<TypeParam> empty;
  empty += TypeParam();
  EXPECT_EQ(empty.length(), 0U);
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

// ---- Access -------------------------------------------------------------------------------------

TYPED_TEST(SecureStringTest, TheTextItselfCanBeReadAndWritten) {
  SecureString<TypeParam> secret(this->text("abc"));
  TypeParam& inner = secret;
  EXPECT_EQ(inner.data(), secret.c_str());
  inner[0] = 'x';
  EXPECT_EQ(this->textOf(secret), this->text("xbc"));
}

// ---- Wiping -------------------------------------------------------------------------------------

TYPED_TEST(SecureStringTest, ResetZeroesTheBufferInPlaceAndKeepsIt) {
  TypeParam secret = this->m_long;
  const typename TypeParam::value_type* const buffer = secret.data();
  const std::size_t capacity = secret.capacity();
  SecureString<TypeParam>::Reset(secret);
  EXPECT_TRUE(secret.empty());
  EXPECT_EQ(secret.data(), buffer);
  EXPECT_EQ(secret.capacity(), capacity);
  EXPECT_TRUE(this->isZero(buffer, capacity));
}

TYPED_TEST(SecureStringTest, ResetZeroesWhatALongerTextLeftBehindTheEnd) {
  TypeParam secret = this->m_long;
  const typename TypeParam::value_type* const buffer = secret.data();
  for (const std::size_t length : {std::size_t{3}, std::size_t{0}}) {
    secret.assign(this->m_long);
    secret.resize(length);
    ASSERT_EQ(secret.data(), buffer);
    SecureString<TypeParam>::Reset(secret);
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

TYPED_TEST(SecureStringTest, ResetReachesAShortTextInsideTheObject) {
  InPlace<TypeParam> secret(this->shortText());
  ASSERT_TRUE(this->isInside(&*secret, sizeof *secret, secret->data()));
  const TypeParam part = this->shortText().substr(1);
  EXPECT_TRUE(secret.holds(this->bytes(part)));
  SecureString<TypeParam>::Reset(*secret);
  EXPECT_FALSE(secret.holds(this->bytes(part).substr(0, 4)));
  EXPECT_FALSE(secret.holds(this->bytes(part).substr(part.size() * sizeof(part[0]) - 4)));
}

TYPED_TEST(SecureStringTest, ResetReachesWhatAShortTextLeftInsideTheObjectWhenItOutgrewIt) {
  InPlace<TypeParam> secret(this->shortText());
  *secret += TypeParam(100, 'x');
  const TypeParam last = this->shortText().substr(this->shortText().length() - 1);
  const std::string_view tail =
      sizeof(last[0]) == 1 ? std::string_view("89abcde") : this->bytes(last);
  ASSERT_TRUE(secret.holds(tail)) << "else there is nothing to be tested";
  const typename TypeParam::value_type* const buffer = secret->data();
  SecureString<TypeParam>::Reset(*secret);
  EXPECT_FALSE(secret.holds(tail));
  EXPECT_EQ(secret->data(), buffer);
}

TYPED_TEST(SecureStringTest, TheSearchOfReleasedMemoryFindsWhatIsNotWiped) {
  const LeakWatch watch(this->bytes(this->m_part));
  {
    const TypeParam plain = this->m_long;
    use(plain.data());
  }
  EXPECT_EQ(watch.Leaks(), 1);
  InPlace<TypeParam> object(this->shortText());
  object.destroy();
  EXPECT_TRUE(object.holds(this->bytes(this->shortText())));
}

TYPED_TEST(SecureStringTest, DestructionLeavesNothingOfALongText) {
  const LeakWatch watch(this->bytes(this->m_part));
  { const SecureString<TypeParam> secret(this->m_long); }
  EXPECT_EQ(watch.Blocks(), 1);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, DestructionLeavesNothingOfAShortTextInsideTheObject) {
  InPlace<SecureString<TypeParam>> secret(this->shortText());
  EXPECT_TRUE(secret.holds(this->bytes(this->shortText())));
  secret.destroy();
  for (std::size_t i = 0; i + 1 < this->shortText().length(); ++i) {
    EXPECT_FALSE(secret.holds(this->bytes(this->shortText().substr(i, 2)))) << i;
  }
}

TYPED_TEST(SecureStringTest, DestructionLeavesNothingOfAShortTextThatGrewLong) {
  InPlace<SecureString<TypeParam>> secret(this->shortText());
  *secret += TypeParam(100, 'x');
  secret.destroy();
  for (std::size_t i = 0; i + 1 < this->shortText().length(); ++i) {
    EXPECT_FALSE(secret.holds(this->bytes(this->shortText().substr(i, 2)))) << i;
  }
}

TYPED_TEST(SecureStringTest, CopiesByValueLeaveNothing) {
  const SecureString<TypeParam> secret(this->m_long);
  const LeakWatch watch(this->bytes(this->m_part));
  const auto length = [](SecureString<TypeParam> copy) { return copy.length(); };
  EXPECT_EQ(length(secret), this->m_long.length());
  EXPECT_EQ(watch.Blocks(), 1);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, SwappedTextsLeaveNothingWhereTheyWere) {
  const LeakWatch watch(this->bytes(this->m_part));
  {
    SecureString<TypeParam> first(this->m_long);
    SecureString<TypeParam> second(this->text("x"));
    std::swap(first, second);  // by a third
    EXPECT_EQ(this->textOf(first), this->text("x"));
    EXPECT_TRUE(this->textOf(second) == this->m_long);
  }
  EXPECT_GE(watch.Blocks(), 2);
  EXPECT_EQ(watch.Leaks(), 0);
}

TYPED_TEST(SecureStringTest, DestructionThrowsNothing) {
  EXPECT_TRUE(std::is_nothrow_destructible_v<SecureString<TypeParam>>);
  EXPECT_TRUE(noexcept(SecureString<TypeParam>::Reset(std::declval<TypeParam&>())));
}

// ---- Taking a text away from its source ---------------------------------------------------------

TYPED_TEST(SecureStringTest, GetAndClearTakesTheTextAndZeroesItsSource) {
  TypeParam source = this->text(std::string_view("abc123\0z", 8));
  const SecureString<TypeParam> secret = SecureString<TypeParam>::GetAndClear(source.c_str());
  EXPECT_EQ(this->textOf(secret), this->text("abc123"));
  EXPECT_EQ(source, this->text(std::string_view("\0\0\0\0\0\0\0z", 8))) << "up to the NUL only";
}

TYPED_TEST(SecureStringTest, GetAndClearOfAnEmptyTextIsEmpty) {
  const TypeParam source;
  EXPECT_EQ(SecureString<TypeParam>::GetAndClear(source.c_str()).length(), 0U);
}

TYPED_TEST(SecureStringTest, GetAndClearOfANullPointerThrows) {
  const typename TypeParam::value_type* const null = nullptr;
  EXPECT_EQ(errorOf([&] { SecureString<TypeParam>::GetAndClear(null); }), NullError);
}

TYPED_TEST(SecureStringTest, GetAndClearLeavesNothingInASourceThatIsGivenBackAtOnce) {
  const LeakWatch watch(this->bytes(this->m_part));
  {
    const TypeParam source = this->m_long;
    const SecureString<TypeParam> secret = SecureString<TypeParam>::GetAndClear(source.c_str());
  }
  EXPECT_EQ(watch.Blocks(), 2);
  EXPECT_EQ(watch.Leaks(), 0);
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
