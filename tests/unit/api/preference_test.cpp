// The table of preferences and what one file's preferences and host entries are made of.

#include "vpn/Api/Preference.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "vpn/Api/HostInitSettings.h"
#include "vpn/Api/HostProfile.h"

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

TEST(PreferenceBase, DefaultsAndTheEndsOfARangeAreAllowedAndWhatIsBeyondThemIsNot) {
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    SCOPED_TRACE(definition.name);
    EXPECT_EQ(PreferenceBase::findError(definition, definition.defaultValue), "");
    if (definition.unit != nullptr) {
      EXPECT_EQ(errorOf(definition.id, std::to_string(definition.least)), "");
      EXPECT_EQ(errorOf(definition.id, std::to_string(definition.most)), "");
      EXPECT_NE(errorOf(definition.id, std::to_string(definition.least - 1)), "");
      EXPECT_NE(errorOf(definition.id, std::to_string(definition.most + 1)), "");
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

TEST(PreferenceBase, AProxyHostIsAHostAlone) {
  for (const char* right : {"", "proxy1", "proxy.example.com", "192.0.2.1", "[2001:db8::1]"}) {
    EXPECT_EQ(errorOf(ProxyHost, right), "") << right;
  }
  for (const char* wrong : {"proxy:3128", "http://proxy", "proxy/", "user@proxy", " proxy", "a b",
                            "a\nb", "2001:db8::1"}) {
    EXPECT_NE(errorOf(ProxyHost, wrong), "") << wrong;
  }
}

TEST(PreferenceInfo, APreferenceIsFoundAndReplacedAndOneThatIsNotSetLeavesThePointerAlone) {
  PreferenceInfo preferences;
  preferences.set(Preference(ProxyHost, "one", false));
  preferences.set(Preference(ProxyHost, "two", true));
  Preference* found = nullptr;
  ASSERT_TRUE(preferences.getPreference(ProxyHost, found));
  EXPECT_EQ(found->getPreferenceId(), ProxyHost);
  EXPECT_EQ(found->getPreferenceValue(), "two");
  EXPECT_TRUE(found->isUserControllable());
  Preference* const before = found;
  EXPECT_FALSE(preferences.getPreference(ProxyPort, found));
  EXPECT_EQ(found, before);
}

TEST(HostInitSettings, AnAttributeIsEnabledWhenTheProfileSetsThePreferenceWithIt) {
  PreferenceInfo preferences;
  preferences.set(Preference(EnableAutomaticServerSelection, "false", true));
  const HostInitSettings settings(preferences);
  EXPECT_TRUE(settings.isEnabled(EnableAutomaticServerSelection, UserControllable));
  EXPECT_FALSE(settings.isEnabled(ProxyHost, UserControllable));
  EXPECT_FALSE(settings.isEnabled(EnableAutomaticServerSelection, PreferenceAttribute{}));
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
