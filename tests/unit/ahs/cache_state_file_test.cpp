// The file that processes share: whoever removes its lock, or leaves a text behind, harms nobody.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"
#include "vpn/Api/AHS/StateFile.h"

namespace tests {
namespace {

constexpr std::size_t MaxSize = 100;
constexpr std::chrono::milliseconds NoPatience{0};
constexpr std::chrono::milliseconds Patience{60000};

class StateFile : public testing::Test {
 protected:
  bool exists(const std::string& suffix) const {
    struct stat status {};
    return lstat((m_path + suffix).c_str(), &status) == 0;
  }

  CStateFile::Replacing replace(const std::string& text) const {
    CStateFile file(m_path, MaxSize);
    const CStateFile::Lock lock(file, NoPatience);
    std::string problem;
    const CStateFile::Replacing result = file.replace(lock, text, problem);
    EXPECT_EQ(problem, "");
    return result;
  }

  const TemporaryDirectory m_directory;
  const std::string m_path = m_directory.File("state");
};

TEST_F(StateFile, WhoseLockWasRemovedIsNotReplacedByItsFormerHolder) {
  CStateFile first(m_path, MaxSize);
  const CStateFile::Lock firstLock(first, NoPatience);
  ASSERT_EQ(firstLock.state(), CStateFile::Locking::Held);
  EXPECT_TRUE(firstLock.isInPlace());
  ASSERT_EQ(unlink((m_path + ".lock").c_str()), 0);
  EXPECT_FALSE(firstLock.isInPlace());
  ASSERT_EQ(replace("second"), CStateFile::Replacing::Done);

  std::string problem;
  EXPECT_EQ(first.replace(firstLock, "first", problem), CStateFile::Replacing::LockLost);
  EXPECT_EQ(readFile(m_path), "second");
  EXPECT_EQ(replace("third"), CStateFile::Replacing::Done);
}

TEST_F(StateFile, WhoWaitsForALockThatIsRemovedGetsTheNextOne) {
  const CStateFile file(m_path, MaxSize);
  const CStateFile::Lock held(file, NoPatience);
  std::atomic<bool> isHeld{false};
  std::thread waiter([&] {
    const CStateFile::Lock next(file, Patience);
    isHeld = next.state() == CStateFile::Locking::Held && next.isInPlace();
  });
  EXPECT_EQ(unlink((m_path + ".lock").c_str()), 0);
  EXPECT_TRUE(eventually([&] { return isHeld.load(); }));
  waiter.join();
}

TEST_F(StateFile, AnExchangedLockIsNoLock) {
  const CStateFile file(m_path, MaxSize);
  const CStateFile::Lock held(file, NoPatience);
  m_directory.Write("other", "");
  ASSERT_EQ(rename(m_directory.File("other").c_str(), (m_path + ".lock").c_str()), 0);
  EXPECT_FALSE(held.isInPlace());
}

TEST_F(StateFile, ATextUnderWayIsLeftAloneWhileItsProcessLives) {
  const std::string half = m_path + ".new-0123456789abcdef";
  {
    const FileTrust::Descriptor writer(open(half.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(writer.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(replace("text"), CStateFile::Replacing::Done);
    EXPECT_TRUE(exists(".new-0123456789abcdef"));
  }
  EXPECT_EQ(replace("text"), CStateFile::Replacing::Done);
  EXPECT_FALSE(exists(".new-0123456789abcdef"));
  EXPECT_EQ(readFile(m_path), "text");
}

TEST_F(StateFile, ALinkInTheNameOfATextUnderWayIsRemovedNotFollowed) {
  const std::string precious = m_directory.Write("precious", "precious");
  ASSERT_EQ(symlink(precious.c_str(), (m_path + ".new-1").c_str()), 0);
  EXPECT_EQ(replace("text"), CStateFile::Replacing::Done);
  EXPECT_FALSE(exists(".new-1"));
  EXPECT_EQ(readFile(precious), "precious");
}

TEST_F(StateFile, WhatOnlyBeginsWithTheSameNameIsLeftAlone) {
  m_directory.Write("state.news", "a user's");
  EXPECT_EQ(replace("text"), CStateFile::Replacing::Done);
  EXPECT_TRUE(exists(".news"));
}

TEST_F(StateFile, IsRemovableUnlessItIsADirectoryOrInOneThatIsNotTrusted) {
  const CStateFile file(m_path, MaxSize);
  EXPECT_FALSE(file.isRemovable());
  m_directory.Write("state", "");
  EXPECT_TRUE(file.isRemovable());
  ASSERT_EQ(chmod(m_directory.Path().c_str(), 0777), 0);
  EXPECT_FALSE(file.isRemovable());
  ASSERT_EQ(chmod(m_directory.Path().c_str(), 0700), 0);
  ASSERT_EQ(unlink(m_path.c_str()), 0);
  ASSERT_EQ(mkdir(m_path.c_str(), 0700), 0);
  EXPECT_FALSE(file.isRemovable());
}

}  // namespace
}  // namespace tests
