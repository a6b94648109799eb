// The table of preferences and what one file's preferences and host entries are made of.

#include "vpn/Api/Preference.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "vpn/Api/HostProfile.h"

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
  ASSERT_EQ(PreferenceBase::definitions().size(), 16U);
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    EXPECT_EQ(PreferenceBase::find(definition.id), &definition);
    EXPECT_EQ(PreferenceBase::find(std::string(definition.name)), &definition);
  }
  EXPECT_EQ(PreferenceBase::find("proxysettings"), nullptr);
  EXPECT_EQ(PreferenceBase::find(static_cast<PreferenceId>(1)), nullptr);
}

TEST(PreferenceBase, OnlyADecimalNumberIsANumber) {
  for (const char* wrong :
       {"", " 5", "5 ", "+5", "-5", "5.0", "0x5", "five", "4294967301", "99999999999999999999"}) {
    unsigned int number = 77;
    EXPECT_FALSE(
        PreferenceBase::parseNumber(*PreferenceBase::find(SelectionPingsPerHeadend), wrong, number))
        << wrong;
    EXPECT_EQ(number, 77U) << wrong;
  }
}

TEST(PreferenceBase, AProxyHostIsAHostAlone) {
  const PreferenceBase::Definition& host = *PreferenceBase::find(ProxyHost);
  for (const char* right : {"", "proxy1", "proxy.example.com", "192.0.2.1", "[2001:db8::1]"}) {
    EXPECT_EQ(PreferenceBase::findError(host, right), "") << right;
  }
  for (const char* wrong : {"proxy:3128", "http://proxy", "proxy/", "user@proxy", " proxy", "a b",
                            "a\nb", "2001:db8::1"}) {
    EXPECT_NE(PreferenceBase::findError(host, wrong), "") << wrong;
  }
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
