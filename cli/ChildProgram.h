#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// A program that the command runs for its user: in the foreground, with the command's terminal,
/// standard input and outputs, and signals as a shell would leave them. Used by one thread, but for
/// `signal`.
class ChildProgram {
 public:
  using Variables = std::vector<std::pair<std::string, std::string>>;

  /// Starts a program.
  /// @param command its name or path, and its arguments; at least the former.
  /// @param variables set in its environment besides the command's own.
  ChildProgram(const std::vector<std::string>& command, const Variables& variables);

  /// Why it could not be started; empty if it runs.
  const std::string& problem() const { return m_problem; }
  /// The exit status that a shell has for that: 127 not found, 126 any other reason.
  int problemStatus() const { return m_problemStatus; }

  /// Waits for its end. @return its exit status, 128 + the signal's number for one that a signal
  /// ended, or nothing when it still runs after `longest`.
  std::optional<int> waitForEnd(std::chrono::milliseconds longest);
  int waitForEnd();

  /// Sends it a signal. Any thread may call it while the program has not been waited for.
  void signal(int number) const;

 private:
  pid_t m_pid;
  std::string m_problem;
  int m_problemStatus;
};
