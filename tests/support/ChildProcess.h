#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace tests {

/// The path of a program, looked for on PATH and where Debian keeps servers.
/// @throws std::runtime_error that names what to install when it is missing.
std::string findProgram(const std::string& name, const std::string& debianPackage);

/// A program that the test runs. It is ended by its own process id and waited for, at the latest by
/// the destructor, and the kernel kills it should the test die first. Used by one thread, which
/// must outlive the object: the kernel takes the end of the thread that started it for the test's
/// death.
class ChildProcess {
 public:
  /// Starts a program.
  /// @param command path of the program and its arguments.
  /// @param outputFile takes what it writes on standard output and error, appended.
  /// @param workingDirectory where it runs.
  /// A command that cannot be run ends with 127. @throws std::runtime_error without a process.
  ChildProcess(const std::vector<std::string>& command, const std::string& outputFile,
               const std::string& workingDirectory);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return m_pid; }

  /// Whether it has not ended yet.
  bool IsRunning();

  /// Waits until it has ended by itself.
  /// @return whether it has within `limit`.
  bool WaitForEnd(std::chrono::milliseconds limit);

  /// How it ended: its exit status, 128 + n for signal n, -1 while it runs.
  int ExitStatus() const { return m_exitStatus; }

  /// Asks it to end (SIGTERM), kills it (SIGKILL) when it does not within a few seconds, and waits
  /// for it. Nothing happens when it has ended already.
  void End();

 private:
  pid_t m_pid;
  int m_exitStatus;
};

/// Runs a program to its end.
/// @throws std::runtime_error, with what the program has written, when it fails or hangs.
void runToEnd(const std::vector<std::string>& command, const std::string& workingDirectory);

}  // namespace tests
