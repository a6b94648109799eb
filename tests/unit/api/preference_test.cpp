// The table of preferences and what one file's preferences and host entries are made of.

#include "vpn/Api/Preference.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "vpn/Api/HostInitSettings.h"
#include "vpn/Api/HostProfile.h"

using testing::HasSubstr;

namespace {

const PreferenceBase::Definition& definitionOf(PreferenceId id) {
  return *PreferenceBase::find(id);
}

std::string errorOf(PreferenceId id, const std::string& value) {
  return PreferenceBase::findError(definitionOf(id), value);
}

}  // namespace

TEST(PreferenceBase, TheNumbersThatOtherPartsOfTheClientUseAreFixed) {
  EXPECT_EQ(ProxySettings, 20);
  EXPECT_EQ(EnableAutomaticServerSelection, 50);
  EXPECT_EQ(UserControllable, 1);
  EXPECT_EQ(User, 0);
  EXPECT_EQ(Global, 1);
  EXPECT_EQ(PreferenceBase::PreferenceEnabled, "true");
  EXPECT_EQ(PreferenceBase::PreferenceDisabled, "false");
  EXPECT_EQ(PreferenceBase::ProxyOverride, "override");
  EXPECT_EQ(PreferenceBase::ProxySystem, "system");
  EXPECT_EQ(PreferenceBase::ProxyNone, "none");
  EXPECT_EQ(PreferenceBase::RoundTripNetwork, "network");
  EXPECT_EQ(PreferenceBase::RoundTripResponse, "response");
}

TEST(PreferenceBase, APreferenceIsFoundByExactNameAndByNumber) {
  std::size_t count = 0;
  const PreferenceBase::Definition* all = PreferenceBase::definitions(count);
  ASSERT_EQ(count, 14U);
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_EQ(PreferenceBase::find(all[i].id), &all[i]);
    EXPECT_EQ(PreferenceBase::find(std::string(all[i].name)), &all[i]);
  }
  EXPECT_EQ(PreferenceBase::find("proxysettings"), nullptr);
  EXPECT_EQ(PreferenceBase::find(UnknownPreference), nullptr);
}

TEST(PreferenceBase, DefaultsAreAllowedAndWithinTheirRange) {
  std::size_t count = 0;
  const PreferenceBase::Definition* all = PreferenceBase::definitions(count);
  for (std::size_t i = 0; i < count; ++i) {
    EXPECT_EQ(PreferenceBase::findError(all[i], all[i].defaultValue), "") << all[i].name;
    unsigned int number = 0;
    if (all[i].unit != nullptr && *all[i].defaultValue != '\0') {
      EXPECT_TRUE(PreferenceBase::parseNumber(all[i], all[i].defaultValue, number)) << all[i].name;
    }
  }
}

TEST(PreferenceBase, TheEndsOfARangeAreAllowedAndWhatIsBeyondThemIsNot) {
  std::size_t count = 0;
  const PreferenceBase::Definition* all = PreferenceBase::definitions(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (all[i].unit != nullptr) {
      EXPECT_EQ(errorOf(all[i].id, std::to_string(all[i].least)), "") << all[i].name;
      EXPECT_EQ(errorOf(all[i].id, std::to_string(all[i].most)), "") << all[i].name;
      EXPECT_NE(errorOf(all[i].id, std::to_string(all[i].least - 1)), "") << all[i].name;
      EXPECT_NE(errorOf(all[i].id, std::to_string(all[i].most + 1)), "") << all[i].name;
    }
  }
}

TEST(PreferenceBase, OnlyADecimalNumberIsANumber) {
  for (const char* wrong :
       {"", " 5", "5 ", "+5", "-5", "5.0", "0x5", "five", "4294967301", "99999999999999999999"}) {
    unsigned int number = 77;
    EXPECT_FALSE(PreferenceBase::parseNumber(definitionOf(SelectionPingsPerHeadend), wrong, number))
        << wrong;
    EXPECT_EQ(number, 77U) << wrong;
  }
}

TEST(PreferenceBase, AWordIsComparedByteForByte) {
  EXPECT_EQ(errorOf(ProxySettings, "override"), "");
  EXPECT_EQ(errorOf(ProxySettings, "none"), "");
  EXPECT_THAT(errorOf(ProxySettings, "Override"), HasSubstr("\"override\""));
  EXPECT_NE(errorOf(EnableAutomaticServerSelection, "true "), "");
  EXPECT_NE(errorOf(RoundTripTime, ""), "");
}

TEST(PreferenceBase, AProxyHostIsAHostAlone) {
  for (const char* right : {"", "proxy1", "proxy.example.com", "192.0.2.1", "[2001:db8::1]"}) {
    EXPECT_EQ(errorOf(ProxyHost, right), "") << right;
  }
  for (const char* wrong : {"proxy:3128", "http://proxy", "proxy/", "user@proxy", " proxy", "a b",
                            "a\nb", "2001:db8::1"}) {
    EXPECT_NE(errorOf(ProxyHost, wrong), "") << wrong;
  }
}

TEST(PreferenceInfo, APreferenceIsFoundAndReplaced) {
  PreferenceInfo preferences;
  Preference* found = nullptr;
  EXPECT_FALSE(preferences.getPreference(ProxyHost, found));
  EXPECT_EQ(found, nullptr);
  preferences.set(Preference(ProxyHost, "one", false));
  preferences.set(Preference(ProxyHost, "two", true));
  ASSERT_TRUE(preferences.getPreference(ProxyHost, found));
  EXPECT_EQ(found->getPreferenceId(), ProxyHost);
  EXPECT_EQ(found->getPreferenceValue(), "two");
  EXPECT_TRUE(found->isUserControllable());
}

TEST(PreferenceInfo, APreferenceThatIsNotSetLeavesThePointerAlone) {
  const PreferenceInfo preferences;
  Preference other(ProxyHost, "", false);
  Preference* found = &other;
  EXPECT_FALSE(preferences.getPreference(ProxyPort, found));
  EXPECT_EQ(found, &other);
}

TEST(HostInitSettings, AnAttributeIsEnabledWhenTheProfileSetsThePreferenceWithIt) {
  PreferenceInfo preferences;
  EXPECT_FALSE(
      HostInitSettings(preferences).isEnabled(EnableAutomaticServerSelection, UserControllable));
  preferences.set(Preference(EnableAutomaticServerSelection, "true", false));
  EXPECT_FALSE(
      HostInitSettings(preferences).isEnabled(EnableAutomaticServerSelection, UserControllable));
  preferences.set(Preference(EnableAutomaticServerSelection, "false", true));
  const HostInitSettings settings(preferences);
  EXPECT_TRUE(settings.isEnabled(EnableAutomaticServerSelection, UserControllable));
  EXPECT_FALSE(settings.isEnabled(ProxyHost, UserControllable));
  EXPECT_FALSE(settings.isEnabled(EnableAutomaticServerSelection, PreferenceAttribute{}));
}

TEST(HostProfile, AnEntryHandsOutItsTexts) {
  const HostProfile host("europe", "Amsterdam", "gw-ams:8443", 12);
  EXPECT_EQ(host.getProfileName(), "europe");
  EXPECT_EQ(host.getHostName(), "Amsterdam");
  EXPECT_EQ(host.getHostAddress(), "gw-ams:8443");
  EXPECT_EQ(host.getLine(), 12U);
}

// Callers built against another header reach the accessors by their place in the table of virtual
// functions: the offset that a pointer to a virtual member holds (Itanium C++ ABI, 2.3).
TEST(HostProfile, NameAndAddressAreTheSecondAndTheFourthVirtualOperation) {
  const auto placeOf = [](const std::string& (HostProfile::*operation)() const) {
    std::ptrdiff_t representation[2];
    static_assert(sizeof representation == sizeof operation);
    std::memcpy(representation, &operation, sizeof operation);
    return (representation[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)) + 1;
  };
  EXPECT_EQ(placeOf(&HostProfile::getHostName), 2);
  EXPECT_EQ(placeOf(&HostProfile::getHostAddress), 4);
}
