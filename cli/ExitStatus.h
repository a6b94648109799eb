#pragma once

#include <array>

/// What the process tells its caller. Scripts rely on these numbers.
enum ExitStatus : int {
  ExitSelected = 0,      ///< a headend was selected, measured now or found in the cache
  ExitNotMeasured = 1,   ///< nothing could be measured
  ExitMeasured = 0,      ///< of a probe: the headend would have a metric
  ExitNoMistakes = 0,    ///< of commands about files: the answer is printed
  ExitMistakes = 1,      ///< files that were checked have mistakes
  ExitUsage = 2,         ///< usage, configuration, or output that could not be written
  ExitProxyAsks = 3,     ///< a proxy asks for authentication
  ExitCannotRun = 126,   ///< the program exists but cannot be run (POSIX, 2.8.2)
  ExitNoProgram = 127,   ///< there is no such program (POSIX, 2.8.2)
  ExitSignalBase = 128,  ///< added to the number of the signal that ended the process
  ExitNoReader = 141,    ///< as if SIGPIPE had ended the process
};

/// The meaning of an exit status for some commands.
struct StatusMeaning {
  const char* status;
  const char* commands;
  const char* text;
};

/// The one list, for help, manual page and documentation.
inline constexpr std::array StatusMeanings = {
    StatusMeaning{"0", "select", "a headend was selected, measured now or from the cache"},
    StatusMeaning{"0", "probe", "the headend has a metric for a selection"},
    StatusMeaning{"0", "profile check", "there are no mistakes"},
    StatusMeaning{"0", "all others", "done"},
    StatusMeaning{"1", "select, exec",
                  "nothing was measured, or not the headends (exec: nor any program run)"},
    StatusMeaning{"1", "watch", "the first selection could not be started"},
    StatusMeaning{"1", "probe", "the headend has no metric for a selection"},
    StatusMeaning{"1", "profile check", "there are mistakes"},
    StatusMeaning{"1", "cache show, cache clear", "the cache cannot be used or removed"},
    StatusMeaning{"2", "all", "usage, configuration, or the output could not be written"},
    StatusMeaning{"3", "select, watch, exec",
                  "a proxy asks for a login, and none or a wrong one was given"},
    StatusMeaning{"126", "exec", "the program cannot be run"},
    StatusMeaning{"127", "exec", "there is no such program"},
    StatusMeaning{"any", "exec", "that of the program, whenever one ran"},
    StatusMeaning{"128 + N", "all",
                  "ended by the signal N; 141 if nobody reads the output any more"},
};
