// The sources of headends and proxy: which host entries take part, the cache key of a set of
// candidates, and the preferences' proxy.

#include <string>
#include <vector>

#include "tests/unit/selection/selection_fixture.h"

namespace tests {
namespace {

using Profiles = std::vector<doubles::PreferenceScript::Profile>;
using Hosts = std::vector<doubles::PreferenceScript::Host>;

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
};

struct Files {
  Profiles profiles = {{.name = "p"}};
  Hosts hosts = {};
  std::string wanted = {};  ///< as the last headend
  Texts keys = {};
  std::string last = "kept";
  std::size_t missingSwitches = 0;
};

class TheCandidates : public Candidates, public testing::WithParamInterface<Row<Files>> {};

TEST_P(TheCandidates, ComeFromTheProfiles) {
  const Files& files = GetParam().is;
  preferences().profiles = files.profiles;
  preferences().hosts = files.hosts;
  member<LastHeadend>(*run) = URL("kept");
  const int before = preferences().acquired;

  EXPECT_EQ(gather(files.wanted), 0);
  EXPECT_EQ(keys(), files.keys);
  EXPECT_EQ(last(), files.last);
  EXPECT_EQ(doubles::log().texts(), Texts(files.missingSwitches, MissingSwitch));
  EXPECT_EQ(preferences().acquired, before + 1);
  EXPECT_EQ(preferences().released, before + 1);
}

INSTANTIATE_TEST_SUITE_P(
    With, TheCandidates,
    testing::ValuesIn(Rows<Files>{
        {"NoProfilesAreNoneAndTheLastHeadendStays", {.profiles = {}, .wanted = "gw1"}},
        {"EntriesInByteOrderOfTheirNamesAndNotOfTheirAddresses",
         {.hosts = {{"b", "aa:2", "p"}, {"A", "zz:1", "p"}, {"a", "mm", "p"}},
          .wanted = "b",
          .keys = {"zz:1", "mm", "aa:2"},
          .last = "aa:2"}},
        {"AutomaticSelectionOffLeaveTheirHostsOutAlsoAsTheLastHeadend",
         {.profiles = {{"off", "false"}, {"on"}},
          .hosts = {{"gw1", "gw1", "off"}, {"gw2", "gw2", "on"}},
          .wanted = "gw1",
          .keys = {"gw2"}}},
        {"AUserWhoMaySwitchTakePartWhateverTheValue",
         {.profiles = {{"off", "false", true}, {"odd", "whatever", true}},
          .hosts = {{"gw1", "gw1", "off"}, {"gw2", "gw2", "odd"}},
          .keys = {"gw1", "gw2"}}},
        {"OnlyTheExactValueThatMeansOn",
         {.profiles = {{"upper", "TRUE"}, {"longer", "true "}, {"shorter", "tru"}, {"empty", ""}},
          .hosts = {{"gw1", "gw1", "upper"},
                    {"gw2", "gw2", "longer"},
                    {"gw3", "gw3", "shorter"},
                    {"gw4", "gw4", "empty"}}}},
        {"NoSwitchLeaveTheirHostsOutWithOneErrorAProfile",
         {.profiles = {{"a", std::nullopt}, {"b", std::nullopt}, {"c"}, {"d", std::nullopt}},
          .hosts =
              {{"gw1", "gw1", "a"}, {"gw2", "gw2", "a"}, {"gw3", "gw3", "b"}, {"gw4", "gw4", "c"}},
          .keys = {"gw4"},
          .missingSwitches = 3}},
        {"EntriesOfAnUnknownProfileLeaveThemOutSilently",
         {.hosts = {{"gw1", "gw1", "elsewhere"},
                    {"gw2", "gw2", ""},
                    {"gw3", "gw3", "p"},
                    {"gw4", "gw4", "elsewhere"}},
          .keys = {"gw3"}}},
        {"AMissingEntrySkipItSilently",
         {.hosts = {{"gw1", "", "p", true}, {"gw2", "gw2", "p"}},
          .wanted = "gw1",
          .keys = {"gw2"}}},
        {"AnEntryWithoutAnAddressReachItByItsName",
         {.hosts = {{"gw1.example:8443", "", "p"}}, .keys = {"gw1.example:8443"}}},
        {"TheLastHeadendsEntryNameInAnyLetterCaseReplaceIt",
         {.hosts = {{"Head Office", "https://gw1:8443/a", "p"}, {"Branch", "gw2", "p"}},
          .wanted = "hEAD oFFICE",
          .keys = {"gw2", "gw1:8443"},
          .last = "gw1:8443"}},
        {"TheLastHeadendsAddressDoNotReplaceIt",
         {.hosts = {{"Head Office", "gw1", "p"}}, .wanted = "gw1", .keys = {"gw1"}}},
        {"TwoNamesThatDifferInLetterCaseTakeTheLaterForTheLastHeadend",
         {.hosts = {{"GW", "first", "p"}, {"gw", "second", "p"}},
          .wanted = "Gw",
          .keys = {"first", "second"},
          .last = "second"}},
        {"TwoNamesOfOneAddressAreTwo",
         {.hosts = {{"a", "gw1", "p"}, {"b", "gw1", "p"}}, .keys = {"gw1", "gw1"}}},
    }),
    nameOfRow);

TEST_F(Candidates, WithoutPreferencesAreNotRead) {
  preferences().useAddresses({"gw1"});
  preferences().profileMgrStatus = SomeFailure;
  EXPECT_EQ(gather("gw1"), SomeFailure);
  EXPECT_EQ(preferences().released, preferences().acquired);
  preferences().hasInstance = false;
  EXPECT_EQ(gather("gw1"), 0xFE32000A);

  EXPECT_THAT(keys(), IsEmpty());
  EXPECT_EQ(last(), "");
  EXPECT_THAT(
      doubles::log().texts(),
      ElementsAre("getHeadendListFromProfile E PreferenceMgr::getProfileMgr 0xFE360002",
                  "getHeadendListFromProfile E CInstanceSmartPtr<PreferenceMgr> 0xFE32000A"));
}

TEST_F(Candidates, AreThoseThatWereThereAtTheStartWhateverHappensToTheProfilesMeanwhile) {
  preferences().profiles = {{"a", std::nullopt}, {"b"}};
  preferences().hosts = {{"gw1", "gw1", "b"}, {"gw2", "gw2", "b"}};
  doubles::log().setHook([](const doubles::LogLine&) { preferences().forgetAllProfilesBut("a"); });
  preferences().whenAskedForAProfile = [] { preferences().forgetAllHostsBut("gw1"); };

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), ElementsAre("gw1", "gw2"));
}

TEST_F(Candidates, AreAppendedToWhatIsThereWithoutAnUpperBound) {
  constexpr std::size_t Many = 2000;
  member<HeadendList>(*run).emplace_back("before");
  Texts addresses;
  for (std::size_t i = 0; i < Many; ++i) {
    addresses.push_back("gw" + std::to_string(i));
  }
  preferences().useAddresses(addresses);

  EXPECT_EQ(gather(), 0);
  EXPECT_THAT(keys(), SizeIs(Many + 1));
  EXPECT_EQ(keys().front(), "before");
}

TEST_F(Candidates, HaveAKeyOfTheirHostsInLowerCaseWithTheLaterOnesFirst) {
  const std::vector<std::pair<std::vector<URL>, std::string>> keys{
      {{}, ""},                // without a headend: nothing
      {{URL("GW1")}, "gw1;"},  // without a port: the host alone
      {{URL("GW1"), URL("gw2:8443"), URL("https://Gw3/Group")}, "gw3;gw2:8443;gw1;"},
      {{URL("[2001:DB8::1]:8443")}, "[2001:db8::1]:8443;"}};
  for (const auto& [list, key] : keys) {
    member<HeadendList>(*run) = list;
    EXPECT_EQ(call<GetKnownHeadends>(*run), key);
  }
}

struct Configured {
  std::string settings = PreferenceBase::ProxyOverride;
  std::string host = "proxy1";
  std::string port = {};
  bool hasPreferences = true;
  long valueStatus = 0;
  long fileStatus = 0;
  std::string proxy = {};
  std::string line = {};
};

class TheConfiguredProxy : public SelectionTest,
                           public testing::WithParamInterface<Row<Configured>> {};

TEST_P(TheConfiguredProxy, IsTheOneOfThePreferences) {
  const Configured& configured = GetParam().is;
  make();
  preferences().proxySettings = configured.settings;
  preferences().proxyHost = configured.host;
  preferences().proxyPort = configured.port;
  preferences().hasInstance = configured.hasPreferences;
  preferences().valueStatus = configured.valueStatus;
  preferences().fileStatus = configured.fileStatus;

  EXPECT_EQ(call<GetProxyServer>(*run), configured.proxy);
  EXPECT_EQ(doubles::log().texts(),
            configured.line.empty() ? Texts{} : Texts{"getProxyServer E " + configured.line});
  if (!configured.proxy.empty()) {
    EXPECT_THAT(preferences().valuesAsked, ElementsAre(ProxySettings));
    EXPECT_THAT(preferences().filesAsked, ElementsAre(Global));
  }
  if (configured.valueStatus != 0) {
    EXPECT_EQ(doubles::log().lines()[0].extraText, "ProxySettings");
  }
}

INSTANTIATE_TEST_SUITE_P(
    With, TheConfiguredProxy,
    testing::ValuesIn(Rows<Configured>{
        {"NoPortIsItsHost", {.proxy = "http=http://proxy1"}},
        {"APortIsHostAndPort", {.port = "3128", .proxy = "http=http://proxy1:3128"}},
        {"NoHostIsNone", {.host = "", .port = "3128"}},
        {"AnOverrideInUpperCaseIsNone", {.settings = "OVERRIDE"}},
        {"AnOverrideInMixedCaseIsNone", {.settings = "Override"}},
        {"AnOverrideWithABlankIsNone", {.settings = "override "}},
        {"NoSettingIsNone", {.settings = ""}},
        {"TheSystemsProxyIsNone", {.settings = PreferenceBase::ProxySystem}},
        {"NoPreferencesIsNone",
         {.hasPreferences = false, .line = "CInstanceSmartPtr<PreferenceMgr> 0xFE32000A"}},
        {"ASettingThatCannotBeReadIsNone",
         {.valueStatus = SomeFailure, .line = "PreferenceMgr::getPreferenceValue 0xFE360002"}},
        {"AGlobalFileThatCannotBeHadIsNone",
         {.fileStatus = SomeFailure, .line = "PreferenceMgr::getParsedPreferenceFile 0xFE360002"}},
    }),
    nameOfRow);

}  // namespace
}  // namespace tests
