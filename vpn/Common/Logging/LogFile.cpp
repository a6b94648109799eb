// The log's file. The library's sink writes through a null stream after a rotation that could not
// open the new file, so it is thrown away with the first failure and built anew later.

#include "vpn/Common/Logging/LogFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <utility>

#include "vpn/include/StringUtils.h"

namespace {

// A full disk or a used-up descriptor table does not get better sooner, and trying costs time.
constexpr std::chrono::seconds RetryInterval{1};

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

spdlog::file_event_handlers eventHandlers() {
  spdlog::file_event_handlers handlers;
  handlers.before_open = createPrivate;
  handlers.after_open = [](const std::string&, FILE* stream) {
    fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
  };
  return handlers;
}

}  // namespace

CLogFile::CLogFile(std::string path, std::size_t fileSize, std::size_t fileCount)
    : m_path(std::move(path)), m_fileSize(fileSize), m_fileCount(fileCount) {
  open();
}

void CLogFile::open() {
  constexpr bool rotateOnOpen = false;
  auto file =
      std::make_unique<File>(m_path, m_fileSize, m_fileCount, rotateOnOpen, eventHandlers());
  file->set_formatter(formatter_->clone());
  m_file = std::move(file);
}

bool CLogFile::reopen() {
  if (std::chrono::steady_clock::now() < m_nextTry) {
    return false;
  }
  try {
    open();
    return true;
  } catch (const std::exception& problem) {
    lose(problem.what());
    return false;
  }
}

void CLogFile::lose(const char* reason) {
  m_file.reset();
  if (m_lost == 0) {
    m_reason = reason;
  }
  m_nextTry = std::chrono::steady_clock::now() + RetryInterval;
}

void CLogFile::reportLost() {
  if (m_lost == 0) {
    return;
  }
  const std::string text = std::to_string(m_lost) + " messages were lost: " + m_reason;
  m_file->log(spdlog::details::log_msg("ahs", spdlog::level::warn, text));
  m_lost = 0;
}

void CLogFile::sink_it_(const spdlog::details::log_msg& message) {
  if (m_file == nullptr && !reopen()) {
    ++m_lost;
    return;
  }
  try {
    reportLost();
    m_file->log(message);
  } catch (const std::exception& problem) {
    lose(problem.what());
    ++m_lost;
  }
}

void CLogFile::flush_() {
  if (m_file == nullptr) {
    return;
  }
  try {
    m_file->flush();
  } catch (const std::exception& problem) {
    lose(problem.what());
    ++m_lost;
  }
}

void CLogFile::set_formatter_(std::unique_ptr<spdlog::formatter> formatter) {
  formatter_ = std::move(formatter);
  if (m_file != nullptr) {
    m_file->set_formatter(formatter_->clone());
  }
}
