// The client's log. What is asked for is known from one atomic word, read first; a message is built
// once, made legible once, and handed to all targets under one lock, so that they agree on the
// order and a message of many lines stays in one piece. Nothing leaves a log call: no exception, no
// changed errno. The state is never freed, so that threads may log until the process is gone.

#include "vpn/Common/Logging/AppLog.h"

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/ansicolor_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "vpn/Common/Logging/LegibleText.h"
#include "vpn/Common/Logging/LogFile.h"
#include "vpn/include/Locks.h"

namespace {

// %^ and %$ enclose what a terminal shows in the colour of the severity; %t is the thread as ps(1)
// and gdb name it. The function, its position and the text are the message's own.
constexpr char LinePattern[] = "%Y-%m-%d %H:%M:%S.%e %^%L%$ %t %v";
// syslogd adds the time itself.
constexpr char SyslogPattern[] = "%L %t %v";

// Bits of `wanted`: one for each severity that a target takes, and one for the listener.
constexpr unsigned int ErrorBit = 1;
constexpr unsigned int WarningBit = 2;
constexpr unsigned int InfoBit = 4;
constexpr unsigned int TargetBits = ErrorBit | WarningBit | InfoBit;
constexpr unsigned int ListenerBit = 8;

constinit std::atomic<unsigned int> wanted{0};

struct State {
  CManualLock listenerLock;  // taken before targetLock, if both are
  CAppLog::Listener listener AHS_GUARDED_BY(listenerLock);
  CManualLock targetLock;
  std::unique_ptr<spdlog::logger> targets AHS_GUARDED_BY(targetLock);
};

State& state() {
  static State& instance = *new State;
  return instance;
}

/// Where a message comes from and how much it matters.
struct Origin {
  const char* function;
  const char* file;
  unsigned int line;
  Logging::DebugImportance severity;
};

/// Leaves errno as it was: callers log between a failed call and their look at its errno.
class KeptErrno {
 public:
  KeptErrno() : m_errno(errno) {}
  ~KeptErrno() { errno = m_errno; }
  KeptErrno(const KeptErrno&) = delete;
  KeptErrno& operator=(const KeptErrno&) = delete;

 private:
  const int m_errno;
};

unsigned int bitOf(Logging::DebugImportance severity) {
  switch (severity) {
    case Logging::DBG_Info:
      return InfoBit;
    case Logging::DBG_Warning:
      return WarningBit;
    case Logging::DBG_Error:
      break;
  }
  return ErrorBit;
}

spdlog::level::level_enum levelOf(Logging::DebugImportance severity) {
  switch (severity) {
    case Logging::DBG_Info:
      return spdlog::level::info;
    case Logging::DBG_Warning:
      return spdlog::level::warn;
    case Logging::DBG_Error:
      break;
  }
  return spdlog::level::err;
}

/// The bits of the severities that are let through.
unsigned int bitsOf(const CAppLog::Targets& targets) {
  // The bits ascend from the most important severity.
  return targets.off ? 0 : (bitOf(targets.leastImportant) << 1U) - 1U;
}

bool isWanted(Logging::DebugImportance severity) {
  return (wanted.load(std::memory_order_relaxed) & (bitOf(severity) | ListenerBit)) != 0;
}

std::string expand(const char* format, va_list arguments) {
  // Nearly every message fits, and is then formatted once.
  char brief[512];
  va_list again;
  va_copy(again, arguments);
  const int result = vsnprintf(brief, sizeof brief, format, arguments);
  std::string text;
  if (result < 0) {
    text = std::string("message that cannot be formatted: ") + format;
  } else if (const auto length = static_cast<std::size_t>(result); length < sizeof brief) {
    text.assign(brief, length);
  } else {
    // One character too many shows that the message has to be cut.
    text.resize(std::min(length, CAppLog::MaxMessageLength + 1));
    vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

void tellListener(const Origin& origin, const std::string& message) {
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.listenerLock);
  if (log.listener) {
    log.listener({origin.function, origin.file, origin.line, origin.severity, message});
  }
}

void writeToTargets(const Origin& origin, const std::string& message) {
  std::string text(origin.function);
  text += ' ';
  text += origin.file;
  text += ':';
  text += std::to_string(origin.line);
  text += ' ';
  text += indentContinuation(message);

  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  if (log.targets != nullptr) {
    log.targets->log(spdlog::source_loc{}, levelOf(origin.severity), text);
  }
}

void deliver(const Origin& origin, std::string text) {
  const std::string message = legible(std::move(text), CAppLog::MaxMessageLength);
  const unsigned int now = wanted.load(std::memory_order_relaxed);
  if ((now & ListenerBit) != 0) {
    try {
      tellListener(origin, message);
    } catch (const std::exception&) {
      // A listener's trouble is not the logging thread's, and the targets still get the message.
    }
  }
  if ((now & bitOf(origin.severity)) != 0) {
    writeToTargets(origin, message);
  }
}

void logFormatted(const Origin& origin, const char* format, va_list arguments) {
  const KeptErrno keptErrno;
  try {
    deliver(origin, expand(format, arguments));
  } catch (const std::exception&) {
    // No memory for a log line: the line is lost, the caller goes on.
  }
}

std::string returnCodeText(const char* failedCall, STATUSCODE code, int systemError,
                           const char* extraText) {
  char number[24];
  snprintf(number, sizeof number, "0x%08lX", static_cast<unsigned long>(code));
  std::string text = std::string("Return code from ") + failedCall + ": " + number;
  if (systemError != 0) {
    const char* const description = strerrordesc_np(systemError);
    text += " (";
    text += description != nullptr ? description : "errno " + std::to_string(systemError);
    text += ')';
  }
  if (extraText != nullptr) {
    text += ": ";
    text += extraText;
  }
  return text;
}

std::unique_ptr<spdlog::formatter> formatterOf(const char* pattern, const char* endOfLine) {
  return std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::local,
                                                     endOfLine);
}

// None of the sinks has a lock of its own: targetLock is held around every call.
using Sinks = std::vector<spdlog::sink_ptr>;

void addTerminal(Sinks& sinks) {
  const char* const noColor = getenv("NO_COLOR");
  const bool plain = noColor != nullptr && *noColor != '\0';
  auto sink = std::make_shared<spdlog::sinks::ansicolor_stderr_sink_st>(
      plain ? spdlog::color_mode::never : spdlog::color_mode::automatic);
  sink->set_formatter(formatterOf(LinePattern, "\n"));
  sinks.push_back(std::move(sink));
}

void addSyslog(Sinks& sinks) {
  constexpr bool withFormat = true;
  auto sink = std::make_shared<spdlog::sinks::syslog_sink_st>("ahs", LOG_PID, LOG_USER, withFormat);
  sink->set_formatter(formatterOf(SyslogPattern, ""));
  sinks.push_back(std::move(sink));
}

void addFile(Sinks& sinks, const CAppLog::Targets& targets) {
  auto sink = std::make_shared<CLogFile>(targets.file, targets.fileSize, targets.fileCount);
  sink->set_formatter(formatterOf(LinePattern, "\n"));
  sinks.push_back(std::move(sink));
}

std::string addAll(Sinks& sinks, const CAppLog::Targets& targets) {
  if (targets.terminal) {
    addTerminal(sinks);
  }
  if (targets.syslog) {
    addSyslog(sinks);
  }
  if (!targets.file.empty()) {
    try {
      addFile(sinks, targets);
    } catch (const std::exception& problem) {
      return problem.what();
    }
  }
  return std::string();
}

}  // namespace

void CAppLog::LogDebugMessage(const char* function, const char* file, unsigned int line,
                              Logging::DebugImportance severity, const char* format, ...) {
  if (!isWanted(severity)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logFormatted({function, file, line, severity}, format, arguments);
  va_end(arguments);
}

void CAppLog::LogReturnCode(const char* function, const char* file, unsigned int line,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int systemError, const char* extraText) {
  if (!isWanted(severity)) {
    return;
  }
  const KeptErrno keptErrno;
  try {
    deliver({function, file, line, severity},
            returnCodeText(failedCall, code, systemError, extraText));
  } catch (const std::exception&) {
    // As in logFormatted.
  }
}

void CAppLog::LogVerboseMessage(const char* function, const char* file, unsigned int line,
                                Logging::DebugImportance severity, CLC_COMPONENT /*component*/,
                                CUST_LOG_LEVEL /*level*/, const char* format, ...) {
  if (!isWanted(severity)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  logFormatted({function, file, line, severity}, format, arguments);
  va_end(arguments);
}

std::string CAppLog::Open(const Targets& targets) {
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  // First, because closing syslog(3) ends it for the whole process, and a file is open once.
  log.targets.reset();

  Sinks sinks;
  std::string problem = addAll(sinks, targets);
  const unsigned int bits = sinks.empty() ? 0 : bitsOf(targets);
  log.targets = std::make_unique<spdlog::logger>("ahs", sinks.begin(), sinks.end());
  log.targets->set_level(spdlog::level::trace);
  log.targets->flush_on(spdlog::level::warn);
  // A file counts what it loses; for the others there is no better place to complain.
  log.targets->set_error_handler([](const std::string&) {});
  wanted.fetch_or(bits, std::memory_order_relaxed);
  wanted.fetch_and(bits | ListenerBit, std::memory_order_relaxed);
  return problem;
}

void CAppLog::Close() {
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  wanted.fetch_and(~TargetBits, std::memory_order_relaxed);
  log.targets.reset();
}

void CAppLog::Flush() {
  const KeptErrno keptErrno;
  State& log = state();
  const CAutoLockT<CManualLock> lock(log.targetLock);
  if (log.targets != nullptr) {
    log.targets->flush();
  }
}

void CAppLog::SetListener(Listener listener) {
  State& log = state();
  const bool listens = static_cast<bool>(listener);
  {
    const CAutoLockT<CManualLock> lock(log.listenerLock);
    log.listener.swap(listener);
    if (listens) {
      wanted.fetch_or(ListenerBit, std::memory_order_relaxed);
    } else {
      wanted.fetch_and(~ListenerBit, std::memory_order_relaxed);
    }
  }
  // The former listener goes here, without the lock: what it holds may log as it goes.
}
