// Which round trip counts, by what is known of all connections.

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "vpn/Common/IP/RoundTripEvidence.h"

namespace tests {
namespace {

using Doubt = RoundTripDoubt;
using std::chrono::milliseconds;

/// A probe of the first address; times in milliseconds. -1 for a connection that does not stand.
struct KNOWLEDGE {
  const char* what;
  std::vector<double> openings;
  double network;
  double response;
  double counts;
  Doubt doubt;
  int pendingSince = 100;
};

long long inUs(double time) { return static_cast<long long>(time * 1000); }

TEST(RoundTripEvidence, DecidesWhichRoundTripCounts) {
  const std::vector<KNOWLEDGE> table = {
      {"nothing", {}, 20, 90, 20, Doubt::None},
      {"distances differ", {20, 60, 90}, 20, 90, 20, Doubt::None},
      {"a box", {1, 1.5, 2.9}, 1, 90, 90, Doubt::NearBox},
      {"a box, and the gateway beside it", {1, 1.5, 2}, 1, 4, 1, Doubt::None},
      {"a box, and an answer sent ahead", {2.5, 1, 1}, 2, 6, 6, Doubt::NearBox},
      {"the same, of one that opens late", {50, 1, 1, 1, 1, 1, 1, 1}, 1, 6, 50, Doubt::NearBox},
      {"two alike are no box", {1, 1.5}, 1, 90, 1, Doubt::None},
      {"one town is no box while one is elsewhere", {1, 1, 1, 9}, 1, 90, 1, Doubt::None},
      {"one data centre, too far for a box", {40, 40, 40}, 40, 90, 40, Doubt::None},
      {"a box, and a lost packet", {1, 1, 1, 1, 1, 1, 1, -1}, 1, 90, 90, Doubt::NearBox},
      {"others do not open", {1, 1, 1, -1, -1}, 1, 90, 1, Doubt::None},
      {"others cannot have been seen yet", {1, -1, -1}, 1, 90, 90, Doubt::NearBox, 5},
      {"an acknowledgement sent ahead", {100}, 4, 5, 73, Doubt::EarlyAcknowledgement},
      {"the same, or jitter", {100}, 40, 140, 55, Doubt::EarlyAcknowledgement},
      {"what holds up openings, near", {240}, 40, 40, 160, Doubt::EarlyAcknowledgement},
      {"what holds up openings, farther", {280}, 80, 80, 170, Doubt::EarlyAcknowledgement},
      {"jitter", {39}, 20, 60, 20, Doubt::None},
      {"a process that woke late", {0.9}, 0.1, 1, 0.1, Doubt::None},
  };
  const auto start = RoundTripEvidence::Clock::now();
  for (const KNOWLEDGE& known : table) {
    RoundTripEvidence evidence;
    for (std::size_t i = 0; i < known.openings.size(); ++i) {
      const std::string name = std::to_string(i);
      evidence.connecting({name, 443}, start);
      if (known.openings[i] >= 0) {
        evidence.opened({name, 443}, {"192.0.2." + name, 443}, inUs(known.openings[i]));
      }
    }
    const RoundTripEvidence::Verdict verdict =
        evidence.weigh({"192.0.2.0", 443}, {inUs(known.network), inUs(known.response), -1},
                       start + milliseconds(known.pendingSince));
    EXPECT_EQ(verdict.roundTripUs, inUs(known.counts)) << known.what;
    EXPECT_EQ(verdict.doubt, known.doubt) << known.what;
  }
}

TEST(RoundTripEvidence, TakesASlowHeadendOfADataCentreForNoBox) {
  RoundTripEvidence evidence;
  const auto now = RoundTripEvidence::Clock::now();
  for (const auto& [name, response, doubt] :
       {std::tuple{"a", 90'000, Doubt::None}, std::tuple{"b", 90'000, Doubt::None},
        std::tuple{"c", 90'000, Doubt::NearBox}, std::tuple{"d", 3'000, Doubt::None},
        std::tuple{"e", 3'000, Doubt::None}, std::tuple{"f", 3'000, Doubt::None},
        std::tuple{"a", 90'000, Doubt::None}}) {
    evidence.opened({name, 443}, {name, 443}, 3'000);
    EXPECT_EQ(evidence.weigh({name, 443}, {3'000, response, 3'000}, now).doubt, doubt) << name;
  }
}

TEST(RoundTripEvidence, TakesTheSmallestOpeningOfAnAddressAndForgetsHostsThatFailed) {
  RoundTripEvidence evidence;
  const auto start = RoundTripEvidence::Clock::now();
  for (const char* const host : {"a", "b", "c"}) {
    evidence.opened({host, 443}, {"192.0.2.1", 443}, 1'000);
    evidence.opened({host, 443}, {"192.0.2.1", 443}, 90'000);
    evidence.connecting({"dead", 443}, start);
    evidence.ended({"dead", 443});
  }
  const auto verdict =
      evidence.weigh({"192.0.2.1", 443}, {1'000, 90'000, 90'000}, start + milliseconds(5));
  EXPECT_EQ(verdict.doubt, Doubt::None) << "it is one address";
  EXPECT_EQ(verdict.roundTripUs, 1'000);
}

TEST(RoundTripEvidence, SeesABoxForOnePortAloneAndOneForPortsOfFewHeadends) {
  RoundTripEvidence evidence;
  RoundTripEvidence fewOfAPort;
  const auto now = RoundTripEvidence::Clock::now();
  for (const auto& [name, port, opening] :
       {std::tuple{"a", 443, 1'000}, std::tuple{"b", 443, 1'000}, std::tuple{"c", 443, 1'000},
        std::tuple{"d", 8443, 20'000}, std::tuple{"e", 8443, 60'000}}) {
    const RoundTripEvidence::Place place(name, static_cast<unsigned short>(port));
    evidence.opened(place, place, opening);
    fewOfAPort.opened({name, name[0]}, {name, name[0]}, 1'000);
  }
  EXPECT_EQ(evidence.weigh({"a", 443}, {1'000, 90'000, -1}, now).doubt, Doubt::NearBox);
  EXPECT_EQ(evidence.weigh({"d", 8443}, {20'000, 90'000, -1}, now).doubt, Doubt::None);
  EXPECT_EQ(fewOfAPort.weigh({"d", 'd'}, {1'000, 90'000, -1}, now).doubt, Doubt::NearBox);
}

}  // namespace
}  // namespace tests
