// Crowds of headends on a machine that gives the command little: the real command, in a network of
// its own. Skipped where no network can be made.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/integration/command_test.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;

/// The status "skipped" of automake and ctest.
constexpr int NotPermitted = 77;

struct Crowd {
  const char* name;
  const char* command;  ///< of a shell, before the words of `ahs`
  int headends;
  bool isNamed = false;    ///< by names that a resolver 300 ms away knows
  bool mayFail = false;    ///< with a documented status
  bool needsRoot = false;  ///< root has no such limit, and becomes another user
};

std::ostream& operator<<(std::ostream& out, const Crowd& crowd) { return out << crowd.name; }

class ALimit : public CommandTest, public testing::WithParamInterface<Crowd> {
 protected:
  static int distanceMs(int headend) {
    constexpr int NearestMs = 20;
    constexpr int FarthestMs = 200;
    return NearestMs + headend * (FarthestMs - NearestMs) / GetParam().headends;
  }

  static std::string addressOf(int headend) {
    return "10.77." + std::to_string(1 + headend / 250) + "." + std::to_string(1 + headend % 250);
  }

  static std::string nameOf(int headend) {
    return GetParam().isNamed ? "gw" + std::to_string(headend) + ".example" : addressOf(headend);
  }

  /// `ahs select --json`. By hand its default budget is enough; a busy machine gets more, where the
  /// user can read this directory. @return its status.
  int Select() const {
    std::string scene = "resolver 10.77.0.53\npath 10.77.0.53 rtt=300\n";
    std::string hosts;
    for (int i = 0; i < GetParam().headends; ++i) {
      const std::string address = addressOf(i);
      scene += "path " + address + " rtt=" + std::to_string(distanceMs(i)) + "\ngateway " +
               address + ":443\nanswer gw" + std::to_string(i) + ".example " + address + "\n";
      hosts += " " + nameOf(i);
    }
    writeFile("scene", scene);
    writeFile("network.xml", "<preferences version=\"1\">\n" +
                                 preference("SelectionConnectTimeout", "40000") +
                                 "</preferences>\n");
    const std::string budget =
        GetParam().needsRoot ? "" : " --preferences " + home + "/network.xml";
    writeFile("command", std::string(GetParam().command) + " env -i HOME=/ " + AHS_PROGRAM +
                             " select --json --no-cache" + budget + hosts +
                             " </dev/null >out 2>err");
    const std::string gateways = std::string(AHS_GATEWAYS) + " --config scene";
    ChildProcess wan(
        {AHS_WAN, "--config", "scene", "--servers", gateways, "--", "/bin/sh", "command"},
        home + "/wan", home);
    EXPECT_TRUE(wan.WaitForEnd(tests::Limit));
    return wan.ExitStatus();
  }
};

TEST_P(ALimit, KeepsNoHeadendFromBeingMeasured) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer takes memory, threads and descriptors of its own";
#endif
  if (GetParam().needsRoot && geteuid() != 0) {
    GTEST_SKIP() << "only root can become another user";
  }
  const int status = Select();
  const std::string said = readFile(home + "/err") + readFile(home + "/wan");
  if (status == NotPermitted) {
    GTEST_SKIP() << said;
  }
  if (GetParam().mayFail) {
    EXPECT_THAT(status, testing::AnyOf(0, 1, 2)) << said;
    return;
  }
  ASSERT_EQ(status, 0) << said;
  const json object = json::parse(readFile(home + "/out"), nullptr, false);
  int answered = 0;
  int worstMs = 0;
  for (int i = 0; i < GetParam().headends; ++i) {
    const json result = resultOf(object, nameOf(i));
    if (result.at("metricMs").is_number()) {
      ++answered;
      worstMs = std::max(worstMs, std::abs(result.at("metricMs").get<int>() - distanceMs(i)));
    }
  }
  std::cout << answered << " answered in " << object.at("elapsedMs") << " ms, worst error "
            << worstMs << " ms\n";
  EXPECT_EQ(answered, GetParam().headends) << said;
  EXPECT_LE(worstMs, 50) << "the simulator is late on a busy machine, by hand it is 1";
}

INSTANTIATE_TEST_SUITE_P(
    Of, ALimit,
    testing::Values(Crowd{"Descriptors", "ulimit -n 256; exec", 1000},
                    Crowd{"DescriptorsForNames", "ulimit -n 1024; exec", 300, true},
                    Crowd{"Threads", "exec prlimit --nproc=50 setpriv --reuid 65534 --clear-groups",
                          250, false, false, true},
                    Crowd{"Memory", "ulimit -v 524288; exec", 1000, false, true}),
    [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tests
