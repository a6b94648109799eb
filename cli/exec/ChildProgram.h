#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vpn/include/Locks.h"

/// A program that the command runs for its user, with the terminal, descriptors and signals that
/// the command inherited. Used by one thread, except `signal`. Destroying the object does not end
/// the program.
class ChildProgram {
 public:
  using Variables = std::vector<std::pair<std::string, std::string>>;

  /// Where the program's standard output goes.
  enum class Output { Own, Errors };

  /// How it ended.
  struct End {
    int status = 0;         ///< exit status, or 128 + number of the signal
    bool bySignal = false;  ///< a signal ended it
  };

  /// Starts a program.
  /// @param command name or path of the program, then its arguments.
  /// @param variables added to the environment of the command.
  ChildProgram(const std::vector<std::string>& command, const Variables& variables,
               Output output = Output::Own);
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  /// Why the program could not be started; empty if it was started.
  const std::string& problem() const { return m_problem; }
  /// The exit status that a shell gives for the problem: 127 not found, else 126.
  int problemStatus() const { return m_problemStatus; }

  /// Waits for the program's end. @return nothing if it still runs after `longest`. Not to be
  /// called again after its end, nor if the program could not be started.
  std::optional<End> waitForEnd(std::chrono::milliseconds longest);
  End waitForEnd();

  /// Sends a signal to the program. Any thread may call it.
  /// @param fromTerminal the terminal has sent it to the command's process group; a program in that
  ///        group already has it.
  /// @return whether the program still ran.
  bool signal(int number, bool fromTerminal);

 private:
  /// Whether the program has ended; leaves its status to `takeEnd`.
  bool hasEnded(bool waits) const;
  End takeEnd();

  std::string m_problem;
  int m_problemStatus;
  pid_t m_pid;  // written before another thread sees the object
  CManualLock m_lock;
  // Whether m_pid is still the program: a signal must not reach a later process of that number.
  bool m_isOurs AHS_GUARDED_BY(m_lock);
};
