// Prints the nearest of the headends of the command line. Usage: embed ADDRESS...

// [README]
#include <ahs/ahs.hpp>
#include <iostream>

int main(int argc, char** argv) {
  ahs::Library library({.headends = {argv + 1, argv + argc}});
  const ahs::Result result = library.select();
  (result ? std::cout : std::cerr) << (result ? result.headends.front() : result.error) << '\n';
  return result ? 0 : 1;
}
// [README]
