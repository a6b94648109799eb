// The cache's files: kept between processes, replaced as a whole, trusted only if nobody else can
// write them, and never a reason for a selection to fail.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/unit/ahs/cache_fixture.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace tests {
namespace {

constexpr uid_t Nobody = 65534;
constexpr long Minute = 60;

class SelectionCacheFile : public CacheTest {
 protected:
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
  }

  /// Looks up and stores through one acquisition, like a run, while the directory is unusable:
  /// memory must still find the selection, with one warning of this text.
  void expectMemoryOnly(const std::string& warning, const std::string& candidates = "gw-b;") {
    {
      const CacheHold cache;
      EXPECT_FALSE(has(candidates));
      EXPECT_EQ(store(candidates, {{"gw-b", 40}}), 0);
      EXPECT_EQ(find(candidates), (Records{{"gw-b", 40}}));
    }
    EXPECT_THAT(m_warnings, ElementsAre(HasSubstr(warning)));
  }

  std::string makeDirectory(const std::string& name, mode_t mode) const {
    const std::string path = m_directory + "/" + name;
    EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }
};

/// Limits this process's file size for a scope: writing beyond it fails like on a full disk, and
/// raises SIGXFSZ unless the writer prevents it.
class FullDisk {
 public:
  FullDisk() {
    getrlimit(RLIMIT_FSIZE, &m_limit);
    rlimit small = m_limit;
    small.rlim_cur = 64;
    setrlimit(RLIMIT_FSIZE, &small);
  }
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &m_limit); }

 private:
  rlimit m_limit{};
};

}  // namespace

TEST_F(SelectionCacheFile, IsReadableToPeople) {
  EXPECT_THAT(readFile(fileOf("gw-a;")),
              testing::MatchesRegex("<.xml version=\"1.0\" encoding=\"UTF-8\".>\n"
                                    "<selection place=\"nameserver 192.0.2.1 search home.test\" "
                                    "stored=\"[0-9]+\">\n"
                                    " <candidate name=\"gw-a\"/>\n"
                                    " <result name=\"gw\" rtt=\"7\"/>\n"
                                    "</selection>\n"));
}

TEST_F(SelectionCacheFile, HoldsAnyText) {
  const std::string headend = "gw <&\"'>\\x41\t\n\xc3\xbc";
  store(headend + ";", {{headend, 40}});
  EXPECT_EQ(find(headend + ";"), (Records{{headend, 40}}));
}

TEST_F(SelectionCacheFile, WhatNoTextHoldsIsKeptInMemory) {
  const CacheHold cache;
  for (const std::string& headend : {std::string("gw\xff"), std::string("gw\x01"),
                                     std::string(100000, 'n'), std::string("gw\0", 3)}) {
    EXPECT_EQ(store(headend + ";", {{headend, 40}}), 0);
    EXPECT_TRUE(has(headend + ";"));
  }
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(m_warnings, SizeIs(1));
}

TEST_F(SelectionCacheFile, BelongsToTheUserAloneAndSoDoesItsDirectory) {
  usePreferences(m_directory + "/one//two/");
  const mode_t mask = umask(0);
  EXPECT_EQ(store("gw-a;"), 0);
  umask(mask);
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_EQ(modeOf(m_directory + "/one"), 0700U);
  EXPECT_EQ(modeOf(m_directory + "/one/two"), 0700U);
  for (const auto& file : std::filesystem::directory_iterator(m_directory + "/one/two")) {
    EXPECT_EQ(modeOf(file.path()), 0600U);
  }
}

TEST_F(SelectionCacheFile, IsNotCreatedByALookUp) {
  usePreferences(m_directory + "/missing");
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_THAT(names(), IsEmpty());
  EXPECT_THAT(m_warnings, IsEmpty());
}

TEST_F(SelectionCacheFile, IsReplacedNotRewritten) {
  const int reader = open(fileOf("gw-a;").c_str(), O_RDONLY | O_CLOEXEC);
  const std::string before = readFile(fileOf("gw-a;"));
  store("gw-a;", {{"gw-a", 40}});
  std::string seen(before.size() + 1, '\0');
  EXPECT_EQ(::read(reader, seen.data(), seen.size()), static_cast<ssize_t>(before.size()));
  close(reader);
  EXPECT_EQ(seen.substr(0, before.size()), before);
  EXPECT_THAT(names(), SizeIs(1));
}

TEST_F(SelectionCacheFile, IsWrittenWhenAnAcquisitionIsGivenBackAndNotBefore) {
  const CacheHold cache;
  CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
  EXPECT_EQ(cache->AddEntry(entry), 0);
  EXPECT_THAT(names(), IsEmpty());
  { const CacheHold another; }
  EXPECT_THAT(names(), SizeIs(1));
}

TEST_F(SelectionCacheFile, AnotherProcessesSelectionIsSeenByALivingInstance) {
  const CacheHold cache;
  ASSERT_FALSE(has("gw-b;"));
  ASSERT_EQ(inProcess([] { return store("gw-b;") == 0 ? 0 : 1; }), 0);
  EXPECT_TRUE(has("gw-b;"));
}

TEST_F(SelectionCacheFile, OfFileAndMemoryTheYoungerAnswersAndStays) {
  for (const long age : {2 * Minute, -1L}) {  // of the file; -1: the second after the store
    const CacheHold cache;
    storeAged("gw-a;", Minute, Minute);
    CCacheEntry mine = entryOf("gw-a;", {{"gw-a", 40}});
    ASSERT_EQ(cache->AddEntry(mine), 0);
    storeAged("gw-a;", age, 0);
    while (static_cast<unsigned long>(std::time(nullptr)) <= mine.GetTimestamp()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const Records expected = age > 0 ? Records{{"gw-a", 40}} : Records{{"gw", 7}};
    for (int i = 0; i < 2; ++i) {  // before and after the release writes
      EXPECT_EQ(find("gw-a;"), expected) << age;
    }
  }
}

TEST_F(SelectionCacheFile, ClearedMeanwhileIsNotBroughtBackByAUse) {
  storeAged("gw-a;", Minute, Minute);
  {
    const CacheHold cache;
    std::string key = "gw-a;";
    CCacheEntry entry;
    ASSERT_TRUE(cache->IsInCache(key, entry));
    ASSERT_EQ(unlink(fileOf("gw-a;").c_str()), 0);
    EXPECT_FALSE(cache->IsInCache(key, entry));
  }
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(SelectionCacheFile, ThatIsNotUnderstoodCostsOneWarningAndIsReplacedByTheNextStore) {
  write(fileOf("gw-a;"), "noise");
  write(fileOf("gw-b;"), "noise");
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_FALSE(has("gw-b;"));
  EXPECT_THAT(m_warnings,
              ElementsAre(HasSubstr(fileOf("gw-a;") + " is no selection of the cache")));
  EXPECT_EQ(store("gw-a;"), 0);
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, OfAnotherSelectionUnderItsNameIsAMiss) {
  std::string text = readFile(fileOf("gw-a;"));
  write(fileOf("gw-b;"), text);
  EXPECT_FALSE(has("gw-b;"));
  write(fileOf("gw-a;"), text.replace(text.find("home.test"), 9, "work.test"));
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, WhatAKilledProcessHasLeftIsNeverReadAndGoesInItsTurn) {
  storeAged("gw-a;", Minute, Minute);
  const std::string left = fileOf("gw-a;") + ".new-abcdef";
  ASSERT_EQ(rename(fileOf("gw-a;").c_str(), left.c_str()), 0);
  EXPECT_FALSE(has("gw-a;"));
  std::string problem;
  EXPECT_THAT(SelectionFiles::list(m_directory, problem), IsEmpty());
  for (std::size_t i = 0; i < SelectionFiles::MaxFiles; ++i) {
    store(std::to_string(i) + ";");
  }
  EXPECT_FALSE(std::filesystem::exists(left));
}

TEST_F(SelectionCacheFile, BelowOrInADirectoryThatOthersCanWriteThereIsNone) {
  const std::string parent = makeDirectory("parent", 0700);
  makeDirectory("parent/ahs", 0700);
  ASSERT_EQ(chmod(parent.c_str(), 0777), 0);
  for (const std::string below : {"/ahs", "/one/two", ""}) {
    usePreferences(parent + below);
    forgetWarnings();
    expectMemoryOnly(parent + " may be written by ");
    EXPECT_THAT(m_warnings[0], HasSubstr("Run 'chmod go-w " + parent + "'"));
  }
  EXPECT_TRUE(std::filesystem::is_empty(parent + "/ahs"));
  EXPECT_FALSE(std::filesystem::exists(parent + "/one"));
}

TEST_F(SelectionCacheFile, InAStickyDirectoryThereIsNone) {
  storeAged("gw-b;", Minute, Minute);
  ASSERT_EQ(chmod(m_directory.c_str(), 01777), 0);
  expectMemoryOnly(m_directory + " may be written by other users");
  EXPECT_THAT(names(), SizeIs(1));
}

TEST_F(SelectionCacheFile, InADirectoryOfOnesOwnBelowAStickyOneAndBehindALinkOfOnesOwnIsKept) {
  const std::string sticky = makeDirectory("sticky", 01777);
  const std::string link = m_directory + "/link";
  ASSERT_EQ(symlink(sticky.c_str(), link.c_str()), 0);
  usePreferences(link + "/one//two");
  EXPECT_EQ(store("gw-a;"), 0);
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_FALSE(std::filesystem::is_empty(sticky + "/one/two"));
  EXPECT_THAT(m_warnings, IsEmpty());
}

TEST_F(SelectionCacheFile, ADirectoryThatMayBePassedButNotReadMayLeadToIt) {
  const std::string passed = makeDirectory("passed", 0700);
  const std::string home = makeDirectory("passed/home", 0700);
  if (geteuid() == 0) {
    ASSERT_EQ(chmod(m_directory.c_str(), 0755), 0);
    ASSERT_EQ(chown(home.c_str(), Nobody, Nobody), 0);
  }
  ASSERT_EQ(chmod(passed.c_str(), 0111), 0);
  usePreferences(home + "/.cache/ahs");
  EXPECT_EQ(asNobody([] { return store("gw-a;") == 0 && has("gw-a;") ? 0 : 2; }), 0);
  ASSERT_EQ(chmod(passed.c_str(), 0700), 0);
}

TEST_F(SelectionCacheFile, WhatIsNoFileOfTheUsersOwnIsRefusedWithoutWaitingAndReplacedNotFollowed) {
  const std::string file = fileOf("gw-b;");
  const std::string notOwn = file + " is not a regular file of the user's own";
  const std::string target = m_temporary.Write("target", "precious");
  const auto expectRefused = [&](int made, const std::string& warning) {
    SCOPED_TRACE(warning);
    ASSERT_EQ(made, 0);
    forgetWarnings();
    EXPECT_FALSE(has("gw-b;"));
    EXPECT_THAT(m_warnings, ElementsAre(HasSubstr(warning)));
    std::filesystem::remove_all(file);
  };
  expectRefused(chmod(file.c_str(), 0620), "may be written by group");
  expectRefused(mkfifo(file.c_str(), 0600), notOwn);
  expectRefused(mkdir(file.c_str(), 0700), notOwn);
  store("gw-b;");
  expectRefused(truncate(file.c_str(), static_cast<off_t>(SelectionFiles::MaxSize) + 1),
                "is larger than 16 MiB");
  expectRefused(symlink(target.c_str(), file.c_str()), notOwn);
  ASSERT_EQ(symlink(target.c_str(), file.c_str()), 0);
  EXPECT_EQ(store("gw-b;"), 0);
  EXPECT_TRUE(has("gw-b;"));
  EXPECT_EQ(readFile(target), "precious");
}

TEST_F(SelectionCacheFile, OfRootInADirectoryOfTheUserIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can leave a file there";
  }
  ASSERT_EQ(chmod(fileOf("gw-a;").c_str(), 0644), 0);
  ASSERT_EQ(chown(m_directory.c_str(), Nobody, Nobody), 0);
  EXPECT_EQ(asNobody([] { return has("gw-a;") ? 2 : 0; }), 0);
}

TEST_F(SelectionCacheFile, ADirectoryThatCannotBeMadeOrWrittenCostsOneWarning) {
  write(m_directory + "/file", "");
  usePreferences(m_directory + "/file/ahs");
  expectMemoryOnly("Not a directory");

  const std::string home = makeDirectory("read-only", 0700);
  ASSERT_EQ(chown(home.c_str(), geteuid() == 0 ? Nobody : geteuid(), getegid()), 0);
  ASSERT_EQ(chmod(home.c_str(), 0555), 0);
  ASSERT_EQ(chmod(m_directory.c_str(), 0755), 0);
  usePreferences(home);
  forgetWarnings();
  EXPECT_EQ(asNobody([this] {
              expectMemoryOnly("Permission denied");
              return HasFailure() ? 2 : 0;
            }),
            0);
}

TEST_F(SelectionCacheFile, AFullDiskLeavesTheOldFileAndNothingElseAndTheNextReleaseTriesAgain) {
  const CacheHold cache;
  const std::string before = readFile(fileOf("gw-a;"));
  {
    const FullDisk full;
    EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
    EXPECT_EQ(readFile(fileOf("gw-a;")), before);
    EXPECT_THAT(names(), SizeIs(1));
    EXPECT_THAT(m_warnings, ElementsAre(HasSubstr("File too large")));
  }
  { const CacheHold another; }
  EXPECT_THAT(readFile(fileOf("gw-a;")), HasSubstr("rtt=\"40\""));
}

}  // namespace tests
