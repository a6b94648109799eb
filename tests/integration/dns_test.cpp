// Headends that have names, and name servers that are broken or mean harm: the real command, the
// machine's own resolver, and a scripted name server in a network of the test's own. Where there
// is none to be had the tests are skipped.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/integration/wan_selection.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::SizeIs;

/// Longer than a busy machine takes to let a probe of one or two seconds end.
constexpr double MuchLaterMs = 15'000;

class Names : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = whyThereIsNoWan();
    if (!reason.empty()) {
      GTEST_SKIP() << reason;
    }
  }

  /// A scene with a name server and one good gateway, "good.example".
  static WanSelection Scene(const std::vector<std::string>& more) {
    WanSelection selection;
    selection.scene = {"resolver 10.77.0.53", "gateway 10.77.0.1:443",
                       "answer good.example 10.77.0.1"};
    selection.scene.insert(selection.scene.end(), more.begin(), more.end());
    return selection;
  }

  /// The object that the command has written; a failure of the test if it is none.
  static json Run(const WanSelection& selection, int exitStatus = 0) {
    const WanSelection::Outcome outcome = selection.Run();
    EXPECT_EQ(exitStatus, outcome.exitStatus) << outcome.err;
    EXPECT_TRUE(std::ranges::all_of(outcome.log, isLegible)) << outcome.log;
    return json::parse(outcome.out, nullptr, false);
  }

  static json ResultOf(const json& object, const std::string& headend) {
    for (const json& result : object.value("results", json::array())) {
      if (result.at("headend") == headend) {
        return result;
      }
    }
    ADD_FAILURE() << headend << " is missing in " << object.dump();
    return {{"outcome", ""}, {"probes", json::array()}};
  }

  static bool isControl(char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == 127;
  }
  static bool isLegible(char c) { return (c >= ' ' && c <= '~') || c == '\n'; }
};

TEST_F(Names, ThatCannotBeResolvedAreToldAndDoNotHoldUpTheOthers) {
  WanSelection selection =
      Scene({"answer failing.example failure", "answer loop.example loop",
             "answer garbage.example garbage", "answer six-alone.example odd-name fd77::9"});
  selection.hosts = {"good.example", "nobody.example", "failing.example", "loop.example",
                     "garbage.example"};
  selection.resolverOptions = "timeout:5 attempts:1";
  selection.pingTimeoutMs = 10'000;
  const json object = Run(selection);

  EXPECT_EQ(json({"good.example"}), object.at("headends"));
  EXPECT_EQ("answered", ResultOf(object, "good.example").at("outcome"));
  for (const char* host : {"nobody.example", "failing.example", "loop.example"}) {
    const json result = ResultOf(object, host);
    EXPECT_EQ("name not resolved", result.at("outcome")) << host;
    EXPECT_EQ(json::array(), result.at("samplesMs"));
    EXPECT_THAT(result.at("probes"), SizeIs(1)) << "a worker gives up with the first";
  }
  EXPECT_TRUE(ResultOf(object, "garbage.example").at("metricMs").is_null());
}

TEST_F(Names, ASilentNameServerDoesNotHoldUpAProbesTimeOut) {
  WanSelection selection = Scene({"answer quiet.example silence"});
  selection.hosts = {"good.example", "quiet.example"};
  selection.pingTimeoutMs = 1000;
  selection.resolverOptions = "timeout:30 attempts:5";
  const json object = Run(selection);

  const json result = ResultOf(object, "quiet.example");
  EXPECT_EQ("timed out", result.at("outcome"));
  ASSERT_THAT(result.at("probes"), SizeIs(2));
  for (const json& probe : result.at("probes")) {
    EXPECT_LT(probe.at("totalMs"), MuchLaterMs);
  }
  EXPECT_LT(object.at("elapsedMs"), 30'000) << "the resolver was waited for";
}

/// A name with an address of each family, one of which is of no use.
struct Eyeballs {
  const char* name;
  std::vector<std::string> scene;
  const char* living;
  bool waits;  ///< for the dead one, before it turns to the other
};

void PrintTo(const Eyeballs& eyeballs, std::ostream* stream) { *stream << eyeballs.name; }

class NamesOfBothFamilies : public Names, public testing::WithParamInterface<Eyeballs> {};

TEST_P(NamesOfBothFamilies, AreReachedByTheLivingOne) {
  constexpr double RoundTripMs = 200;
  WanSelection selection = Scene({"answer both.example fd77::2 10.77.0.2"});
  selection.scene.insert(selection.scene.end(), GetParam().scene.begin(), GetParam().scene.end());
  selection.hosts = {"both.example"};
  const json result = ResultOf(Run(selection), "both.example");

  EXPECT_EQ("answered", result.at("outcome"));
  ASSERT_THAT(result.at("probes"), SizeIs(3));
  for (const json& probe : result.at("probes")) {
    EXPECT_EQ(GetParam().living, probe.at("address"));
    EXPECT_EQ("0x00000000", probe.at("status"));
    // The living connection's own, without the time that the dead one cost.
    EXPECT_GE(probe.at("networkRttMs"), RoundTripMs);
    EXPECT_LT(probe.at("networkRttMs"), 2 * RoundTripMs);
    if (GetParam().waits) {
      EXPECT_GT(probe.at("connectMs"), probe.at("networkRttMs").get<double>() + RoundTripMs / 2);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    OfWhich, NamesOfBothFamilies,
    testing::Values(
        Eyeballs{"Ipv6IsDead",
                 {"path fd77::2 loss=100", "path 10.77.0.2 rtt=200", "gateway 10.77.0.2:443"},
                 "10.77.0.2",
                 true},
        Eyeballs{"Ipv6Refuses",
                 {"path fd77::2 rtt=200", "path 10.77.0.2 rtt=200", "gateway 10.77.0.2:443"},
                 "10.77.0.2",
                 false},
        Eyeballs{"Ipv4IsDead",
                 {"path 10.77.0.2 loss=100", "path fd77::2 rtt=200", "gateway [fd77::2]:443"},
                 "fd77::2",
                 false},
        Eyeballs{"Ipv4Refuses",
                 {"path 10.77.0.2 rtt=200", "path fd77::2 rtt=200", "gateway [fd77::2]:443"},
                 "fd77::2",
                 false}),
    [](const auto& param) { return param.param.name; });

TEST_F(Names, OfHundredsOfDeadAddressesDoNotOutlastAProbesTimeOut) {
  std::string answer = "answer many.example";
  for (int i = 1; i <= 200; ++i) {
    answer += " 10.77.9." + std::to_string(i);
  }
  WanSelection selection = Scene({"path default loss=100", "path 10.77.0.53 rtt=1",
                                  "path 10.77.0.1 rtt=1", answer + " 10.77.0.1"});
  selection.hosts = {"good.example", "many.example"};
  selection.pingTimeoutMs = 1000;
  const json object = Run(selection);

  const json result = ResultOf(object, "many.example");
  EXPECT_EQ("timed out", result.at("outcome"));
  ASSERT_THAT(result.at("probes"), SizeIs(2));
  for (const json& probe : result.at("probes")) {
    EXPECT_LT(probe.at("totalMs"), MuchLaterMs);
  }
}

TEST_F(Names, WithOneDeadAddressAreReachedByTheNext) {
  WanSelection selection = Scene({"path 10.77.9.1 loss=100", "path 10.77.0.1 rtt=20",
                                  "answer two.example 10.77.9.1 10.77.0.1"});
  selection.hosts = {"two.example"};
  // An address may take up half of it.
  selection.pingTimeoutMs = 6000;
  const json result = ResultOf(Run(selection), "two.example");

  EXPECT_EQ("answered", result.at("outcome"));
  for (const json& probe : result.at("probes")) {
    EXPECT_EQ("10.77.0.1", probe.at("address"));
    EXPECT_GE(probe.at("networkRttMs"), 20);
    EXPECT_LT(probe.at("networkRttMs"), 200);
  }
}

TEST_F(Names, AThousandAtOnceAreAllMeasured) {
  constexpr int Count = 1000;
  constexpr double RoundTripMs = 20;
  WanSelection selection = Scene({"path default rtt=20"});
  selection.pingTimeoutMs = 40'000;
  // A server that is slow in telling them all is no failure, and neither is a packet that is lost.
  selection.resolverOptions = "timeout:10 attempts:3";
  for (int i = 0; i < Count; ++i) {
    const std::string name = "gw" + std::to_string(i) + ".example";
    const std::string address =
        "10.77." + std::to_string(1 + i / 250) + "." + std::to_string(1 + i % 250);
    selection.scene.push_back("gateway " + address + ":443");
    selection.scene.push_back("answer " + name + " " + address);
    selection.hosts.push_back(name);
  }
  const json object = Run(selection);

  EXPECT_THAT(object.at("headends"), SizeIs(Count));
  for (const json& result : object.at("results")) {
    EXPECT_EQ("answered", result.at("outcome")) << result.at("headend");
    EXPECT_GE(result.at("metricMs"), RoundTripMs);
  }
}

TEST_F(Names, ThatAreOddLeaveOutputAndLogLegible) {
  WanSelection selection = Scene({"answer odd.example odd-name 10.77.0.1"});
  selection.hosts = {"good.example",
                     "odd.example",
                     "xn--.example",
                     "xn--bcher-kva.example",
                     "bücher.example",
                     "a--b_c.example",
                     std::string(63, 'l') + ".example",
                     std::string(64, 'l') + ".example"};
  const WanSelection::Outcome outcome = selection.Run();

  EXPECT_EQ(0, outcome.exitStatus) << outcome.err;
  const json object = json::parse(outcome.out, nullptr, false);
  ASSERT_FALSE(object.is_discarded()) << outcome.out;
  EXPECT_EQ("answered", ResultOf(object, "good.example").at("outcome"));
  for (std::size_t i = 2; i < selection.hosts.size(); ++i) {
    EXPECT_EQ("name not resolved", ResultOf(object, selection.hosts[i]).at("outcome"));
  }
  EXPECT_TRUE(std::ranges::none_of(outcome.out, isControl)) << outcome.out;
  EXPECT_TRUE(std::ranges::none_of(outcome.log, isControl)) << outcome.log;
}

TEST_F(Names, OfBytesThatNoHostHasAreRefusedLegibly) {
  for (const char* host : {"gw\x1b[31m.example", "gw\n.example", "gw .example", "gw\xff.example",
                           "gw\x7f.example", "gw%00.example", "..", "gw\xC2\x9B.example"}) {
    WanSelection selection = Scene({});
    selection.hosts = {host};
    const WanSelection::Outcome outcome = selection.Run();
    EXPECT_EQ(2, outcome.exitStatus) << host;
    EXPECT_EQ("", outcome.out) << host;
    EXPECT_TRUE(std::ranges::none_of(outcome.err, isControl)) << outcome.err;
  }
}

}  // namespace
}  // namespace tests
