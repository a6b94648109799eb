#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vpn/include/Locks.h"

/// A program that the command runs for its user: with the command's terminal, standard input and
/// outputs, and signals as a shell would leave them. Used by one thread, but for `signal`. A
/// program that is not waited for to its end goes on without this object.
class ChildProgram {
 public:
  using Variables = std::vector<std::pair<std::string, std::string>>;

  /// Starts a program.
  /// @param command its name or path, and its arguments; at least the former.
  /// @param variables set in its environment besides the command's own.
  ChildProgram(const std::vector<std::string>& command, const Variables& variables);

  /// Why it could not be started; empty if it was.
  const std::string& problem() const { return m_problem; }
  /// The exit status that a shell has for that: 127 not found, 126 any other reason.
  int problemStatus() const { return m_problemStatus; }

  /// Waits for its end. @return its exit status, 128 + the signal's number for one that a signal
  /// ended, or nothing when it still runs after `longest`. Not to be called after its end, nor for
  /// one that could not be started.
  std::optional<int> waitForEnd(std::chrono::milliseconds longest);
  int waitForEnd();

  /// Sends it a signal, if it runs. Any thread may call it.
  void signal(int number);

 private:
  int takeStatus();

  std::string m_problem;
  int m_problemStatus;
  pid_t m_pid;  // written before any other thread knows of the object
  CManualLock m_lock;
  // Whether the number still is its own: a signal must not reach another process that got it.
  bool m_isOurs AHS_GUARDED_BY(m_lock);
};
