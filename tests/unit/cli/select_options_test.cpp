// From typed options to a plan.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/select/SelectOptions.h"
#include "cli/show/SelectionResult.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class SelectOptionsTest : public testing::Test {
 protected:
  std::string make() {
    plan = SelectPlan();
    return makePlan(options, paths, plan, problems);
  }

  tests::TemporaryDirectory directory;
  DefaultPaths paths =
      defaultPathsFor(directory.File("config").c_str(), directory.File("cache").c_str(), nullptr);
  SelectOptions options;
  SelectPlan plan;
  std::vector<std::string> problems;
};

}  // namespace

TEST_F(SelectOptionsTest, NothingGivenIsAConnectionWithDefaultPlacesAndNoLog) {
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.reason, 0U);
  EXPECT_EQ(plan.last, "");
  EXPECT_TRUE(plan.log.off);
  EXPECT_EQ(plan.sources.userPreferencesFile, directory.File("config/ahs/preferences.xml"));
  EXPECT_EQ(plan.sources.globalPreferencesFile, "/etc/ahs/preferences.xml");
  EXPECT_EQ(plan.sources.cacheDirectory, directory.File("cache/ahs"));
}

TEST_F(SelectOptionsTest, TheUsersProfilesComeBeforeTheSystems) {
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.sources.profileDirectory, "/etc/ahs/profiles");
  EXPECT_THAT(plan.profilePlaces, HasSubstr(paths.userProfiles));
  EXPECT_THAT(plan.profilePlaces, HasSubstr("/etc/ahs/profiles"));
  std::filesystem::create_directories(paths.userProfiles);
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.sources.profileDirectory, paths.userProfiles);
}

TEST_F(SelectOptionsTest, EveryReasonHasANameAndANumberAndNothingElseHas) {
  for (unsigned int reason = 0; reason <= 5; ++reason) {
    EXPECT_EQ(parseReason(std::to_string(reason)), reason);
    EXPECT_EQ(parseReason(reasonName(reason)), reason);
  }
  EXPECT_EQ(reasonName(1), "reconnection");
  EXPECT_EQ(reasonName(6), "unknown");
  for (const char* wrong : {"6", "-1", "", "Reconnection", "01", "unknown"}) {
    EXPECT_EQ(parseReason(wrong), std::nullopt) << wrong;
  }
}

TEST_F(SelectOptionsTest, HostsThatNameOnePlaceAreMeasuredOnce) {
  options.hosts = {"gw-a",      "gw-b:8443", "GW-A",  "gw-a:443",     "gw-b",
                   "[::1]:443", "::1",       "[::1]", "[0:0::0:1]",   "https://gw-a/x",
                   "[::1]:444", "::A",       "::a",   "fe80::7%eth0", "[FE80::7%25eth0]"};
  EXPECT_EQ(make(), "");
  EXPECT_THAT(plan.sources.headends, ElementsAre("gw-a", "gw-b:8443", "gw-b", "[::1]:443",
                                                 "[::1]:444", "[::A]", "[fe80::7%25eth0]"));
}

TEST_F(SelectOptionsTest, HostsOfAFileStandInItsPlaceAndAreRefusedByLine) {
  const std::string file = directory.Write("hosts", "# ours\ngw-b:8443\r\n\n  ::1  # here\ngw-a");
  options.hosts = {"gw-a", "@" + file, "gw-c"};
  EXPECT_EQ(make(), "");
  EXPECT_THAT(plan.sources.headends, ElementsAre("gw-a", "gw-b:8443", "[::1]", "gw-c"));
  for (const auto& [text, says] : {std::pair{std::string("gw\na b\n"), ":2: the host 'a b' cannot"},
                                   {std::string("#\n"), "there is no host in '"},
                                   {std::string(1025UL * 1024, '\n'), "longer than 1 MiB"}}) {
    options.hosts = {"@" + directory.Write("wrong", text)};
    EXPECT_THAT(make(), HasSubstr(says));
  }
  for (const std::string& wrong : {directory.File("none"), directory.Path()}) {
    options.hosts = {"@" + wrong};
    EXPECT_THAT(make(), HasSubstr("the hosts of '" + wrong + "' cannot be read: "));
  }
}

TEST_F(SelectOptionsTest, AHostThatIsNoAddressIsRefusedByName) {
  for (const char* wrong : {"", "gw:0", "gw:99999", "user@gw", "::1::", "a b", "ftp://gw"}) {
    options.hosts = {"gw-a", wrong};
    EXPECT_THAT(make(), HasSubstr("the host '" + std::string(wrong) + "' cannot be used")) << wrong;
  }
  options.hosts = {"gw\x1b[31m"};
  EXPECT_THAT(make(), HasSubstr("'gw\\x1b[31m'"));
}

TEST_F(SelectOptionsTest, TheLastHeadendMayBeSpeltOtherwiseThanTheHostThatIsMeant) {
  options.hosts = {"gw-a", "https://GW-B:8443", "2001:db8::7"};
  for (const auto& [last, taken] : {std::pair{"gw-b:8443", "https://GW-B:8443"},
                                    {"[2001:DB8::7]:443", "[2001:db8::7]"},
                                    {"gw-a:443", "gw-a"},
                                    {"Berlin, main office", "Berlin, main office"},
                                    {"", ""}}) {
    options.last = last;
    EXPECT_EQ(make(), "");
    EXPECT_EQ(plan.last, taken);
  }
}

TEST_F(SelectOptionsTest, APreferenceIsSetByItsNameOrByItsOwnOption) {
  options.measure.settings = {"SelectionImprovement=5", "ProxySettings=none"};
  options.measure.count = 7;
  options.measure.timeoutSeconds = 3;
  options.measure.roundTrip = "response";
  EXPECT_EQ(make(), "");
  const std::map<PreferenceId, std::string> all = {{ProxySettings, "none"},
                                                   {SelectionImprovement, "5"},
                                                   {SelectionPingTimeout, "3000"},
                                                   {SelectionPingsPerHeadend, "7"},
                                                   {RoundTripTime, "response"}};
  EXPECT_EQ(plan.sources.preferences, all);
  for (const auto& [wrong, says] :
       {std::pair{"SelectionImprovement", "--set takes NAME=VALUE"},
        {"SelectionImprovment=5", "did you mean 'SelectionImprovement'?"},
        {"x=5", "no preference 'x'; 'ahs preferences show' lists them"},
        {"SelectionImprovement=-1", "must be a whole number from 0 to 1000 (percent)"},
        {"EnableAutomaticServerSelection=true", "set by profiles alone"},
        {"RoundTripTime=network", "RoundTripTime is given twice"}}) {
    options.measure.settings = {wrong};
    EXPECT_THAT(make(), HasSubstr(says)) << wrong;
  }
}

TEST_F(SelectOptionsTest, NamedPlacesHaveToExist) {
  options.profiles = directory.File("none");
  EXPECT_THAT(make(), HasSubstr("the profile directory '" + directory.File("none")));
  options.profiles.reset();
  options.cacheDirectory = directory.File("none");
  EXPECT_THAT(make(), HasSubstr("the cache directory '" + directory.File("none")));
  options.cacheDirectory.reset();
  options.preferences = directory.File("none");
  EXPECT_THAT(make(), HasSubstr("the preferences file '" + directory.File("none")));
  options.preferences.reset();
  options.globalPreferences = directory.File("none");
  EXPECT_THAT(make(), HasSubstr("--global-preferences"));
}

TEST_F(SelectOptionsTest, AMalformedFileAndOneThatAnotherUserCouldHaveWrittenAreRefused) {
  options.preferences = directory.Write("preferences.xml", "<?xml version=\"1.0\"?>\n<oops\n");
  EXPECT_THAT(make(), HasSubstr("cannot be used"));
  ASSERT_FALSE(problems.empty());
  EXPECT_THAT(problems.front(), HasSubstr(*options.preferences + ":"));
  directory.Write("preferences.xml", "<preferences version=\"1\"/>");
  problems.clear();
  std::filesystem::permissions(*options.preferences, std::filesystem::perms::all);
  EXPECT_THAT(make(), HasSubstr("cannot be used"));
  ASSERT_FALSE(problems.empty());
  EXPECT_THAT(problems.front(), HasSubstr("chmod go-w"));
  EXPECT_FALSE(plan.sources.trustFiles);
  options.trustProfiles = true;
  EXPECT_EQ(make(), "");
  EXPECT_TRUE(plan.sources.trustFiles);
}

TEST_F(SelectOptionsTest, ACacheDirectoryIsTheNamedOneOrNone) {
  options.cacheDirectory = directory.Path();
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.sources.cacheDirectory, directory.Path());
  options.cacheDirectory.reset();
  options.noCache = true;
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.sources.cacheDirectory, "");
}

TEST_F(SelectOptionsTest, TheLogGoesToTheFileThatIsNamedOrToStandardErrorOrNowhere) {
  options.logLevel = "warning";
  EXPECT_EQ(make(), "");
  EXPECT_TRUE(plan.log.terminal);
  EXPECT_FALSE(plan.log.off);
  EXPECT_EQ(plan.log.leastImportant, Logging::DBG_Warning);
  options.logFile = directory.File("log");
  EXPECT_EQ(make(), "");
  EXPECT_FALSE(plan.log.terminal);
  EXPECT_EQ(plan.log.file, directory.File("log"));
  EXPECT_EQ(plan.log.leastImportant, Logging::DBG_Warning);
  options.logLevel.reset();
  EXPECT_EQ(make(), "");
  EXPECT_FALSE(plan.log.off);
  EXPECT_FALSE(plan.log.terminal);
  EXPECT_EQ(plan.log.leastImportant, Logging::DBG_Info);
  options.logLevel = "off";
  options.syslog = true;
  EXPECT_EQ(make(), "");
  EXPECT_TRUE(plan.log.off);
  EXPECT_EQ(plan.log.file, "");
  EXPECT_FALSE(plan.log.syslog);
}

TEST_F(SelectOptionsTest, AProxyGoesBeforeThePreferencesAndAWrongOneIsRefused) {
  options.proxy.proxy = "proxy:3128";
  EXPECT_EQ(make(), "");
  EXPECT_EQ(plan.sources.preferences.at(ProxySettings), "override");
  EXPECT_EQ(plan.sources.preferences.at(ProxyHost), "proxy");
  EXPECT_EQ(plan.sources.preferences.at(ProxyPort), "3128");
  options.proxy.proxy = "proxy:x";
  EXPECT_THAT(make(), HasSubstr("the proxy 'proxy:x' cannot be used"));
}
