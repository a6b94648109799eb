// The command among gateways that are broken or mean harm, and one that is neither: whatever they
// do, it chooses the good one in time, and prints one document that a program can read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/running_program.h"
#include "tests/integration/simulated_gateways.h"
#include "tests/integration/wan_selection.h"
#include "tests/support/TemporaryDirectory.h"

namespace tests {
namespace {

using nlohmann::json;

/// What the command says of each when it has probed it without TLS, as it does.
const std::map<std::string, std::string> Outcomes = {
    {"refuse", "cannot connect"},
    {"drop", "timed out"},
    {"silent", "timed out"},
    {"closes", "not HTTP"},
    {"closes-late", "not HTTP"},
    {"resets-at-once", "not HTTP"},
    {"resets", "not HTTP"},
    {"resets-midway", "not HTTP"},
    {"alert", "not HTTP"},
    {"garbage", "not HTTP"},
    {"drip", "timed out"},
    {"endless-headers", "not HTTP"},
    {"long-header", "not HTTP"},
    {"endless-body", "answered"},
    {"endless-chunks", "answered"},
    {"stalls", "answered"},
    {"bomb-gzip", "answered"},
    {"bomb-deflate", "answered"},
    {"bomb-br", "answered"},
    {"interim-flood", "not HTTP"},
    {"redirect-loop", "answered"},
    {"escapes", "answered"},
    {"challenge", "answered"},
    {"leaves", "answered"},
    {"expired", "answered"},
    {"not-yet-valid", "answered"},
    {"self-signed", "answered"},
    {"wrong-host", "answered"},
    {"client-certificate-12", "answered"},
    {"client-certificate-13", "answered"},
    {"old-tls", "answered"},
};

/// Time limit of the selections, and a time that a selection which heeds it has ended long before.
constexpr int BudgetMs = 20'000;
constexpr int MuchLaterMs = 2 * BudgetMs;

json resultOf(const json& object, const std::string& headend) {
  for (const json& result : object.at("results")) {
    if (result.at("headend") == headend) {
      return result;
    }
  }
  ADD_FAILURE() << headend << " is missing";
  return {{"outcome", ""}};
}

bool isControl(char c) { return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == 127; }

/// `text` is one JSON object and holds nothing that a terminal would obey.
json parsed(const std::string& text) {
  EXPECT_TRUE(std::ranges::none_of(text, isControl)) << text;
  json object = json::parse(text, nullptr, false);
  EXPECT_TRUE(object.is_object()) << text;
  return object.is_object() ? object
                            : json{{"results", json::array()}, {"headends", json::array()}};
}

/// A user with a home directory of his own, whose preferences make a gateway's delay count.
class HostileSelectCommand : public testing::Test {
 protected:
  HostileSelectCommand() {
    const std::string end = "\"/>\n";
    m_home.Write("preferences.xml",
                 "<preferences version=\"1\">\n"
                 "<preference name=\"RoundTripTime\" value=\"response" +
                     end + "<preference name=\"SelectionPingTimeout\" value=\"4000" + end +
                     "<preference name=\"SelectionConnectTimeout\" value=\"" +
                     std::to_string(BudgetMs) + end + "</preferences>\n");
  }

  Outcome Run(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = {
        "select",      "--json", "--no-cache", "--preferences",   m_home.File("preferences.xml"),
        "--log-level", "info",   "--log-file", m_home.File("log")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return Program(all, {"HOME=" + m_home.Path(), "PATH=/usr/bin:/bin"}).finish();
  }

  std::string Log() const { return readFile(m_home.File("log")); }

 private:
  TemporaryDirectory m_home;
};

TEST_F(HostileSelectCommand, ChoosesTheGoodOneInTimeAmongAllThatAreNot) {
  std::vector<std::string> settings = {"behaviour=normal"};
  for (const auto& [behaviour, outcome] : Outcomes) {
    // The delay of one that resets at once begins with the connection, and its time with a request.
    const std::string delay = behaviour == "resets-at-once" ? "1500" : "300";
    settings.push_back("behaviour=" + behaviour + ",delay=" + delay);
  }
  const SimulatedGateways gateways(settings);
  std::vector<std::string> hosts;
  for (const Endpoint& where : gateways.Where()) {
    hosts.push_back(where.Text());
  }
  const Outcome outcome = Run(hosts);

  EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
  const json object = parsed(outcome.out);
  EXPECT_EQ(hosts[0], object.at("headends").at(0));
  EXPECT_LT(object.at("elapsedMs"), MuchLaterMs);
  std::size_t host = 1;
  for (const auto& [behaviour, expected] : Outcomes) {
    EXPECT_EQ(expected, resultOf(object, hosts[host++]).at("outcome")) << behaviour;
  }
  EXPECT_TRUE(std::ranges::none_of(Log(), isControl)) << Log();
}

TEST_F(HostileSelectCommand, ShowsNothingThatATerminalObeysOfAProxysRealm) {
  const SimulatedGateways gateways({"behaviour=challenge", "behaviour=normal"});
  const Outcome outcome = Run({"--proxy", gateways.Where()[0].Text(), gateways.Where()[1].Text()});

  EXPECT_EQ(3, outcome.exitStatus) << outcome.err;
  const json object = parsed(outcome.out);
  EXPECT_EQ("HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED", object.value("statusName", ""));
  EXPECT_TRUE(std::ranges::none_of(outcome.err, isControl)) << outcome.err;
  EXPECT_TRUE(std::ranges::none_of(Log(), isControl)) << Log();
}

TEST(HostileWan, TheGoodGatewayIsChosenByItsDistanceAmongAllThatAreNot) {
  const std::string reason = whyThereIsNoWan();
  if (!reason.empty()) {
    GTEST_SKIP() << reason;
  }
  WanSelection selection;
  selection.pingTimeoutMs = 4000;
  selection.scene = {"path default rtt=200", "path 10.77.0.1 rtt=20", "gateway 10.77.0.1:443",
                     "path 10.77.0.2 loss=100"};
  selection.hosts = {"10.77.0.1", "10.77.0.2"};
  for (const auto& [behaviour, outcome] : Outcomes) {
    const std::string address = "10.77.1." + std::to_string(selection.hosts.size());
    selection.scene.push_back("gateway " + address + ":443 behaviour=" + behaviour);
    selection.hosts.push_back(address);
  }
  const WanSelection::Outcome outcome = selection.Run();

  EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
  const json object = parsed(outcome.out);
  EXPECT_EQ("10.77.0.1", object.at("headends").at(0));
  EXPECT_EQ("timed out", resultOf(object, "10.77.0.2").at("outcome"));
  std::size_t host = 2;
  for (const auto& [behaviour, expected] : Outcomes) {
    const json result = resultOf(object, selection.hosts[host++]);
    EXPECT_EQ(expected, result.at("outcome")) << behaviour;
    if (!result.at("metricMs").is_null()) {
      // However an answer ends, it has come from where the gateway is.
      EXPECT_GE(result.at("metricMs"), 200) << behaviour;
      EXPECT_LT(result.at("metricMs"), 400) << behaviour;
    }
  }
  EXPECT_TRUE(std::ranges::none_of(outcome.log, isControl)) << outcome.log;
}

}  // namespace
}  // namespace tests
