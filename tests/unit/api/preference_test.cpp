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
  EXPECT_EQ(PreferenceBase::ProxyOverride, "override");
  EXPECT_EQ(PreferenceBase::ProxySystem, "system");
  EXPECT_EQ(PreferenceBase::ProxyNone, "none");
  EXPECT_EQ(PreferenceBase::RoundTripResponse, "response");
}

TEST(PreferenceBase, APreferenceIsFoundByExactNameAndByNumber) {
  ASSERT_EQ(PreferenceBase::definitions().size(), 14U);
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    EXPECT_EQ(PreferenceBase::find(definition.id), &definition);
    EXPECT_EQ(PreferenceBase::find(std::string(definition.name)), &definition);
  }
  EXPECT_EQ(PreferenceBase::find("proxysettings"), nullptr);
  EXPECT_EQ(PreferenceBase::find(static_cast<PreferenceId>(1)), nullptr);
}

TEST(PreferenceBase, DefaultsAreAllowedAndWithinTheirRange) {
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    EXPECT_EQ(PreferenceBase::findError(definition, definition.defaultValue), "")
        << definition.name;
    unsigned int number = 0;
    if (definition.unit != nullptr && *definition.defaultValue != '\0') {
      EXPECT_TRUE(PreferenceBase::parseNumber(definition, definition.defaultValue, number))
          << definition.name;
    }
  }
}

TEST(PreferenceBase, TheEndsOfARangeAreAllowedAndWhatIsBeyondThemIsNot) {
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    if (definition.unit != nullptr) {
      EXPECT_EQ(errorOf(definition.id, std::to_string(definition.least)), "") << definition.name;
      EXPECT_EQ(errorOf(definition.id, std::to_string(definition.most)), "") << definition.name;
      EXPECT_NE(errorOf(definition.id, std::to_string(definition.least - 1)), "")
          << definition.name;
      EXPECT_NE(errorOf(definition.id, std::to_string(definition.most + 1)), "") << definition.name;
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
