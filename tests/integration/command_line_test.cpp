// The command line as a person and as a program meet it: what a misspelling is answered with, help
// and version, and the one form of all JSON.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/integration/command_test.h"

namespace tests {
namespace {

using json = nlohmann::ordered_json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;

class CommandLineTest : public CommandTest {
 protected:
  /// What a command line is refused with: one line, status 2, nothing on standard output.
  std::string refusalOf(const Words& arguments) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitStatus, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "") << testing::PrintToString(arguments);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_THAT(outcome.err, StartsWith("ahs: "));
    return outcome.err;
  }

  /// What the script of a shell is told that may stand at the end of a line.
  std::string offeredFor(const Words& line) const {
    Words arguments = {"completion", "words", "--", "ahs"};
    arguments.insert(arguments.end(), line.begin(), line.end());
    return run(arguments).out;
  }

  /// The names below a title of a help text.
  Words namesBelow(const Words& command, const std::string& title) const {
    Words arguments = command;
    arguments.emplace_back("--help");
    std::istringstream help(run(arguments).out);
    Words names;
    bool isBelow = false;
    for (std::string line; std::getline(help, line);) {
      isBelow = line == title + ":" || (isBelow && !line.empty());
      if (isBelow && line.size() > 2 && line.starts_with("  ") && line[2] != ' ') {
        names.push_back(line.substr(2, line.find_first_of(" ,", 2) - 2));
      }
    }
    return names;
  }

  /// Every command that can be run and knows --json, as a person types it.
  void findJsonCommands(const Words& command, std::set<std::string>& found) const {
    const Words below = namesBelow(command, "Subcommands");
    for (const std::string& name : below) {
      Words longer = command;
      longer.push_back(name);
      findJsonCommands(longer, found);
    }
    const Words options = namesBelow(command, "Options");
    if (std::find(options.begin(), options.end(), "--json") != options.end()) {
      std::string name;
      for (const std::string& word : command) {
        name += (name.empty() ? "" : " ") + word;
      }
      found.insert(name);
    }
  }
};

void expectSchemaFirst(const std::string& text, const std::string& command) {
  const json object = json::parse(text, nullptr, false);
  ASSERT_TRUE(object.is_object() && !object.empty()) << command << ": " << text;
  EXPECT_EQ(object.begin().key(), "schema") << command;
  EXPECT_EQ(object.begin().value(), 1) << command;
}

// ---- Misspellings -----------------------------------------------------------------------------

/// A command line that is refused, and what the refusal says and does not say.
struct Wrong {
  Words words;
  std::string says;
  std::string saysNot;
};

TEST_F(CommandLineTest, AMisspellingIsAnsweredWithWhatWasMeant) {
  EXPECT_EQ(refusalOf({"cache", "shw"}),
            "ahs: there is no command 'shw' of 'ahs cache'; did you mean 'show'? 'ahs cache "
            "--help' shows all commands.\n");
  EXPECT_EQ(refusalOf({"select", "--profile", "X"}),
            "ahs: there is no option '--profile' of 'ahs select'; did you mean '--profiles'? 'ahs "
            "select --help' shows all options.\n");
  for (const Wrong& wrong :
       std::vector<Wrong>{{{"slect", "--json"}, "did you mean 'select'?", ""},
                          {{"version"}, "did you mean '--version'?", ""},
                          {{"help", "profile", "chck"}, "did you mean 'check'?", ""},
                          {{"exce", "--tries", "3", "--", "vpn", "-x"}, "did you mean 'exec'?", ""},
                          {{"xyzzy"}, "there are select, ", "did you mean"},
                          {{"cache", "show", "--jsno"}, "did you mean '--json'?", ""},
                          {{"exec", "--json", "--", "true"}, "", "ahs --json"},
                          {{"profile", "list", "-q"}, "", "did you mean"},
                          {{"--profiles", "x", "select"},
                           "options stand behind the command that they are for",
                           ""},
                          {{"--json", "select"}, "'ahs select --json'", ""}}) {
    const std::string refusal = refusalOf(wrong.words);
    EXPECT_THAT(refusal, HasSubstr(wrong.says));
    EXPECT_TRUE(wrong.saysNot.empty() || refusal.find(wrong.saysNot) == std::string::npos)
        << refusal;
  }
}

TEST_F(CommandLineTest, WhatContradictsItselfIsNamed) {
  for (const Words& both : {Words{"--json", "--quiet"},
                            {"--json", "--explain"},
                            {"--quiet", "--explain"},
                            {"--no-cache", "--cache-dir", "/tmp"},
                            {"--no-proxy", "--proxy", "p"},
                            {"--no-proxy", "--proxy-user", "u"}}) {
    Words arguments = {"select", "gw"};
    arguments.insert(arguments.end(), both.begin(), both.end());
    EXPECT_THAT(refusalOf(arguments), HasSubstr(" excludes ")) << both.back();
  }
  EXPECT_THAT(refusalOf({"select", "--proxy-user", "u", "--proxy-password-file", "f",
                         "--proxy-password-fd", "3"}),
              HasSubstr(" excludes "));
}

TEST_F(CommandLineTest, APasswordNeedsAUserAndIsNoArgument) {
  EXPECT_THAT(refusalOf({"select", "--proxy-password-file", "f"}),
              HasSubstr("--proxy-password-file requires --proxy-user"));
  const std::string refusal = refusalOf({"select", "--proxy-password", "geheim"});
  EXPECT_THAT(refusal, HasSubstr("every user of the machine can read"));
  EXPECT_THAT(refusal, HasSubstr("--proxy-password-fd N. On a terminal it is asked for."));
  EXPECT_THAT(refusal, Not(HasSubstr("geheim")));
}

TEST_F(CommandLineTest, WhatIsMissingTooMuchOrNotAllowedIsNamed) {
  for (const Wrong& wrong :
       std::vector<Wrong>{{{"select", "--last"}, "--last: 1 required NAME missing.", ""},
                          {{"cache"}, "needs one of show, clear, path", ""},
                          {{"exec", "gw"}, "it stands after --, as in 'ahs exec -- ", ""},
                          {{"exec", "gw", "--"}, "it stands after --, as in 'ahs exec -- ", ""},
                          {{"completion"}, "SHELL is required.", ""},
                          {{"completion", "csh"}, "csh not in {bash,zsh,fish}", ""},
                          {{"exec", "--tries", "0", "--", "x"}, "not in range 1 to 100000", ""},
                          {{"exec", "--tries", "many", "--", "x"}, "not in range 1 to 100000", ""},
                          {{"select", "--json=maybe"}, "--json takes no value", ""},
                          {{"cache", "path", "x"}, "'x' is one argument too many", ""},
                          {{"select", "--last", "a", "--last", "b"},
                           "--last: At Most 1 required but received 2",
                           ""}}) {
    EXPECT_THAT(refusalOf(wrong.words), HasSubstr(wrong.says));
  }
}

TEST_F(CommandLineTest, TheValueOfAMisspeltOptionIsNotRepeated) {
  EXPECT_THAT(refusalOf({"select", "--proxy-passwort=geheim"}), Not(HasSubstr("geheim")));
}

TEST_F(CommandLineTest, WhatWasTypedMovesNoCursorAndHasAnEnd) {
  EXPECT_THAT(refusalOf({"\x1b[31m\n"}), HasSubstr("'\\x1b[31m\\x0a'"));
  EXPECT_LT(refusalOf({std::string(100'000, 'x')}).size(), 400U);
  EXPECT_LT(refusalOf({"select", "--" + std::string(100'000, 'x')}).size(), 400U);
}

TEST_F(CommandLineTest, TheBareNameIsAnsweredWithTheCommandsAndTheNextStep) {
  const Outcome outcome = run({});
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, StartsWith("ahs: a command is missing; 'ahs select HOST...' measures"));
  for (const std::string& command : namesBelow({}, "Subcommands")) {
    EXPECT_THAT(outcome.err, HasSubstr("\n  " + command + " "));
  }
}

// ---- Help and version -------------------------------------------------------------------------

TEST_F(CommandLineTest, HelpIsToldInBothWays) {
  EXPECT_EQ(run({"help"}).out, run({"--help"}).out);
  EXPECT_EQ(run({"help", "cache", "show"}).out, run({"cache", "show", "--help"}).out);
  EXPECT_THAT(run({"help", "cache", "show"}).out, HasSubstr("Usage: ahs cache show"));
  EXPECT_EQ(run({"help", "select"}).exitStatus, 0);
}

TEST_F(CommandLineTest, TheVersionTellsWhatTheProgramWasBuiltFrom) {
  const Outcome outcome = run({"--no-such", "--version"});
  EXPECT_EQ(outcome.exitStatus, 0) << "whatever else is wrong";
  EXPECT_THAT(outcome.out, StartsWith("ahs " AHS_PROGRAM_VERSION "\n"));
  for (const char* fact :
       {"\nbuild: ", "\ncompiler: ", "libstdc++", "\nsanitizer: ", "\nlibcurl: ", "(OpenSSL/",
        "\nlibxml2: ", "\nspdlog: ", "\nlibproxy: ", "\nformats: "}) {
    EXPECT_THAT(outcome.out, HasSubstr(fact));
  }
}

// ---- For programs -----------------------------------------------------------------------------

TEST_F(CommandLineTest, EveryJsonObjectBeginsWithItsSchema) {
  const Gateway gateway(Near);
  writeProfile("true", host("Berlin", gateway.address()));
  const std::map<std::string, Words> commands = {
      {"", {"--version"}},
      {"select", {"select", gateway.address()}},
      {"probe", {"probe", gateway.address()}},
      {"watch", {"watch", gateway.address()}},
      {"profile check", {"profile", "check"}},
      {"profile list", {"profile", "list"}},
      {"preferences show", {"preferences", "show"}},
      {"cache show", {"cache", "show"}},
      {"cache path", {"cache", "path"}},
      {"cache clear", {"cache", "clear"}},
  };
  std::set<std::string> known;
  findJsonCommands({}, known);
  std::set<std::string> tried;
  for (const auto& [name, words] : commands) {
    tried.insert(name);
    Words arguments = words;
    arguments.emplace_back("--json");
    Program program(arguments, environment);
    if (name == "watch") {
      EXPECT_TRUE(program.waitForOutput("\n"));
      kill(program.pid(), SIGTERM);
    }
    expectSchemaFirst(program.finish().out, name);
  }
  EXPECT_EQ(tried, known);
}

// ---- For completions --------------------------------------------------------------------------

TEST_F(CommandLineTest, EntriesForACompletionAreThoseThatAreWhatTheyLookLike) {
  writeProfile(
      "true", host("plain", "gw-a:8443") + host("a b", "gw-b") + host("turned\u202Eround", "gw-c"));
  EXPECT_EQ(offeredFor({"select", "--last", ""}), "words\na b\nplain\n");
  EXPECT_THAT(offeredFor({"select", ""}), HasSubstr("gw-a:8443\n"));
}

TEST_F(CommandLineTest, OfManyEntriesACompletionGetsThoseThatFitToWhatWasTyped) {
  std::string hosts;
  for (int i = 0; i < 3000; ++i) {
    hosts += host("gate-" + std::to_string(i), "gw" + std::to_string(i));
  }
  writeProfile("true", hosts);
  const std::string all = offeredFor({"select", "--last", ""});
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1 + 1000);
  EXPECT_EQ(offeredFor({"select", "--last", "GATE-2999"}), "words\ngate-2999\n");
}

}  // namespace
}  // namespace tests
