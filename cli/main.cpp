// The `ahs` command. All its code is in a library, so that tests can link it.

#include <unistd.h>

#include <exception>
#include <string>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"
#include "cli/Surroundings.h"

namespace {

int runGuarded(int argumentCount, char** arguments) {
  try {
    return runTool(argumentCount, arguments);
  } catch (const std::exception& error) {
    Console::complain(std::string("the command cannot go on: ") + error.what() +
                      ". If the machine is short of memory, end other programs and try again.");
    return ExitUsage;
  }
}

}  // namespace

int main(int argc, char** argv) {
  Surroundings::note();
  // All output is written, but threads may still be leaving. Exit handlers of libraries would free
  // what these threads use, so none runs.
  _exit(runGuarded(argc, argv));
}
