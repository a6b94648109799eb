// The cache file: kept between processes, replaced whole, and never worth a selection.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/unit/ahs/cache_fixture.h"
#include "tests/unit/ahs/resolver_double.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace tests {
namespace {

constexpr uid_t Nobody = 65534;

class SelectionCacheFile : public CacheTest {
 protected:
  mode_t modeOf(const std::string& path) const {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
  }

  /// Everything in the directory of the cache file.
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const auto& item : std::filesystem::directory_iterator(m_directory)) {
      all.push_back(item.path().filename().string());
    }
    std::sort(all.begin(), all.end());
    return all;
  }

  /// Looks up and stores through one acquisition, as a run does, while the file is unusable: the
  /// store must be found again in memory, at the price of one warning.
  void expectMemoryOnly() {
    {
      const CacheHold cache;
      std::string key = "gw-b;";
      CCacheEntry entry;
      EXPECT_FALSE(cache->IsInCache(key, entry));
      entry = entryOf("gw-b;", {{"gw-b", 40}});
      EXPECT_EQ(cache->AddEntry(entry), HEADENDSELECTION_ERROR_CACHE_FAILURE);
      CCacheEntry found;
      EXPECT_TRUE(cache->IsInCache(key, found));
      EXPECT_EQ(recordsOf(found), (Records{{"gw-b", 40}}));
    }
    EXPECT_EQ(m_warnings.size(), 1U);
  }
};

/// A limit of file size in this process for the length of a scope: writing beyond it fails as on a
/// full disk.
class FullDisk {
 public:
  FullDisk() : m_handler(signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &m_limit);
    rlimit small = m_limit;
    small.rlim_cur = 64;
    setrlimit(RLIMIT_FSIZE, &small);
  }
  ~FullDisk() {
    setrlimit(RLIMIT_FSIZE, &m_limit);
    signal(SIGXFSZ, m_handler);
  }

 private:
  rlimit m_limit{};
  void (*m_handler)(int);
};

/// Holds the lock between processes from outside.
class ForeignLock {
 public:
  explicit ForeignLock(const std::string& file)
      : m_descriptor(open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    EXPECT_EQ(flock(m_descriptor, LOCK_EX | LOCK_NB), 0);
  }
  ~ForeignLock() { close(m_descriptor); }

 private:
  int m_descriptor;
};

}  // namespace

TEST_F(SelectionCacheFile, IsFoundAgainByTheNextInstance) {
  EXPECT_EQ(store("gw-b;gw-a;", {{"gw-b:8443", 4294967295U}, {"gw-a", 0}}), 0);
  ASSERT_EQ(CSelectionCache::acquireInstance(), nullptr);
  Records records;
  ASSERT_TRUE(find("gw-b;gw-a;", records));
  EXPECT_EQ(records, (Records{{"gw-b:8443", 4294967295U}, {"gw-a", 0}}));
}

TEST_F(SelectionCacheFile, IsReadableToPeople) {
  store("gw-a;", {{"gw-a", 40}});
  EXPECT_THAT(read(m_file), HasSubstr("<selection place=\"nameserver 192.0.2.1 search home.test\" "
                                      "knownHeadends=\"gw-a;\" stored=\""));
  EXPECT_THAT(read(m_file), HasSubstr("<headend name=\"gw-a\" rtt=\"40\"/>"));
}

TEST_F(SelectionCacheFile, HoldsAnyTextWhateverItsEncoding) {
  const std::string headend = "gw \xff\x01<&\"'>\\x41\n" + std::string(1, '\0') + "\xc3\xbc";
  const std::string key = headend + ";";
  store(key, {{headend, 40}});
  Records records;
  ASSERT_TRUE(find(key, records));
  EXPECT_EQ(records, (Records{{headend, 40}}));
}

TEST_F(SelectionCacheFile, BelongsToTheUserAloneAndSoDoesItsDirectory) {
  m_file = m_directory + "/one/two/selections.xml";
  usePreferences(m_file);
  const mode_t mask = umask(0);
  EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
  umask(mask);
  EXPECT_EQ(modeOf(m_file), 0600U);
  EXPECT_EQ(modeOf(m_file + ".lock"), 0600U);
  EXPECT_EQ(modeOf(m_directory + "/one"), 0700U);
  EXPECT_EQ(modeOf(m_directory + "/one/two"), 0700U);
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, IsNotCreatedByALookUp) {
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_TRUE(names().empty());
}

TEST_F(SelectionCacheFile, IsReplacedNotRewritten) {
  store("gw-a;", {{"gw-a", 40}});
  const int reader = open(m_file.c_str(), O_RDONLY | O_CLOEXEC);
  const std::string before = read(m_file);
  store("gw-b;", {{"gw-b", 40}});
  std::string seen(before.size() + 1, '\0');
  EXPECT_EQ(::read(reader, seen.data(), seen.size()), static_cast<ssize_t>(before.size()));
  close(reader);
  EXPECT_EQ(seen.substr(0, before.size()), before);
  EXPECT_THAT(names(), ElementsAre("selections.xml", "selections.xml.lock"));
}

TEST_F(SelectionCacheFile, AnotherProcessesSelectionIsSeenByALivingInstance) {
  const CacheHold cache;
  std::string key = "gw-b;";
  CCacheEntry entry;
  ASSERT_FALSE(cache->IsInCache(key, entry));
  ASSERT_EQ(inProcess([] { return store("gw-b;", {{"gw-b", 40}}) == 0 ? 0 : 1; }), 0);
  EXPECT_TRUE(cache->IsInCache(key, entry));
}

TEST_F(SelectionCacheFile, AStoreKeepsWhatAnotherProcessStoredMeanwhile) {
  {
    const CacheHold cache;
    CCacheEntry entry = entryOf("mine;", {{"gw-a", 40}});
    keep(cache, entry);
    ASSERT_EQ(inProcess([] { return store("theirs;", {{"gw-b", 40}}) == 0 ? 0 : 1; }), 0);
    CCacheEntry second = entryOf("mine too;", {{"gw-c", 40}});
    keep(cache, second);
  }
  EXPECT_TRUE(has("mine;"));
  EXPECT_TRUE(has("theirs;"));
  EXPECT_TRUE(has("mine too;"));
}

TEST_F(SelectionCacheFile, DeletingItClearsALivingInstance) {
  const CacheHold cache;
  CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
  keep(cache, entry);
  ASSERT_EQ(unlink(m_file.c_str()), 0);
  std::string key = "gw-a;";
  EXPECT_FALSE(cache->IsInCache(key, entry));
}

TEST_F(SelectionCacheFile, ACorruptOneIsKeptAsideOnceAndReplacedAtTheNextStore) {
  write(m_file, "first noise");
  {
    const CacheHold cache;
    std::string key = "gw-a;";
    CCacheEntry entry;
    EXPECT_FALSE(cache->IsInCache(key, entry));
    EXPECT_FALSE(cache->IsInCache(key, entry));
    EXPECT_EQ(read(m_file), "first noise");
    entry = entryOf("gw-a;", {{"gw-a", 40}});
    EXPECT_EQ(keep(cache, entry), 0);
  }
  ASSERT_EQ(m_warnings.size(), 1U);
  EXPECT_THAT(m_warnings[0], HasSubstr(m_file + " is no selection cache and is ignored: line 1"));
  EXPECT_EQ(read(m_file + ".corrupt"), "first noise");
  EXPECT_TRUE(has("gw-a;"));

  write(m_file, "second noise");
  EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
  EXPECT_EQ(read(m_file + ".corrupt"), "first noise");
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, OfTheVersionBeforeIsReadAndWrittenAnew) {
  writeSelection(60);
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_EQ(store("gw-b;", {{"gw-b", 40}}), 0);
  EXPECT_THAT(read(m_file), HasSubstr("<selectionCache version=\"2\">"));
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_TRUE(m_warnings.empty());
}

TEST_F(SelectionCacheFile, OfALaterVersionIsLeftAlone) {
  const std::string later = "<selectionCache version=\"3\" more=\"1\"><new/></selectionCache>";
  write(m_file, later);
  expectMemoryOnly();
  EXPECT_EQ(read(m_file), later);
  EXPECT_FALSE(exists(m_file + ".corrupt"));
  EXPECT_THAT(m_warnings[0], HasSubstr("version 3 of the format, later than 2"));
}

TEST_F(SelectionCacheFile, TwoTroublesCostOneWarning) {
  write(m_file, "noise");
  {
    const FullDisk full;
    expectMemoryOnly();
  }
  EXPECT_THAT(m_warnings[0], HasSubstr("is no selection cache"));
}

TEST_F(SelectionCacheFile, WhatAKilledProcessHasLeftIsNeverReadAndGoesWithTheNextStore) {
  writeSelection(60);
  ASSERT_EQ(rename(m_file.c_str(), (m_file + ".new").c_str()), 0);
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_EQ(store("gw-b;", {{"gw-b", 40}}), 0);
  EXPECT_FALSE(has("gw-a;"));
  EXPECT_THAT(names(), ElementsAre("selections.xml", "selections.xml.lock"));
}

TEST_F(SelectionCacheFile, BelowADirectoryThatOthersCanWriteThereIsNone) {
  const std::string parent = m_directory + "/parent";
  ASSERT_EQ(mkdir(parent.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((parent + "/ahs").c_str(), 0700), 0);
  ASSERT_EQ(chmod(parent.c_str(), 0777), 0);
  usePreferences(parent + "/ahs/selections.xml");
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr(parent + " may be written by every user"));
  EXPECT_THAT(m_warnings[0], HasSubstr("Run 'chmod go-w " + parent + "'; the selection cache"));
  EXPECT_TRUE(std::filesystem::is_empty(parent + "/ahs"));
}

TEST_F(SelectionCacheFile, BelowADirectoryThatOthersCanWriteNoneIsMade) {
  const std::string parent = m_directory + "/parent";
  ASSERT_EQ(mkdir(parent.c_str(), 0700), 0);
  ASSERT_EQ(chmod(parent.c_str(), 0777), 0);
  usePreferences(parent + "/one/two/selections.xml");
  expectMemoryOnly();
  EXPECT_TRUE(std::filesystem::is_empty(parent));
}

TEST_F(SelectionCacheFile, BehindALinkOfAnotherUserThereIsNone) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a link away";
  }
  const std::string sticky = m_directory + "/sticky";
  const std::string target = m_directory + "/target";
  ASSERT_EQ(mkdir(sticky.c_str(), 0700), 0);
  ASSERT_EQ(chmod(sticky.c_str(), 01777), 0);
  ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
  ASSERT_EQ(symlink(target.c_str(), (sticky + "/ahs").c_str()), 0);
  ASSERT_EQ(lchown((sticky + "/ahs").c_str(), Nobody, Nobody), 0);
  usePreferences(sticky + "/ahs/selections.xml");
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr(sticky + "/ahs belongs to user 65534"));
  EXPECT_TRUE(std::filesystem::is_empty(target));
}

TEST_F(SelectionCacheFile, InADirectoryOfOnesOwnBelowAStickyOneAndBehindALinkOfOnesOwnIsKept) {
  const std::string sticky = m_directory + "/sticky";
  const std::string link = m_directory + "/link";
  ASSERT_EQ(mkdir(sticky.c_str(), 0700), 0);
  ASSERT_EQ(chmod(sticky.c_str(), 01777), 0);
  ASSERT_EQ(symlink(sticky.c_str(), link.c_str()), 0);
  usePreferences(link + "/one//two/selections.xml");
  EXPECT_EQ(store("gw-a;", {{"gw-a", 40}}), 0);
  EXPECT_TRUE(has("gw-a;"));
  EXPECT_TRUE(exists(sticky + "/one/two/selections.xml"));
  EXPECT_EQ(modeOf(sticky + "/one"), 0700U);
  EXPECT_TRUE(m_warnings.empty());
}

TEST_F(SelectionCacheFile, ADirectoryThatMayBePassedButNotReadMayLeadToIt) {
  const std::string passed = m_directory + "/passed";
  ASSERT_EQ(mkdir(passed.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((passed + "/home").c_str(), 0700), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chmod(m_directory.c_str(), 0755), 0);
    ASSERT_EQ(chown((passed + "/home").c_str(), Nobody, Nobody), 0);
  }
  ASSERT_EQ(chmod(passed.c_str(), 0111), 0);
  usePreferences(passed + "/home/.cache/ahs/selections.xml");
  EXPECT_EQ(inProcess([] {
              if (geteuid() == 0 && setresuid(Nobody, Nobody, Nobody) != 0) {
                return 1;
              }
              return store("gw-a;", {{"gw-a", 40}}) == 0 && has("gw-a;") ? 0 : 2;
            }),
            0);
  ASSERT_EQ(chmod(passed.c_str(), 0700), 0);
}

TEST_F(SelectionCacheFile, InADirectoryThatOthersCanWriteThereIsNone) {
  for (const mode_t mode : {0770U, 0707U, 01777U}) {
    ASSERT_EQ(chmod(m_directory.c_str(), 0700), 0);
    unlink((m_file + ".lock").c_str());
    writeSelection(60);
    ASSERT_EQ(chmod(m_directory.c_str(), mode), 0);
    EXPECT_FALSE(has("gw-a;"));
    m_warnings.clear();
    expectMemoryOnly();
    EXPECT_THAT(m_warnings[0],
                HasSubstr("directory " + m_directory + " can be written by other users"));
    EXPECT_THAT(names(), ElementsAre("selections.xml"));
  }
}

TEST_F(SelectionCacheFile, InADirectoryThatOthersCanWriteNoneIsMade) {
  ASSERT_EQ(chmod(m_directory.c_str(), 0777), 0);
  expectMemoryOnly();
  EXPECT_TRUE(names().empty());
}

TEST_F(SelectionCacheFile, InADirectoryOfAnotherUserThereIsNone) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a directory away";
  }
  writeSelection(60);
  ASSERT_EQ(chown(m_directory.c_str(), Nobody, Nobody), 0);
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr("directory " + m_directory + " belongs to another user"));
  ASSERT_EQ(chown(m_directory.c_str(), 0, 0), 0);
}

TEST_F(SelectionCacheFile, AUseThatCannotBePutOnRecordCostsNoWarning) {
  writeSelection(24L * 60 * 60);
  {
    const FullDisk full;
    EXPECT_TRUE(has("gw-a;"));
  }
  EXPECT_TRUE(m_warnings.empty()) << m_warnings.front();
  EXPECT_THAT(read(m_file), HasSubstr("version=\"1\""));
}

TEST_F(SelectionCacheFile, TheLastReleaseDoesNotWaitForTheLockToPutAMereUseOnRecord) {
  writeSelection(25L * 60 * 60);
  {
    const ForeignLock foreign(m_file);
    {
      const CacheHold cache;
      std::string key = "gw-a;";
      CCacheEntry entry;
      EXPECT_TRUE(cache->IsInCache(key, entry));
      EXPECT_TRUE(eventually(hasWriter)) << "it is to be put on record";
    }
  }
  EXPECT_TRUE(eventually([this] { return read(m_file).find("used=") != std::string::npos; }))
      << "the release came after the writer had given the lock up";
  EXPECT_TRUE(m_warnings.empty());
}

TEST_F(SelectionCacheFile, ClearedMeanwhileIsNotBroughtBackByAUse) {
  writeSelection(24L * 60 * 60);
  const CacheHold cache;
  {
    const ForeignLock foreign(m_file);
    std::string key = "gw-a;";
    CCacheEntry entry;
    ASSERT_TRUE(cache->IsInCache(key, entry));
    ASSERT_EQ(unlink(m_file.c_str()), 0);
  }
  waitForWriters();
  EXPECT_FALSE(exists(m_file));
}

TEST_F(SelectionCacheFile, ALinkIsRefusedAndLeftAlone) {
  write(m_directory + "/target", "precious");
  ASSERT_EQ(symlink((m_directory + "/target").c_str(), m_file.c_str()), 0);
  expectMemoryOnly();
  EXPECT_EQ(read(m_directory + "/target"), "precious");
  EXPECT_TRUE(std::filesystem::is_symlink(m_file));
}

TEST_F(SelectionCacheFile, AFifoIsRefusedWithoutWaiting) {
  ASSERT_EQ(mkfifo(m_file.c_str(), 0600), 0);
  expectMemoryOnly();
  EXPECT_TRUE(std::filesystem::is_fifo(m_file));
}

TEST_F(SelectionCacheFile, ADirectoryInItsPlaceIsRefused) {
  ASSERT_EQ(mkdir(m_file.c_str(), 0700), 0);
  expectMemoryOnly();
}

TEST_F(SelectionCacheFile, OneThatOthersCanWriteIsRefused) {
  writeSelection(60);
  ASSERT_EQ(chmod(m_file.c_str(), 0620), 0);
  EXPECT_FALSE(has("gw-a;"));
  m_warnings.clear();
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr("can be written by other users"));
}

TEST_F(SelectionCacheFile, OneOfAnotherUserIsRefused) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  writeSelection(60);
  ASSERT_EQ(chown(m_file.c_str(), Nobody, Nobody), 0);
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr("belongs to another user"));
}

TEST_F(SelectionCacheFile, OneThatIsTooLargeIsRefused) {
  writeSelection(60);
  ASSERT_EQ(truncate(m_file.c_str(), static_cast<off_t>(CSelectionCache::MaxFileSize) + 1), 0);
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr("has more than 16777216 bytes"));
}

TEST_F(SelectionCacheFile, AMissingDirectoryThatCannotBeMadeCostsOneWarning) {
  write(m_directory + "/file", "");
  usePreferences(m_directory + "/file/selections.xml");
  expectMemoryOnly();
  EXPECT_THAT(m_warnings[0], HasSubstr("Not a directory"));
}

TEST_F(SelectionCacheFile, AReadOnlyDirectoryCostsOneWarning) {
  writeSelection(60);
  ASSERT_EQ(chown(m_file.c_str(), geteuid() == 0 ? Nobody : geteuid(), getegid()), 0);
  ASSERT_EQ(chmod(m_directory.c_str(), 0555), 0);
  const int status = inProcess([this] {
    if (geteuid() == 0 && setresuid(Nobody, Nobody, Nobody) != 0) {
      return 1;
    }
    if (!has("gw-a;")) {
      return 2;
    }
    expectMemoryOnly();
    return HasFailure() ? 3 : 0;
  });
  ASSERT_EQ(chmod(m_directory.c_str(), 0700), 0);
  EXPECT_EQ(status, 0);
}

TEST_F(SelectionCacheFile, AFullDiskLeavesTheOldFileAndNothingElse) {
  store("gw-a;", {{"gw-a", 40}});
  const std::string before = read(m_file);
  {
    const FullDisk full;
    expectMemoryOnly();
  }
  EXPECT_EQ(read(m_file), before);
  EXPECT_THAT(names(), ElementsAre("selections.xml", "selections.xml.lock"));
}

TEST_F(SelectionCacheFile, AStoreThatFailedIsTriedAgainAtTheLastRelease) {
  {
    const CacheHold cache;
    const FullDisk full;
    CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
    EXPECT_EQ(cache->AddEntry(entry), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  }
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, AStoreThatFailedIsMadeUpForByTheNextOne) {
  const CacheHold cache;
  {
    const FullDisk full;
    CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
    EXPECT_EQ(cache->AddEntry(entry), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  }
  CCacheEntry entry = entryOf("gw-b;", {{"gw-b", 40}});
  EXPECT_EQ(keep(cache, entry), 0);
  EXPECT_THAT(read(m_file), HasSubstr("gw-a;"));
}

TEST_F(SelectionCacheFile, AStoreGoesOnWithoutALockThatAnotherHolds) {
  {
    const CacheHold cache;
    {
      const ForeignLock foreign(m_file);
      CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
      EXPECT_EQ(cache->AddEntry(entry), HEADENDSELECTION_ERROR_CACHE_FAILURE);
      std::string key = "gw-a;";
      EXPECT_TRUE(cache->IsInCache(key, entry));
      EXPECT_FALSE(exists(m_file));
    }
    EXPECT_TRUE(m_warnings.empty()) << "it will still be written";
  }
  EXPECT_TRUE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, ALockThatIsNeverGivenBackCostsOneWarning) {
  {
    const ForeignLock foreign(m_file);
    const CacheHold cache;
    CCacheEntry entry = entryOf("gw-a;", {{"gw-a", 40}});
    EXPECT_EQ(cache->AddEntry(entry), HEADENDSELECTION_ERROR_CACHE_FAILURE);
    // A writer that is held up may need more than one wait to say so.
    EXPECT_TRUE(eventually([&] {
      EXPECT_EQ(cache->WaitForStores(), HEADENDSELECTION_ERROR_CACHE_FAILURE);
      return !m_warnings.empty();
    }));
  }
  ASSERT_EQ(m_warnings.size(), 1U);
  EXPECT_THAT(m_warnings[0], HasSubstr("is held by another process"));
  EXPECT_FALSE(has("gw-a;"));
}

TEST_F(SelectionCacheFile, ASelectionThatIsTooLargeIsKeptInMemoryOnly) {
  const CacheHold cache;
  CCacheEntry small = entryOf("small;", {{"gw-a", 40}});
  ASSERT_EQ(keep(cache, small), 0);
  CCacheEntry large = entryOf(std::string(CSelectionCache::MaxFileSize, 'k'), {{"gw-b", 40}});
  EXPECT_EQ(cache->AddEntry(large), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  CCacheEntry longName = entryOf("long;", {{std::string(3000, 'n'), 40}});
  EXPECT_EQ(cache->AddEntry(longName), HEADENDSELECTION_ERROR_CACHE_FAILURE);
  std::string key = "long;";
  CCacheEntry found;
  EXPECT_TRUE(cache->IsInCache(key, found));
  CCacheEntry next = entryOf("next;", {{"gw-c", 40}});
  cache->AddEntry(next);
  cache->WaitForStores();
  EXPECT_THAT(read(m_file), HasSubstr("small;"));
  EXPECT_THAT(read(m_file), HasSubstr("next;"));
}

TEST_F(SelectionCacheFile, LargeSelectionsPushTheOldestOut) {
  const std::string padding(5 * 1024 * 1024, 'k');
  for (int i = 0; i < 4; ++i) {
    const CacheHold cache;
    CCacheEntry entry = entryOf(std::to_string(i) + padding, {{"gw", 1}});
    cache->AddEntry(entry);
    // A sanitizer takes longer for megabytes than one wait.
    ASSERT_TRUE(eventually([&] { return cache->WaitForStores() == 0; }));
  }
  EXPECT_LE(read(m_file).size(), CSelectionCache::MaxFileSize);
  EXPECT_TRUE(has("3" + padding));
  int kept = 0;
  for (int i = 0; i < 4; ++i) {
    kept += has(std::to_string(i) + padding) ? 1 : 0;
  }
  EXPECT_EQ(kept, 3);
}

TEST_F(SelectionCacheFile, TenProcessesThatStoreAtOnceLoseNothing) {
  constexpr int Processes = 10;
  constexpr int Rounds = 3;
  for (int round = 0; round < Rounds; ++round) {
    waitForWriters();
    int barrier[2];
    ASSERT_EQ(pipe(barrier), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < Processes; ++i) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        char start = 0;
        close(barrier[1]);
        const bool started = ::read(barrier[0], &start, 1) == 0;  // ends when all are there
        const CacheHold cache;
        CCacheEntry entry =
            entryOf(std::to_string(round) + "-" + std::to_string(i) + ";", {{"gw", 40}});
        cache->AddEntry(entry);
        // On a slow disk ten of them take longer than one wait for the lock.
        const bool isStored = eventually([&] { return cache->WaitForStores() == 0; });
        _exit(started && isStored ? 0 : 1);
      }
      children.push_back(child);
    }
    close(barrier[0]);
    close(barrier[1]);
    for (const pid_t child : children) {
      int status = -1;
      EXPECT_EQ(waitpid(child, &status, 0), child);
      EXPECT_EQ(status, 0);
    }
  }
  for (int round = 0; round < Rounds; ++round) {
    for (int i = 0; i < Processes; ++i) {
      EXPECT_TRUE(has(std::to_string(round) + "-" + std::to_string(i) + ";"));
    }
  }
}

}  // namespace tests
