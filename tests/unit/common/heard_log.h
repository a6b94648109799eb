#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "vpn/Common/Logging/AppLog.h"

/// Hears the log for the length of a test.
class HeardLog {
 public:
  struct Line {
    std::string function;
    std::string file;
    char severity;
    std::string message;
  };

  HeardLog() {
    CAppLog::setListener([this](const CAppLog::Record& record) {
      const std::lock_guard<std::mutex> lock(m_lock);
      m_lines.push_back({record.function, record.file, record.severity, record.message});
    });
  }
  ~HeardLog() { CAppLog::setListener({}); }
  HeardLog(const HeardLog&) = delete;
  HeardLog& operator=(const HeardLog&) = delete;

  std::vector<Line> lines() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_lines;
  }

 private:
  mutable std::mutex m_lock;
  std::vector<Line> m_lines;
};
