#pragma once

/// @file
/// The log.

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
/// be called from any thread at any time, also before a target exists (the line is then dropped);
/// a log call throws nothing and leaves errno alone. A message is written in one piece, its second
/// line and those after it indented, and cut at `MaxMessageLength` bytes. What could forge or
/// colour a line is escaped (`legible`). Warnings and errors are written out at once.
class CAppLog {
 public:
  /// Room for a report of a hundred thousand headends.
  static constexpr std::size_t MaxMessageLength = std::size_t{8} * 1024 * 1024;

  /// One message as a listener sees it: escaped and cut, but not indented. The pointers hold during
  /// the call only.
  struct Record {
    const char* function;               ///< the logging function's bare name
    const char* file;                   ///< its source path
    unsigned int line;                  ///< in that source
    Logging::DebugImportance severity;  ///< how much it matters
    const std::string& message;         ///< its text, without the line's beginning
  };
  /// Hears messages; see `setListener`.
  using Listener = std::function<void(const Record&)>;

  /// Where the log goes and what it lets through.
  struct Targets {
    /// Least important severity that is written: DBG_Error < DBG_Warning < DBG_Info.
    Logging::DebugImportance leastImportant = Logging::DBG_Info;
    /// Nothing is written at all, whatever the severity; listeners still hear every message.
    bool off = false;
    bool terminal = false;  ///< standard error
    bool syslog = false;    ///< syslog(3), identity "ahs"
    /// Path of a regular file that is rotated ("a.log", "a.1.log", ...), empty for none. A new file
    /// can be read by its owner alone. Messages that cannot be written are counted, and the count
    /// is written once the file can be used again.
    std::string file;
    std::size_t fileSize = 4 * 1024 * 1024;  ///< bytes of one file before it is rotated
    std::size_t fileCount = 3;               ///< rotated files kept beside the current one
  };

  CAppLog() = delete;

  /// Writes a printf-style message.
  /// @param function the calling function's bare name.
  /// @param file its source path.
  /// @param line line of the call.
  /// @param severity how much the message matters.
  /// @param format of printf(3), for the arguments that follow.
  static void LogDebugMessage(const char* function, const char* file, unsigned int line,
                              Logging::DebugImportance severity, const char* format, ...)
      __attribute__((format(printf, 5, 6)));

  /// Reports that the operation `failedCall` failed with `code`, as in
  /// "Return code from connect: 0xFE46000C (Connection refused): extra".
  /// @param function, file, line, severity as for `LogDebugMessage`.
  /// @param failedCall the operation that failed.
  /// @param code what it returned.
  /// @param systemError an errno value that explains the failure, 0 for none.
  /// @param extraText one more word on what was asked for, null for none.
  static void LogReturnCode(const char* function, const char* file, unsigned int line,
                            Logging::DebugImportance severity, const char* failedCall,
                            STATUSCODE code, int systemError, const char* extraText);

  /// Writes a printf-style message of one component at a detail level. Component and level choose
  /// among channels where a client has several; there is one, which takes all of them.
  static void LogVerboseMessage(const char* function, const char* file, unsigned int line,
                                Logging::DebugImportance severity, CLC_COMPONENT component,
                                CUST_LOG_LEVEL level, const char* format, ...)
      __attribute__((format(printf, 7, 8)));

  /// Opens the targets; replaces those open before.
  /// @return an empty string, or why a target could not be opened and what to do; the others are
  ///         open all the same.
  static std::string open(const Targets& targets);

  /// Writes out what is buffered and closes all targets.
  static void close();

  /// Writes out what is buffered.
  static void flush();

  /// Sets the one listener that hears every message, whatever the severity filter; an empty
  /// function takes it away. It is called on the logging thread, by one thread at a time, and must
  /// neither log nor call this; what it throws is dropped. When this returns the former listener is
  /// not running and will not run again.
  static void setListener(Listener listener);
};
