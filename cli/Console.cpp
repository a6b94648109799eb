// Writes to terminal and pipes without a buffer. So a signal that ends the process loses nothing,
// and each caller learns of its failed write.

#include "cli/Console.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <limits>

#include "cli/ExitStatus.h"
#include "vpn/Api/ConfigurationText.h"

std::string Console::write(int descriptor, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0 && errno == EAGAIN) {
      // The process that handed the descriptor over made it non-blocking.
      pollfd ready{descriptor, POLLOUT, 0};
      static_cast<void>(poll(&ready, 1, -1));
      continue;
    }
    if (count < 0) {
      return strerrordesc_np(errno);
    }
    written += static_cast<std::size_t>(count);
  }
  return "";
}

int Console::writeResult(const std::string& text, int exitStatus) {
  const std::string error = write(STDOUT_FILENO, text);
  if (error.empty()) {
    return exitStatus;
  }
  complain("the result could not be written to standard output: " + error +
           ". Check where the output goes (a closed pipe, a full disk) and run the command again.");
  return ExitUsage;
}

int Console::writeFile(const std::string& path, const std::string& text, int exitStatus) {
  constexpr mode_t ReadableByAll = 0644;
  const int file =
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, ReadableByAll);
  std::string error = file < 0 ? strerrordesc_np(errno) : write(file, text);
  if (file >= 0 && close(file) != 0 && error.empty()) {
    error = strerrordesc_np(errno);
  }
  if (error.empty()) {
    return exitStatus;
  }
  complain("the file '" + visible(path) + "' could not be written: " + error +
           ". Name a file in a directory that you may write to and that has room.");
  return ExitUsage;
}

void Console::complain(const std::string& text) { note("ahs: " + text); }

int Console::complainOfUsage(const std::string& command, const std::string& error,
                             const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) {
    note(problem);
  }
  complain(error + " '" + command + " --help' shows all options.");
  return ExitUsage;
}

void Console::note(const std::string& text) {
  // If standard error fails, no place is left to report to.
  static_cast<void>(write(STDERR_FILENO, text + "\n"));
}

std::string Console::visible(const std::string& text) {
  return ConfigurationText::oneLine(text, std::numeric_limits<std::size_t>::max());
}

std::string Console::inQuotes(const std::string& text) { return "'" + visible(text) + "'"; }
