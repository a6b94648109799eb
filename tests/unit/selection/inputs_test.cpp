// Where headends and proxy come from: which host entries take part, the key that names a set of
// candidates in the cache, and the proxy of the preferences.

#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using doubles::preferences;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr STATUSCODE NoPreferences = 0xFE32000A;
constexpr STATUSCODE SomeFailure = 0xFE320009;
const char MissingSwitch[] =
    "getHeadendListFromProfile E QIB unable to get preference EnableAutomaticServerSelection";

class Candidates : public SelectionTest {
 protected:
  Candidates() {
    make();
    doubles::log().reset();
  }

  STATUSCODE gather(const std::string& last = "") {
    return call<GetHeadendListFromProfile>(*run, last);
  }

  Texts keys() { return keysOf(member<HeadendList>(*run)); }
  std::string last() { return member<LastHeadend>(*run).getHostAndPort(false); }
  std::string cacheKey() { return call<GetKnownHeadends>(*run); }
};

TEST_F(Candidates, WithoutProfilesAreNoneAndTheLastHeadendStays) {
  member<LastHeadend>(*run) = URL("kept");

  EXPECT_EQ(gather("gw1"), 0);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_EQ(last(), "kept");
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(Candidates, WithoutAPreferenceManagerAreNotRead) {
  preferences().useAddresses({"gw1"});
  preferences().hasInstance = false;

  EXPECT_EQ(gather("gw1"), NoPreferences);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_EQ(last(), "");
  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre("getHeadendListFromProfile E CInstanceSmartPtr<PreferenceMgr> 0xFE32000A"));
}

TEST_F(Candidates, WithoutProfileManagerAreNotReadAndThePreferencesAreGivenBack) {
  preferences().useAddresses({"gw1"});
  preferences().profileMgrStatus = SomeFailure;
  const int before = preferences().released;

  EXPECT_EQ(gather(), SomeFailure);
  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_EQ(preferences().released, before + 1);
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getHeadendListFromProfile E PreferenceMgr::getProfileMgr 0xFE320009"));
}

TEST_F(Candidates, ArePreferencesAcquiredAndGivenBackOnce) {
  preferences().useAddresses({"gw1"});
  const int before = preferences().acquired;

  EXPECT_EQ(gather(), 0);
  EXPECT_EQ(preferences().acquired, before + 1);
  EXPECT_EQ(preferences().released, before + 1);
}

TEST_F(Candidates, AreThoseThatWereThereAtTheStartWhateverHappensToTheProfilesMeanwhile) {
  preferences().profiles = {{.name = "a", .automaticSelection = std::nullopt}, {.name = "b"}};
  preferences().hosts = {{.name = "gw1", .address = "gw1", .profile = "b"},
                         {.name = "gw2", .address = "gw2", .profile = "b"}};
  doubles::log().setHook([](const doubles::LogLine&) { preferences().forgetAllProfilesBut("a"); });
  preferences().whenAskedForAProfile = [] { preferences().forgetAllHostsBut("gw1"); };

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw1", "gw2"));
}

TEST_F(Candidates, StandInByteOrderOfTheirEntryNames) {
  preferences().useAddresses({"b", "A", "a"});

  EXPECT_EQ(gather(), 0);
  ASSERT_EQ(member<HeadendList>(*run).size(), 3U);
  EXPECT_THAT(keys(), ElementsAre("A", "a", "b"));
}

TEST_F(Candidates, AreOrderedByNameAndNotByAddress) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "1st", .address = "zz:1", .profile = "p"},
                         {.name = "2nd", .address = "aa:2", .profile = "p"}};

  EXPECT_EQ(gather("2nd"), 0);
  EXPECT_THAT(keys(), ElementsAre("zz:1", "aa:2")) << "the last headend is not moved to the front";
}

TEST_F(Candidates, OfAProfileWithAutomaticSelectionOffAreLeftOut) {
  preferences().profiles = {{.name = "off", .automaticSelection = "false"}, {.name = "on"}};
  preferences().hosts = {{.name = "gw1", .address = "gw1", .profile = "off"},
                         {.name = "gw2", .address = "gw2", .profile = "on"}};

  EXPECT_EQ(gather("gw1"), 0);
  EXPECT_THAT(keys(), ElementsAre("gw2"));
  EXPECT_EQ(last(), "") << "an entry that does not take part is not the last headend";
}

TEST_F(Candidates, OfAProfileThatTheUserMaySwitchTakePartEvenWhenItIsOff) {
  preferences().profiles = {
      {.name = "off", .automaticSelection = "false", .userControllable = true},
      {.name = "odd", .automaticSelection = "whatever", .userControllable = true}};
  preferences().hosts = {{.name = "gw1", .address = "gw1", .profile = "off"},
                         {.name = "gw2", .address = "gw2", .profile = "odd"}};

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw1", "gw2"));
}

TEST_F(Candidates, NeedTheExactValueThatMeansOn) {
  const std::string on = PreferenceBase::PreferenceEnabled;
  preferences().profiles = {{.name = "upper", .automaticSelection = "TRUE"},
                            {.name = "longer", .automaticSelection = on + " "},
                            {.name = "shorter", .automaticSelection = on.substr(0, 3)},
                            {.name = "empty", .automaticSelection = ""},
                            {.name = "exact", .automaticSelection = on}};
  for (const auto& profile : preferences().profiles) {
    preferences().hosts.push_back(
        {.name = profile.name, .address = profile.name, .profile = profile.name});
  }

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("exact"));
}

TEST_F(Candidates, OfAProfileWithoutTheSwitchAreLeftOutWithOneErrorAProfile) {
  preferences().profiles = {{.name = "a", .automaticSelection = std::nullopt},
                            {.name = "b", .automaticSelection = std::nullopt},
                            {.name = "c"}};
  preferences().hosts = {{.name = "gw1", .address = "gw1", .profile = "a"},
                         {.name = "gw2", .address = "gw2", .profile = "a"},
                         {.name = "gw3", .address = "gw3", .profile = "b"},
                         {.name = "gw4", .address = "gw4", .profile = "c"}};

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw4"));
  EXPECT_THAT(doubles::log().texts(), ElementsAre(MissingSwitch, MissingSwitch));
}

TEST_F(Candidates, ProfilesAreLookedAtEvenWhenThereIsNoHostEntry) {
  preferences().profiles = {{.name = "a", .automaticSelection = std::nullopt}};

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(doubles::log().texts(), ElementsAre(MissingSwitch));
}

TEST_F(Candidates, OfAnUnknownProfileAreLeftOutSilently) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "gw1", .address = "gw1", .profile = "elsewhere"},
                         {.name = "gw2", .address = "gw2", .profile = ""},
                         {.name = "gw3", .address = "gw3", .profile = "p"}};

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw3"));
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(Candidates, AMissingEntryIsSkippedSilently) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "gw1", .address = "", .profile = "p", .isNull = true},
                         {.name = "gw2", .address = "gw2", .profile = "p"}};

  EXPECT_EQ(gather("gw1"), 0);
  EXPECT_THAT(keys(), ElementsAre("gw2"));
  EXPECT_EQ(last(), "");
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(Candidates, AnEntryWithoutAnAddressIsReachedByItsName) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "gw1.example:8443", .address = "", .profile = "p"}};

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw1.example:8443"));
}

TEST_F(Candidates, TheLastHeadendIsFoundByItsEntryNameInAnyLetterCase) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "Head Office", .address = "https://gw1:8443/a", .profile = "p"},
                         {.name = "Branch", .address = "gw2", .profile = "p"}};

  EXPECT_EQ(gather("hEAD oFFICE"), 0);
  EXPECT_EQ(last(), "gw1:8443");
  EXPECT_EQ(member<LastHeadend>(*run).getProtocol(), URLPROTOCOL_HTTPS);
  EXPECT_EQ(member<LastHeadend>(*run).getLocation(), "/a");
}

TEST_F(Candidates, TheLastHeadendIsNotFoundByItsAddress) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "Head Office", .address = "gw1", .profile = "p"}};

  EXPECT_EQ(gather("gw1"), 0);
  EXPECT_EQ(last(), "");
}

TEST_F(Candidates, OfTwoEntriesThatDifferInLetterCaseTheLaterIsTheLastHeadend) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "GW", .address = "first", .profile = "p"},
                         {.name = "gw", .address = "second", .profile = "p"}};

  EXPECT_EQ(gather("Gw"), 0);
  EXPECT_THAT(keys(), ElementsAre("first", "second"));
  EXPECT_EQ(last(), "second");
}

TEST_F(Candidates, TwoNamesOfOneAddressAreTwoCandidates) {
  preferences().profiles = {{.name = "p"}};
  preferences().hosts = {{.name = "a", .address = "gw1", .profile = "p"},
                         {.name = "b", .address = "gw1", .profile = "p"}};

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw1", "gw1"));
}

TEST_F(Candidates, AreAppendedToWhatIsThere) {
  member<HeadendList>(*run).emplace_back("before");
  preferences().useAddresses({"gw1"});

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("before", "gw1"));
}

TEST_F(Candidates, HaveNoUpperBound) {
  Texts addresses;
  for (int i = 0; i < 2000; ++i) {
    addresses.push_back("gw" + std::to_string(i));
  }
  preferences().useAddresses(addresses);

  EXPECT_EQ(gather(), 0);
  EXPECT_EQ(member<HeadendList>(*run).size(), 2000U);
}

TEST_F(Candidates, NoneHaveAnEmptyKey) { EXPECT_EQ(cacheKey(), ""); }

TEST_F(Candidates, OneHasItsHostInLowerCaseAsKey) {
  member<HeadendList>(*run) = {URL("GW1")};
  EXPECT_EQ(cacheKey(), "gw1;");
}

TEST_F(Candidates, SeveralHaveAKeyWithTheLaterOnesFirst) {
  member<HeadendList>(*run) = {URL("GW1"), URL("gw2:8443"), URL("https://Gw3/Group")};
  EXPECT_EQ(cacheKey(), "gw3;gw2:8443;gw1;");
}

TEST_F(Candidates, AnIPv6AddressStandsInTheKeyInBrackets) {
  member<HeadendList>(*run) = {URL("[2001:DB8::1]:8443")};
  EXPECT_EQ(cacheKey(), "[2001:db8::1]:8443;");
}

class ConfiguredProxy : public SelectionTest {
 protected:
  ConfiguredProxy() {
    make();
    doubles::log().reset();
    acquiredBefore = preferences().acquired;
    preferences().proxySettings = PreferenceBase::ProxyOverride;
  }

  void TearDown() override {
    EXPECT_EQ(preferences().released, preferences().acquired);
    SelectionTest::TearDown();
  }

  std::string proxy() { return call<GetProxyServer>(*run); }

  int acquiredBefore = 0;
};

TEST_F(ConfiguredProxy, WithoutAPortIsItsHost) {
  preferences().proxyHost = "proxy1";

  EXPECT_EQ(proxy(), "http=http://proxy1");
  EXPECT_THAT(preferences().valuesAsked, ElementsAre(ProxySettings));
  EXPECT_THAT(preferences().filesAsked, ElementsAre(Global));
  EXPECT_EQ(preferences().acquired, acquiredBefore + 1);
  EXPECT_EQ(preferences().hostReads, 2);
  EXPECT_EQ(preferences().portReads, 1);
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(ConfiguredProxy, WithAPortIsHostAndPort) {
  preferences().proxyHost = "proxy1";
  preferences().proxyPort = "3128";

  EXPECT_EQ(proxy(), "http=http://proxy1:3128");
  EXPECT_EQ(preferences().hostReads, 2);
  EXPECT_EQ(preferences().portReads, 2);
}

TEST_F(ConfiguredProxy, WithoutAHostIsNone) {
  preferences().proxyPort = "3128";
  EXPECT_EQ(proxy(), "");
}

TEST_F(ConfiguredProxy, IsUsedOnlyForTheExactValueThatMeansSo) {
  preferences().proxyHost = "proxy1";
  const std::string override = PreferenceBase::ProxyOverride;
  for (const std::string& value :
       {std::string("OVERRIDE"), std::string("Override"), override + " ", override.substr(1),
        std::string(), PreferenceBase::ProxySystem, PreferenceBase::ProxyNone}) {
    preferences().proxySettings = value;
    EXPECT_EQ(proxy(), "") << value;
  }
  EXPECT_THAT(preferences().filesAsked, IsEmpty());
  EXPECT_THAT(doubles::log().texts(), IsEmpty());
}

TEST_F(ConfiguredProxy, IsNoneWithoutAPreferenceManager) {
  preferences().hasInstance = false;

  EXPECT_EQ(proxy(), "");
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getProxyServer E CInstanceSmartPtr<PreferenceMgr> 0xFE32000A"));
}

TEST_F(ConfiguredProxy, IsNoneWhenTheSettingCannotBeRead) {
  preferences().proxyHost = "proxy1";
  preferences().valueStatus = SomeFailure;

  EXPECT_EQ(proxy(), "");
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getProxyServer E PreferenceMgr::getPreferenceValue 0xFE320009"));
  EXPECT_EQ(doubles::log().lines()[0].extraText, "ProxySettings");
}

TEST_F(ConfiguredProxy, IsNoneWhenTheGlobalFileCannotBeHad) {
  preferences().proxyHost = "proxy1";
  preferences().fileStatus = SomeFailure;

  EXPECT_EQ(proxy(), "");
  EXPECT_THAT(doubles::log().texts(),
              ElementsAre("getProxyServer E PreferenceMgr::getParsedPreferenceFile 0xFE320009"));
}

}  // namespace
}  // namespace tests
