// The settings of a selection: defaults, values in force, and invalid values.

#include "tests/unit/api/api_fixture.h"
#include "vpn/Api/AHS/AHSSettings.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;
using tests::LogCapture;
using tests::preferenceElement;
using tests::preferencesText;
using tests::ScopedPreferenceMgr;
using tests::TemporaryDirectory;

namespace {

struct NumberRow {
  const char* name;
  unsigned int HS_SETTINGS::*field;
  unsigned int defaultValue;
  unsigned int least;
  unsigned int most;
};

const NumberRow NumberRows[] = {
    {"SelectionResumeTime", &HS_SETTINGS::nResumeTime, 4, 0, 8760},
    {"SelectionImprovement", &HS_SETTINGS::nImprovement, 20, 0, 1000},
    {"SelectionClearCache", &HS_SETTINGS::nClearCache, 14, 1, 365},
    {"SelectionConnectTimeout", &HS_SETTINGS::nConnectTimeout, 10000, 3000, 600000},
    {"SelectionReconnectTimeout", &HS_SETTINGS::nReconnectTimeout, 5000, 100, 600000},
    {"SelectionPingTimeout", &HS_SETTINGS::nPingTimeout, 2000, 1000, 60000},
    {"SelectionPingsPerHeadend", &HS_SETTINGS::nPingsPerHeadend, 3, 1, 100},
    {"SelectionTestPingTimeout", &HS_SETTINGS::nTestPingTimeout, 3, 1, 60},
    {"SelectionMaxResults", &HS_SETTINGS::nMaxResults, 100, 1, 100000},
};

class AHSSettingsTest : public testing::Test {
 protected:
  HS_SETTINGS read() {
    HS_SETTINGS settings;
    settings.bAHSEnabled = true;
    for (const NumberRow& row : NumberRows) {
      settings.*row.field = 4711;
    }
    CAHSSettings::GetSettings(settings);
    return settings;
  }

  HS_SETTINGS readFrom(const std::string& name, const std::string& value) {
    PreferenceMgr::Sources sources;
    sources.userPreferencesFile =
        m_directory.Write("user.xml", preferencesText(preferenceElement(name, value)));
    const ScopedPreferenceMgr preferences(sources);
    return read();
  }

  TemporaryDirectory m_directory;
};

void expectDefaults(const HS_SETTINGS& settings) {
  EXPECT_FALSE(settings.bAHSEnabled);
  for (const NumberRow& row : NumberRows) {
    EXPECT_EQ(settings.*row.field, row.defaultValue) << row.name;
  }
}

}  // namespace

TEST_F(AHSSettingsTest, WithoutPreferencesOrAValueInThemAllAreDefaultsAndNothingIsLogged) {
  const LogCapture log;
  expectDefaults(read());
  {
    const ScopedPreferenceMgr preferences({});
    expectDefaults(read());
  }
  EXPECT_EQ(PreferenceMgr::acquireInstance(), nullptr) << "the acquisition was not given back";
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(AHSSettingsTest, TheEndsOfEveryRangeAreTakenWithoutAWordEachIntoItsOwnField) {
  const LogCapture log;
  for (const NumberRow& row : NumberRows) {
    for (const unsigned int end : {row.least, row.most}) {
      HS_SETTINGS settings = readFrom(row.name, std::to_string(end));
      if (row.field != &HS_SETTINGS::nTestPingTimeout) {
        EXPECT_EQ(settings.*row.field, end) << row.name;
        settings.nTestPingTimeout = 3;
      }
      settings.*row.field = row.defaultValue;
      expectDefaults(settings);
    }
  }
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST_F(AHSSettingsTest, TheTimeLimitIsLongEnoughAndTheTestProbeGetsAThirdOfIt) {
  const struct {
    std::string connect, test;
    unsigned int connectMs, testSeconds;
  } rows[] = {{"100", "5", 3000, 1},   {"2999", "1", 3000, 1},     {"3000", "60", 3000, 1},
              {"6000", "60", 6000, 2}, {"600000", "5", 600000, 5}, {"10000", "1", 10000, 1}};
  for (const auto& row : rows) {
    PreferenceMgr::Sources sources;
    sources.preferences = {{SelectionConnectTimeout, row.connect},
                           {SelectionTestPingTimeout, row.test}};
    const ScopedPreferenceMgr preferences(sources);
    const LogCapture log;
    const HS_SETTINGS settings = read();
    EXPECT_EQ(settings.nConnectTimeout, row.connectMs) << row.connect;
    EXPECT_EQ(settings.nTestPingTimeout, row.testSeconds) << row.connect;
    EXPECT_EQ(log.Lines().size(), std::stoi(row.connect) < 3000 ? 1U : 0U) << row.connect;
  }
}

TEST_F(AHSSettingsTest, AValueThatMayNotStandGivesTheDefaultAndAWarning) {
  for (const NumberRow& row : NumberRows) {
    for (const std::string& wrong :
         {std::to_string(row.most + 1),
          std::to_string(
              row.field == &HS_SETTINGS::nConnectTimeout ? 99L : static_cast<long>(row.least) - 1),
          std::string("many"), std::string()}) {
      const LogCapture log;
      EXPECT_EQ(readFrom(row.name, wrong).*row.field, row.defaultValue) << row.name << wrong;
      // The first line is about the file, the second about the consequence.
      ASSERT_THAT(log.Lines(), SizeIs(2)) << row.name << wrong;
      EXPECT_THAT(log.Lines()[1], AllOf(StartsWith("vpn/Api/AHS/AHSSettings: GetSettings: " +
                                                   std::to_string(Logging::DBG_Warning)),
                                        HasSubstr(std::string(row.name) + " is \"" + wrong + "\""),
                                        HasSubstr("the default ")));
    }
  }
}

TEST_F(AHSSettingsTest, AValueThatComesFromElsewhereThanAFileIsCheckedToo) {
  PreferenceMgr::Sources sources;
  sources.preferences = {{SelectionMaxResults, "1\n2"}};
  const ScopedPreferenceMgr preferences(sources);
  const LogCapture log;
  EXPECT_EQ(read().nMaxResults, 100U);
  ASSERT_THAT(log.Lines(), SizeIs(1));
  EXPECT_THAT(log.Lines()[0], HasSubstr("SelectionMaxResults is \"1\\x0a2\""));
}
