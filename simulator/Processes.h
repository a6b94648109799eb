#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace simulator {

/// What a shell says of a program that it cannot start, and of its own failure (env(1),
/// timeout(1)).
constexpr int ExitOwnFailure = 125;
constexpr int ExitCannotExecute = 126;
constexpr int ExitNotFound = 127;

/// Has this process asked to end (SIGTERM) when the one that started it ends: nobody else would
/// stop it when the script that started it is killed. @return false if that has happened already.
bool endWithParent();

/// A program to be started.
struct Launch {
  std::vector<std::string> arguments;
  /// Network namespace to run in, -1 for the caller's.
  int networkNamespace = -1;
  /// Files to take the places of standard input, output and error, -1 for the caller's. They stay
  /// the caller's.
  int standardInput = -1;
  int standardOutput = -1;
  int standardError = -1;
};

/// Starts a program that is killed when this process ends, however it ends. Its signals are as if
/// it had been started from a shell. @throws std::system_error when there is no process to be had.
pid_t start(const Launch& launch);

/// The status that a shell gives for what waitpid(2) reported: 128 and the signal for a killed one.
int exitStatus(int waitStatus);

/// Starts a program and waits for its end. @return its status.
int run(const Launch& launch);

/// Makes this process the parent of all its descendants that lose theirs.
void adoptOrphans();

/// Ends all children of this process and, if it adopts them, theirs: asks first, and kills those
/// that are still there after `patience`. No child is left when it returns.
void endAllChildren(std::chrono::milliseconds patience);

}  // namespace simulator
