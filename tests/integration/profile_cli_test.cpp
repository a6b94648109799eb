// `ahs profile` and `ahs preferences` as a user meets them: the real program over directories of
// files as people have them, its two outputs and its exit status.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/integration/running_program.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using tests::Outcome;

class ProfileCommandTest : public testing::Test {
 protected:
  ProfileCommandTest() : m_profiles(m_home.MakeDirectory(".config/ahs/profiles")) {
    // What other tests of the umask have made on the way is this user's as well.
    for (const char* directory : {".config", ".config/ahs"}) {
      ::chmod(m_home.File(directory).c_str(), 0755);
    }
  }

  std::string writeProfile(const std::string& name, const std::string& switchAttributes,
                           const std::string& hosts) const {
    const std::string preference =
        switchAttributes.empty()
            ? ""
            : "<preference name=\"EnableAutomaticServerSelection\" " + switchAttributes + "/>";
    return m_home.Write(".config/ahs/profiles/" + name,
                        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<profile version=\"1\">\n"
                        "<preferences>" +
                            preference + "</preferences>\n<hosts>\n" + hosts +
                            "</hosts>\n</profile>\n");
  }

  Outcome run(const std::vector<std::string>& arguments) const {
    return tests::Program(arguments, {"HOME=" + m_home.Path(), "PATH=/usr/bin:/bin"}).finish();
  }

  json runJson(std::vector<std::string> arguments, int exitStatus) const {
    arguments.emplace_back("--json");
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitStatus, exitStatus) << outcome.err;
    return json::parse(outcome.out, nullptr, false);
  }

  tests::TemporaryDirectory m_home;
  std::string m_profiles;
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace

TEST_F(ProfileCommandTest, CheckFindsNothingInRightFilesOfTheUsualDirectory) {
  writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  writeProfile("b.xml", "", "<host name=\"y\"/><host name=\"z\"/>\n");
  const Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 0);
  const std::vector<std::string> lines = linesOf(outcome.out);
  ASSERT_GE(lines.size(), 2U);
  EXPECT_THAT(lines[0], StartsWith("looked at: " + m_profiles));
  EXPECT_EQ(lines.back(), "2 files, 3 host entries, no mistakes");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(ProfileCommandTest, CheckPrintsEveryMistakeWithItsPlaceAndEndsWithOne) {
  const std::string a =
      writeProfile("a.xml", "value=\"ture\"", "<host name=\"x\" adress=\"gw\"/>\n");
  const std::string b = writeProfile("b.xml", "", "<host name=\"y\"/>\n  <host name=\"y\"/>\n<");
  const Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 1);
  const std::vector<std::string> lines = linesOf(outcome.out);
  ASSERT_GE(lines.size(), 5U) << outcome.out;
  EXPECT_THAT(lines[0], StartsWith(a + ":3:64: the value \"ture\""));
  EXPECT_THAT(lines[0], HasSubstr("did you mean \"true\"?"));
  EXPECT_THAT(lines[1], StartsWith(a + ":5:16: unknown attribute \"adress\""));
  EXPECT_THAT(lines[2], StartsWith(b + ":7:"));
  EXPECT_EQ(lines.back(), "2 files, 0 host entries, 3 mistakes");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(ProfileCommandTest, CheckTakesFilesOfEitherKindAndDirectories) {
  const std::string a = writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  const std::string preferences = m_home.Write(
      "preferences.xml",
      "<preferences version=\"1\">\n<preference name=\"SelectionImprovment\" value=\"5\"/>\n"
      "</preferences>\n");
  const json result = runJson({"profile", "check", a, m_profiles, preferences}, 1);
  EXPECT_EQ(result["schema"], 1);
  EXPECT_EQ(result["files"], 3);
  EXPECT_EQ(result["hostEntries"], 2);
  ASSERT_EQ(result["problems"].size(), 1U);
  EXPECT_EQ(result["problems"][0]["file"], preferences);
  EXPECT_EQ(result["problems"][0]["line"], 2);
  EXPECT_EQ(result["problems"][0]["column"], 13);
  EXPECT_THAT(result["problems"][0]["text"].get<std::string>(),
              HasSubstr("did you mean \"SelectionImprovement\"?"));
}

TEST_F(ProfileCommandTest, CheckWithoutAPlaceLooksAtThePreferencesAsASelectionWould) {
  writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  const std::string preferences = m_home.Write(
      ".config/ahs/preferences.xml",
      "<preferences version=\"1\">\n<preference name=\"SelectionImprovment\" value=\"5\"/>\n"
      "<preference name=\"ProxyHost\" value=\"proxy\"/></preferences>");
  const Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr(preferences + ":2:13: unknown preference"));
  EXPECT_THAT(outcome.out, HasSubstr(preferences + ":3:1: ProxyHost has no effect in a user's"));
  EXPECT_THAT(outcome.out, HasSubstr("looked at: " + m_profiles + ", " + preferences));
  EXPECT_THAT(outcome.out, HasSubstr("2 files, 1 host entry, 2 mistakes\n"));
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(runJson({"profile", "check"}, 1)["lookedAt"], testing::Contains(preferences));
}

TEST_F(ProfileCommandTest, CheckSaysWhichPlacesAreNotThere) {
  writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  EXPECT_THAT(run({"profile", "check"}).out,
              HasSubstr("not there: " + m_home.File(".config/ahs/preferences.xml")));
}

TEST_F(ProfileCommandTest, CheckSaysThatNoHostEntryTakesPart) {
  m_home.Write(".config/ahs/profiles/a.xml",
               "<profile version=\"1\"><hosts><host name=\"x\"/></hosts></profile>");
  const Outcome whole = run({"profile", "check"});
  EXPECT_EQ(whole.exitStatus, 0);
  EXPECT_THAT(whole.err, HasSubstr("no host entry takes part in automatic selection"));
  EXPECT_THAT(run({"profile", "check", m_profiles}).err, HasSubstr("'ahs profile list' shows"));
  EXPECT_THAT(run({"profile", "check", m_profiles + "/a.xml"}).err,
              HasSubstr("set EnableAutomaticServerSelection to true"));
}

TEST_F(ProfileCommandTest, CheckOfPreferencesAloneNeedsNoProfileDirectory) {
  std::filesystem::remove(m_profiles);
  m_home.Write(".config/ahs/preferences.xml", "<preferences version=\"1\"/>");
  const Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("no mistakes\n"));
}

TEST_F(ProfileCommandTest, CheckOfAFileFindsANameThatStandsTwice) {
  const std::string a =
      writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n<host name=\"x\"/>\n");
  const Outcome outcome = run({"profile", "check", a});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_EQ(outcome.out,
            a + ":6:1: the host entry \"x\" is left out: the name belongs to the entry in " + a +
                ":5\n1 file, 1 host entry, 1 mistake\n");
  EXPECT_EQ(run({"profile", "check", m_profiles}).out, outcome.out);
}

TEST_F(ProfileCommandTest, CheckThatDoesNotListEveryMistakeDoesNotCallThoseListedAll) {
  std::string hosts;
  for (int i = 0; i < 1000; ++i) {
    hosts += "<host/>\n";
  }
  const std::string a = writeProfile("a.xml", "value=\"true\"", hosts);
  const Outcome outcome = run({"profile", "check", a});
  EXPECT_THAT(outcome.out, HasSubstr("1 file, 0 host entries, more than 99 mistakes\n"));
  const json result = runJson({"profile", "check", a}, 1);
  EXPECT_EQ(result["problems"].size(), 99U);
  EXPECT_EQ(result["problemsAreComplete"], false);
}

TEST_F(ProfileCommandTest, TheExampleOfTheDocumentationIsAcceptedAndAllThreeTakePart) {
  const std::string text = tests::readFile(AHS_SOURCE_DIR "/docs/profiles.md");
  const std::string fence = "```xml\n";
  const std::size_t begin = text.find(fence) + fence.size();
  const std::size_t end = text.find("```", begin);
  ASSERT_LT(begin, end);
  const std::string profile =
      m_home.Write(".config/ahs/profiles/europe.xml", text.substr(begin, end - begin));
  const Outcome check = run({"profile", "check", profile});
  EXPECT_EQ(check.exitStatus, 0);
  EXPECT_EQ(check.out, "1 file, 3 host entries, no mistakes\n");
  const Outcome list = run({"profile", "list"});
  EXPECT_EQ(list.exitStatus, 0);
  EXPECT_EQ(list.err, "");
  // The page shows this very table.
  EXPECT_THAT(text, HasSubstr("$ ahs profile list\n" + list.out));
  const json entries = runJson({"profile", "list"}, 0)["hosts"];
  ASSERT_EQ(entries.size(), 3U);
  for (const json& entry : entries) {
    EXPECT_EQ(entry["takesPart"], true) << entry;
  }
}

TEST_F(ProfileCommandTest, PreferencesShowWhatTurnsTheDirectionOfWritingAsItsCode) {
  writeProfile("a\xe2\x80\xae.xml", "value=\"true\"", "");
  m_home.Write(".config/ahs/profiles/b\xe2\x80\xae.xml",
               "<profile version=\"1\"><preferences>\n"
               "<preference name=\"SelectionImprovement\" value=\"10\"/></preferences></profile>");
  const Outcome outcome = run({"preferences", "show"});
  EXPECT_THAT(outcome.out, HasSubstr("b\\xe2\\x80\\xae.xml:2"));
  EXPECT_THAT(outcome.out, Not(HasSubstr("\xe2\x80\xae")));
}

TEST_F(ProfileCommandTest, AHostOfTheCommandLineThatIsNoUtf8IsShownWithCodes) {
  const Outcome outcome = run({"select", "gw\xff.example"});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("the host 'gw\\xff.example' cannot be used"));
}

TEST_F(ProfileCommandTest, CheckOfAPlaceThatIsNotThereIsAUsageError) {
  const Outcome outcome = run({"profile", "check", m_home.File("none.xml")});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("there is no file or directory"));
  std::filesystem::remove(m_profiles);
  EXPECT_THAT(run({"profile", "check"}).err, HasSubstr("there is no profile directory"));
}

TEST_F(ProfileCommandTest, AWrongOptionNamesTheCommandWhoseHelpTells) {
  const Outcome outcome = run({"profile", "check", "--loud"});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("'ahs profile check --help'"));
}

TEST_F(ProfileCommandTest, CheckRefusesWhatAnotherUserCouldHaveWrittenUnlessToldToTrustIt) {
  const std::string a = writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  ASSERT_EQ(::chmod(a.c_str(), 0664), 0);
  const Outcome outcome = run({"profile", "check"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("'chmod g-w " + a + "'"));
  EXPECT_EQ(run({"profile", "check", "--trust-profiles"}).exitStatus, 0);
}

TEST_F(ProfileCommandTest, SelectRefusesItTooAndSaysWhatToDo) {
  writeProfile("a.xml", "value=\"true\"", "<host name=\"x\" address=\"127.0.0.1:1\"/>\n");
  ASSERT_EQ(::chmod(m_profiles.c_str(), 0777), 0);
  const Outcome outcome = run({"select", "--no-cache", "--no-proxy"});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("'chmod go-w " + m_profiles + "'"));
  const Outcome trusting = run({"select", "--no-cache", "--no-proxy", "--trust-profiles"});
  EXPECT_EQ(trusting.exitStatus, 1) << trusting.err;
  EXPECT_THAT(trusting.err, Not(HasSubstr("chmod")));
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
  EXPECT_THAT(
      linesOf(outcome.out),
      ElementsAre(
          "HOST ENTRY  PROFILE  ADDRESS    TAKES PART  BECAUSE",
          "Zürich      office   gw-z:8443  yes         EnableAutomaticServerSelection is true",
          "Zürich      without  Zürich     no          left out: the name belongs to the entry "
          "in " +
              place,
          "gw-plain    office   gw-plain   yes         EnableAutomaticServerSelection is true",
          "off         off      gw-off     no          EnableAutomaticServerSelection is \"false\" "
          "and not user-controllable",
          "own         own      gw-own     yes         EnableAutomaticServerSelection is "
          "\"false\", "
          "but left to the user",
          "without     without  without    no          its profile does not set "
          "EnableAutomaticServerSelection"));
  EXPECT_THAT(outcome.err, HasSubstr(m_profiles + "/without.xml:6:1: "));
}

TEST_F(ProfileCommandTest, ListForAProgramHasTheSame) {
  const std::string a = writeProfile("a.xml", "value=\"true\"", "<host name=\"x\"/>\n");
  const json result = runJson({"profile", "list"}, 0);
  EXPECT_EQ(result["schema"], 1);
  EXPECT_EQ(result["hosts"],
            json::array({{{"name", "x"},
                          {"profile", "a"},
                          {"file", a},
                          {"line", 5},
                          {"address", "x"},
                          {"takesPart", true},
                          {"because", "EnableAutomaticServerSelection is true"}}}));
}

TEST_F(ProfileCommandTest, NothingOfAFileMovesTheCursor) {
  writeProfile("a\x1b[2J.xml", "value=\"true\"", "<host name=\"x\" adress=\"&#9;\"/>\n");
  const Outcome check = run({"profile", "check"});
  const Outcome list = run({"profile", "list"});
  EXPECT_THAT(check.out + list.out + list.err, Not(HasSubstr("\x1b")));
  EXPECT_THAT(check.out, HasSubstr("a\\x1b[2J.xml"));
}

TEST_F(ProfileCommandTest, PreferencesTellWhereEachValueComesFromAndWhatItGoesBefore) {
  const std::string profile = m_home.Write(
      ".config/ahs/profiles/a.xml",
      "<profile version=\"1\"><preferences>\n"
      "<preference name=\"SelectionImprovement\" value=\"10\"/></preferences></profile>");
  const std::string user = m_home.Write(
      ".config/ahs/preferences.xml",
      "<preferences version=\"1\">\n\n<preference name=\"SelectionImprovement\" value=\"30\"/>\n"
      "<preference name=\"SelectionClearCache\" value=\"400\"/></preferences>");
  const Outcome outcome = run({"preferences", "show"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_THAT(outcome.out, testing::ContainsRegex("SelectionImprovement +\"10\" +" + profile +
                                                  ":2 +\"30\" " + user + ":3, \"20\" default\n"));
  EXPECT_THAT(outcome.out,
              testing::ContainsRegex("SelectionClearCache +\"14\" +default; \"400\" in " + user +
                                     ":4 is not allowed"));
  EXPECT_THAT(outcome.out, testing::ContainsRegex("RoundTripTime +\"network\" +default\n"));
  EXPECT_THAT(outcome.err, HasSubstr(user + ":4:"));
}

TEST_F(ProfileCommandTest, PreferencesForAProgramHaveEveryPlace) {
  const std::string global = m_home.Write("global.xml",
                                          "<preferences version=\"1\">\n<preference "
                                          "name=\"ProxyHost\" value=\"proxy1\"/></preferences>");
  const json result = runJson({"preferences", "show", "--global-preferences", global}, 0);
  json proxy;
  for (const json& preference : result["preferences"]) {
    if (preference["name"] == "ProxyHost") {
      proxy = preference;
    }
  }
  EXPECT_EQ(result["preferences"].size(), 13U);
  EXPECT_EQ(proxy["value"], "proxy1");
  ASSERT_EQ(proxy["settings"].size(), 2U);
  EXPECT_EQ(proxy["settings"][0]["from"], "global");
  EXPECT_EQ(proxy["settings"][0]["file"], global);
  EXPECT_EQ(proxy["settings"][0]["line"], 2);
  EXPECT_EQ(proxy["settings"][1]["from"], "default");
}

TEST_F(ProfileCommandTest, APreferencesFileThatIsNamedAndNotThereIsAUsageError) {
  const Outcome outcome = run({"preferences", "show", "--preferences", m_home.File("none.xml")});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.out, IsEmpty());
}
