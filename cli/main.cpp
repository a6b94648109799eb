// The `ahs` command. Everything it does lives in the library beside it, so that tests can link it.

#include <exception>

#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/ExitStatus.h"

int main(int argc, char** argv) {
  try {
    return runTool(argc, argv);
  } catch (const std::exception& error) {
    Console::complain(std::string("the command cannot go on: ") + error.what() +
                      ". If the machine is short of memory, end other programs and try again.");
    return ExitUsage;
  }
}
