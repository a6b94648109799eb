#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "vpn/include/StatusCode.h"

namespace Logging {

/// How much a log line matters. The value is the letter that stands for it in the line.
enum DebugImportance : char {
  DBG_Error = 'E',
  DBG_Warning = 'W',
  DBG_Info = 'I',
};

}  // namespace Logging

/// Part of the client that a verbose message belongs to.
enum CLC_COMPONENT { CLC_VPN_API = 1 };

/// Detail level of a verbose message; only level 3 is in use.
enum CUST_LOG_LEVEL { CUST_LOG_LEVEL_3 = 3 };

/// The client's log.
///
/// Every line carries its time, severity, thread, function and source position. All operations may
/// be called from any thread at any time, also before a target exists (the line is then dropped). A
/// message is written in one piece, however many lines it has and whatever other threads write. A
/// call below the severity filter costs one atomic read. Control characters in a message, except
/// line feeds and tabs, are written escaped, so that nothing that came from a network can forge or
/// colour a line; a message is cut at `MaxMessageLength` characters.
class CAppLog {
 public:
  static constexpr std::size_t MaxMessageLength = 256 * 1024;

  /// One message as a listener sees it; the pointers hold during the call only.
  struct Record {
    const char* function;
    const char* file;
    unsigned int line;
    Logging::DebugImportance severity;
    const std::string& message;
  };
  using Listener = std::function<void(const Record&)>;

  /// Where the log goes and what it lets through.
  struct Targets {
    /// Least important severity that is written: DBG_Error < DBG_Warning < DBG_Info.
    Logging::DebugImportance leastImportant = Logging::DBG_Info;
    /// Nothing is written at all, whatever the severity; listeners still hear every message.
    bool off = false;
    bool terminal = false;  ///< standard error
    bool syslog = false;    ///< syslog(3), identity "ahs"
    std::string file;       ///< path of a file that is rotated; empty for none
    std::size_t fileSize = 4 * 1024 * 1024;  ///< bytes of one file before it is rotated
    std::size_t fileCount = 3;               ///< rotated files kept beside the current one
  };

  CAppLog() = delete;

  /// Writes a printf-style message.
  /// @param function the calling function's bare name; @param file its source path.
  static void LogDebugMessage(const char* function, const char* file, unsigned int line,
                              Logging::DebugImportance severity, const char* format, ...)
      __attribute__((format(printf, 5, 6)));

  /// Reports that the operation `failedCall` failed with `code`.
  /// @param systemError an errno value that explains the failure, 0 for none.
  /// @param extraText one more word on what was asked for, null for none.
  static void LogReturnCode(const char* function, const char* file, unsigned int line,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int systemError, const char* extraText);

  /// Writes a printf-style message of one component at a detail level.
  static void LogVerboseMessage(const char* function, const char* file, unsigned int line,
                                Logging::DebugImportance severity, CLC_COMPONENT component,
                                CUST_LOG_LEVEL level, const char* format, ...)
      __attribute__((format(printf, 7, 8)));

  /// Opens the targets; replaces those open before.
  /// @return an empty string, or why a target could not be opened and what to do; the others are
  ///         open all the same.
  static std::string Open(const Targets& targets);

  /// Writes out what is buffered and closes all targets.
  static void Close();

  /// Writes out what is buffered.
  static void Flush();

  /// Sets the one listener that hears every message, whatever the severity filter; an empty
  /// function takes it away. It is called on the logging thread and must not log. When this returns
  /// the former listener is not running and will not run again.
  static void SetListener(Listener listener);
};
