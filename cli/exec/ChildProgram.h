#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vpn/include/Locks.h"

/// A program that the command runs for its user: with the terminal, descriptors and signals that
/// the command was started with. Used by one thread, but for `signal`. A program that is not waited
/// for to its end goes on without this object.
class ChildProgram {
 public:
  using Variables = std::vector<std::pair<std::string, std::string>>;

  /// Where its standard output goes.
  enum class Output { Own, Errors };

  /// How it ended.
  struct End {
    int status = 0;         ///< its exit status; 128 + the signal's number where that ended it
    bool bySignal = false;  ///< a signal ended it
  };

  /// Starts a program.
  /// @param command its name or path, and its arguments; at least the former.
  /// @param variables set in its environment besides the command's own.
  ChildProgram(const std::vector<std::string>& command, const Variables& variables,
               Output output = Output::Own);
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  /// Why it could not be started; empty if it was.
  const std::string& problem() const { return m_problem; }
  /// The exit status that a shell has for that: 127 not found, 126 any other reason.
  int problemStatus() const { return m_problemStatus; }

  /// Waits for its end. @return nothing when it still runs after `longest`. Not to be called after
  /// its end, nor for one that could not be started.
  std::optional<End> waitForEnd(std::chrono::milliseconds longest);
  End waitForEnd();

  /// Sends it a signal. Any thread may call it.
  /// @param fromTerminal the terminal has sent it to the command's process group; a program that is
  ///        in that group has it already.
  /// @return whether the program was there to be sent it.
  bool signal(int number, bool fromTerminal);

 private:
  /// Whether it has ended, which is left to be taken.
  bool hasEnded(bool waits) const;
  End takeEnd();

  std::string m_problem;
  int m_problemStatus;
  pid_t m_pid;  // written before any other thread knows of the object
  CManualLock m_lock;
  // Whether the number still is its own: a signal must not reach another process that got it.
  bool m_isOurs AHS_GUARDED_BY(m_lock);
};
