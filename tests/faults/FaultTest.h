#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tests/faults/Host.h"
#include "tests/faults/Injection.h"
#include "vpn/include/StatusCode.h"

namespace tests {

/// One fault after another: at the first call, at the second one, and so on.
struct Sweep {
  std::string name;
  Fault fault;  ///< `first` is set by the sweep
  /// Headends that a selection delivers however it is disturbed; if it may deliver fewer than all,
  /// it may fail as well.
  unsigned int leastHeadends = 0;
  Probing probing = Probing::Plain;
  /// Whether the cache's directory is there when a selection begins.
  bool hasCacheDirectory = true;

  friend void PrintTo(const Sweep& sweep, std::ostream* out) { *out << sweep.name; }
};

/// For INSTANTIATE_TEST_SUITE_P.
inline const auto nameOfSweep = [](const auto& info) { return info.param.name; };

/// Selections in a process in which something fails. Whatever it is, the client is called exactly
/// once with something it can use, nothing is left behind, and the next selection is as if nothing
/// had been.
///
/// Where there are very many calls, only some of them are made to fail in turn, evenly spread. The
/// environment variable AHS_FAULTS is "all" for each of them, or the number of the only one.
class AFault : public testing::TestWithParam<Sweep> {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite() { sm_host.reset(); }

  /// Disturbs selections in this process, which has selected before.
  void Run();

  /// Disturbs the first selection of a process, which makes much that the later ones find made.
  /// To be called before this process has selected: each selection is one of a child's.
  void RunFirst();

 private:
  unsigned long CountCalls();
  Seen InChild(const std::function<Seen()>& selection);
  void DisturbAll(unsigned long calls, unsigned long most,
                  const std::function<Seen(const Fault&)>& disturb);
  void Prepare();
  Seen Examine(const Fault& fault);
  Seen Disturb(const Fault& fault);
  void CheckDisturbed(const Outcome& outcome);
  void CheckUndisturbed();

  static std::unique_ptr<DisturbedHost> sm_host;
};

/// Named so that the test program runs it before it has selected itself.
class FirstSelectionDeathTest : public AFault {};

}  // namespace tests
