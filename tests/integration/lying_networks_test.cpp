// Networks and gateways that pretend to be near, and networks in which something else answers: the
// real command in a simulated network. Skipped where none can be made.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/integration/command_test.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// The status "skipped" of automake and ctest.
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
  /// Runs a shell's command in a scene; `$AHS` is the command under test.
  int inScene(const std::string& scene, const std::string& command) const {
    writeFile("scene", "path default rtt=4\n" + scene);
    writeFile("command", "AHS='env -i HOME=" + home + " " + AHS_PROGRAM + "'\nexec >out 2>err\n" +
                             command + "\n");
    ChildProcess wan({AHS_WAN, "--config", "scene", "--servers",
                      std::string(AHS_GATEWAYS) + " --config scene", "--", "/bin/sh", "command"},
                     home + "/wan", home);
    EXPECT_TRUE(wan.WaitForEnd(Limit));
    return wan.ExitStatus();
  }
  /// The command's object for five gateways; none where no network can be made.
  json selectFive(const std::string& scene) const {
    writeFile("default.xml", "<preferences version=\"1\"/>\n");
    const int status = inScene(
        scene,
        "$AHS select --json --no-cache --preferences default.xml 10.77.0.5 10.77.0.2 10.77.0.1 "
        "10.77.0.3 10.77.0.4");
    return status == NotPermitted ? json() : json::parse(readFile(home + "/out"), nullptr, false);
  }
  std::string told() const { return readFile(home + "/err"); }
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
    const json object = selectFive(scene);
    if (object.is_null()) {
      GTEST_SKIP() << readFile(home + "/wan");
    }
    ASSERT_TRUE(object.is_object()) << lie.what << readFile(home + "/err");
    EXPECT_EQ(object.at("headends").front(), "10.77.0.1") << lie.what << object.dump(1);
    EXPECT_EQ(object.at("results").at(1).at("probes").front().at("evidence"), lie.evidence)
        << lie.what;
  }
}

TEST_F(LyingNetworks, AreNamedAndNothingIsSelectedInThemOrRemembered) {
  struct Case {
    std::string scene;
    std::string arguments;
    const char* doubt;
    const char* words;
  };
  const std::string sinkhole = "resolver 10.77.0.53\ngateway 10.77.0.9:443\nanswer * ";
  const std::string all = "gateway 0.0.0.0:443 behaviour=";
  const std::string hosts = " 10.77.0.1 10.77.0.2";
  for (const Case& each :
       {Case{all + "portal\n", hosts, "portal", "leads to 'login.portal.example'"},
        Case{all + "portal-page\n", hosts, "portal", "Open a browser, sign in"},
        Case{all + "resets\n", hosts, "reset", "ends connections to everywhere itself"},
        Case{all + "refuse\n", hosts, "reset", "ends connections to everywhere itself"},
        Case{sinkhole + "10.77.0.9\n", " a.example b.example", "one address", "to 10.77.0.9,"},
        Case{sinkhole + "0.0.0.0\n", " a.example", "one address", "to this machine,"},
        Case{all + "inspector\n",
             hosts + " --proxy 10.77.0.3:1 --proxy-user u --proxy-password-fd 3 3<password",
             "inspector", "Simulated inspector"}}) {
    writeFile("password", "p");
    const int status =
        inScene(each.scene, "$AHS select --explain" + each.arguments +
                                " && echo selected\n$AHS select --json" + each.arguments);
    if (status == NotPermitted) {
      GTEST_SKIP() << readFile(home + "/wan");
    }
    EXPECT_EQ(1, status) << each.scene << told();
    const std::string output = readFile(home + "/out");
    EXPECT_THAT(told(), HasSubstr(each.words)) << each.scene;
    EXPECT_THAT(output, HasSubstr(each.words)) << each.scene;
    EXPECT_THAT(output, Not(HasSubstr("\nselected\n")));
    const auto object = json::parse(output.substr(output.find("\n{") + 1), nullptr, false);
    EXPECT_EQ(object["decision"]["doubt"], each.doubt);
    EXPECT_FALSE(std::filesystem::exists(home + "/.cache/ahs")) << each.scene;
  }
}

TEST_F(LyingNetworks, AMachineWithoutANetworkIsToldFromHeadendsThatAreDown) {
  const std::string scene = "resolver 10.77.0.53\ngateway 10.77.0.9:443\n";
  const std::string down = "$AHS select --quiet gw.example 10.77.0.1";
  const int status = inScene(scene, down);
  if (status == NotPermitted) {
    GTEST_SKIP() << readFile(home + "/wan");
  }
  EXPECT_EQ(1, status);
  EXPECT_THAT(told(), Not(HasSubstr("has no network")));
  EXPECT_EQ(1, inScene(scene, "ip route flush table main; " + down));
  EXPECT_THAT(told(), HasSubstr("This machine has no network"));
  EXPECT_THAT(readFile(home + "/out"), IsEmpty());
}

TEST_F(LyingNetworks, APortalIsNoChoiceToAnnounceButAProgramIsStillTried) {
  const int status = inScene("gateway 0.0.0.0:443 behaviour=portal\n",
                             "timeout 2 $AHS watch 10.77.0.1\necho watched\n"
                             "$AHS select --quiet 10.77.0.1\n"
                             "$AHS exec 10.77.0.1 -- echo {host}");
  if (status == NotPermitted) {
    GTEST_SKIP() << readFile(home + "/wan");
  }
  EXPECT_EQ(0, status) << told();
  EXPECT_EQ("watched\n10.77.0.1\n", readFile(home + "/out"));
  EXPECT_THAT(told(), HasSubstr("A captive portal answers"));
}

TEST_F(LyingNetworks, AProgramIsTriedLastWithWhatANameServerLiesAbout) {
  const int status = inScene(
      "resolver 10.77.0.53\nanswer * 10.77.0.9\ngateway 10.77.0.9:443\n"
      "path 10.77.0.1 rtt=40\ngateway 10.77.0.1:443\n",
      "$AHS exec a.example 10.77.0.1 -- sh -c 'echo {host}; test {host} = a.example'");
  if (status == NotPermitted) {
    GTEST_SKIP() << readFile(home + "/wan");
  }
  EXPECT_EQ(0, status) << told();
  EXPECT_EQ("10.77.0.1\na.example\n", readFile(home + "/out"));
}

TEST_F(LyingNetworks, ARouterThatLimitsOpeningsLosesNobodyWhoIsAlive) {
  std::string scene = "link syns=40\n";
  std::string hosts;
  for (int i = 20; i > 0; --i) {
    const std::string address = "10.77.0." + std::to_string(i);
    scene +=
        "path " + address + " rtt=" + std::to_string(i * 10) + "\ngateway " + address + ":443\n";
    hosts += " " + address;
  }
  const int status = inScene(scene, "$AHS select --no-cache --quiet" + hosts);
  if (status == NotPermitted) {
    GTEST_SKIP() << readFile(home + "/wan");
  }
  EXPECT_EQ("10.77.0.1\n", readFile(home + "/out")) << told();
}

TEST_F(LyingNetworks, APortalIsNotTakenForTheRememberedWinner) {
  const std::string choose = "$AHS select 10.77.0.1 10.77.0.2";
  const int status = inScene("path default rtt=40\ngateway 10.77.0.1:443\ngateway 10.77.0.2:443\n",
                             choose + " && " + choose);
  if (status == NotPermitted) {
    GTEST_SKIP() << readFile(home + "/wan");
  }
  EXPECT_EQ(0, status) << told();
  EXPECT_THAT(readFile(home + "/out"), HasSubstr("still answers"));
  EXPECT_EQ(1, inScene("path default rtt=1\ngateway 0.0.0.0:443 behaviour=portal\n", choose));
  EXPECT_THAT(told(), HasSubstr("A captive portal answers"));
}

}  // namespace
}  // namespace tests
