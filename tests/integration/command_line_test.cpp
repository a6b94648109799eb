// The command line for people and programs: answers to misspellings, help and version, and the
// common form of all JSON.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
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
  /// The refusal of a command line: one line, status 2, nothing on standard output.
  std::string refusalOf(const Words& arguments) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitStatus, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.out, "") << testing::PrintToString(arguments);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_THAT(outcome.err, StartsWith("ahs: "));
    return outcome.err;
  }

  /// What a shell's script may offer at the end of a line.
  std::string offeredFor(const Words& line) const {
    Words arguments = {"completion", "words", "--", "ahs"};
    arguments.insert(arguments.end(), line.begin(), line.end());
    return run(arguments).out;
  }
};

// ---- Misspellings -----------------------------------------------------------------------------

/// A refused command line, and a part of its message.
struct Wrong {
  Words words;
  std::string says;
};

TEST_F(CommandLineTest, AMisspellingIsAnsweredWithWhatWasMeant) {
  EXPECT_EQ(refusalOf({"cache", "shw"}),
            "ahs: there is no command 'shw' of 'ahs cache'; did you mean 'show'? 'ahs cache "
            "--help' shows all commands.\n");
  EXPECT_EQ(refusalOf({"select", "--profile", "X"}),
            "ahs: there is no option '--profile' of 'ahs select'; did you mean '--profiles'? 'ahs "
            "select --help' shows all options.\n");
  EXPECT_THAT(refusalOf({"xyzzy"}), Not(HasSubstr("did you mean")));
  EXPECT_THAT(refusalOf({"profile", "list", "-q"}), Not(HasSubstr("did you mean")));
  EXPECT_THAT(refusalOf({"exec", "--json", "--", "true"}), Not(HasSubstr("ahs --json")));
  EXPECT_THAT(refusalOf({"select", "--proxy-passwort=geheim"}), Not(HasSubstr("geheim")));
  for (const auto& [words, says] :
       std::vector<Wrong>{{{"slect", "--json"}, "did you mean 'select'?"},
                          {{"version"}, "did you mean '--version'?"},
                          {{"help", "profile", "chck"}, "did you mean 'check'?"},
                          {{"exce", "--tries", "3", "--", "vpn", "-x"}, "did you mean 'exec'?"},
                          {{"xyzzy"}, "there are select, "},
                          {{"cache", "show", "--jsno"}, "did you mean '--json'?"},
                          {{"--profiles", "x", "select"}, "options come after their command"},
                          {{"--json", "select"}, "'ahs select --json'"}}) {
    EXPECT_THAT(refusalOf(words), HasSubstr(says));
  }
}

TEST_F(CommandLineTest, WhatIsMissingTooMuchContradictoryOrNotAllowedIsNamed) {
  for (const auto& [words, says] : std::vector<Wrong>{
           {{"select", "--last"}, "--last: 1 required NAME missing."},
           {{"cache"}, "needs one of show, clear, path"},
           {{"exec", "gw"}, "it stands after --, as in 'ahs exec -- "},
           {{"exec", "gw", "--"}, "it stands after --, as in 'ahs exec -- "},
           {{"completion"}, "SHELL is required."},
           {{"completion", "csh"}, "'csh' is none of bash, zsh, fish; did you mean 'zsh'?"},
           {{"select", "--reason", "reconection"}, "did you mean 'reconnection'?"},
           {{"exec", "--tries", "0", "--", "x"}, "not in range"},
           {{"exec", "--tries", "many", "--", "x"}, "not in range"},
           {{"probe"}, ""},
           {{"probe", "127.0.0.1", "127.0.0.2"}, ""},
           {{"probe", "127.0.0.1", "-c", "99999999999999999999"}, ""},
           {{"probe", "127.0.0.1", "-c", "1.5"}, ""},
           {{"probe", "127.0.0.1", "--timeout", "3601"}, ""},
           {{"probe", "127.0.0.1", "--profiles", "/missing"}, "/missing"},
           {{"select", "--json=maybe"}, "--json takes no value"},
           {{"cache", "path", "x"}, "'x' is one argument too many"},
           {{"cache", "path", "[x]"}, "'[x]' is one argument too many"},
           {{"select", "[a,b]"}, "the host '[a,b]' cannot be used"},
           {{"probe", "[a]"}, "the host '[a]' cannot be used"},
           {{"select", "--last", "a", "--last", "b"}, "At Most 1 required but received 2"},
           {{"select", "gw", "--json", "--quiet"}, " excludes "},
           {{"select", "gw", "--json", "--explain"}, " excludes "},
           {{"select", "gw", "--csv", "--tsv"}, " excludes "},
           {{"select", "gw", "--quiet", "--explain"}, " excludes "},
           {{"select", "gw", "--no-cache", "--cache-dir", "/tmp"}, " excludes "},
           {{"select", "gw", "--no-proxy", "--proxy", "p"}, " excludes "},
           {{"select", "gw", "--no-proxy", "--proxy-user", "u"}, " excludes "},
           {{"select", "--proxy-user", "u", "--proxy-password-file", "f", "--proxy-password-fd",
             "3"},
            " excludes "}}) {
    EXPECT_THAT(refusalOf(words), HasSubstr(says));
  }
}

TEST_F(CommandLineTest, APasswordNeedsAUserAndIsNoArgument) {
  EXPECT_THAT(refusalOf({"select", "--proxy-password-file", "f"}),
              HasSubstr("--proxy-password-file requires --proxy-user"));
  const std::string refusal = refusalOf({"select", "--proxy-password", "geheim"});
  EXPECT_THAT(refusal, HasSubstr("every user of the machine can read"));
  EXPECT_THAT(refusal, HasSubstr("--proxy-password-fd N. On a terminal it is asked for."));
  EXPECT_THAT(refusal, Not(HasSubstr("geheim")));
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
  for (const char* command :
       {"select", "probe", "exec", "watch", "profile", "preferences", "cache"}) {
    EXPECT_THAT(outcome.err, HasSubstr("\n  " + std::string(command) + " "));
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

/// The commands that have --json, by the list of options that the program writes into its page.
std::set<std::string> jsonCommands() {
  std::set<std::string> commands;
  std::istringstream page(readFile(AHS_SOURCE_DIR "/docs/cli.md"));
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| `--json` |")) {
      continue;
    }
    line.erase(line.rfind(" |"));
    std::istringstream list(line.substr(line.rfind("| ") + 2));
    for (std::string command; std::getline(list >> std::ws, command, ',');) {
      commands.insert(command);
    }
  }
  return commands;
}

TEST_F(CommandLineTest, EveryJsonObjectBeginsWithItsSchema) {
  std::set<std::string> untried = jsonCommands();
  EXPECT_FALSE(untried.empty());
  const Gateway gateway(Near);
  writeProfile("true", host("Berlin", gateway.address()));
  for (Words arguments : std::vector<Words>{{"--version"},
                                            {"select", gateway.address()},
                                            {"probe", gateway.address()},
                                            {"watch", gateway.address()},
                                            {"profile", "check"},
                                            {"profile", "list"},
                                            {"preferences", "show"},
                                            {"cache", "show"},
                                            {"cache", "path"},
                                            {"cache", "clear"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    untried.erase(arguments[0]);
    untried.erase(arguments[0] + " " + arguments.back());
    arguments.emplace_back("--json");
    Program program(arguments, environment);
    if (arguments[0] == "watch") {
      EXPECT_TRUE(program.waitForOutput("\n"));
      kill(program.pid(), SIGTERM);
    }
    const std::string text = program.finish().out;
    const json object = json::parse(text, nullptr, false);
    ASSERT_TRUE(object.is_object() && !object.empty()) << text;
    EXPECT_EQ(object.begin().key(), "schema");
    EXPECT_EQ(object.begin().value(), 1);
  }
  EXPECT_THAT(untried, testing::IsEmpty());
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
