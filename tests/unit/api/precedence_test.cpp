// Which value of a preference counts: the table in precedence_cases.md, row by row, with real
// files.

#include <sstream>

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/PreferenceMgr.h"

using testing::ElementsAre;
using testing::IsEmpty;
using tests::preferencesText;
using tests::ProblemAt;
using tests::profileText;
using tests::ScopedPreferenceMgr;
using tests::TemporaryDirectory;
using Pieces = std::vector<std::string>;

namespace {

struct Row {
  std::string text;  // as it stands in the table
  std::string preference;
  std::string profileA;
  std::string profileB;
  std::string user;
  std::string global;
  std::string inForce;
};

std::vector<std::string> cellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream stream(line);
  std::string cell;
  std::getline(stream, cell, '|');  // before the first
  while (std::getline(stream, cell, '|')) {
    const std::size_t begin = cell.find_first_not_of(" `");
    const std::size_t end = cell.find_last_not_of(" `");
    cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end + 1 - begin));
  }
  return cells;
}

std::vector<Row> rowsOfTheTable() {
  std::istringstream lines(tests::readFile(AHS_SOURCE_DIR "/tests/unit/api/precedence_cases.md"));
  std::vector<Row> rows;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("| `")) {
      const std::vector<std::string> cells = cellsOf(line);
      rows.push_back(
          {line, cells.at(0), cells.at(1), cells.at(2), cells.at(3), cells.at(4), cells.at(5)});
    }
  }
  return rows;
}

/// The element that a cell stands for: nothing, a value, or a value and "uc".
std::string element(const std::string& preference, const std::string& cell) {
  if (cell == "-") {
    return "";
  }
  const std::size_t blank = cell.find(' ');
  const bool isUsers = blank != std::string::npos;
  EXPECT_TRUE(!isUsers || cell.substr(blank + 1) == "uc") << cell;
  return "<preference name=\"" + preference + "\" value=\"" + cell.substr(0, blank) + "\"" +
         (isUsers ? " user-controllable=\"true\"" : "") + "/>";
}

class PreferencePrecedence : public testing::TestWithParam<Row> {};

class PreferenceSettings : public testing::Test {
 protected:
  PreferenceSettings() { m_sources.profileDirectory = m_directory.MakeDirectory("profiles"); }

  void writeProfile(const std::string& name, const std::string& preferences) {
    m_directory.Write("profiles/" + name,
                      profileText("<preferences>\n" + preferences + "\n</preferences>"));
  }

  TemporaryDirectory m_directory;
  PreferenceMgr::Sources m_sources;
};

}  // namespace

TEST_P(PreferencePrecedence, IsAsTheTableSays) {
  const Row& row = GetParam();
  const TemporaryDirectory directory;
  PreferenceMgr::Sources sources;
  sources.profileDirectory = directory.MakeDirectory("profiles");
  for (const auto& [name, cell] : {std::pair{"a", row.profileA}, std::pair{"b", row.profileB}}) {
    directory.Write(
        std::string("profiles/") + name + ".xml",
        profileText("<preferences>" + element(row.preference, cell) + "</preferences>"));
  }
  sources.userPreferencesFile =
      directory.Write("user.xml", preferencesText(element(row.preference, row.user)));
  sources.globalPreferencesFile =
      directory.Write("global.xml", preferencesText(element(row.preference, row.global)));
  const ScopedPreferenceMgr preferences(sources);
  std::string value = "untouched";
  ASSERT_EQ(preferences->getPreferenceValue(PreferenceBase::find(row.preference)->id, value), 0);
  EXPECT_EQ(value, row.inForce) << row.text;
}

INSTANTIATE_TEST_SUITE_P(OfTheTable, PreferencePrecedence, testing::ValuesIn(rowsOfTheTable()),
                         [](const testing::TestParamInfo<Row>& row) {
                           return "Row" + std::to_string(row.index + 1);
                         });

TEST(PreferencePrecedenceTable, HasEveryPlaceAndEveryException) {
  // A row that is lost would be a test that is lost.
  EXPECT_EQ(rowsOfTheTable().size(), 20U);
}

TEST_F(PreferenceSettings, AreAllPlacesInTheirOrderWithFileAndLine) {
  writeProfile("a.xml", tests::preferenceElement("SelectionImprovement", "10"));
  m_sources.userPreferencesFile = m_directory.Write(
      "user.xml", preferencesText(tests::preferenceElement("SelectionImprovement", "30")));
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
}

TEST_F(PreferenceSettings, OfTheCallersProxyAreItsOwn) {
  m_sources.preferences = {{ProxySettings, "override"}, {ProxyHost, "proxy1"}, {ProxyPort, "8080"}};
  const ScopedPreferenceMgr preferences(m_sources);
  const auto settings = preferences->getSettings(ProxyHost);
  ASSERT_EQ(settings.size(), 2U);
  EXPECT_EQ(settings[0].origin, PreferenceMgr::Setting::Origin::Caller);
  EXPECT_EQ(settings[0].value, "proxy1");
}

TEST_F(PreferenceSettings, OfNoPreferenceAreNone) {
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_THAT(preferences->getSettings(static_cast<PreferenceId>(1)), IsEmpty());
}

TEST_F(PreferenceSettings, AnotherValueInALaterProfileIsReportedWithBothPlaces) {
  writeProfile("a.xml", tests::preferenceElement("SelectionImprovement", "10"));
  writeProfile("b.xml", tests::preferenceElement("SelectionImprovement", "11"));
  writeProfile("c.xml", tests::preferenceElement("SelectionImprovement", "10"));
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_THAT(preferences->getProblems(),
              ElementsAre(ProblemAt(4, Pieces{"SelectionImprovement \"11\" has no effect",
                                              "the profile \"a\" sets \"10\"", "/a.xml:4"})));
  EXPECT_EQ(preferences->getProblems()[0].file, m_sources.profileDirectory + "/b.xml");
}

TEST_F(PreferenceSettings, TheSwitchMayDifferFromProfileToProfile) {
  writeProfile("a.xml", tests::preferenceElement("EnableAutomaticServerSelection", "true"));
  writeProfile("b.xml", tests::preferenceElement("EnableAutomaticServerSelection", "false"));
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_THAT(preferences->getProblems(), IsEmpty());
}

TEST_F(PreferenceSettings, TheOrderOfProfilesIsThatOfTheirNamesNotOfTheirFiles) {
  // "a-.xml" comes before "a.xml", but "a" before "a-".
  writeProfile("a-.xml", tests::preferenceElement("SelectionImprovement", "11"));
  writeProfile("a.xml", tests::preferenceElement("SelectionImprovement", "10"));
  const ScopedPreferenceMgr preferences(m_sources);
  EXPECT_EQ(preferences->getSettings(SelectionImprovement).front().profile, "a");
}
