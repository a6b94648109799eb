#pragma once

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/selection/doubles/gate.h"
#include "vpn/Common/Logging/AppLog.h"
#include "vpn/include/StatusCode.h"

namespace doubles {

/// One call of the log.
struct LogLine {
  enum class Kind { Debug, ReturnCode, Verbose };

  Kind kind = Kind::Debug;
  std::string function;
  std::string file;
  unsigned int line = 0;
  char severity = 0;
  std::string format;   ///< of a message
  std::string message;  ///< rendered; of a return code the name of the failed call
  STATUSCODE code = 0;
  std::string extraText;
  int component = 0;
  int level = 0;
  std::thread::id thread;

  /// "function S message", or "function S failedCall 0xCODE".
  std::string toString() const;
};

/// A log that keeps every line.
class Log {
 public:
  using Hook = std::function<void(const LogLine&)>;

  void reset();
  /// Is called for every line on the logging thread, after the line was kept.
  void setHook(Hook hook) { m_hook.set(std::move(hook)); }

  std::vector<LogLine> lines() const { return m_lines.get(); }
  /// All lines as text, in order.
  std::vector<std::string> texts() const;
  /// The lines of one calling function, as text, in order.
  std::vector<std::string> textsOf(const std::string& function) const;
  /// How often a text was logged.
  std::size_t count(const std::string& text) const;
  /// Waits until a text was logged.
  bool await(const std::string& text) const {
    return eventually([&] { return count(text) > 0; });
  }

  void add(const LogLine& line);

 private:
  Guarded<std::vector<LogLine>> m_lines;
  Guarded<Hook> m_hook;
};

Log& log();

}  // namespace doubles
