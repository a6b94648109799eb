// Passwords from files and descriptors: which are accepted or refused, and the messages.

#include "cli/login/Credentials.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "tests/support/TemporaryDirectory.h"
#include "tests/unit/cli/person.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* Text = "correct horse";

// Makes files look like another user's: only root could give one away.
bool isSomebodyElses = false;

class PasswordFileTest : public testing::Test {
 protected:
  ~PasswordFileTest() override { isSomebodyElses = false; }

  std::string write(const std::string& contents, mode_t mode = 0600) const {
    const std::string path = directory.Write("password", contents);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }

  std::string read(const std::string& path) {
    const std::string error = readPasswordFile(path, password);
    EXPECT_THAT(error, Not(HasSubstr(Text)));
    return error;
  }

  const tests::TemporaryDirectory directory;
  Secret password;
};

class PasswordDescriptorTest : public testing::Test {
 protected:
  PasswordDescriptorTest() { EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0); }
  ~PasswordDescriptorTest() override { close(ends[1]); }

  void send(const std::string& text) {
    EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(ends[1]);
    ends[1] = -1;
  }

  int ends[2] = {-1, -1};
  Secret password;
};

}  // namespace

extern "C" int __real_fstat(int descriptor, struct stat* facts);
extern "C" int __wrap_fstat(int descriptor, struct stat* facts) {
  const int result = __real_fstat(descriptor, facts);
  if (result == 0 && isSomebodyElses && S_ISREG(facts->st_mode)) {
    facts->st_uid = geteuid() + 1;
  }
  return result;
}

TEST_F(PasswordFileTest, OneLineFeedAtTheEndIsDroppedAndItsOwnerMayHaveLessThanAllRights) {
  for (const std::string& path : {write(std::string(Text) + "\n"), write(Text, 0400)}) {
    EXPECT_EQ(read(path), "");
    EXPECT_STREQ(password.c_str(), Text);
  }
}

TEST_F(PasswordFileTest, OneThatOthersMayReadOrWriteIsRefusedWithTheRemedy) {
  for (const mode_t mode : {0640U, 0620U, 0604U, 0602U, 0644U, 0666U}) {
    EXPECT_EQ(read(write(Text, mode)),
              "the password file '" + directory.File("password") +
                  "' cannot be used: others may read or write it. Keep it to yourself: chmod 600 "
                  "FILE. If it was readable for long, change the password.")
        << std::oct << mode;
  }
  EXPECT_EQ(password.length(), 0U);
}

TEST_F(PasswordFileTest, OneOfAnotherUserIsRefused) {
  const std::string path = write(Text);
  isSomebodyElses = true;
  EXPECT_THAT(read(path),
              HasSubstr("it belongs to another user. Write the password into a file of your own."));
}

TEST_F(PasswordFileTest, OneOnAWayThatOthersCouldHaveChangedIsRefused) {
  const std::string path = write(Text);
  const std::string shared = directory.MakeDirectory("shared");
  const std::string link = shared + "/link";
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  EXPECT_EQ(read(link), "");
  ASSERT_EQ(chmod(shared.c_str(), 0777), 0);
  for (const std::string& way : {link, shared + "/../password"}) {
    EXPECT_THAT(read(way), HasSubstr("it is refused because another user could have changed it: " +
                                     shared + " may be written by every user"));
  }
  ASSERT_EQ(chmod(shared.c_str(), 01777), 0);
  EXPECT_EQ(read(link), "");
  if (lchown(link.c_str(), geteuid() + 1, static_cast<gid_t>(-1)) == 0) {
    EXPECT_THAT(read(link), HasSubstr(link + " belongs to user"));
  }
}

TEST_F(PasswordFileTest, WhatIsNoFileIsRefusedWithoutWaitingForIt) {
  EXPECT_THAT(read(directory.MakeDirectory("folder")), HasSubstr("it is not a regular file"));
  const std::string pipe = directory.File("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(read(pipe), HasSubstr("it is not a regular file"));
  EXPECT_THAT(read(directory.File("none")),
              HasSubstr("none' cannot be used: it cannot be opened: No such file"));
}

TEST_F(PasswordFileTest, WhatIsEmptyTooLongOrMoreThanALineIsRefused) {
  const std::string longest(MostCredentialBytes, 'p');
  EXPECT_EQ(read(write(longest + "\n")), "");
  EXPECT_EQ(password.c_str(), longest);
  const std::string text = Text;
  for (const auto& [contents, problem] : std::vector<std::pair<std::string, const char*>>{
           {"", "it is empty"},
           {"\n", "it is empty"},
           {longest + "p", "it is longer than 1024 bytes"},
           {std::string(1 << 20, 'p'), "it is longer than 1024 bytes"},
           {text + "\n\n", "a control character or a second line"},
           {text + "\r\n", "a control character or a second line"},
           {text + "\nmore", "a control character or a second line"},
           {text + std::string(1, '\0'), "a control character or a second line"},
           {text + "\t", "a control character or a second line"}}) {
    EXPECT_THAT(read(write(contents)), HasSubstr(problem));
  }
}

TEST_F(PasswordDescriptorTest, APipeIsReadToItsEndAndClosed) {
  send(std::string(Text) + "\n");
  EXPECT_EQ(readPasswordDescriptor(ends[0], password), "");
  EXPECT_STREQ(password.c_str(), Text);
  EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(PasswordDescriptorTest, AWriterWhoTakesHisTimeIsWaitedFor) {
  ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  std::string error = "not read";
  std::thread reader([&] { error = readPasswordDescriptor(ends[0], password); });
  EXPECT_EQ(::write(ends[1], "correct ", 8), 8);
  send("horse");
  reader.join();
  EXPECT_EQ(error, "");
  EXPECT_STREQ(password.c_str(), Text);
}

TEST_F(PasswordDescriptorTest, OneThatWritesWithoutEndIsNotReadToTheEnd) {
  const std::string text(8 * MostCredentialBytes, 'p');
  EXPECT_EQ(::write(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_THAT(readPasswordDescriptor(ends[0], password), HasSubstr("it is longer than"));
}

TEST_F(PasswordDescriptorTest, OneThatCannotBeUsedIsNamed) {
  close(ends[0]);
  EXPECT_THAT(readPasswordDescriptor(ends[0], password),
              HasSubstr("the password descriptor " + std::to_string(ends[0]) +
                        " cannot be used: it is not open"));
  EXPECT_THAT(readPasswordDescriptor(open("/dev/null", O_WRONLY | O_CLOEXEC), password),
              HasSubstr("it cannot be read: Bad file"));
  const Person person(Person::Lines{});
  EXPECT_THAT(readPasswordDescriptor(dup(person.terminal()), password),
              HasSubstr("it is a terminal. Leave --proxy-password-fd out"));
}

TEST(SecretBuffer, IsZerosOnceItHasGone) {
  alignas(SecretBuffer) unsigned char place[sizeof(SecretBuffer)];
  auto* buffer = new (place) SecretBuffer;
  std::fill_n(buffer->data(), SecretBuffer::Size, 'p');
  buffer->~SecretBuffer();
  const volatile unsigned char* bytes = place;
  EXPECT_TRUE(
      std::all_of(bytes, bytes + sizeof place, [](unsigned char byte) { return byte == 0; }));
}
