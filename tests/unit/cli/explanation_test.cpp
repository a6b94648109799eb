// The reasons for a selection's result: numbers and words.

#include "cli/show/Explanation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <tuple>
#include <utility>

#include "cli/show/SelectionOutput.h"
#include "tests/unit/cli/some_results.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr unsigned int Reconnection = 1;

SelectionResult reconnection(const std::string& last, const std::vector<HeadendResult>& results) {
  SelectionResult result = measured(results);
  result.reason = Reconnection;
  result.last = last;
  return result;
}

HttpProbe::Report probe(long long networkUs, long long responseUs) {
  HttpProbe::Report report;
  report.networkRttUs = networkUs;
  report.responseRttUs = responseUs;
  return report;
}

}  // namespace

TEST(Decision, IsTheSmallestMetric) {
  const SelectionResult result =
      measured({headend("gw-b", 18), headend("gw-a", 41), headend("gw-c", std::nullopt)});
  const Decision decision = decisionOf(result);
  ASSERT_NE(decision.best, nullptr);
  EXPECT_EQ(decision.best->headend, "gw-b");
  EXPECT_EQ(decision.last, nullptr);
  EXPECT_FALSE(decision.ratio);
  EXPECT_EQ(decisionInWords(result), "Chose gw-b: 18 ms, the smallest of 2 metrics.");
  EXPECT_EQ(decisionInWords(measured({headend("a", 9), headend("b", 9), headend("c", 9)})),
            "Chose a: 9 ms, the smallest of 3 metrics; 2 others are as near.");
  EXPECT_EQ(decisionInWords(measured({headend("gw-a", 41)})),
            "Chose gw-a: 41 ms, the only metric.");
}

TEST(Decision, NamesTheHostEntriesBesideTheAddresses) {
  SelectionResult result = reconnection("gw-b", {headend("gw-b", 46), headend("gw-a", 40)});
  result.results[0].name = "Bern\x1b[31m";
  result.results[1].name = "Aarau";
  result.results[1].probes = {probe(2'000, 95'000)};
  EXPECT_EQ(decisionInWords(result),
            "Stays with gw-b (Bern\\x1b[31m): 46 ms, less than 1.20 times the best metric, 40 ms "
            "of gw-a (Aarau).");
  EXPECT_THAT(explanation(result), HasSubstr("best:       gw-a (Aarau)  40 ms\n"));
  EXPECT_THAT(explanation(result), HasSubstr("gw-a (Aarau)'s network answers in 2.0 ms"));
}

TEST(Decision, KeepsTheLastHeadendBelowTheThreshold) {
  const SelectionResult result =
      reconnection("gw-b", {headend("gw-b", 46), headend("gw-a", 40), headend("gw-c", 90)});
  const Decision decision = decisionOf(result);
  EXPECT_TRUE(decision.isRetained);
  EXPECT_FLOAT_EQ(*decision.ratio, 1.15F);
  EXPECT_FLOAT_EQ(*decision.threshold, 1.2F);
  EXPECT_EQ(decisionInWords(result),
            "Stays with gw-b: 46 ms, less than 1.20 times the best metric, 40 ms of gw-a.");
  EXPECT_THAT(explanation(result), HasSubstr("46 / 40 = 1.150, less: it stays"));
}

TEST(Decision, LeavesTheLastHeadendAtATieWithTheThresholdOrWhereTheBestIsAtNoDistance) {
  for (const auto& [best, last, words] :
       {std::tuple{40U, 48U, "48 / 40 = 1.200, not less: it goes"},
        std::tuple{0U, 0U, "0 / 0 = no number, not less: it goes"},
        std::tuple{0U, 3U, "3 / 0 = infinite, not less: it goes"}}) {
    const SelectionResult result =
        reconnection("gw-b", {headend("gw-a", best), headend("gw-b", last)});
    EXPECT_FALSE(decisionOf(result).isRetained);
    EXPECT_THAT(explanation(result), HasSubstr(words));
  }
}

TEST(Decision, NamesNoOtherHeadendWhereTheLastOneIsTheBest) {
  const SelectionResult result = reconnection("gw-a", {headend("gw-a", 40), headend("gw-b", 48)});
  EXPECT_TRUE(decisionOf(result).isRetained);
  EXPECT_EQ(decisionInWords(result),
            "Stays with gw-a: 40 ms, less than 1.20 times the best metric, 40 ms.");
}

TEST(Decision, AppliesNoRuleToALastHeadendWithoutAMetric) {
  const SelectionResult result =
      reconnection("gw-b", {headend("gw-a", 40), headend("gw-b", std::nullopt)});
  EXPECT_FALSE(decisionOf(result).ratio);
  EXPECT_THAT(explanation(result), HasSubstr("last:       gw-b  no metric: timed out"));
}

TEST(Decision, SuspectsAMiddleboxWhereTheNetworkAnswersLongBeforeTheGateway) {
  SelectionResult result = measured({headend("gw-a", 2), headend("gw-b", 3)});
  result.results[0].probes = {probe(2'000, 95'000), probe(1'900, 99'000)};
  result.results[1].probes = {probe(3'000, 20'000)};
  const Decision decision = decisionOf(result);
  ASSERT_EQ(decision.earlyAnswers.size(), 1U);
  EXPECT_EQ(decision.earlyAnswers[0].headend, "gw-a");
  EXPECT_EQ(decision.earlyAnswers[0].networkUs, 1'900);
  EXPECT_EQ(decision.earlyAnswers[0].responseUs, 95'000);
  EXPECT_THAT(explanation(result), HasSubstr("gw-a's network answers in 1.9 ms, it itself in "
                                             "95.0 ms"));
  EXPECT_THAT(explanation(result), HasSubstr("RoundTripTime"));
  result.measure = "response";
  EXPECT_THAT(explanation(result), HasSubstr("odd:"));
  EXPECT_THAT(explanation(result), Not(HasSubstr("RoundTripTime"))) << "it is in force already";
  result.results[0].probes = {probe(100, 25'000)};
  result.results[1].probes = {probe(200'000, 260'000)};
  EXPECT_TRUE(decisionOf(result).earlyAnswers.empty()) << "both are short, or alike";
}

TEST(Explanation, NamesTheEvidenceAgainstTheNetworksRoundTrip) {
  SelectionResult result = measured({headend("gw-a", 95), headend("gw-b", 97)});
  for (HeadendResult& each : result.results) {
    each.probes = {probe(1'000, 95'000)};
    each.probes[0].doubt = RoundTripDoubt::NearBox;
    each.probes[0].openingUs = 1'100;
  }
  EXPECT_THAT(explanation(result),
              HasSubstr("gw-a opens in 1.1 ms, answers in 95.0 ms; so do 1 more"));
  EXPECT_THAT(explanation(result), Not(HasSubstr("odd:")));
  result.results[1].probes[0].doubt = RoundTripDoubt::EarlyAcknowledgement;
  EXPECT_THAT(explanation(result), HasSubstr("gw-b acknowledges in 1.0 ms, opens in 1.1 ms\n"));
}

TEST(Explanation, TellsWhenItWasDecidedAndIfItWasAnotherInTheEnd) {
  SelectionResult result = measured({headend("gw-a", 40), headend("gw-b", 48)});
  EXPECT_THAT(explanation(result), Not(HasSubstr("decided:")));
  for (const auto& [headend, words] :
       {std::pair{"gw-a", "decided:    after 90 ms\n"},
        std::pair{"gw-b", "decided:    after 90 ms: gw-b, not the one of the end\n"}}) {
    result.decided = {"", headend, 40, std::chrono::milliseconds(90)};
    EXPECT_THAT(explanation(result), HasSubstr(words));
  }
}

TEST(Explanation, TellsWhenTheCacheMeasured) {
  SelectionResult result = measured({headend("gw-a", 40)});
  result.status = HEADENDSELECTION_SUCCESS;
  result.fromCache = true;
  result.cacheAge = std::chrono::seconds(119);
  result.cacheLife = std::chrono::minutes(10);
  EXPECT_THAT(explanation(result),
              HasSubstr("the cache; measured 119 seconds ago, used for 10 minutes"));
  EXPECT_THAT(textOutput(result), HasSubstr("Remembered from 119 seconds ago"));
}

TEST(Explanation, NamesTheHeadendsWithoutAMetricUpToATenth) {
  std::vector<HeadendResult> results = {headend("gw", 40)};
  for (int i = 0; i < 12; ++i) {
    results.push_back(headend("lost-" + std::to_string(i), std::nullopt));
  }
  const std::string text = explanation(measured(results));
  EXPECT_THAT(text, HasSubstr("no metric:  lost-0  timed out\n"));
  EXPECT_THAT(text, HasSubstr("lost-9  timed out\n"));
  EXPECT_THAT(text, Not(HasSubstr("lost-10")));
  EXPECT_THAT(text, HasSubstr("and 2 more\n"));
}

TEST(Explanation, OfAFailureIsTheStatusInWords) {
  SelectionResult result;
  result.status = HEADENDSELECTION_ERROR_SELECTION_FAILURE;
  result.results = {headend("gw-a", std::nullopt)};
  EXPECT_EQ(decisionInWords(result), "No headend could be measured.");
  EXPECT_THAT(explanation(result), HasSubstr("best:       none has a metric\n"));
}
