// `ahs profile` and `ahs preferences` as a user sees them: the real program on typical files, both
// outputs and the exit status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/integration/command_test.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ProfileCommandTest : public CommandTest {
 protected:
  ProfileCommandTest() {
    std::filesystem::create_directory(m_profiles);
    std::filesystem::remove(m_preferences);
  }

  /// @return the path of the file.
  std::string writeProfile(const std::string& name, const std::string& switchAttributes,
                           const std::string& hosts) const {
    const std::string preference =
        switchAttributes.empty()
            ? ""
            : "<preference name=\"EnableAutomaticServerSelection\" " + switchAttributes + "/>";
    writeFile(".config/ahs/profiles/" + name,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<profile version=\"1\">\n"
              "<preferences>" +
                  preference + "</preferences>\n<hosts>\n" + hosts + "</hosts>\n</profile>\n");
    return m_profiles + "/" + name;
  }

  const std::string m_profiles = home + "/.config/ahs/profiles";
  const std::string m_preferences = home + "/.config/ahs/preferences.xml";
};

TEST_F(ProfileCommandTest, CheckPrintsEveryMistakeWithItsPlaceAndEndsWithOne) {
  const std::string a =
      writeProfile("a.xml", "value=\"ture\"", "<host name=\"x\" adress=\"gw\"/>\n");
  const std::string b = writeProfile("b.xml", "", "<host name=\"y\"/>\n  <host name=\"y\"/>\n<");
  const Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, AllOf(StartsWith(a + ":3:64: the value \"ture\""),
                                 HasSubstr("did you mean \"true\"?"),
                                 HasSubstr("\n" + a + ":5:16: unknown attribute \"adress\""),
                                 HasSubstr("\n" + b + ":7:"),
                                 testing::EndsWith("\n2 files, 0 host entries, 3 mistakes\n")));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(ProfileCommandTest, CheckTakesFilesOfEitherKindAndDirectories) {
  const std::string a = writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  writeFile("user.xml",
            "<preferences version=\"1\">\n<preference name=\"SelectionImprovment\" value=\"5\"/>\n"
            "</preferences>\n");
  const json result = runJson({"profile", "check", a, m_profiles, home + "/user.xml"}, 1);
  EXPECT_EQ(result["files"], 3);
  EXPECT_EQ(result["hostEntries"], 2);
  ASSERT_EQ(result["problems"].size(), 1U);
  EXPECT_EQ(result["problems"][0]["file"], home + "/user.xml");
  EXPECT_EQ(result["problems"][0]["line"], 2);
  EXPECT_EQ(result["problems"][0]["column"], 13);
}

TEST_F(ProfileCommandTest, CheckWithoutAPlaceLooksWhereASelectionWould) {
  writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.out, HasSubstr("looked at: " + m_profiles));
  EXPECT_THAT(outcome.out, HasSubstr("not there: " + m_preferences));
  EXPECT_THAT(outcome.out, HasSubstr("1 file, 1 host entry, no mistakes\n"));
  writePreferences(preference("ProxyHost", "proxy"));
  outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr(m_preferences + ":4:3: ProxyHost has no effect in a user's"));
  EXPECT_THAT(outcome.out, HasSubstr("looked at: " + m_profiles + ", " + m_preferences));
  EXPECT_EQ(outcome.err, "");
}

TEST_F(ProfileCommandTest, CheckSaysThatNoHostEntryTakesPart) {
  const std::string a = writeProfile("a.xml", "", "<host name=\"x\"/>\n");
  const Outcome whole = run({"profile", "check"});
  EXPECT_EQ(whole.exitStatus, 0);
  EXPECT_THAT(whole.err, HasSubstr("no host entry takes part in automatic selection"));
  EXPECT_THAT(run({"profile", "check", a}).err,
              HasSubstr("set EnableAutomaticServerSelection to true"));
}

TEST_F(ProfileCommandTest, TheExampleOfTheDocumentationIsAcceptedAndAllThreeTakePart) {
  const std::string text = readFile(AHS_SOURCE_DIR "/docs/profiles.md");
  const std::string fence = "```xml\n";
  const std::size_t begin = text.find(fence) + fence.size();
  const std::size_t end = text.find("```", begin);
  ASSERT_LT(begin, end);
  writeFile(".config/ahs/profiles/europe.xml", text.substr(begin, end - begin));
  const Outcome check = run({"profile", "check", m_profiles + "/europe.xml"});
  EXPECT_EQ(check.exitStatus, 0);
  EXPECT_EQ(check.out, "1 file, 3 host entries, no mistakes\n");
  const Outcome list = run({"profile", "list"});
  EXPECT_EQ(list.exitStatus, 0);
  EXPECT_EQ(list.err, "");
  // The documentation shows exactly this table.
  EXPECT_THAT(text, HasSubstr("$ ahs profile list\n" + list.out));
}

TEST_F(ProfileCommandTest, CheckRefusesWhatIsNotThereOrCouldHaveBeenWrittenByAnother) {
  const std::string a = writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  ASSERT_EQ(::chmod(a.c_str(), 0664), 0);
  Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("'chmod g-w " + a + "'"));
  EXPECT_EQ(run({"profile", "check", "--trust-profiles"}).exitStatus, 0);
  outcome = run({"profile", "check", home + "/none.xml"});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("there is no file or directory"));
  std::filesystem::remove_all(m_profiles);
  EXPECT_THAT(run({"profile", "check"}).err, HasSubstr("there is no profile directory"));
}

TEST_F(ProfileCommandTest, ListTellsOfEveryHostEntryWhetherItTakesPartAndWhy) {
  writeProfile("office.xml", "value=\"true\"",
               "<host name=\"Zürich\" address=\"gw-z:8443\"/><host name=\"gw-plain\"/>\n");
  writeProfile("own.xml", "value=\"false\" user-controllable=\"true\"",
               "<host name=\"own\" address=\"gw-own\"/>\n");
  writeProfile("off.xml", "value=\"false\"", "<host name=\"off\" address=\"gw-off\"/>\n");
  writeProfile("without.xml", "", "<host name=\"without\"/>\n<host name=\"Zürich\"/>\n");
  const Outcome outcome = run({"profile", "list"});
  EXPECT_EQ(outcome.exitStatus, 0);
  const std::string place = m_profiles + "/office.xml:5";
  EXPECT_EQ(
      outcome.out,
      "HOST ENTRY  PROFILE  ADDRESS    TAKES PART  BECAUSE\n"
      "Zürich      office   gw-z:8443  yes         EnableAutomaticServerSelection is true\n"
      "Zürich      without  Zürich     no          left out: the name belongs to the entry in " +
          place +
          "\ngw-plain    office   gw-plain   yes         EnableAutomaticServerSelection is true\n"
          "off         off      gw-off     no          EnableAutomaticServerSelection is \"false\" "
          "and not user-controllable\n"
          "own         own      gw-own     yes         EnableAutomaticServerSelection is "
          "\"false\", "
          "but left to the user\n"
          "without     without  without    no          its profile does not set "
          "EnableAutomaticServerSelection\n");
  EXPECT_THAT(outcome.err, HasSubstr(m_profiles + "/without.xml:6:1: "));
  EXPECT_EQ(runJson({"profile", "list"}, 0)["hosts"][0],
            json({{"name", "Zürich"},
                  {"profile", "office"},
                  {"file", m_profiles + "/office.xml"},
                  {"line", 5},
                  {"address", "gw-z:8443"},
                  {"takesPart", true},
                  {"because", "EnableAutomaticServerSelection is true"}}));
}

TEST_F(ProfileCommandTest, NothingOfAFileMovesTheCursor) {
  writeProfile("a\x1b[2J.xml", "value=\"true\"", "<host name=\"x\" adress=\"&#9;\"/>\n");
  const Outcome check = run({"profile", "check"});
  const Outcome list = run({"profile", "list"});
  EXPECT_THAT(check.out + list.out + list.err, Not(HasSubstr("\x1b")));
  EXPECT_THAT(check.out, HasSubstr("a\\x1b[2J.xml"));
}

TEST_F(ProfileCommandTest, PreferencesTellWhereEachValueComesFromAndWhatItGoesBefore) {
  const std::string profile = m_profiles + "/a.xml";
  writeFile(".config/ahs/profiles/a.xml", "<profile version=\"1\"><preferences>\n" +
                                              preference("SelectionImprovement", "10") +
                                              "</preferences></profile>");
  writePreferences(preference("SelectionImprovement", "30") +
                   preference("SelectionClearCache", "400"));
  writeFile("global.xml", "<preferences version=\"1\">\n" + preference("ProxyHost", "proxy1") +
                              "</preferences>\n");
  const std::vector<std::string> show = {"preferences", "show", "--global-preferences",
                                         home + "/global.xml"};
  const Outcome outcome = run(show);
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.out, ContainsRegex("SelectionImprovement +\"10\" +" + profile +
                                         ":2 +\"30\" " + m_preferences + ":4, \"20\" default\n"));
  EXPECT_THAT(outcome.out, ContainsRegex("SelectionClearCache +\"14\" +default; \"400\" in " +
                                         m_preferences + ":5 is not allowed"));
  EXPECT_THAT(outcome.out, ContainsRegex("SelectionTestPingTimeout +\"[0-9]+\" +default\n"));
  EXPECT_THAT(outcome.err, HasSubstr(m_preferences + ":5:"));

  EXPECT_THAT(outcome.out, ContainsRegex("ProxyHost +\"proxy1\" +" + home + "/global.xml:2 "));
  EXPECT_EQ(runJson(show, 0)["preferences"].size(), 15U);
}

}  // namespace
}  // namespace tests
