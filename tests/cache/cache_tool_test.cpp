// `ahs cache`, which shows, clears and finds the selection cache.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

struct Output {
  int status = -1;
  std::string out;
  std::string err;
};

/// A gateway on 127.0.0.1 that answers everybody.
class Gateway {
 public:
  std::string Address() const { return "127.0.0.1:" + std::to_string(m_server.port()); }

 private:
  ScriptedServer m_server{[](Connection& connection) {
    connection.readHead();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    connection.drain();
  }};
};

/// One running `ahs` or shell.
class Running {
 public:
  explicit Running(const Words& command)
      : m_process(Shell(command, m_directory), m_directory.File("rest"), m_directory.Path()) {}

  Output Finish() {
    EXPECT_TRUE(m_process.WaitForEnd(Limit)) << "it hangs";
    return {m_process.ExitStatus(), readFile(m_directory.File("out")),
            readFile(m_directory.File("err"))};
  }

 private:
  static Words Shell(const Words& command, const TemporaryDirectory& directory) {
    Words shell = {"/bin/sh", "-c", "exec >\"$0\" 2>\"$1\"; shift; exec \"$@\"",
                   directory.File("out"), directory.File("err")};
    shell.insert(shell.end(), command.begin(), command.end());
    return shell;
  }

  const TemporaryDirectory m_directory;
  ChildProcess m_process;
};

class CacheCommandTest : public testing::Test {
 protected:
  CacheCommandTest() : m_home(m_directory.MakeDirectory("home")) {
    m_cacheDirectory = m_home + "/.cache/ahs";
  }

  /// A command line of `ahs` with an environment of its own.
  Words Command(const Words& arguments) const {
    Words command = {"/usr/bin/env", "-i", "HOME=" + m_home, "PATH=/usr/bin:/bin", AHS_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  Output Run(const Words& arguments) const { return Running(Command(arguments)).Finish(); }

  json RunJson(Words arguments, int status = 0) const {
    arguments.emplace_back("--json");
    const Output output = Run(arguments);
    EXPECT_EQ(output.status, status) << output.err;
    return json::parse(output.out);
  }

  /// Puts a file into the cache directory. @return its path.
  std::string WriteFile(const std::string& text,
                        const std::string& name = "selection-1.xml") const {
    mkdir((m_home + "/.cache").c_str(), 0700);
    mkdir(m_cacheDirectory.c_str(), 0700);
    const std::string path = m_directory.Write("home/.cache/ahs/" + name, text);
    chmod(path.c_str(), 0600);
    return path;
  }

  static std::string SelectionOf(const std::string& place, const std::string& candidate, long age,
                                 const std::string& results = "<result name=\"gw\" rtt=\"7\"/>") {
    return "<selection place=\"" + place + "\" stored=\"" +
           std::to_string(std::time(nullptr) - age) + "\"><candidate name=\"" + candidate + "\"/>" +
           results + "</selection>";
  }

  static bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  const TemporaryDirectory m_directory;
  const std::string m_home;
  std::string m_cacheDirectory;
};

TEST_F(CacheCommandTest, WithoutAHomeDirectoryTheSelectionGoesOnWithOneWarning) {
  const Gateway gateway;
  const Words words = {"/usr/bin/env", "-i", AHS_PROGRAM, "select", "--quiet", gateway.Address()};
  const Output output = Running(words).Finish();
  EXPECT_EQ(output.status, 0);
  EXPECT_EQ(output.out, gateway.Address() + "\n");
  EXPECT_THAT(output.err, HasSubstr("ahs: warning: neither HOME nor XDG_CACHE_HOME is set"));
  EXPECT_EQ(std::count(output.err.begin(), output.err.end(), '\n'), 1) << output.err;
}

TEST_F(CacheCommandTest, ThePathIsPrintedWhetherTheDirectoryIsThereOrNot) {
  EXPECT_EQ(Run({"cache", "path"}).out, m_cacheDirectory + "\n");
  EXPECT_EQ(RunJson({"cache", "path"}), (json{{"schema", 1}, {"path", m_cacheDirectory}}));
  EXPECT_EQ(Run({"cache", "path", "--cache-dir", "/none"}).out, "/none\n");
}

TEST_F(CacheCommandTest, WithoutAHomeDirectoryThereIsNoPath) {
  for (const std::string action : {"path", "show", "clear"}) {
    const Output output = Running({"/usr/bin/env", "-i", AHS_PROGRAM, "cache", action}).Finish();
    EXPECT_EQ(output.status, 2) << action;
    EXPECT_EQ(output.out, "");
    EXPECT_THAT(output.err, HasSubstr("name a directory with --cache-dir"));
  }
}

TEST_F(CacheCommandTest, ASelectionIsShownWithItsPlaceAgeAndRankedResults) {
  const Gateway first;
  const Gateway second;
  Run({"select", "--quiet", first.Address(), second.Address()});
  const Output output = Run({"cache", "show"});
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_THAT(output.out, HasSubstr("Directory: " + m_cacheDirectory + "\n"));
  EXPECT_THAT(output.out, HasSubstr("Selections: 1\n"));
  EXPECT_THAT(output.out, HasSubstr("* answers here and now, for these candidates\n"));
  EXPECT_THAT(output.out, HasSubstr("candidates: "));
  EXPECT_THAT(output.out, HasSubstr("expires:    "));
  EXPECT_THAT(output.out, HasSubstr("     1. 127.0.0.1:"));

  const json selection = RunJson({"cache", "show"}).at("selections").at(0);
  EXPECT_EQ(selection.at("answersNow"), true);
  EXPECT_EQ(selection.at("here"), true);
  EXPECT_EQ(selection.at("current"), true);
  EXPECT_EQ(selection.at("results").size(), 2U);
  EXPECT_LE(selection.at("results").at(0).at("metricMs"),
            selection.at("results").at(1).at("metricMs"));
  EXPECT_LT(selection.at("ageSeconds"), 60);
  EXPECT_EQ(selection.at("candidates").size(), 2U);
}

TEST_F(CacheCommandTest, WhatAnswersNothingIsShownAsThat) {
  constexpr long Day = 24L * 60 * 60;
  const std::string here = RunJson({"cache", "show"}).at("place");
  WriteFile(SelectionOf(here, "old", 15 * Day), "selection-1.xml");
  WriteFile(SelectionOf(here, "new", -Day), "selection-2.xml");
  WriteFile(SelectionOf("nameserver 203.0.113.9 search cafe.test", "there", 60), "selection-3.xml");
  const Output output = Run({"cache", "show"});
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_THAT(output.out, HasSubstr("  out of date: it answers nothing any more\n"));
  EXPECT_THAT(output.out, HasSubstr("  stored in the future: it answers nothing until"));
  EXPECT_THAT(output.out, HasSubstr("  of another place\n"));
  EXPECT_THAT(output.out, HasSubstr("name server 203.0.113.9, search domain cafe.test"));
  EXPECT_THAT(output.out, Not(HasSubstr("* ")));
  const json shown = RunJson({"cache", "show"});
  for (const json& selection : shown.at("selections")) {
    EXPECT_EQ(selection.at("answersNow"), false);
  }
}

TEST_F(CacheCommandTest, TheClearCacheTimeOfThePreferencesDecidesWhatIsOutOfDate) {
  constexpr long Day = 24L * 60 * 60;
  const std::string preferences = m_directory.Write(
      "preferences.xml",
      "<preferences version=\"1\"><preference name=\"SelectionClearCache\" value=\"20\"/>"
      "</preferences>");
  chmod(preferences.c_str(), 0600);
  WriteFile(SelectionOf("", "old", 15 * Day));
  EXPECT_EQ(RunJson({"cache", "show"}).at("selections").at(0).at("current"), false);
  EXPECT_EQ(
      RunJson({"cache", "show", "--preferences", preferences}).at("selections").at(0).at("current"),
      true);
}

TEST_F(CacheCommandTest, AHostileFileIsShownWithinBoundsAndWithoutControlCharacters) {
  std::string results;
  for (int i = 0; i < 10000; ++i) {
    results += "<result name=\"gw&#x9;\xc2\x9b" + std::to_string(i) + "\" rtt=\"7\"/>";
  }
  WriteFile(SelectionOf(std::string(10000, 'p'), std::string(10000, 'k'), 60, results));
  const Output output = Run({"cache", "show"});
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_LT(output.out.size(), 8000U);
  EXPECT_THAT(output.out, HasSubstr("and 9990 more; --json shows all"));
  EXPECT_THAT(output.out, HasSubstr("gw\\x09\\xc2\\x9b0"));
  EXPECT_EQ(RunJson({"cache", "show"}).at("selections").at(0).at("results").size(), 10000U);
}

TEST_F(CacheCommandTest, AFileThatCannotBeUsedIsExplainedAndTheOthersAreShown) {
  const std::string file = WriteFile("noise");
  WriteFile(SelectionOf("", "right", 60), "selection-2.xml");
  const Output output = Run({"cache", "show"});
  EXPECT_EQ(output.status, 1);
  EXPECT_THAT(output.err, HasSubstr(file + " is no selection of the cache, see line 1"));
  EXPECT_THAT(output.err, HasSubstr("'ahs cache clear' removes what is wrong"));
  const json shown = RunJson({"cache", "show"}, 1);
  EXPECT_THAT(shown.at("problem").get<std::string>(), HasSubstr("is no selection"));
  EXPECT_EQ(shown.at("selections").size(), 1U);
  ASSERT_EQ(chmod(file.c_str(), 0666), 0);
  EXPECT_THAT(Run({"cache", "show"}).err, HasSubstr("may be written by every user"));
}

TEST_F(CacheCommandTest, WhatCannotBeClearedIsNamed) {
  WriteFile("noise");
  ASSERT_EQ(mkdir((m_cacheDirectory + "/selection-2.xml").c_str(), 0700), 0);
  const Output half = Run({"cache", "clear"});
  EXPECT_EQ(half.status, 1);
  EXPECT_THAT(half.err, HasSubstr("cannot remove " + m_cacheDirectory + "/selection-2.xml"));
}

TEST_F(CacheCommandTest, ClearingRemovesWhatThisAndFormerVersionsHaveLeftAndNothingElse) {
  const Gateway gateway;
  Run({"select", "--quiet", gateway.Address()});
  for (const char* name : {"selection-1.xml", "selection-1.xml.new-a1b2c3", "selections.xml",
                           "selections.xml.lock", "selections.xml.corrupt", "mine"}) {
    WriteFile("noise", name);
  }
  const Output output = Run({"cache", "clear"});
  EXPECT_EQ(output.status, 0) << output.err;
  EXPECT_EQ(output.out, "Removed 6 files: " + m_cacheDirectory + "\n");
  EXPECT_EQ(unlink((m_cacheDirectory + "/mine").c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_empty(m_cacheDirectory));
  EXPECT_EQ(Run({"cache", "clear"}).out, "There was nothing to remove: " + m_cacheDirectory + "\n");
  EXPECT_EQ(RunJson({"select", gateway.Address()}).at("fromCache"), false);
}

TEST_F(CacheCommandTest, ClearingACacheThatIsNotThereMakesNothing) {
  EXPECT_EQ(RunJson({"cache", "clear"}),
            (json{{"schema", 1}, {"path", m_cacheDirectory}, {"removed", 0}}));
  EXPECT_FALSE(Exists(m_home + "/.cache"));
}

TEST_F(CacheCommandTest, WhereOthersCanWriteNothingIsShownNorCleared) {
  const std::string file = WriteFile("noise");
  ASSERT_EQ(chmod(m_cacheDirectory.c_str(), 0777), 0);
  for (const char* action : {"show", "clear"}) {
    const Output output = Run({"cache", action});
    EXPECT_EQ(output.status, 1);
    EXPECT_THAT(output.err, HasSubstr(m_cacheDirectory + " may be written by every user"));
  }
  EXPECT_EQ(readFile(file), "noise");
}

TEST_F(CacheCommandTest, AnEmptyDirectoryAndPreferencesThatAreNotThereAreRefused) {
  for (const Words& arguments : {Words{"cache", "path", "--cache-dir", ""},
                                 Words{"cache", "show", "--preferences", m_home + "/none"}}) {
    const Output output = Run(arguments);
    EXPECT_EQ(output.status, 2);
    EXPECT_EQ(output.out, "");
    EXPECT_THAT(output.err, HasSubstr("ahs: "));
  }
}

}  // namespace
}  // namespace tests
