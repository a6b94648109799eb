#pragma once

#include <string>
#include <vector>

namespace tests {

/// `ahs select --json` in a network of its own.
struct WanSelection {
  /// Lines of the scene (simulator/README.md): what there is, and how far away.
  std::vector<std::string> scene;
  std::vector<std::string> hosts;
  /// Time limit of one probe.
  unsigned int pingTimeoutMs = 2000;
  /// Of the resolver (resolv.conf(5)).
  std::string resolverOptions = "timeout:2 attempts:2";

  struct Outcome {
    int exitStatus = -1;
    std::string out;
    std::string err;
    std::string log;
  };

  /// @throws std::runtime_error when it does not come to an end.
  Outcome Run() const;
};

/// @return why this machine has no such network; empty where it has one.
std::string whyThereIsNoWan();

}  // namespace tests
