// The log's file. It is found once, on a path that no other user can change; from then on it is
// opened and renamed in its directory, which stays open.

#include "vpn/Common/Logging/LogFile.h"

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "vpn/Common/Trust/FileTrust.h"
#include "vpn/Common/Trust/LegibleText.h"

namespace {

/// Writes each message at once, so that a process that is killed loses none.
class LogFile : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  LogFile(const std::string& path, std::size_t fileSize, std::size_t fileCount)
      : m_path(path), m_fileSize(fileSize), m_fileCount(fileCount) {
    FileTrust::Refusal refusal;
    if (fileSize == 0) {
      throw problem("cannot be of size 0");
    }
    if (!FileTrust::findPlace(path, m_place, refusal)) {
      throw problem(refusal);
    }
    open();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    if (m_size > 0 && m_size + line.size() > m_fileSize) {
      rotate();
    }
    m_size += line.size();
    if (const int error = FileTrust::writeAll(m_file, {line.data(), line.size()}); error != 0) {
      throw problem("cannot be written: " + std::generic_category().message(error));
    }
  }
  void flush_() override {}

 private:
  std::runtime_error problem(const std::string& what) const {
    return std::runtime_error("log file '" + legibleLine(m_path) + "' " + what);
  }

  std::runtime_error problem(const FileTrust::Refusal& refusal) const {
    return problem(refusal.text +
                   (refusal.error == ENOENT ? "; create the directory" : "; choose another path"));
  }

  void open() {
    FileTrust::Refusal refusal;
    struct stat status = {};
    if (!FileTrust::openToAppend(m_place, m_file, refusal)) {
      throw problem(refusal);
    }
    m_size = fstat(m_file.get(), &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
  }

  /// "a.log" is renamed to "a.1.log", that to "a.2.log".
  void rotate() {
    const int directory = m_place.directory.get();
    for (std::size_t i = m_fileCount; i > 0; --i) {
      if (renameat(directory, nameOf(i - 1).c_str(), directory, nameOf(i).c_str()) != 0 &&
          errno != ENOENT) {
        throw problem("cannot be rotated: " + std::generic_category().message(errno));
      }
    }
    if (m_fileCount == 0) {
      unlinkat(directory, m_place.name.c_str(), 0);
    }
    open();
  }

  std::string nameOf(std::size_t number) const {
    const std::string& name = m_place.name;
    const std::size_t dot = name.rfind('.');
    const std::size_t end = dot == std::string::npos || dot == 0 ? name.size() : dot;
    return number == 0 ? name
                       : name.substr(0, end) + "." + std::to_string(number) + name.substr(end);
  }

  const std::string m_path;
  const std::size_t m_fileSize;
  const std::size_t m_fileCount;
  FileTrust::Place m_place;
  FileTrust::Descriptor m_file;
  std::size_t m_size = 0;
};

}  // namespace

spdlog::sink_ptr openLogFile(const std::string& path, std::size_t fileSize, std::size_t fileCount) {
  return std::make_shared<LogFile>(path, fileSize, fileCount);
}
