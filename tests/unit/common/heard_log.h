#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "vpn/Common/Logging/AppLog.h"

/// Hears the log for the length of a test.
class HeardLog {
 public:
  HeardLog() {
    CAppLog::setListener([this](const CAppLog::Record& record) {
      const std::lock_guard<std::mutex> lock(m_lock);
      m_lines.push_back(static_cast<char>(record.severity) + (" " + record.message));
    });
  }
  ~HeardLog() { CAppLog::setListener({}); }
  HeardLog(const HeardLog&) = delete;
  HeardLog& operator=(const HeardLog&) = delete;

  /// Severity and message of each line, with a blank between.
  std::vector<std::string> lines() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_lines;
  }

 private:
  mutable std::mutex m_lock;
  std::vector<std::string> m_lines;
};
