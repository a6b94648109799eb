// Networks and gateways that pretend to be near: the real command in a simulated network. Skipped
// where no network can be made.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/integration/command_test.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;

constexpr int NotPermitted = 77;
constexpr int NearMs = 20;

/// How gateways at 60 ms and more lie, and whether the nearest does, too.
struct LIE {
  const char* what;
  bool isEverybodys;
  bool isNear;        ///< TCP ends near the client, and a little nearer for the far ones
  bool isOpenedLate;  ///< but only once the far side has been asked
  bool isAnswered;    ///< answers come from 1 ms away, too
  const char* gateway;
  json evidence;
};

class LyingNetworks : public CommandTest {
 protected:
  json select(const std::string& scene) const {
    writeFile("scene", scene);
    writeFile("default.xml", "<preferences version=\"1\"/>\n");
    writeFile(
        "command",
        "exec env -i HOME=" + home +
            " " AHS_PROGRAM
            " select --json --no-cache --preferences default.xml 10.77.0.5 10.77.0.2 10.77.0.1 "
            "10.77.0.3 10.77.0.4 </dev/null >out 2>err");
    ChildProcess wan({AHS_WAN, "--config", "scene", "--servers", AHS_GATEWAYS " --config scene",
                      "--", "/bin/sh", "command"},
                     home + "/wan", home);
    EXPECT_TRUE(wan.WaitForEnd(Limit));
    return wan.ExitStatus() == NotPermitted ? json()
                                            : json::parse(readFile(home + "/out"), nullptr, false);
  }
};

TEST_F(LyingNetworks, DoNotMakeAFarGatewayTheNearest) {
  for (const LIE& lie :
       {LIE{"a box", true, true, false, false, "", "box"},
        LIE{"a box that asks first", true, true, true, false, "", "early acknowledgement"},
        LIE{"gateways that acknowledge and answer early", false, true, true, true, "",
            "early acknowledgement"},
        LIE{"gateways that answer early", false, false, false, false, " behaviour=answers-early",
            nullptr}}) {
    std::string scene;
    for (int i = 1; i <= 5; ++i) {
      const int distance = NearMs + (i - 1) * 40;
      const bool lies = lie.isEverybodys || distance > NearMs;
      const std::string where = "10.77.0." + std::to_string(i);
      const std::string rest = std::to_string(distance - 1);
      scene += "path " + where + " rtt=" +
               (!lies || !lie.isNear ? std::to_string(distance)
                : distance == NearMs ? "3"
                                     : "1.5") +
               (lies && lie.isOpenedLate ? " opening=" + rest : "") + "\ngateway " + where +
               ":443" + (lies && lie.isNear && !lie.isAnswered ? " delay=" + rest : "") +
               (lies ? lie.gateway : "") + "\n";
    }
    const json object = select(scene);
    if (object.is_null()) {
      GTEST_SKIP() << readFile(home + "/wan");
    }
    ASSERT_TRUE(object.is_object()) << lie.what << readFile(home + "/err");
    EXPECT_EQ(object.at("headends").front(), "10.77.0.1") << lie.what << object.dump(1);
    EXPECT_EQ(object.at("results").at(1).at("probes").front().at("evidence"), lie.evidence)
        << lie.what;
  }
}

}  // namespace
}  // namespace tests
