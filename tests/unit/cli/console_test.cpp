// What is shown to a person, and what happens when a result cannot be written.

#include "cli/Console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>

TEST(Console, ControlCharactersAreShownAsTheirCodes) {
  EXPECT_EQ(Console::visible("a\x1b[31mb\n\x7f"), "a\\x1b[31mb\\x0a\\x7f");
}

TEST(Console, ControlCharactersEncodedAsUtf8AreShownAsTheirCodes) {
  EXPECT_EQ(Console::visible("a\xc2\x9b"
                             "31m"),
            "a\\xc2\\x9b31m");
}

TEST(Console, OtherUtf8IsShownAsItIs) {
  EXPECT_EQ(Console::visible("M\xc3\xbcnchen \xe2\x82\xac"), "M\xc3\xbcnchen \xe2\x82\xac");
}

TEST(Console, CharactersThatTurnTheDirectionOfWritingAreShownAsTheirCodes) {
  EXPECT_EQ(Console::visible("a\xe2\x80\xae"
                             "b\xe2\x81\xa6\xe2\x80\xa8"),
            "a\\xe2\\x80\\xaeb\\xe2\\x81\\xa6\\xe2\\x80\\xa8");
}

TEST(Console, BytesThatAreNoUtf8AreShownAsTheirCodes) {
  EXPECT_EQ(Console::visible("gw\xff.example"), "gw\\xff.example");
  EXPECT_EQ(Console::visible("\x9b"
                             "31m\t"),
            "\\x9b31m\\x09");
}

TEST(Console, ALongTextIsShownWhole) {
  const std::string text(std::size_t{1} << 20U, 'x');
  EXPECT_EQ(Console::visible(text), text);
}

TEST(Console, AFirstByteAtTheEndOfTheTextIsNoReasonToReadOn) {
  EXPECT_EQ(Console::visible("a\xc2"), "a\\xc2");
}

TEST(Console, AFullDeviceIsReported) {
  const int full = open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  EXPECT_EQ(Console::write(full, "text"), "No space left on device");
  close(full);
}

TEST(Console, AClosedPipeIsReported) {
  signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  EXPECT_EQ(Console::write(ends[1], "text"), "Broken pipe");
  close(ends[1]);
}

TEST(Console, AWholeTextIsWritten) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(Console::write(ends[1], "whole text"), "");
  char read[32] = {};
  EXPECT_EQ(::read(ends[0], read, sizeof read), 10);
  EXPECT_STREQ(read, "whole text");
  close(ends[0]);
  close(ends[1]);
}

TEST(Console, ANonBlockingPipeThatIsFullIsWaitedFor) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
  const std::string text(std::size_t{512} * 1024, 'x');
  std::string error = "not written";
  std::thread writer([&] {
    error = Console::write(ends[1], text);
    close(ends[1]);
  });
  ASSERT_EQ(fcntl(ends[0], F_SETFL, 0), 0);
  std::size_t total = 0;
  char bytes[4096];
  ssize_t count = 0;
  while ((count = read(ends[0], bytes, sizeof bytes)) > 0) {
    total += static_cast<std::size_t>(count);
  }
  writer.join();
  EXPECT_EQ(error, "");
  EXPECT_EQ(total, text.size());
  close(ends[0]);
}
