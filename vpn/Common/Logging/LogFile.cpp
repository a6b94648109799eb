// Opens the log's file after the checks that the library's sink does not make.

#include "vpn/Common/Logging/LogFile.h"

#include <fcntl.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include "vpn/include/StringUtils.h"

namespace {

std::runtime_error problemWith(const std::string& path, const std::string& reason,
                               const std::string& remedy) {
  return std::runtime_error("log file '" + CStringUtils::printable(path) +
                            "' cannot be opened: " + reason + "; " + remedy);
}

std::runtime_error problemOf(const std::string& path, int error) {
  const char* const description = strerrordesc_np(error);
  switch (error) {
    case ELOOP:
      return problemWith(path, "it is a symbolic link, which rotation would replace",
                         "name the file itself");
    case ENOENT:
      return problemWith(path, "its directory does not exist", "create the directory");
    default:
      return problemWith(path, description != nullptr ? description : "unknown error",
                         "choose another path or its permissions");
  }
}

/// Makes sure that `path` is a regular file, one that only its owner can read if it is new.
void createPrivate(const std::string& path) {
  // O_NONBLOCK: opening a pipe must not wait for its reader.
  const int descriptor =
      open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
           S_IRUSR | S_IWUSR);
  if (descriptor < 0) {
    throw problemOf(path, errno);
  }
  struct stat properties = {};
  const bool isRegular = fstat(descriptor, &properties) == 0 && S_ISREG(properties.st_mode);
  close(descriptor);
  if (!isRegular) {
    throw problemWith(path, "it is not a regular file, which rotation needs",
                      "choose another path");
  }
}

}  // namespace

spdlog::sink_ptr openLogFile(const std::string& path, std::size_t fileSize, std::size_t fileCount) {
  constexpr bool RotateOnOpen = false;
  spdlog::file_event_handlers handlers;
  handlers.before_open = createPrivate;
  handlers.after_open = [](const std::string&, FILE* stream) {
    fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
  };
  return std::make_shared<spdlog::sinks::rotating_file_sink_st>(path, fileSize, fileCount,
                                                                RotateOnOpen, handlers);
}
