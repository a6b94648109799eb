// Preferences files: what is taken from them, and what is left out or kept when a value is wrong.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/UserPreferences.h"

using testing::ElementsAre;
using testing::IsEmpty;
using tests::preferenceElement;
using tests::PreferencesReading;
using tests::preferencesText;
using tests::ProblemAt;
using tests::TemporaryDirectory;
using Pieces = std::vector<std::string>;

namespace {

class PreferencesFileTest : public testing::Test {
 protected:
  PreferencesReading read(const std::string& inside) {
    return tests::readPreferences(m_directory.Write("preferences.xml", preferencesText(inside)));
  }

  TemporaryDirectory m_directory;
};

bool isSetHere(const PreferenceBase::Definition& definition) {
  return definition.id != EnableAutomaticServerSelection;
}

}  // namespace

TEST_F(PreferencesFileTest, EveryPreferenceOfItsKindIsReadByItsName) {
  std::string inside;
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    if (isSetHere(definition)) {
      inside += preferenceElement(definition.name, definition.defaultValue);
    }
  }
  const PreferencesReading reading = read(inside);
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.problems, IsEmpty());
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    EXPECT_EQ(reading.Value(definition.id),
              isSetHere(definition) ? definition.defaultValue : "unset")
        << definition.name;
  }
}

TEST_F(PreferencesFileTest, APreferenceThatIsNotThereIsUnset) {
  EXPECT_EQ(read("").Value(SelectionImprovement), "unset");
}

TEST_F(PreferencesFileTest, ANumberThatIsNotAllowedIsReportedAndKeptAsItIsWritten) {
  const PreferencesReading reading = read(preferenceElement("SelectionImprovement", "1001") + "\n" +
                                          preferenceElement("SelectionMaxResults", "many"));
  EXPECT_TRUE(reading.usable);
  EXPECT_EQ(reading.Value(SelectionImprovement), "1001");
  EXPECT_EQ(reading.Value(SelectionMaxResults), "many");
  EXPECT_THAT(
      reading.problems,
      ElementsAre(
          ProblemAt(3, Pieces{"\"1001\"", "SelectionImprovement", "from 0 to 1000 (percent)"}),
          ProblemAt(4, Pieces{"\"many\"", "SelectionMaxResults", "from 1 to 100000"})));
}

TEST_F(PreferencesFileTest, AWordThatIsNotAllowedIsLeftOut) {
  const PreferencesReading reading = read(preferenceElement("ProxySettings", "Override") + "\n" +
                                          preferenceElement("RoundTripTime", "kernel"));
  EXPECT_EQ(reading.Value(ProxySettings), "unset");
  EXPECT_EQ(reading.Value(RoundTripTime), "unset");
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"\"Override\"", "did you mean \"override\"?"}),
                          ProblemAt(4, Pieces{"\"kernel\"", "\"network\" or \"response\""})));
}

TEST_F(PreferencesFileTest, AProxyThatCannotBeReachedByThatHostOrPortIsLeftOut) {
  const PreferencesReading reading = read(preferenceElement("ProxyHost", "http://proxy:3128") +
                                          "\n" + preferenceElement("ProxyPort", "65536"));
  EXPECT_EQ(reading.Value(ProxyHost), "unset");
  EXPECT_EQ(reading.Value(ProxyPort), "unset");
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"\"http://proxy:3128\"", "without scheme, port"}),
                          ProblemAt(4, Pieces{"\"65536\"", "from 1 to 65535"})));
}

TEST_F(PreferencesFileTest, TheProxyOfAFileIsItsHostAndPort) {
  UserPreferences preferences;
  EXPECT_EQ(preferences.getProxyHost(), "");
  EXPECT_EQ(preferences.getProxyPort(), "");
  preferences.setPreferences(
      read(preferenceElement("ProxyHost", "proxy1") + preferenceElement("ProxyPort", "3128"))
          .preferences);
  EXPECT_EQ(preferences.getProxyHost(), "proxy1");
  EXPECT_EQ(preferences.getProxyPort(), "3128");
}

TEST_F(PreferencesFileTest, TheSwitchOfAProfileIsSentThere) {
  const PreferencesReading reading =
      read(preferenceElement("EnableAutomaticServerSelection", "true"));
  EXPECT_EQ(reading.Value(EnableAutomaticServerSelection), "unset");
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(3, Pieces{"belongs in a profile"})));
}

TEST_F(PreferencesFileTest, UserControllableIsReportedAndThePreferenceUsed) {
  const PreferencesReading reading =
      read("<preference name=\"SelectionImprovement\" value=\"5\" user-controllable=\"true\"/>");
  EXPECT_EQ(reading.Value(SelectionImprovement), "5");
  Preference* preference = nullptr;
  ASSERT_TRUE(reading.preferences.getPreference(SelectionImprovement, preference));
  EXPECT_FALSE(preference->isUserControllable());
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"\"user-controllable\"", "\"name\", \"value\""})));
}

TEST_F(PreferencesFileTest, AMisspeltPreferenceIsLeftOutWithTheNearestRightName) {
  const PreferencesReading reading = read(preferenceElement("SelectionImprovment", "5"));
  EXPECT_EQ(reading.Value(SelectionImprovement), "unset");
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(3, Pieces{"did you mean \"SelectionImprovement\"?"})));
}

TEST_F(PreferencesFileTest, TheFirstRightValueCounts) {
  const PreferencesReading reading = read(preferenceElement("ProxySettings", "nnone") + "\n" +
                                          preferenceElement("ProxySettings", "none") + "\n" +
                                          preferenceElement("ProxySettings", "system"));
  EXPECT_EQ(reading.Value(ProxySettings), "none");
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(3, Pieces{"did you mean \"none\"?"}),
                                            ProblemAt(5, Pieces{"already in line 4"})));
}

TEST_F(PreferencesFileTest, AProfileInItsPlaceIsSkippedAndTheResultLeftAlone) {
  ProfileFile contents;
  contents.preferences.set(Preference(SelectionImprovement, "7", false));
  std::vector<FileProblem> problems;
  const std::string path = m_directory.Write("p.xml", tests::profileWithHosts(""));
  EXPECT_FALSE(readConfigurationFile(path, ConfigurationKind::Preferences, contents, problems));
  EXPECT_THAT(problems, ElementsAre(ProblemAt(2, Pieces{"<profile>", "<preferences>"})));
  Preference* preference = nullptr;
  ASSERT_TRUE(contents.preferences.getPreference(SelectionImprovement, preference));
  EXPECT_EQ(preference->getPreferenceValue(), "7");
}
