// The command where something around it is not as usual: the files that it writes, texts of
// strangers, the clock, the home directory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/integration/command_test.h"

namespace tests {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;

class SurroundingsTest : public CommandTest {
 protected:
  std::size_t filesIn(const std::string& directory) const {
    std::error_code missing;
    fs::directory_iterator files(directory, missing);
    return missing ? 0 : static_cast<std::size_t>(std::distance(begin(files), end(files)));
  }

  const Gateway gateway{Near};
};

// ---- Pages and pictures -----------------------------------------------------------------------

TEST_F(SurroundingsTest, APageThatCannotBeCompletedLeavesTheOldOne) {
  const std::string page = home + "/pages/page.html";
  writeFile("pages/page.html", "old");
  ASSERT_EQ(chmod(page.c_str(), 0600), 0);
  rlimit usual{};
  getrlimit(RLIMIT_FSIZE, &usual);
  const rlimit small{1024, usual.rlim_max};
  const auto former = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  const Outcome outcome = run({"select", gateway.address(), "--html", page});
  setrlimit(RLIMIT_FSIZE, &usual);
  signal(SIGXFSZ, former);
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err,
              HasSubstr("the file '" + page + "' could not be written: File too large"));
  EXPECT_EQ(readFile(page), "old");
  EXPECT_EQ(filesIn(home + "/pages"), 1U);
  EXPECT_EQ(run({"select", gateway.address(), "--html", page}).exitStatus, 0);
  EXPECT_THAT(readFile(page), EndsWith("</html>\n"));
  EXPECT_EQ(fs::status(page).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  constexpr uid_t Stranger = 1234;
  if (chown(page.c_str(), Stranger, Stranger) == 0 && chmod(page.c_str(), 0666) == 0) {
    EXPECT_EQ(run({"select", gateway.address(), "--html", page}).exitStatus, 0);
    EXPECT_EQ(fs::status(page).permissions() & fs::perms::others_write, fs::perms::none);
  }
}

TEST_F(SurroundingsTest, APageThatCannotBeWrittenIsToldBeforeAnythingIsMeasured) {
  const std::string shared = home + "/shared";
  fs::create_directory(shared);
  fs::create_directory(shared + "/own");
  ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
  ASSERT_EQ(mkfifo((home + "/pipe").c_str(), 0600), 0);
  fs::create_symlink("/dev/full", home + "/link");
  for (const auto& [file, says] : std::vector<std::pair<std::string, std::string>>{
           {home + "/pipe", "it is not a regular file"},
           {home + "/link", "it is not a regular file"},
           {"/dev/stderr", "it "},
           {"/proc/self/comm", "it is no file on a disk, but one of the kernel's"},
           {"/proc/sys/kernel/../../self/comm", "it is no file on a disk"},
           {home, "Is a directory"},
           {home + "/none/page.html", "No such file or directory"},
           {shared + "/own/page.html", "another user could have changed it: " + shared}}) {
    const Outcome outcome = run({"select", gateway.address(), "--no-cache", "--svg", file});
    EXPECT_EQ(outcome.exitStatus, 2) << file;
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("the file '" + file + "' cannot be written: "),
                                   HasSubstr(says), HasSubstr("'-' for standard output")));
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_EQ(gateway.requests(), 0U);
}

TEST_F(SurroundingsTest, OneOfPageAndPictureMayGoToStandardOutput) {
  const std::string address = gateway.address();
  EXPECT_THAT(run({"select", address, "--html", "-"}).out,
              AllOf(StartsWith("<!DOCTYPE html>"), EndsWith("</html>\n")));
  EXPECT_THAT(run({"select", address, "--svg", "-"}).out,
              AllOf(StartsWith("<svg "), EndsWith("</svg>\n")));
  for (const Words& more :
       std::vector<Words>{{"--svg", "-"}, {"--json"}, {"--quiet"}, {"--explain"}}) {
    Words arguments{"select", address, "--html", "-"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitStatus, 2);
    EXPECT_THAT(outcome.err, HasSubstr("standard output takes one form of the result"));
  }
}

// ---- Texts of strangers -----------------------------------------------------------------------

TEST_F(SurroundingsTest, NoCommandPrintsWhatNobodySees) {
  const std::string hidden = "gw\u202Emoc.test";
  const std::string shown = "gw\\xe2\\x80\\xaemoc.test";
  for (const Words& arguments : std::vector<Words>{{"select", hidden},
                                                   {"select", "--quiet", hidden},
                                                   {"exec", hidden, "--", "true"},
                                                   {"exec", gateway.address(), "--", hidden},
                                                   {"watch", hidden},
                                                   {"probe", hidden},
                                                   {"select", gateway.address(), "--last", hidden},
                                                   {"select", "--profiles", hidden},
                                                   {"profile", "check", hidden},
                                                   {"cache", "show", "--cache-dir", hidden}}) {
    const Outcome outcome = run(arguments);
    EXPECT_THAT(outcome.out + outcome.err, Not(HasSubstr("\u202E"))) << arguments.front();
    EXPECT_THAT(outcome.out + outcome.err, HasSubstr(shown)) << arguments.front();
  }
  const std::string json =
      run({"cache", "path", "--json", "--cache-dir", "/" + hidden + "\x7f"}).out;
  EXPECT_THAT(json, HasSubstr("/gw\\u202emoc.test\\u007f\""));
}

TEST_F(SurroundingsTest, AHostEntryWithACharacterThatStandsForAnotherIsLeftOut) {
  writeProfile("true", host("plain", gateway.address()) +
                           host("full stops", "127\u30020\u30020\u30021") +
                           host("wide digit", "127.0.0.\uff11:" + gateway.port()));
  const Outcome outcome = run({"select", "--no-cache"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("1. " + gateway.address()));
  EXPECT_THAT(outcome.out, Not(HasSubstr("2. ")));
  EXPECT_THAT(outcome.err, HasSubstr("stands for another one"));
}

// ---- Clock and home directory -----------------------------------------------------------------

TEST_F(SurroundingsTest, ClockAndHomeDirectoryDoWhatTheTableSays) {
  [[maybe_unused]] constexpr const char* Before1970 = "-86400";
  [[maybe_unused]] constexpr const char* After2200 = "7300000000";
  const std::string preload = "LD_PRELOAD=" AHS_MOVED_CLOCK;
  const std::string clock = "AHS_TEST_CLOCK=";
  const std::string cache = home + "/.cache/ahs";
  const std::string made = home + "/xdg";
  const std::string missing = home + "/missing";
  struct Row {
    const char* name;
    Words environment;
    std::string cache;      ///< directory that holds a selection afterwards; empty for none
    std::string says;       ///< on standard error
    bool remembers = true;  ///< the second selection connects once at most
  };
  const Row rows[] = {
      {"usual", {"HOME=" + home}, cache, ""},
      {"no home", {}, "", "warning: neither HOME nor XDG_CACHE_HOME", false},
      {"relative home", {"HOME=here"}, "", "warning: neither HOME nor XDG_CACHE_HOME", false},
      {"home that is not there", {"HOME=" + missing}, "", "warning: neither HOME", false},
      {"no home, cache that is not there", {"XDG_CACHE_HOME=" + made}, made + "/ahs", ""},
#ifdef AHS_MOVES_CLOCK
      {"before 1970", {"HOME=" + home, preload, clock + Before1970}, "", "", false},
      {"after 2200", {"HOME=" + home, preload, clock + After2200}, cache, ""},
#endif
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove_all(cache);
    const unsigned int before = gateway.requests();
    unsigned int once = 0;
    for (const bool isSecond : {false, true}) {
      const Outcome outcome =
          Program({"select", "--quiet", gateway.address()}, row.environment).finish();
      EXPECT_EQ(outcome.exitStatus, 0);
      EXPECT_EQ(outcome.out, gateway.address() + "\n");
      EXPECT_THAT(outcome.err, HasSubstr(row.says));
      EXPECT_EQ(outcome.err.empty(), row.says.empty()) << outcome.err;
      once = isSecond ? once : gateway.requests() - before;
    }
    EXPECT_EQ(gateway.requests() - before <= once + 1, row.remembers);
    EXPECT_EQ(filesIn(row.cache.empty() ? cache : row.cache), row.cache.empty() ? 0U : 1U);
    EXPECT_FALSE(fs::exists(missing));
  }
  EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all);
}

}  // namespace
}  // namespace tests
