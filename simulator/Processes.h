#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace simulator {

/// A shell's status for a program that it cannot start, and the tool's own failure (env(1),
/// timeout(1)).
constexpr int ExitOwnFailure = 125;
constexpr int ExitCannotExecute = 126;
constexpr int ExitNotFound = 127;

/// Sends this process SIGTERM when its parent ends: after a killed script nobody else would stop
/// it. @return false if the parent has already ended.
bool endWithParent();

/// A program to start.
struct Launch {
  std::vector<std::string> arguments;
  /// Network namespace; -1 for the caller's.
  int networkNamespace = -1;
  /// Descriptors for standard input, output and error; -1 for the caller's. The caller keeps
  /// ownership.
  int standardInput = -1;
  int standardOutput = -1;
  int standardError = -1;
};

/// Starts a program that is killed when this process ends in any way. Its signals are as after a
/// start by a shell. @throws std::system_error if no process can be created.
pid_t start(const Launch& launch);

/// A shell's status for a status of waitpid(2): 128 + signal for a killed program.
int exitStatus(int waitStatus);

/// Starts a program and waits for its end. @return its status.
int run(const Launch& launch);

/// Makes this process the parent of all its orphaned descendants.
void adoptOrphans();

/// Ends all children of this process, and adopted descendants: asks first, and kills those still
/// running after `patience`. No child is left when it returns.
void endAllChildren(std::chrono::milliseconds patience);

}  // namespace simulator
