#pragma once

#include <span>

/// What the process tells its caller. Scripts rely on these numbers.
enum ExitStatus : int {
  ExitSelected = 0,      ///< a headend was selected, measured now or found in the cache
  ExitNotMeasured = 1,   ///< nothing could be measured
  ExitMeasured = 0,      ///< of a probe: the headend would have a metric
  ExitNoMistakes = 0,    ///< of the commands that look into files: what was asked for is printed
  ExitMistakes = 1,      ///< files that were checked have mistakes
  ExitUsage = 2,         ///< usage, configuration, or output that could not be written
  ExitProxyAsks = 3,     ///< a proxy asks for authentication
  ExitCannotRun = 126,   ///< a program is there and cannot be run (POSIX, 2.8.2, as the next)
  ExitNoProgram = 127,   ///< there is no such program
  ExitSignalBase = 128,  ///< added to the number of the signal that ended the process
};

/// What a status means, of which commands.
struct StatusMeaning {
  const char* status;
  const char* commands;
  const char* text;
};
std::span<const StatusMeaning> statusMeanings();
