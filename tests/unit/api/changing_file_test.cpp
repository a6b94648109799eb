// A file that changes in the middle of its being read, or just before it is opened: the double of
// read(2) changes it when the reader has just had its first bytes, that of openat(2) when it has
// been looked at.

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "tests/unit/api/api_fixture.h"

namespace {

struct Change {
  int times = 0;  // how often it happens still
  std::function<void()> happen;

  void Next() {
    if (times > 0) {
      --times;
      happen();
    }
  }
};

// After a reading that brings something, and before an opening for reading. One thread only.
Change g_afterRead;
Change g_beforeOpening;

}  // namespace

extern "C" ssize_t __real_read(int descriptor, void* buffer, std::size_t size);
extern "C" ssize_t __wrap_read(int descriptor, void* buffer, std::size_t size) {
  const ssize_t count = __real_read(descriptor, buffer, size);
  if (count > 0) {
    g_afterRead.Next();
  }
  return count;
}

extern "C" int __real_openat(int directory, const char* path, int flags, ...);
extern "C" int __wrap_openat(int directory, const char* path, int flags, ...) {
  // Nothing under test makes a file, which would take a mode.
  if ((flags & O_PATH) == 0) {
    g_beforeOpening.Next();
  }
  return __real_openat(directory, path, flags);
}

namespace tests {
namespace {

class ChangingFileTest : public FileTest {};

TEST_F(ChangingFileTest, IsReadAsItIsAtOneMomentOrRefused) {
  const std::string path = m_directory.File("profile.xml");
  const std::string other = m_directory.File("other.xml");
  constexpr int always = 1000;
  const auto grow = [&] { std::ofstream(path, std::ios::app) << '\n'; };
  const auto replace = [&] { std::filesystem::rename(other, path); };
  const auto expect = [&](const char* name, Change& when, int times,
                          const std::function<void()>& change,
                          const std::vector<std::string>& hosts, const std::vector<Told>& told) {
    SCOPED_TRACE(name);
    std::filesystem::remove(path);
    m_directory.Write("profile.xml", profileWithHosts("<host name=\"before\"/>"));
    m_directory.Write("other.xml", profileWithHosts("<host name=\"after\"/>"));
    // The clock of a file system ticks every few milliseconds, so the text is given an old time.
    const timespec old[] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), static_cast<const timespec*>(old), 0), 0);
    when = {times, change};
    const Reading reading = readProfile(path);
    when.times = 0;
    EXPECT_EQ(reading.usable, !hosts.empty());
    EXPECT_EQ(reading.Hosts(), hosts);
    EXPECT_THAT(reading.problems, Tell(told));
  };
  expect("others may write it by the time it is opened", g_beforeOpening, 1,
         [&] { ASSERT_EQ(::chmod(path.c_str(), 0666), 0); }, {},
         {{0, {path + " may be written by every user"}}});
  expect("replaced by the time it is opened", g_beforeOpening, 1, replace, {},
         {{0, {"was replaced"}}});
  expect("grows once", g_afterRead, 1, grow, {"before"}, {});
  expect("keeps growing", g_afterRead, always, grow, {}, {{0, {"changes while it is read"}}});
  expect("cut short", g_afterRead, 1, [&] { std::filesystem::resize_file(path, 23); }, {},
         {{2, {"not well-formed"}}});
  expect("replaced", g_afterRead, 1, replace, {"after"}, {});
  expect("removed", g_afterRead, 1, [&] { std::filesystem::remove(path); }, {},
         {{0, {"No such file"}}});
  expect("grows beyond the limit", g_afterRead, 1,
         [&] { std::filesystem::resize_file(path, std::uintmax_t{1} << 30U); }, {},
         {{0, {"larger than 8 MiB"}}});
}

}  // namespace
}  // namespace tests
