// A log that only remembers. It takes the place of the client library's at link time, so a test
// sees each call with its arguments, in the order in which the threads made them.

#include "tests/unit/selection/doubles/app_log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace doubles {
namespace {

std::string render(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

LogLine lineOf(LogLine::Kind kind, const char* function, const char* file, unsigned int line,
               Logging::DebugImportance severity) {
  LogLine entry;
  entry.kind = kind;
  entry.function = function;
  entry.file = file;
  entry.line = line;
  entry.severity = severity;
  entry.thread = std::this_thread::get_id();
  return entry;
}

}  // namespace

std::string LogLine::toString() const {
  std::string text = function + " " + severity + " " + message;
  if (kind == Kind::ReturnCode) {
    char number[32];
    std::snprintf(number, sizeof number, " 0x%lX", static_cast<unsigned long>(code));
    text += number;
  }
  return text;
}

void Log::reset() {
  m_lines.set({});
  m_hook.set(nullptr);
}

std::vector<std::string> Log::texts() const {
  std::vector<std::string> result;
  for (const LogLine& line : lines()) {
    result.push_back(line.toString());
  }
  return result;
}

std::vector<std::string> Log::textsOf(const std::string& function) const {
  std::vector<std::string> result = texts();
  std::erase_if(result, [&](const std::string& text) { return !text.starts_with(function + " "); });
  return result;
}

std::size_t Log::count(const std::string& text) const {
  const std::vector<std::string> all = texts();
  return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
}

void Log::add(const LogLine& line) {
  m_lines.with([&](auto& lines) { lines.push_back(line); });
  if (const Hook hook = m_hook.get()) {
    hook(line);
  }
}

Log& log() {
  static Log& instance = *new Log;  // late threads may still write to it
  return instance;
}

}  // namespace doubles

void CAppLog::LogDebugMessage(const char* function, const char* file, unsigned int line,
                              Logging::DebugImportance severity, const char* format, ...) {
  doubles::LogLine entry =
      doubles::lineOf(doubles::LogLine::Kind::Debug, function, file, line, severity);
  entry.format = format;
  va_list arguments;
  va_start(arguments, format);
  entry.message = doubles::render(format, arguments);
  va_end(arguments);
  doubles::log().add(entry);
}

void CAppLog::LogReturnCode(const char* function, const char* file, unsigned int line,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int, const char* extraText) {
  doubles::LogLine entry =
      doubles::lineOf(doubles::LogLine::Kind::ReturnCode, function, file, line, severity);
  entry.message = failedCall;
  entry.code = code;
  entry.extraText = extraText != nullptr ? extraText : "";
  doubles::log().add(entry);
}

void CAppLog::LogVerboseMessage(const char* function, const char* file, unsigned int line,
                                Logging::DebugImportance severity, CLC_COMPONENT component,
                                CUST_LOG_LEVEL level, const char* format, ...) {
  doubles::LogLine entry =
      doubles::lineOf(doubles::LogLine::Kind::Verbose, function, file, line, severity);
  entry.component = component;
  entry.level = level;
  entry.format = format;
  va_list arguments;
  va_start(arguments, format);
  entry.message = doubles::render(format, arguments);
  va_end(arguments);
  doubles::log().add(entry);
}

std::string CAppLog::open(const Targets&) { return {}; }
void CAppLog::close() {}
void CAppLog::flush() {}
void CAppLog::setListener(Listener) {}
