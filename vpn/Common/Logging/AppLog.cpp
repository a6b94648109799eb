// The client's log. Two atomics, read first, tell whether a message is wanted. It is built once,
// made legible once and handed to all targets under one lock, so that they agree on the order and a
// message stays in one piece. No exception and no changed errno leaves a log call. The state is
// never freed, so that threads may log until the process ends.

#include "vpn/Common/Logging/AppLog.h"

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <utility>

#include "vpn/Common/Logging/LogFile.h"
#include "vpn/Common/Trust/Environment.h"
#include "vpn/Common/Trust/FileSizeGuard.h"
#include "vpn/Common/Trust/LegibleText.h"
#include "vpn/include/Locks.h"

namespace {

// %^ and %$ enclose what a terminal shows in the colour of the severity; %t is the thread as ps(1)
// and gdb name it. The function, its position and the text are the message's own.
constexpr char LinePattern[] = "%Y-%m-%d %H:%M:%S.%e %^%L%$ %t %v";
// syslogd adds the time itself.
constexpr char SyslogPattern[] = "%L %t %v";

// A full disk or a used-up descriptor table does not get better sooner, and trying costs time.
constexpr std::chrono::seconds RetryInterval{1};

constinit std::atomic<spdlog::level::level_enum> leastLevel{spdlog::level::off};
constinit std::atomic<bool> isHeard{false};

std::unique_ptr<spdlog::formatter> formatterOf(const char* pattern, const char* endOfLine) {
  return std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::local,
                                                     endOfLine);
}

spdlog::sink_ptr makeTerminal() {
  const bool plain = Environment::get("NO_COLOR") != nullptr;
  auto sink = std::make_shared<spdlog::sinks::ansicolor_stderr_sink_st>(
      plain ? spdlog::color_mode::never : spdlog::color_mode::automatic);
  sink->set_formatter(formatterOf(LinePattern, "\n"));
  return sink;
}

spdlog::sink_ptr makeSyslog() {
  constexpr bool WithFormat = true;
  auto sink = std::make_shared<spdlog::sinks::syslog_sink_st>("ahs", LOG_PID, LOG_USER, WithFormat);
  sink->set_formatter(formatterOf(SyslogPattern, ""));
  return sink;
}

/// Where messages are written. Calls of this are not synchronised, and neither are the sinks.
class Outlets {
 public:
  explicit Outlets(const CAppLog::Targets& targets) : m_targets(targets) {
    m_logger.flush_on(spdlog::level::warn);
    // The file counts what it loses; for the others there is no better place to complain.
    m_logger.set_error_handler([this](const std::string& problem) {
      m_fileHasFailed = m_hasFile;
      m_problem = problem;
    });
    if (targets.terminal) {
      m_logger.sinks().push_back(makeTerminal());
    }
    if (targets.syslog) {
      m_logger.sinks().push_back(makeSyslog());
    }
    if (!targets.file.empty()) {
      try {
        addFile();
      } catch (const std::exception& problem) {
        m_problem = problem.what();
      }
    }
  }

  /// Why the file could not be opened; empty if it was.
  const std::string& problem() const { return m_problem; }
  bool isEmpty() const { return m_logger.sinks().empty(); }

  void write(spdlog::level::level_enum level, const std::string& text) {
    if (m_lost != 0) {
      reopenFile();
    }
    perform([&] { m_logger.log(level, text); });
  }

  void flush() {
    perform([this] { m_logger.flush(); });
  }

 private:
  void addFile() {
    spdlog::sink_ptr file = openLogFile(m_targets.file, m_targets.fileSize, m_targets.fileCount);
    file->set_formatter(formatterOf(LinePattern, "\n"));
    m_logger.sinks().push_back(std::move(file));
    m_hasFile = true;
  }

  /// Drops the file with its first failure; a later message opens it again.
  template <class Action>
  void perform(Action action) {
    const CFileSizeGuard noSignal;
    try {
      action();
    } catch (const std::exception&) {
      m_fileHasFailed = m_hasFile;  // there was no memory to tell the handler
    }
    if (m_fileHasFailed) {
      m_logger.sinks().pop_back();
      m_hasFile = false;
      m_fileHasFailed = false;
      m_lost = 1;
      m_nextTry = std::chrono::steady_clock::now() + RetryInterval;
    }
  }

  /// Opens the file again if it is time to, and tells how much it has missed, with the reason.
  void reopenFile() {
    if (std::chrono::steady_clock::now() >= m_nextTry) {
      m_nextTry = std::chrono::steady_clock::now() + RetryInterval;
      try {
        const std::string note = std::to_string(m_lost) + " messages were lost: " + m_problem;
        addFile();
        m_lost = 0;
        perform([&] { m_logger.log(spdlog::level::warn, note); });
        return;
      } catch (const std::exception&) {
        // The next message tries again.
      }
    }
    ++m_lost;
  }

  const CAppLog::Targets m_targets;
  spdlog::logger m_logger{"ahs"};
  std::string m_problem;
  bool m_hasFile = false;
  bool m_fileHasFailed = false;
  unsigned long m_lost = 0;  // messages since the file was dropped
  std::chrono::steady_clock::time_point m_nextTry;
};

struct State {
  CManualLock listenerLock;  // taken before targetLock, if both are
  CAppLog::Listener listener AHS_GUARDED_BY(listenerLock);
  CManualLock targetLock;
  std::unique_ptr<Outlets> targets AHS_GUARDED_BY(targetLock);
};

State& state() {
  static State& instance = *new State;
  return instance;
}

spdlog::level::level_enum levelOf(Logging::DebugImportance severity) {
  return severity == Logging::DBG_Info      ? spdlog::level::info
         : severity == Logging::DBG_Warning ? spdlog::level::warn
                                            : spdlog::level::err;
}

bool isWritten(Logging::DebugImportance severity) {
  return levelOf(severity) >= leastLevel.load(std::memory_order_relaxed);
}

bool isWanted(Logging::DebugImportance severity) {
  return isWritten(severity) || isHeard.load(std::memory_order_relaxed);
}

std::string expand(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) {
    return std::string("message that cannot be formatted: ") + format;
  }
  // One character too many shows that the message has to be cut.
  std::string text(std::min(static_cast<std::size_t>(length), CAppLog::MaxMessageLength + 1), '\0');
  vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

void tellListener(const CAppLog::Record& record) {
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.listenerLock);
  if (log.listener) {
    log.listener(record);
  }
}

void writeToTargets(const CAppLog::Record& record) {
  const std::string text = std::string(record.function) + ' ' + record.file + ':' +
                           std::to_string(record.line) + ' ' + indentContinuation(record.message);
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  if (log.targets != nullptr) {
    log.targets->write(levelOf(record.severity), text);
  }
}

/// Callers log between a failed call and their look at its errno, which is left as it was.
template <class MakeText>
void deliver(const char* function, const char* file, unsigned int line,
             Logging::DebugImportance severity, MakeText makeText) {
  const int keptErrno = errno;
  try {
    const std::string message = legible(makeText(), CAppLog::MaxMessageLength);
    const CAppLog::Record record{function, file, line, severity, message};
    try {
      if (isHeard.load(std::memory_order_relaxed)) {
        tellListener(record);
      }
    } catch (const std::exception&) {
      // A listener's exception must not reach the logging thread; the targets get the message.
    }
    if (isWritten(severity)) {
      writeToTargets(record);
    }
  } catch (const std::exception&) {
    // No memory for a log line: the line is lost, the caller goes on.
  }
  errno = keptErrno;
}

std::string returnCodeText(const char* failedCall, STATUSCODE code, int systemError,
                           const char* extraText) {
  char number[24];
  snprintf(number, sizeof number, "0x%08lX", static_cast<unsigned long>(code));
  std::string text = std::string("Return code from ") + failedCall + ": " + number;
  if (systemError != 0) {
    const char* const description = strerrordesc_np(systemError);
    text += " (" + (description != nullptr ? description : "errno " + std::to_string(systemError)) +
            ")";
  }
  if (extraText != nullptr) {
    text += std::string(": ") + extraText;
  }
  return text;
}

}  // namespace

void CAppLog::LogDebugMessage(const char* function, const char* file, unsigned int line,
                              Logging::DebugImportance severity, const char* format, ...) {
  if (!isWanted(severity)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  deliver(function, file, line, severity, [&] { return expand(format, arguments); });
  va_end(arguments);
}

void CAppLog::LogReturnCode(const char* function, const char* file, unsigned int line,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int systemError, const char* extraText) {
  if (!isWanted(severity)) {
    return;
  }
  deliver(function, file, line, severity,
          [&] { return returnCodeText(failedCall, code, systemError, extraText); });
}

void CAppLog::LogVerboseMessage(const char* function, const char* file, unsigned int line,
                                Logging::DebugImportance severity, CLC_COMPONENT /*component*/,
                                CUST_LOG_LEVEL /*level*/, const char* format, ...) {
  if (!isWanted(severity)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  deliver(function, file, line, severity, [&] { return expand(format, arguments); });
  va_end(arguments);
}

std::string CAppLog::open(const Targets& targets) {
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  // First, because closing syslog(3) ends it for the whole process, and a file is open once.
  log.targets.reset();

  log.targets = std::make_unique<Outlets>(targets);
  const bool isSilent = targets.off || log.targets->isEmpty();
  leastLevel = isSilent ? spdlog::level::off : levelOf(targets.leastImportant);
  return log.targets->problem();
}

void CAppLog::close() {
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  leastLevel = spdlog::level::off;
  log.targets.reset();
}

void CAppLog::flush() {
  const int keptErrno = errno;
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  if (log.targets != nullptr) {
    log.targets->flush();
  }
  errno = keptErrno;
}

void CAppLog::setListener(Listener listener) {
  State& log = state();
  {
    const CAutoLockT<CManualLock> lock(log.listenerLock);
    log.listener.swap(listener);
    isHeard = static_cast<bool>(log.listener);
  }
  // Destroys the former listener without the lock: its destructors may log.
}
