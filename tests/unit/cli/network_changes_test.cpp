// Changes of the network are heard, and messages that change nothing are not taken for one. The
// network is one of the test's own.

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "cli/watch/NetworkChanges.h"
#include "tests/support/ChildProcess.h"

namespace {

using std::chrono::milliseconds;
using Heard = NetworkChanges::Heard;

// Longer than a network has to be at rest.
constexpr milliseconds Longer{1500};
constexpr std::chrono::minutes ForAChange{2};

class NetworkChangesTest : public testing::Test {
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

TEST_F(NetworkChangesTest, AnAddressIsAChange) {
  NetworkChanges network;
  EXPECT_EQ(network.problem(), "");
  ip("address add 192.0.2.2/24 dev lo");
  EXPECT_EQ(network.wait(ForAChange), Heard::Change);
}

TEST_F(NetworkChangesTest, AnIpv6AddressIsAChange) {
  NetworkChanges network;
  ip("-6 address add 2001:db8::2/64 dev lo");
  EXPECT_EQ(network.wait(ForAChange), Heard::Change);
}

TEST_F(NetworkChangesTest, ARouteIsAChange) {
  NetworkChanges network;
  ip("route add 198.51.100.0/24 dev lo");
  EXPECT_EQ(network.wait(ForAChange), Heard::Change);
}

TEST_F(NetworkChangesTest, ALinkThatGoesDownIsAChange) {
  NetworkChanges network;
  ip("link set lo down");
  EXPECT_EQ(network.wait(ForAChange), Heard::Change);
}

TEST_F(NetworkChangesTest, AChangeBeforeTheWaitIsHeard) {
  NetworkChanges network;
  network.remember();
  ip("address add 192.0.2.2/24 dev lo");
  ip("address add 192.0.2.3/24 dev lo");
  EXPECT_EQ(network.wait(ForAChange), Heard::Change);
}

TEST_F(NetworkChangesTest, AnAddressWhoseTimeIsProlongedIsNoChange) {
  NetworkChanges network;
  ip("address change 192.0.2.1/24 dev lo valid_lft 1000 preferred_lft 1000");
  EXPECT_EQ(network.wait(Longer), Heard::Nothing);
}

TEST_F(NetworkChangesTest, WhatHasGoneBackToWhatItWasIsNoChange) {
  NetworkChanges network;
  ip("address add 192.0.2.2/24 dev lo");
  ip("address del 192.0.2.2/24 dev lo");
  EXPECT_EQ(network.wait(Longer), Heard::Nothing);
}

TEST_F(NetworkChangesTest, ARememberedChangeIsNoChange) {
  NetworkChanges network;
  ip("address add 192.0.2.2/24 dev lo");
  network.remember();
  EXPECT_EQ(network.wait(Longer), Heard::Nothing);
}
