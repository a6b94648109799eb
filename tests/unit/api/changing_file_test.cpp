// A file that changes in the middle of its being read, or just before it is opened: the double of
// read(2) changes it when the reader has just had its first bytes, that of openat(2) when it has
// been looked at.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "tests/unit/api/api_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using tests::ProblemAt;
using tests::ProfileReading;
using tests::profileWithHosts;
using Pieces = std::vector<std::string>;

namespace {

// What happens after a reading of bytes. One thread only.
std::function<void()>* g_afterRead = nullptr;

// What happens before an opening for reading. One thread only.
std::function<void()>* g_beforeOpening = nullptr;

/// Calls a function after each of the first `times` reads that bring something.
class Meanwhile {
 public:
  Meanwhile(int times, std::function<void()> change)
      : m_function([this, times, change = std::move(change)] {
          if (m_count++ < times) {
            change();
          }
        }) {
    g_afterRead = &m_function;
  }
  ~Meanwhile() { g_afterRead = nullptr; }
  Meanwhile(const Meanwhile&) = delete;
  Meanwhile& operator=(const Meanwhile&) = delete;

 private:
  int m_count = 0;
  std::function<void()> m_function;
};

constexpr int Always = 1000;

class ChangingFileTest : public testing::Test {
 protected:
  ChangingFileTest() { write("before"); }

  /// The clock of a file system ticks every few milliseconds, so the text is given an old time.
  void write(const std::string& host) {
    m_path = m_directory.Write("profile.xml", profileWithHosts("<host name=\"" + host + "\"/>"));
    const timespec times[] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, m_path.c_str(), static_cast<const timespec*>(times), 0), 0);
  }

  void append() const {
    const int file = ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(::write(file, "\n", 1), 1);
    ::close(file);
  }

  tests::TemporaryDirectory m_directory;
  std::string m_path;
};

}  // namespace

extern "C" ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
extern "C" ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
  const ssize_t count = __real_read(descriptor, buffer, size);
  if (count > 0 && g_afterRead != nullptr) {
    (*g_afterRead)();
  }
  return count;
}

extern "C" int __real_openat(int directory, const char* path, int flags, ...);
extern "C" int __wrap_openat(int directory, const char* path, int flags, ...) {
  // Nothing under test makes a file, which would take a mode.
  if ((flags & O_PATH) == 0 && g_beforeOpening != nullptr) {
    (*g_beforeOpening)();
  }
  return __real_openat(directory, path, flags);
}

TEST_F(ChangingFileTest, OneThatOthersMayWriteByTheTimeItIsOpenedIsRefused) {
  std::function<void()> change = [this] { ASSERT_EQ(::chmod(m_path.c_str(), 0666), 0); };
  g_beforeOpening = &change;
  const ProfileReading reading = tests::readProfile(m_path);
  g_beforeOpening = nullptr;
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems,
              ElementsAre(ProblemAt(0, Pieces{m_path + " may be written by every user"})));
}

TEST_F(ChangingFileTest, OneThatIsReplacedByTheTimeItIsOpenedIsRefused) {
  const std::string other = m_directory.Write("other", profileWithHosts("<host name=\"after\"/>"));
  std::function<void()> change = [&] { std::filesystem::rename(other, m_path); };
  g_beforeOpening = &change;
  const ProfileReading reading = tests::readProfile(m_path);
  g_beforeOpening = nullptr;
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"was replaced"})));
}

TEST_F(ChangingFileTest, OneThatGrowsOnceIsReadAgain) {
  const Meanwhile grows(1, [this] { append(); });
  const ProfileReading reading = tests::readProfile(m_path);
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("before"));
}

TEST_F(ChangingFileTest, OneThatKeepsGrowingIsRefused) {
  const Meanwhile grows(Always, [this] { append(); });
  const ProfileReading reading = tests::readProfile(m_path);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"changes while it is read"})));
}

TEST_F(ChangingFileTest, OneThatIsCutShortIsReadAgainAsItIsThen) {
  const Meanwhile shrinks(1, [this] { std::filesystem::resize_file(m_path, 23); });
  const ProfileReading reading = tests::readProfile(m_path);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(2, Pieces{"not well-formed"})));
}

TEST_F(ChangingFileTest, OneThatIsReplacedGivesTheNewText) {
  const std::string other = m_directory.Write("other", profileWithHosts("<host name=\"after\"/>"));
  const Meanwhile isReplaced(1, [&] { std::filesystem::rename(other, m_path); });
  const ProfileReading reading = tests::readProfile(m_path);
  EXPECT_THAT(reading.problems, IsEmpty());
  EXPECT_THAT(tests::hostNames(reading.profile), ElementsAre("after"));
}

TEST_F(ChangingFileTest, OneThatIsRemovedIsReported) {
  const Meanwhile isRemoved(1, [this] { std::filesystem::remove(m_path); });
  const ProfileReading reading = tests::readProfile(m_path);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"No such file"})));
}

TEST_F(ChangingFileTest, OneThatGrowsBeyondTheLimitIsRefused) {
  const Meanwhile grows(1,
                        [this] { std::filesystem::resize_file(m_path, std::uintmax_t{1} << 30U); });
  const ProfileReading reading = tests::readProfile(m_path);
  EXPECT_FALSE(reading.usable);
  EXPECT_THAT(reading.problems, ElementsAre(ProblemAt(0, Pieces{"larger than 8 MiB"})));
}
