// A headend that is silent while the others answer: the real command in a simulated network.
// Skipped where no network can be made.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/integration/command_test.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;

class SilentHeadend : public CommandTest {};

/// How long a headend's probes have taken.
double timeFor(const json& object, const std::string& headend) {
  double sum = 0;
  const json result = resultOf(object, headend);
  for (const json& probe : result.at("probes")) {
    sum += probe.at("totalMs").get<double>();
  }
  return sum;
}

TEST_F(SilentHeadend, DoesNotHoldUpTheDecisionWhereverItStands) {
  constexpr int NotPermitted = 77;
  const std::string reconnection = " --reason reconnection --last 10.77.0.";
  const struct {
    int silent;           // the first one is the first candidate, and nearest
    std::string options;  // the last one is the farthest
    bool awaitsFarthest;
  } cases[] = {{1, "", false},
               {3, "", false},
               {5, "", false},
               {1, reconnection + "5", true},
               {3, reconnection + "3", false}};
  writeFile("default.xml", "<preferences version=\"1\"/>\n");
  for (const auto& each : cases) {
    std::string scene;
    std::string hosts;
    for (int i = 1; i <= 5; ++i) {
      const std::string where = "10.77.0." + std::to_string(i);
      scene += "path " + where + " rtt=" + std::to_string(i < 5 ? i * 20 : 250) +
               (i == each.silent ? " loss=100" : "") + "\ngateway " + where + ":443\n";
      hosts += " " + where;
    }
    writeFile("scene", scene);
    writeFile("command", "exec env -i HOME=" + home +
                             " " AHS_PROGRAM " select --json --no-cache --preferences default.xml" +
                             hosts + each.options + " </dev/null >out 2>err");
    ChildProcess wan({AHS_WAN, "--config", "scene", "--servers", AHS_GATEWAYS " --config scene",
                      "--", "/bin/sh", "command"},
                     home + "/wan", home);
    ASSERT_TRUE(wan.WaitForEnd(Limit));
    if (wan.ExitStatus() == NotPermitted) {
      GTEST_SKIP() << readFile(home + "/wan");
    }
    const json object = json::parse(readFile(home + "/out"), nullptr, false);
    ASSERT_TRUE(object.is_object()) << readFile(home + "/err");
    const std::string nearest = each.silent == 1 ? "10.77.0.2" : "10.77.0.1";
    const json& decided = object.at("decision").at("decided");
    EXPECT_EQ(decided.at("headend"), nearest);
    EXPECT_EQ(object.at("headends").front(), nearest);
    EXPECT_EQ(object.at("headends").size(), 4U) << "the others are all measured";
    const double after = decided.at("afterMs").get<double>();
    EXPECT_LT(after, object.at("elapsedMs").get<double>());
    if (each.silent != 5) {
      EXPECT_EQ(after >= std::floor(timeFor(object, "10.77.0.5")), each.awaitsFarthest)
          << object.dump(1);
    }
  }
}

}  // namespace
}  // namespace tests
