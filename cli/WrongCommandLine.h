#pragma once

#include <string>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

/// What is wrong with a command line that was not understood, what was probably meant, and what to
/// do: one line, without control characters; for the bare name of the tool, its commands besides.
std::string explainWrongCommandLine(const CLI::App& tool, const CLI::ParseError& error);

/// The same for a command that there is none of.
/// @param above what it was looked for in: the tool, or a command that has commands.
std::string explainUnknownCommand(const CLI::App& above, const std::string& name);
