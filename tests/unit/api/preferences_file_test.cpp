// Preferences files: what is taken from them, and what is left out or kept when a value is wrong.

#include "tests/unit/api/api_fixture.h"

namespace tests {
namespace {

using testing::IsEmpty;

class PreferencesFileTest : public FileTest {
 protected:
  Reading readText(const std::string& text) {
    return readAs(ConfigurationKind::Preferences, m_directory.Write("preferences.xml", text));
  }
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
  const Reading reading = readText(preferencesText(inside));
  EXPECT_TRUE(reading.usable);
  EXPECT_THAT(reading.problems, IsEmpty());
  for (const PreferenceBase::Definition& definition : PreferenceBase::definitions()) {
    EXPECT_EQ(reading.Value(definition.id),
              isSetHere(definition) ? definition.defaultValue : "unset")
        << definition.name;
  }
}

TEST_F(PreferencesFileTest, WhatIsNotAllowedIsReportedAndANumberKeptAsItIsWritten) {
  const auto expect = [this](PreferenceId id, const std::string& inside, const char* value,
                             const std::vector<Told>& told) {
    SCOPED_TRACE(inside);
    const Reading reading = readText(preferencesText(inside));
    EXPECT_TRUE(reading.usable);
    EXPECT_EQ(reading.Value(id), value);
    EXPECT_THAT(reading.problems, Tell(told));
  };
  expect(SelectionImprovement, "", "unset", {});
  expect(SelectionImprovement, preferenceElement("SelectionImprovement", "1001"), "1001",
         {{3, {"\"1001\"", "SelectionImprovement", "from 0 to 1000 (percent)"}}});
  expect(SelectionMaxResults, preferenceElement("SelectionMaxResults", "many"), "many",
         {{3, {"\"many\"", "SelectionMaxResults", "from 1 to 100000"}}});
  expect(ProxySettings, preferenceElement("ProxySettings", "Override"), "unset",
         {{3, {"\"Override\"", "did you mean \"override\"?"}}});
  expect(RoundTripTime, preferenceElement("RoundTripTime", "kernel"), "unset",
         {{3, {"\"kernel\"", "\"network\" or \"response\""}}});
  expect(ProxyHost, preferenceElement("ProxyHost", "http://proxy:3128"), "unset",
         {{3, {"\"http://proxy:3128\"", "without scheme, port"}}});
  expect(ProxyPort, preferenceElement("ProxyPort", "65536"), "unset",
         {{3, {"\"65536\"", "from 1 to 65535"}}});
  expect(EnableAutomaticServerSelection, switchElement("value=\"true\""), "unset",
         {{3, {"belongs in a profile"}}});
  expect(SelectionImprovement,
         R"(<preference name="SelectionImprovement" value="5" user-controllable="true"/>)", "5",
         {{3, {"\"user-controllable\"", "\"name\", \"value\""}}});
  expect(SelectionImprovement, preferenceElement("SelectionImprovment", "5"), "unset",
         {{3, {"did you mean \"SelectionImprovement\"?"}}});
  expect(ProxySettings,  // the first right value counts
         preferenceElement("ProxySettings", "nnone") + "\n" +
             preferenceElement("ProxySettings", "none") + "\n" +
             preferenceElement("ProxySettings", "system"),
         "none", {{3, {"did you mean \"none\"?"}}, {5, {"already in line 4"}}});
}

}  // namespace tests
