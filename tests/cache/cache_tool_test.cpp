// `ahs cache`, which shows, clears and finds the selection cache.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "tests/integration/command_test.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

constexpr long Day = 24L * 60 * 60;

class CacheCommandTest : public CommandTest {
 protected:
  /// Puts a file into the cache directory. @return its path.
  std::string write(const std::string& text, const std::string& name = "selection-1.xml") const {
    writeFile(".cache/ahs/" + name, text);
    return cache + "/" + name;
  }

  static std::string selectionOf(const std::string& place, const std::string& candidate, long age,
                                 const std::string& results = "<result name=\"gw\" rtt=\"7\"/>") {
    return "<selection place=\"" + place + "\" stored=\"" +
           std::to_string(std::time(nullptr) - age) + "\"><candidate name=\"" + candidate + "\"/>" +
           results + "</selection>";
  }

  json shown(int status = 0) const { return runJson({"cache", "show"}, status); }

  const std::string cache = home + "/.cache/ahs";
  const Gateway gateway{Near};
};

TEST_F(CacheCommandTest, WithoutAHomeDirectoryThereIsNoPathAndASelectionGoesOnWithOneWarning) {
  const Outcome selected = Program({"select", "--quiet", gateway.address()}, {}).finish();
  EXPECT_EQ(selected.exitStatus, 0);
  EXPECT_EQ(selected.out, gateway.address() + "\n");
  EXPECT_THAT(selected.err, HasSubstr("ahs: warning: neither HOME nor XDG_CACHE_HOME is set"));
  EXPECT_EQ(std::count(selected.err.begin(), selected.err.end(), '\n'), 1) << selected.err;
  for (const std::string action : {"path", "show", "clear"}) {
    const Outcome outcome = Program({"cache", action}, {}).finish();
    EXPECT_EQ(outcome.exitStatus, 2) << action;
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("name a directory with --cache-dir"));
  }
}

TEST_F(CacheCommandTest, WhereThereIsNoneThePathIsPrintedAndClearingMakesNothing) {
  EXPECT_EQ(run({"cache", "path"}).out, cache + "\n");
  EXPECT_EQ(runJson({"cache", "path"}, 0), (json{{"schema", 1}, {"path", cache}}));
  EXPECT_EQ(run({"cache", "path", "--cache-dir", "/none"}).out, "/none\n");
  EXPECT_EQ(runJson({"cache", "clear"}, 0), (json{{"schema", 1}, {"path", cache}, {"removed", 0}}));
  EXPECT_FALSE(std::filesystem::exists(home + "/.cache"));
}

TEST_F(CacheCommandTest, ASelectionIsShownWithItsPlaceAgeAndRankedResults) {
  const Gateway other{Near};
  run({"select", gateway.address(), other.address()});
  const Outcome outcome = run({"cache", "show"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  for (const std::string& text :
       {"Directory: " + cache + "\n", std::string("Selections: 1\n"),
        std::string("* answers here and now, for these candidates\n"), std::string("candidates: "),
        std::string("expires:    "), std::string("     1. 127.0.0.1:")}) {
    EXPECT_THAT(outcome.out, HasSubstr(text));
  }
  const json selection = shown().at("selections").at(0);
  EXPECT_EQ(selection.at("answersNow"), true);
  EXPECT_EQ(selection.at("here"), true);
  EXPECT_EQ(selection.at("current"), true);
  EXPECT_EQ(selection.at("candidates").size(), 2U);
  EXPECT_LT(selection.at("ageSeconds"), 60);
  const json& results = selection.at("results");
  EXPECT_EQ(results.size(), 2U);
  EXPECT_LE(results.at(0).at("metricMs"), results.at(1).at("metricMs"));
}

TEST_F(CacheCommandTest, WhatAnswersNothingIsShownAsThat) {
  const std::string here = shown().at("place");
  write(selectionOf(here, "old", 15 * Day), "selection-1.xml");
  write(selectionOf(here, "new", -Day), "selection-2.xml");
  write(selectionOf("nameserver 203.0.113.9 search cafe.test", "there", 60), "selection-3.xml");
  const Outcome outcome = run({"cache", "show"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  for (const char* text :
       {"  out of date: it answers nothing any more\n",
        "  stored in the future: it answers nothing until", "  of another place\n",
        "name server 203.0.113.9, search domain cafe.test"}) {
    EXPECT_THAT(outcome.out, HasSubstr(text));
  }
  EXPECT_THAT(outcome.out, Not(HasSubstr("* ")));
  const json all = shown();
  for (const json& selection : all.at("selections")) {
    EXPECT_EQ(selection.at("answersNow"), false);
  }
}

TEST_F(CacheCommandTest, TheClearCacheTimeOfThePreferencesDecidesWhatIsOutOfDate) {
  write(selectionOf("", "old", 15 * Day));
  EXPECT_EQ(shown().at("selections").at(0).at("current"), false);
  writePreferences(preference("SelectionClearCache", "20"));
  EXPECT_EQ(shown().at("selections").at(0).at("current"), true);
}

TEST_F(CacheCommandTest, AHostileFileIsShownWithinBoundsAndWithoutControlCharacters) {
  std::string results;
  for (int i = 0; i < 10000; ++i) {
    results += "<result name=\"gw&#x9;\xc2\x9b" + std::to_string(i) + "\" rtt=\"7\"/>";
  }
  write(selectionOf(std::string(10000, 'p'), std::string(10000, 'k'), 60, results));
  const Outcome outcome = run({"cache", "show"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_LT(outcome.out.size(), 8000U);
  EXPECT_THAT(outcome.out, HasSubstr("and 9990 more; --json shows all"));
  EXPECT_THAT(outcome.out, HasSubstr("gw\\x09\\xc2\\x9b0"));
  EXPECT_EQ(shown().at("selections").at(0).at("results").size(), 10000U);
}

TEST_F(CacheCommandTest, AFileThatCannotBeUsedIsExplainedAndTheOthersAreShown) {
  const std::string file = write("noise");
  write(selectionOf("", "right", 60), "selection-2.xml");
  const Outcome outcome = run({"cache", "show"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.err, HasSubstr(file + " is no selection of the cache, see line 1"));
  EXPECT_THAT(outcome.err, HasSubstr("'ahs cache clear' removes what is wrong"));
  const json all = shown(1);
  EXPECT_THAT(all.at("problem").get<std::string>(), HasSubstr("is no selection"));
  EXPECT_EQ(all.at("selections").size(), 1U);
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  EXPECT_THAT(run({"cache", "show"}).err, HasSubstr("may be written by every user"));
}

TEST_F(CacheCommandTest, ClearingRemovesWhatThisAndFormerVersionsHaveLeftAndNothingElse) {
  run({"select", "--quiet", gateway.address()});
  for (const char* name : {"selection-1.xml", "selection-1.xml.new-a1b2c3", "selections.xml",
                           "selections.xml.lock", "selections.xml.corrupt", "mine"}) {
    write("noise", name);
  }
  const Outcome outcome = run({"cache", "clear"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(outcome.out, "Removed 6 files: " + cache + "\n");
  EXPECT_EQ(unlink((cache + "/mine").c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_empty(cache));
  EXPECT_EQ(run({"cache", "clear"}).out, "There was nothing to remove: " + cache + "\n");
  EXPECT_EQ(runJson({"select", gateway.address()}, 0).at("fromCache"), false);
}

TEST_F(CacheCommandTest, WhatCannotBeClearedIsNamed) {
  write("noise");
  ASSERT_EQ(mkdir((cache + "/selection-2.xml").c_str(), 0700), 0);
  const Outcome half = run({"cache", "clear"});
  EXPECT_EQ(half.exitStatus, 1);
  EXPECT_THAT(half.err, HasSubstr("cannot remove " + cache + "/selection-2.xml"));
}

TEST_F(CacheCommandTest, WhereOthersCanWriteNothingIsShownNorCleared) {
  const std::string file = write("noise");
  ASSERT_EQ(chmod(cache.c_str(), 0777), 0);
  for (const char* action : {"show", "clear"}) {
    const Outcome outcome = run({"cache", action});
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_THAT(outcome.err, HasSubstr(cache + " may be written by every user"));
  }
  EXPECT_EQ(readFile(file), "noise");
}

TEST_F(CacheCommandTest, AnEmptyDirectoryAndPreferencesThatAreNotThereAreRefused) {
  for (const Words& arguments : {Words{"cache", "path", "--cache-dir", ""},
                                 Words{"cache", "show", "--preferences", home + "/none"}}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitStatus, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr("ahs: "));
  }
}

}  // namespace
}  // namespace tests
