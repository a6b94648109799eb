#pragma once

#include <string>
#include <vector>

#include "vpn/Common/Trust/FileTrust.h"

/// Writes to a person's terminal and a program's pipe. Thread-safe. Each call makes as few system
/// calls as the kernel allows, so that lines of several threads do not mix.
class Console {
 public:
  Console() = delete;

  /// Writes all of `text` to a file descriptor.
  /// @return an empty string, or why it could not be written.
  static std::string write(int descriptor, const std::string& text);

  /// Writes the command's result to standard output.
  /// @return `exitStatus`; after a failed write ExitUsage, with a message, because a caller without
  /// the result must not believe in success; ExitNoReader where a reader such as head(1) has gone.
  static int writeResult(const std::string& text, int exitStatus);

  /// Finds the file that a result is to be written to, before the work for it begins.
  /// @return an empty string, or why it cannot be written and what to do.
  static std::string findFile(const std::string& path, FileTrust::Place& place);

  /// Writes the result to a file, which replaces an older one when it is complete.
  /// @return `exitStatus`, or ExitUsage after a failed write, with a message.
  static int writeFile(const FileTrust::Place& place, const std::string& text, int exitStatus);

  /// Writes "ahs: text" to standard error. Say what happened, why, and what to do next.
  static void complain(const std::string& text);

  /// Prints the mistakes in files, the error that they cause, and which option shows the help.
  /// @param command as a person calls it: "ahs select".
  /// @return ExitUsage.
  static int complainOfUsage(const std::string& command, const std::string& error,
                             const std::vector<std::string>& problems = {});

  /// Writes `text` and a line feed to standard error, without the prefix. What these three write
  /// is legible, whatever names are in it.
  static void note(const std::string& text);

  /// `text` in one legible line: so no text of a file or a network can move the cursor, colour the
  /// terminal or imitate another name.
  static std::string visible(const std::string& text);

  /// `visible` text between apostrophes.
  static std::string inQuotes(const std::string& text);
};
