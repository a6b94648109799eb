// The one list of exit statuses, for help, manual page and documentation.

#include "cli/ExitStatus.h"

#include <array>

namespace {

constexpr std::array Meanings = {
    StatusMeaning{"0", "select", "a headend was selected, measured now or from the cache"},
    StatusMeaning{"0", "probe", "the headend has a metric for a selection"},
    StatusMeaning{"0", "profile check", "there are no mistakes"},
    StatusMeaning{"0", "all others", "done"},
    StatusMeaning{"1", "select, exec", "nothing could be measured"},
    StatusMeaning{"1", "watch", "the first selection could not be started"},
    StatusMeaning{"1", "probe", "the headend has no metric for a selection"},
    StatusMeaning{"1", "profile check", "there are mistakes"},
    StatusMeaning{"1", "cache show, cache clear", "the cache cannot be used, or not be removed"},
    StatusMeaning{"2", "all", "usage, configuration, or the output could not be written"},
    StatusMeaning{"3", "select, watch, exec",
                  "a proxy asks for a login, and none or a wrong one was given"},
    StatusMeaning{"126", "exec", "the program cannot be run"},
    StatusMeaning{"127", "exec", "there is no such program"},
    StatusMeaning{"any", "exec", "that of the program, where one was run"},
    StatusMeaning{"128 + N", "all", "ended by the signal N"},
};

}  // namespace

std::span<const StatusMeaning> statusMeanings() { return Meanings; }
