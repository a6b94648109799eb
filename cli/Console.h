#pragma once

#include <string>
#include <vector>

/// Words to the person at the terminal and bytes to the program behind the pipe. Any thread may
/// call any of these; each call writes with as few system calls as the kernel allows, so that lines
/// of several threads do not mix.
class Console {
 public:
  Console() = delete;

  /// Writes `text` to a file descriptor, to its last byte.
  /// @return an empty string, or why it could not be written.
  static std::string write(int descriptor, const std::string& text);

  /// Writes the command's result to standard output.
  /// @return `exitStatus`, or ExitUsage after a message when the result could not be written: a
  ///         caller that lost the result must not believe in success.
  static int writeResult(const std::string& text, int exitStatus);

  /// Writes a file of the result, in place of an older one.
  /// @return `exitStatus`, or ExitUsage after a message when it could not be written.
  static int writeFile(const std::string& path, const std::string& text, int exitStatus);

  /// "ahs: text" on standard error. A person reads it: what happened, why, what to do next.
  static void complain(const std::string& text);

  /// Says why a command cannot be carried out, after the mistakes in files that are the reason, and
  /// where its options are explained.
  /// @param command as a person calls it: "ahs select".
  /// @return ExitUsage.
  static int complainOfUsage(const std::string& command, const std::string& error,
                             const std::vector<std::string>& problems = {});

  /// `text` and a line feed on standard error, without the prefix.
  static void note(const std::string& text);

  /// `text` with each byte written as \xNN that could pass for something else: of control
  /// characters, line feeds and tabs among them, of characters that turn the direction of writing
  /// or separate lines, and of what is not UTF-8. So nothing that came from a file or a network can
  /// move the cursor, colour a terminal or show a name as another; other UTF-8 is left as it is.
  static std::string visible(const std::string& text);

  /// The same between apostrophes.
  static std::string inQuotes(const std::string& text);
};
