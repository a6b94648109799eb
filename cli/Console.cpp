// Writes to terminal and pipes without a buffer. So a signal that ends the process loses nothing,
// and each caller learns of its failed write.

#include "cli/Console.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include "cli/ExitStatus.h"
#include "vpn/Common/Trust/LegibleText.h"

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
  if (errno == EPIPE) {
    return ExitNoReader;
  }
  complain("the result could not be written to standard output: " + error +
           ". Check where the output goes (a full disk) and run the command again.");
  return ExitUsage;
}

std::string Console::findFile(const std::string& path, FileTrust::Place& place) {
  FileTrust::Refusal refusal;
  std::string error;
  if (!FileTrust::findPlace(path, place, refusal)) {
    error = "it " + refusal.text;
  } else if (faccessat(place.directory.get(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
    error = strerrordesc_np(errno);
  }
  return error.empty()
             ? ""
             : "the file " + inQuotes(path) + " cannot be written: " + error +
                   ". Name a file in a directory of your own, or '-' for standard output.";
}

int Console::writeFile(const FileTrust::Place& place, const std::string& text, int exitStatus) {
  constexpr mode_t ReadableByAll = 0644;
  const int error = FileTrust::replaceFile(place, text, ReadableByAll);
  if (error == 0) {
    return exitStatus;
  }
  complain("the file " + inQuotes(place.path) + " could not be written: " + strerrordesc_np(error) +
           ". Name one in a directory that has room.");
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
  static_cast<void>(write(STDERR_FILENO, legible(text) + "\n"));
}

std::string Console::visible(const std::string& text) { return legibleLine(text); }

std::string Console::inQuotes(const std::string& text) { return "'" + visible(text) + "'"; }
