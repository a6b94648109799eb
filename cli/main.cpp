// The `ahs` command. Everything it does lives in the library beside it, so that tests can link it.

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
  // Everything is written and closed by now, but threads whose work is done may still be leaving.
  // What libraries free in their exit handlers is what these threads use, so no handler is run.
  _exit(runGuarded(argc, argv));
}
