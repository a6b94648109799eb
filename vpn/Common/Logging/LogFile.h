#pragma once

#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

/// A log file that is rotated and survives what befalls it.
///
/// Files are created readable and writable for their owner alone and are closed in child processes.
/// When writing or rotating fails (disk full, no descriptor left, directory gone) messages are lost
/// and counted, and the file is opened anew, at most once a second; the first message after that is
/// preceded by the count. Not synchronised: one thread at a time. Nothing but what cannot be
/// allocated is thrown after construction.
class CLogFile final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  /// Opens the file, appending to what it holds.
  /// @throws std::exception whose text says what is wrong with the path and what to do about it.
  CLogFile(std::string path, std::size_t fileSize, std::size_t fileCount);

 private:
  using File = spdlog::sinks::rotating_file_sink_st;

  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override;
  void set_formatter_(std::unique_ptr<spdlog::formatter> formatter) override;
  void open();
  bool reopen();
  void reportLost();
  void lose(const char* reason);

  const std::string m_path;
  const std::size_t m_fileSize;
  const std::size_t m_fileCount;
  std::unique_ptr<File> m_file;  // null while the file cannot be used
  unsigned long m_lost = 0;      // messages since the last one that was written
  std::string m_reason;          // of the first of them
  std::chrono::steady_clock::time_point m_nextTry;
};
