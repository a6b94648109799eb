// What became of each headend, from probes and records.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/ExitStatus.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/include/HttpSession.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

HttpProbe::Report ended(STATUSCODE status, unsigned int rttMs = 0) {
  HttpProbe::Report probe;
  probe.status = status;
  probe.rttMs = rttMs;
  return probe;
}

SelectionRecord::Track track(unsigned int started, std::vector<HttpProbe::Report> reports) {
  SelectionRecord::Track result;
  result.started = started;
  result.ended = std::move(reports);
  return result;
}

std::string failedOutcome(STATUSCODE status) {
  const SelectionRecord::Track one = track(1, {ended(status)});
  return outcomeName(outcomeOf(&one, false, false));
}

std::string measuredOutcome(STATUSCODE status) {
  const SelectionRecord::Track one = track(1, {ended(status, 5)});
  return outcomeName(outcomeOf(&one, true, false));
}

Candidate candidate(const std::string& headend, unsigned short port = 443) {
  return {headend, headend, placeOf(headend.substr(0, headend.find(':')), port)};
}

}  // namespace

TEST(Outcome, OfAHeadendWithoutAResultSaysWhyThereIsNone) {
  EXPECT_EQ(failedOutcome(HTTP_SESSION_ERROR_CANNOT_CONNECT), "cannot connect");
  EXPECT_EQ(failedOutcome(HTTP_SESSION_ERROR_CONNECT), "cannot connect");
  EXPECT_EQ(failedOutcome(HTTP_SESSION_ERROR_TIMEOUT), "timed out");
  EXPECT_EQ(failedOutcome(HTTP_SESSION_ERROR_DNS_RESOLUTION), "name not resolved");
}

TEST(Outcome, OfAMeasuredHeadendSaysHowItAnswered) {
  EXPECT_EQ(measuredOutcome(HTTP_SESSION_SUCCESS), "answered");
  EXPECT_EQ(measuredOutcome(HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE), "untrusted certificate");
  EXPECT_EQ(measuredOutcome(HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED),
            "client certificate wanted");
  EXPECT_EQ(measuredOutcome(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE), "not HTTP");
  EXPECT_EQ(measuredOutcome(HEADENDSELECTION_ERROR_UNKNOWN), "failed");
}

TEST(Outcome, OfAMeasuredHeadendIsNotSpoiltByALostProbe) {
  const SelectionRecord::Track lostLast =
      track(2, {ended(HTTP_SESSION_SUCCESS, 5), ended(HTTP_SESSION_ERROR_TIMEOUT)});
  EXPECT_STREQ(outcomeName(outcomeOf(&lostLast, true, false)), "answered");
}

TEST(Outcome, OfAProbeThatIsStillOutIsNoAnswerInTime) {
  const SelectionRecord::Track out = track(1, {});
  EXPECT_STREQ(outcomeName(outcomeOf(&out, false, false)), "no answer in time");
}

TEST(Outcome, OfAHeadendThatAnsweredButWasCutShortIsNotFinishedInTime) {
  const SelectionRecord::Track cut = track(2, {ended(HTTP_SESSION_SUCCESS, 5)});
  EXPECT_STREQ(outcomeName(outcomeOf(&cut, false, false)), "not finished in time");
}

TEST(Outcome, WithoutAnyProbeIsNotProbed) {
  EXPECT_STREQ(outcomeName(outcomeOf(nullptr, false, false)), "not probed");
}

TEST(Outcome, OfACachedSelectionNamesTheCache) {
  EXPECT_STREQ(outcomeName(outcomeOf(nullptr, true, true)), "from cache");
  EXPECT_STREQ(outcomeName(outcomeOf(nullptr, false, true)), "not in cache");
}

TEST(CollectResults, TellsEveryCandidateTheDeliveredOnesFirst) {
  const std::map<Place, SelectionRecord::Track> tracks = {
      {{"gw-a", 443}, track(2, {ended(0, 40), ended(0, 41)})},
      {{"gw-b", 8443}, track(2, {ended(0, 20), ended(HTTP_SESSION_ERROR_TIMEOUT)})},
      {{"gw-c", 443},
       track(2, {ended(HTTP_SESSION_ERROR_CANNOT_CONNECT),
                 ended(HTTP_SESSION_ERROR_CANNOT_CONNECT)})}};
  const auto results = collectResults(
      {"gw-b:8443", "gw-a"}, {candidate("gw-a"), candidate("gw-b:8443", 8443), candidate("gw-c")},
      tracks, {CHeadendRTT("gw-a", 40), CHeadendRTT("gw-b:8443", 20)}, false);
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].headend, "gw-b:8443");
  EXPECT_EQ(results[0].metricMs, 20U);
  EXPECT_THAT(results[0].samplesMs, ElementsAre(20));
  EXPECT_STREQ(outcomeName(results[0].outcome), "answered");
  EXPECT_EQ(results[0].probes.size(), 2U);
  EXPECT_EQ(results[1].headend, "gw-a");
  EXPECT_THAT(results[1].samplesMs, ElementsAre(40, 41));
  EXPECT_EQ(results[2].headend, "gw-c");
  EXPECT_EQ(results[2].metricMs, std::nullopt);
  EXPECT_THAT(results[2].samplesMs, IsEmpty());
  EXPECT_STREQ(outcomeName(results[2].outcome), "cannot connect");
}

TEST(CollectResults, AHeadendOfTwoEntriesIsToldOnce) {
  const auto results = collectResults({"gw-a", "gw-a"}, {candidate("gw-a"), candidate("gw-a")}, {},
                                      {CHeadendRTT("gw-a", 7), CHeadendRTT("gw-a", 5)}, false);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].metricMs, 5U);
}

TEST(CollectResults, AHeadendHasTheNameOfItsFirstEntry) {
  const auto results = collectResults(
      {"gw-a"}, {{"Bern", "gw-a", placeOf("gw-a", 443)}, {"Capital", "gw-a", placeOf("gw-a", 443)}},
      {}, {}, false);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].name, "Bern");
  EXPECT_EQ(titleOf(results[0]), "gw-a (Bern)");
}

TEST(CollectResults, TheHeadendThatIsOnlyRetainedHasNoMetric) {
  const auto results = collectResults({"gw-a"}, {candidate("gw-a")}, {}, {}, false);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].metricMs, std::nullopt);
}

TEST(ExitStatusOfASelection, IsZeroForBothKindsOfSuccess) {
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_SUCCESS), ExitSelected);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_ADDED_TO_CACHE), ExitSelected);
}

TEST(ExitStatusOfASelection, TellsAProxyAConfigurationAndAFailureApart) {
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED), ExitProxyAsks);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_NO_HEADENDS), ExitUsage);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_SELECTION_FAILURE), ExitNotMeasured);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_TIMEOUT), ExitNotMeasured);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_CACHE_FAILURE), ExitNotMeasured);
}
