// Which value of a preference counts, its origin, and the messages about ignored values.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/PreferenceMgr.h"

namespace tests {
namespace {

using testing::IsEmpty;

/// Where a preference is set: nowhere, to a value, or to one that the user controls (" uc").
struct Row {
  const char* preference;
  std::string profileA;
  std::string profileB;
  std::string user;
  std::string global;
  const char* inForce;
};

const char* const Improvement = "SelectionImprovement";
const char* const Switch = "EnableAutomaticServerSelection";

const Row Rows[] = {
    {Improvement, "", "", "", "", "20"},
    {Improvement, "", "", "", "40", "40"},
    {Improvement, "", "", "30", "", "30"},
    {Improvement, "", "", "30", "40", "30"},
    {Improvement, "", "", "5000", "40", "5000"},  // checked where it is read
    {Improvement, "10", "", "", "", "10"},
    {Improvement, "10", "", "", "40", "10"},
    {Improvement, "10", "", "30", "40", "10"},
    {Improvement, "10 uc", "", "30", "40", "30"},
    {Improvement, "10 uc", "", "", "40", "10"},
    {Improvement, "", "11", "30", "40", "11"},
    {Improvement, "10", "11", "30", "40", "10"},
    {Improvement, "10", "11 uc", "30", "40", "10"},
    {Improvement, "10 uc", "11", "30", "40", "30"},
    {"RoundTripTime", "response", "", "network", "network", "response"},
    {"RoundTripTime", "response uc", "", "network", "", "network"},
    {"ProxySettings", "", "", "none", "override", "none"},
    {"ProxySettings", "", "", "", "override", "override"},
    {"ProxySettings", "", "", "overide", "none", "none"},  // an invalid word, so not set
    {"ProxyHost", "", "", "users", "machines", "machines"},
    {"ProxyPort", "", "", "8080", "", ""},
    {Switch, "true", "false", "", "", "false"},
};

std::string elementOf(const std::string& preference, const std::string& value) {
  const std::size_t blank = value.find(' ');
  return value.empty()
             ? ""
             : "<preference name=\"" + preference + "\" value=\"" + value.substr(0, blank) + "\"" +
                   (blank != std::string::npos ? " user-controllable=\"true\"/>" : "/>");
}

class PreferencePrecedence : public FileTest {
 protected:
  PreferencePrecedence() { m_sources.profileDirectory = m_directory.MakeDirectory("profiles"); }

  void writeProfile(const std::string& name, const std::string& value,
                    const char* preference = Improvement) {
    m_directory.Write(
        "profiles/" + name + ".xml",
        profileText("<preferences>\n" + elementOf(preference, value) + "\n</preferences>"));
  }

  PreferenceMgr::Sources m_sources;
};

}  // namespace

TEST_F(PreferencePrecedence, IsThatOfProfilesThenUserThenMachine) {
  for (const Row& row : Rows) {
    SCOPED_TRACE(std::string(row.preference) + ": " + row.profileA + ", " + row.profileB + ", " +
                 row.user + ", " + row.global);
    writeProfile("a", row.profileA, row.preference);
    writeProfile("b", row.profileB, row.preference);
    m_sources.userPreferencesFile =
        m_directory.Write("user.xml", preferencesText(elementOf(row.preference, row.user)));
    m_sources.globalPreferencesFile =
        m_directory.Write("global.xml", preferencesText(elementOf(row.preference, row.global)));
    const ScopedPreferenceMgr preferences(m_sources);
    EXPECT_EQ(preferences.Value(PreferenceBase::find(std::string(row.preference))->id),
              row.inForce);
  }
}

TEST_F(PreferencePrecedence, OfTheCallerGoesBeforeEveryFileAndIsToldAsItsOwn) {
  writeProfile("a", "10");
  m_sources.userPreferencesFile =
      m_directory.Write("user.xml", preferencesText(elementOf("ProxySettings", "none")));
  m_sources.globalPreferencesFile =
      m_directory.Write("global.xml", preferencesText(elementOf("ProxySettings", "system") +
                                                      elementOf("ProxyHost", "proxy1") +
                                                      elementOf("ProxyPort", "1")));
  m_sources.preferences = {{SelectionImprovement, "33"},
                           {ProxySettings, "override"},
                           {ProxyHost, "[::1]"},
                           {ProxyPort, ""}};
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_EQ(preferences.Value(SelectionImprovement), "33");
  EXPECT_EQ(preferences.Value(ProxySettings), PreferenceBase::ProxyOverride);
  UserPreferences* global = nullptr;
  ASSERT_EQ(preferences->getParsedPreferenceFile(Global, global), PREFERENCEMGR_SUCCESS);
  EXPECT_EQ(global->getProxyHost(), "[::1]");
  EXPECT_EQ(global->getProxyPort(), "");
  const auto settings = preferences->getSettings(ProxyHost);
  ASSERT_FALSE(settings.empty());
  EXPECT_EQ(settings[0].origin, PreferenceMgr::Setting::Origin::Caller);
  EXPECT_EQ(settings[0].value, "[::1]");
}

TEST_F(PreferencePrecedence, IsToldWithAllPlacesInTheirOrderWithFileAndLine) {
  writeProfile("a", "10");
  m_sources.userPreferencesFile =
      m_directory.Write("user.xml", preferencesText(elementOf(Improvement, "30")));
  const ScopedPreferenceMgr preferences(m_sources);
  const auto settings = preferences->getSettings(SelectionImprovement);
  ASSERT_EQ(settings.size(), 3U);
  EXPECT_EQ(settings[0].origin, PreferenceMgr::Setting::Origin::Profile);
  EXPECT_EQ(settings[0].file, m_sources.profileDirectory + "/a.xml");
  EXPECT_EQ(settings[0].line, 4U);
  EXPECT_EQ(settings[0].profile, "a");
  EXPECT_EQ(settings[1].origin, PreferenceMgr::Setting::Origin::User);
  EXPECT_EQ(settings[1].value, "30");
  EXPECT_EQ(settings[1].line, 3U);
  EXPECT_EQ(settings[2].origin, PreferenceMgr::Setting::Origin::Default);
  EXPECT_EQ(settings[2].value, "20");
  EXPECT_THAT(preferences->getSettings(static_cast<PreferenceId>(1)), IsEmpty());
}

TEST_F(PreferencePrecedence, AnotherValueInALaterProfileIsReportedWithBothPlaces) {
  writeProfile("a", "10");
  writeProfile("b", "11");
  writeProfile("c", "10");
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_THAT(preferences->getProblems(), Tell({{4,
                                                 {"SelectionImprovement \"11\" has no effect",
                                                  "the profile \"a\" sets \"10\"", "/a.xml:4"}}}));
  EXPECT_EQ(preferences->getProblems()[0].file, m_sources.profileDirectory + "/b.xml");
}

TEST_F(PreferencePrecedence, TheSwitchMayDifferFromProfileToProfile) {
  writeProfile("a", "true", Switch);
  writeProfile("b", "false", Switch);
  EXPECT_THAT(ScopedPreferenceMgr(m_sources)->getProblems(), IsEmpty());
}

TEST_F(PreferencePrecedence, TheOrderOfProfilesIsThatOfTheirNamesNotOfTheirFiles) {
  // "a-.xml" comes before "a.xml", but "a" before "a-".
  writeProfile("a-", "11");
  writeProfile("a", "10");
  EXPECT_EQ(ScopedPreferenceMgr(m_sources)->getSettings(SelectionImprovement)[0].profile, "a");
}

}  // namespace tests
