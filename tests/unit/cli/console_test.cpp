// What happens when a result cannot be written at once; integration tests have full devices and
// closed pipes.

#include "cli/Console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>

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
