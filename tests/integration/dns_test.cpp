// Headends with names, and broken or malicious name servers: the real command, the machine's own
// resolver, and a scripted name server in the test's own network. Skipped where no network can be
// made. HttpProbe's tests cover what a probe does with a name's addresses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/command_test.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::SizeIs;

/// The status "skipped" of automake and ctest.
constexpr int NotPermitted = 77;

/// Even on a busy machine a probe of ten seconds ends sooner.
constexpr double MuchLaterMs = 25'000;

/// Quotes every byte for a shell.
std::string quoted(const std::string& word) {
  std::string result = "'";
  for (const char c : word) {
    result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return result + "'";
}

/// `ahs select --json` in its own network, with a name server and one good gateway, "good.example".
class Names : public CommandTest {
 protected:
  void SetUp() override {
    ChildProcess wan({AHS_WAN, "--", findProgram("true", "coreutils")}, home + "/wan", home);
    ASSERT_TRUE(wan.WaitForEnd(Limit));
    if (wan.ExitStatus() == NotPermitted) {
      GTEST_SKIP() << readFile(home + "/wan");
    }
  }

  /// @param more further lines of the scene (simulator/README.md).
  /// @return the command's JSON object.
  json Select(const std::vector<std::string>& more, const std::vector<std::string>& hosts) const {
    std::string scene =
        "resolver 10.77.0.53\ngateway 10.77.0.1:443\nanswer good.example 10.77.0.1\n";
    for (const std::string& line : more) {
      scene += line + "\n";
    }
    writeFile("scene", scene);
    writeFile("network.xml", "<preferences version=\"1\">\n" +
                                 preference("SelectionConnectTimeout", "60000") +
                                 preference("SelectionPingTimeout", pingTimeoutMs) +
                                 preference("SelectionTestPingTimeout", "1") + "</preferences>\n");
    // This machine's settings must not matter.
    std::string command = "exec env -i HOME=" + home + " RES_OPTIONS=" + quoted(resolverOptions) +
                          " " + quoted(AHS_PROGRAM) +
                          " select --json --no-cache --log-level info --log-file log "
                          "--preferences network.xml";
    for (const std::string& host : hosts) {
      command += " " + quoted(host);
    }
    writeFile("command", command + " </dev/null >out 2>err");
    const std::string gateways = quoted(AHS_GATEWAYS) + " --config scene";
    ChildProcess wan(
        {AHS_WAN, "--config", "scene", "--servers", gateways, "--", "/bin/sh", "command"},
        home + "/wan", home);
    EXPECT_TRUE(wan.WaitForEnd(Limit));
    EXPECT_EQ(0, wan.ExitStatus()) << readFile(home + "/err") + readFile(home + "/wan");
    expectLegible(readFile(home + "/out"));
    expectLegible(readFile(home + "/log"));
    return json::parse(readFile(home + "/out"), nullptr, false);
  }

  std::string pingTimeoutMs;
  /// Of the resolver (resolv.conf(5)).
  std::string resolverOptions = "timeout:5 attempts:1";
};

TEST_F(Names, ThatCannotBeResolvedOrAreOddOrLeadNowhereDoNotHoldUpTheOthers) {
  pingTimeoutMs = "10000";
  const std::vector<std::string> unknown = {"nobody.example",
                                            "failing.example",
                                            "loop.example",
                                            "xn--.example",
                                            "bücher.example",
                                            "a--b_c.example",
                                            std::string(64, 'l') + ".example"};
  std::vector<std::string> hosts = unknown;
  hosts.insert(hosts.end(), {"good.example", "garbage.example", "odd.example", "many.example"});
  std::string many = "answer many.example";
  for (int i = 1; i <= 200; ++i) {
    many += " 10.77.9." + std::to_string(i);
  }
  const json object =
      Select({"path default loss=100", "path 10.77.0.53 rtt=1", "path 10.77.0.1 rtt=1",
              "answer failing.example failure", "answer loop.example loop", many + " 10.77.0.1",
              "answer garbage.example garbage", "answer odd.example odd-name 10.77.0.1"},
             hosts);

  EXPECT_EQ("answered", resultOf(object, "good.example").at("outcome"));
  for (const std::string& host : unknown) {
    const json result = resultOf(object, host);
    EXPECT_EQ("name not resolved", result.at("outcome")) << host;
    EXPECT_THAT(result.at("probes"), SizeIs(1)) << "a worker gives up with the first";
  }
  EXPECT_TRUE(resultOf(object, "garbage.example").at("metricMs").is_null());
  const json result = resultOf(object, "many.example");
  EXPECT_EQ("timed out", result.at("outcome"));
  for (const json& probe : result.at("probes")) {
    EXPECT_LT(probe.at("totalMs"), MuchLaterMs);
  }
}

TEST_F(Names, AThousandAtOnceAreAllMeasured) {
  constexpr int Count = 1000;
  constexpr double RoundTripMs = 20;
  pingTimeoutMs = "40000";
  // A server that answers slowly is no failure, nor is a lost packet.
  resolverOptions = "timeout:10 attempts:3";
  std::vector<std::string> scene = {"path default rtt=20"};
  std::vector<std::string> hosts;
  for (int i = 0; i < Count; ++i) {
    const std::string name = "gw" + std::to_string(i) + ".example";
    const std::string address =
        "10.77." + std::to_string(1 + i / 250) + "." + std::to_string(1 + i % 250);
    scene.push_back("gateway " + address + ":443");
    scene.push_back("answer " + name + " " + address);
    hosts.push_back(name);
  }
  const json object = Select(scene, hosts);

  EXPECT_THAT(object.at("headends"), SizeIs(Count));
  for (const json& result : object.at("results")) {
    EXPECT_EQ("answered", result.at("outcome")) << result.at("headend");
    EXPECT_GE(result.at("metricMs"), RoundTripMs);
  }
}

}  // namespace
}  // namespace tests
