#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "tests/faults/Host.h"
#include "tests/faults/Injection.h"
#include "vpn/include/StatusCode.h"

namespace tests {

/// One fault after another: at the first call, at the second one, and so on.
struct Sweep {
  Fault fault;  ///< `first` is set by the sweep
  Probing probing = Probing::Plain;
  /// Headends that a selection delivers however it is disturbed; if it may deliver fewer than all,
  /// it may fail as well.
  unsigned int leastHeadends = 0;
  /// Whether the cache's directory is there when a selection begins.
  bool hasCacheDirectory = true;
};

/// Selections in a process in which something fails. Whatever it is, the client is called exactly
/// once with something it can use, nothing is left behind, and the next selection is as if nothing
/// had been.
///
/// Where there are very many calls, only some of them are made to fail in turn, evenly spread. The
/// environment variable AHS_FAULTS is "all" for each of them, or the number of the only one.
class FaultTest : public testing::Test {
 protected:
  /// Calls that fail in turn when not all are asked for: in one process, and each in a child's.
  static constexpr unsigned long ManyRuns = 500;
  static constexpr unsigned long ManyFirstRuns = 100;

  static void SetUpTestSuite();
  static void TearDownTestSuite();

  /// Disturbs selections in this process, which has selected before.
  void Run(const Sweep& sweep);

  /// Disturbs the first selection of a process, which makes much that the later ones find made.
  /// To be called before this process has selected: each selection is one of a child's.
  void RunFirst(const Sweep& sweep);

 private:
  unsigned long CountCalls(const Sweep& sweep);
  void DisturbFirst(const Sweep& sweep, const Fault& fault);
  Seen InChild(const std::function<Seen()>& selection);
  void DisturbAll(const Sweep& sweep, unsigned long calls, unsigned long most,
                  void (FaultTest::*disturb)(const Sweep&, const Fault&));
  void Prepare(const Sweep& sweep);
  Seen Examine(const Sweep& sweep, const Fault& fault);
  void Disturb(const Sweep& sweep, const Fault& fault);
  void CheckDisturbed(const Sweep& sweep, const Outcome& outcome);
  void CheckUndisturbed(Probing probing);

  static std::unique_ptr<Host> sm_host;
  unsigned long m_strikes = 0;
};

}  // namespace tests
