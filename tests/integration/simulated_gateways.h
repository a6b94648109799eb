#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {

/// The program `ahs-gateways`, which plays gateways on loopback addresses as long as the object
/// lives: in a process of its own, so that its memory is not the test's. Used by one thread.
class SimulatedGateways {
 public:
  /// @param settings one entry a gateway, "behaviour=NAME", and "delay=MS" if it is to be late.
  /// @throws std::runtime_error with what the program has written when it does not start.
  explicit SimulatedGateways(const std::vector<std::string>& settings);

  /// Where each gateway is, in the order of the settings.
  const std::vector<Endpoint>& Where() const { return m_where; }

  /// A file with the certificate to trust.
  std::string Authority() const { return m_directory.File("authority.pem"); }

 private:
  TemporaryDirectory m_directory;
  std::unique_ptr<ChildProcess> m_program;
  std::vector<Endpoint> m_where;
};

}  // namespace tests
