// Gateways for tests of this process, played by another. Ports are the kernel's choice, so that
// tests may run side by side.

#include "tests/integration/simulated_gateways.h"

#include <sstream>
#include <stdexcept>

#include "tests/support/Eventually.h"

namespace tests {

SimulatedGateways::SimulatedGateways(const std::vector<std::string>& settings) {
  std::vector<std::string> command = {AHS_GATEWAYS, "--write-ca", Authority()};
  for (const std::string& gateway : settings) {
    command.insert(command.end(), {"--gateway", "127.0.77.1:0," + gateway});
  }
  const std::string output = m_directory.File("output");
  m_program = std::make_unique<ChildProcess>(command, output, m_directory.Path());
  const bool isReady = eventually([&] {
    return !m_program->IsRunning() || readFile(output).find("\nready\n") != std::string::npos;
  });
  if (!isReady || !m_program->IsRunning()) {
    throw std::runtime_error("the gateways are not there; they wrote: " + readFile(output));
  }

  std::istringstream lines(readFile(output));
  std::string word;
  std::string where;
  std::string behaviour;
  while (lines >> word >> where >> behaviour) {
    const std::size_t colon = where.rfind(':');
    m_where.push_back(
        {where.substr(0, colon), static_cast<unsigned short>(std::stoul(where.substr(colon + 1)))});
  }
}

}  // namespace tests
