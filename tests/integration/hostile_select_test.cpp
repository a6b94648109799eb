// The command among gateways that are broken or mean harm, and one that is neither: whatever they
// do, it chooses the good one in time, and prints one document that a program can read.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/integration/command_test.h"
#include "tests/integration/simulated_gateways.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

/// What the command says of each when it has probed it without TLS, as it does; one for each way of
/// misbehaving. All of them are probed in hostile_gateways_test.
const std::map<std::string, std::string> Outcomes = {
    {"refuse", "cannot connect"},  {"drop", "timed out"},
    {"silent", "timed out"},       {"closes-late", "not HTTP"},
    {"resets", "not HTTP"},        {"garbage", "not HTTP"},
    {"drip", "timed out"},         {"endless-headers", "not HTTP"},
    {"endless-body", "answered"},  {"stalls", "answered"},
    {"bomb-gzip", "answered"},     {"interim-flood", "not HTTP"},
    {"redirect-loop", "answered"}, {"escapes", "answered"},
    {"challenge", "not HTTP"},     {"leaves", "answered"},
    {"self-signed", "answered"},   {"client-certificate-13", "answered"},
};

/// Time limit of the selections, and a time that a selection which heeds it has ended long before.
constexpr int BudgetMs = 20'000;
constexpr int MuchLaterMs = 2 * BudgetMs;

class HostileSelectCommand : public CommandTest {};

TEST_F(HostileSelectCommand, ChoosesTheGoodOneInTimeAmongAllThatAreNot) {
  writePreferences(preference("SelectionPingTimeout", "4000") +
                   preference("SelectionConnectTimeout", std::to_string(BudgetMs)));
  std::vector<std::string> settings = {"behaviour=normal"};
  for (const auto& [behaviour, outcome] : Outcomes) {
    settings.push_back("behaviour=" + behaviour + ",delay=300");
  }
  const SimulatedGateways gateways(settings);
  std::vector<std::string> hosts;
  for (const Endpoint& where : gateways.Where()) {
    hosts.push_back(where.Text());
  }
  // The test probe goes to the last headend: a silent one would cost its time-out.
  std::vector<std::string> arguments = {"select",      "--last", hosts[0],     "--json",
                                        "--log-level", "info",   "--log-file", home + "/log"};
  arguments.insert(arguments.end(), hosts.begin(), hosts.end());
  const Outcome outcome = run(arguments);

  EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
  const std::string log = readFile(home + "/log");
  for (const std::string& text : {outcome.out, outcome.err, log}) {
    expectLegible(text);
  }
  EXPECT_THAT(log, Not(HasSubstr("evil"))) << "a gateway has written into the log";
  const json object = json::parse(outcome.out);
  EXPECT_EQ(hosts[0], object.at("headends").at(0).get<std::string>());
  EXPECT_LT(object.at("elapsedMs"), MuchLaterMs);
  std::map<std::string, std::string> outcomes;
  for (const json& result : object.at("results")) {
    outcomes[result.at("headend")] = result.at("outcome");
  }
  EXPECT_EQ(outcomes.size(), hosts.size());
  std::size_t host = 1;
  for (const auto& [behaviour, expected] : Outcomes) {
    EXPECT_EQ(expected, outcomes[hosts[host++]]) << behaviour;
  }
}

}  // namespace
}  // namespace tests
