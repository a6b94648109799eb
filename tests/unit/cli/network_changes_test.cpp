// Changes of the network are heard, and messages that change nothing are not taken for one. The
// network is one of the test's own.

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "cli/watch/NetworkChanges.h"
#include "tests/support/ChildProcess.h"

namespace {

using Heard = NetworkChanges::Heard;

// Longer than a network has to be at rest.
constexpr std::chrono::milliseconds Longer{1500};
constexpr std::chrono::minutes ForAChange{2};

struct Change {
  const char* name;
  std::vector<std::string> commands;
  bool isOne;
  bool isRemembered = false;

  friend void PrintTo(const Change& change, std::ostream* stream) { *stream << change.name; }
};

class NetworkChangesTest : public testing::TestWithParam<Change> {
 protected:
  void SetUp() override {
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) {
      GTEST_SKIP() << "making a network takes the right to (CAP_SYS_ADMIN)";
    }
    ip("link set lo up");
    ip("address add 192.0.2.1/24 dev lo");
  }

  static void ip(const std::string& what) {
    tests::runToEnd({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin; ip " + what}, "/");
  }
};

}  // namespace

TEST_P(NetworkChangesTest, AreHeardAndNothingElse) {
  NetworkChanges network;
  EXPECT_EQ(network.problem(), "");
  for (const std::string& command : GetParam().commands) {
    ip(command);
  }
  if (GetParam().isRemembered) {
    network.remember();
  }
  if (GetParam().isOne) {
    EXPECT_EQ(network.wait(ForAChange), Heard::Change);
  } else {
    EXPECT_EQ(network.wait(Longer), Heard::Nothing);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, NetworkChangesTest,
    testing::Values(Change{"AnAddress", {"address add 192.0.2.2/24 dev lo"}, true},
                    Change{"AnIpv6Address", {"-6 address add 2001:db8::2/64 dev lo"}, true},
                    Change{"ARoute", {"route add 198.51.100.0/24 dev lo"}, true},
                    Change{"ALinkThatGoesDown", {"link set lo down"}, true},
                    Change{"AnAddressWhoseTimeIsProlonged",
                           {"address change 192.0.2.1/24 dev lo valid_lft 1000 preferred_lft 1000"},
                           false},
                    Change{"WhatHasGoneBackToWhatItWas",
                           {"address add 192.0.2.2/24 dev lo", "address del 192.0.2.2/24 dev lo"},
                           false},
                    Change{"ARememberedChange", {"address add 192.0.2.2/24 dev lo"}, false, true}),
    [](const auto& one) { return std::string(one.param.name); });
