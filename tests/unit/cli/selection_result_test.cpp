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

using Track = SelectionRecord::Track;

/// So many started, and each that ended with its round trip, 5 ms where it was answered.
Track track(unsigned int started, const std::vector<STATUSCODE>& statuses) {
  Track result;
  result.started = started;
  for (const STATUSCODE status : statuses) {
    HttpProbe::Report probe;
    probe.status = status;
    probe.rttMs = status == HTTP_SESSION_SUCCESS ? 5 : 0;
    result.ended.push_back(probe);
  }
  return result;
}

Candidate candidate(const std::string& headend, unsigned short port = 443) {
  return {headend, headend, placeOf(headend.substr(0, headend.find(':')), port)};
}

}  // namespace

TEST(Outcome, SaysHowAHeadendAnsweredOrWhyThereIsNoResult) {
  struct Case {
    Track track;
    bool isMeasured;
    const char* outcome;
  };
  constexpr STATUSCODE Answered = HTTP_SESSION_SUCCESS;
  for (const Case& each :
       {Case{track(1, {HTTP_SESSION_ERROR_CANNOT_CONNECT}), false, "cannot connect"},
        Case{track(1, {HTTP_SESSION_ERROR_CONNECT}), false, "cannot connect"},
        Case{track(1, {HTTP_SESSION_ERROR_TIMEOUT}), false, "timed out"},
        Case{track(1, {HTTP_SESSION_ERROR_DNS_RESOLUTION}), false, "name not resolved"},
        Case{track(1, {}), false, "no answer in time"},
        Case{track(2, {Answered}), false, "not finished in time"},
        Case{track(1, {Answered}), true, "answered"},
        Case{track(2, {Answered, HTTP_SESSION_ERROR_TIMEOUT}), true, "answered"},
        Case{track(1, {HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE}), true, "untrusted certificate"},
        Case{track(1, {HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED}), true,
             "client certificate wanted"},
        Case{track(1, {HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE}), true, "not HTTP"},
        Case{track(1, {HEADENDSELECTION_ERROR_UNKNOWN}), true, "failed"}}) {
    EXPECT_STREQ(outcomeName(outcomeOf(&each.track, each.isMeasured, false)), each.outcome);
  }
  EXPECT_STREQ(outcomeName(outcomeOf(nullptr, false, false)), "not probed");
  for (const auto& [shortage, words] :
       {std::pair(Shortage::Descriptors, "this machine ran out of descriptors"),
        std::pair(Shortage::Threads, "this machine ran out of threads"),
        std::pair(Shortage::Memory, "this machine ran out of memory")}) {
    Track lacking = track(1, {HTTP_SESSION_ERROR_CANNOT_CONNECT});
    lacking.ended.back().shortage = shortage;
    EXPECT_STREQ(outcomeName(outcomeOf(&lacking, false, false)), words);
    EXPECT_STREQ(outcomeName(outcomeOf(nullptr, false, false, shortage)), words);
  }
  EXPECT_STREQ(outcomeName(outcomeOf(nullptr, true, true)), "from cache");
  EXPECT_STREQ(outcomeName(outcomeOf(nullptr, false, true)), "not in cache");
}

TEST(CollectResults, TellsEveryCandidateTheDeliveredOnesFirst) {
  const std::map<Place, Track> tracks = {
      {{"gw-a", 443}, track(2, {0, 0})},
      {{"gw-b", 8443}, track(2, {0, HTTP_SESSION_ERROR_TIMEOUT})},
      {{"gw-c", 443},
       track(2, {HTTP_SESSION_ERROR_CANNOT_CONNECT, HTTP_SESSION_ERROR_CANNOT_CONNECT})}};
  const auto results = collectResults(
      {"gw-b:8443", "gw-a"}, {candidate("gw-a"), candidate("gw-b:8443", 8443), candidate("gw-c")},
      tracks, {CHeadendRTT("gw-a", 40), CHeadendRTT("gw-b:8443", 20)}, false);
  ASSERT_EQ(results.size(), 3U);
  EXPECT_EQ(results[0].headend, "gw-b:8443");
  EXPECT_EQ(results[0].metricMs, 20U);
  EXPECT_THAT(results[0].samplesMs, ElementsAre(5));
  EXPECT_STREQ(outcomeName(results[0].outcome), "answered");
  EXPECT_EQ(results[0].probes.size(), 2U);
  EXPECT_EQ(results[1].headend, "gw-a");
  EXPECT_THAT(results[1].samplesMs, ElementsAre(5, 5));
  EXPECT_EQ(results[2].headend, "gw-c");
  EXPECT_EQ(results[2].metricMs, std::nullopt);
  EXPECT_THAT(results[2].samplesMs, IsEmpty());
  EXPECT_STREQ(outcomeName(results[2].outcome), "cannot connect");
}

TEST(CollectResults, AHeadendOfTwoEntriesIsToldOnceByTheNameOfTheFirst) {
  const auto results = collectResults(
      {"gw-a", "gw-a"},
      {{"Bern", "gw-a", placeOf("gw-a", 443)}, {"Capital", "gw-a", placeOf("gw-a", 443)}}, {},
      {CHeadendRTT("gw-a", 7), CHeadendRTT("gw-a", 5)}, false);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].metricMs, 5U);
  EXPECT_EQ(titleOf(results[0]), "gw-a (Bern)");
}

TEST(CollectResults, TheHeadendThatIsOnlyRetainedHasNoMetric) {
  const auto results = collectResults({"gw-a"}, {candidate("gw-a")}, {}, {}, false);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].metricMs, std::nullopt);
}

TEST(AShortage, IsToldOfWithItsRemedy) {
  SelectionResult result;
  result.results = collectResults({}, {candidate("gw-a"), candidate("gw-b")},
                                  {{{"gw-a", 443}, track(1, {0})}}, {}, false, Shortage::Threads);
  EXPECT_THAT(shortageIn(result),
              testing::StartsWith("this machine ran out of threads: 1 of 2 headends were not "
                                  "measured, and the selection is not remembered."));
  EXPECT_EQ(shortageIn({}), "");
}

TEST(ExitStatusOfASelection, TellsSuccessProxyConfigurationAndFailureApart) {
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_SUCCESS), ExitSelected);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_ADDED_TO_CACHE), ExitSelected);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED), ExitProxyAsks);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_NO_HEADENDS), ExitUsage);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_SELECTION_FAILURE), ExitNotMeasured);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_TIMEOUT), ExitNotMeasured);
  EXPECT_EQ(exitStatusOf(HEADENDSELECTION_ERROR_CACHE_FAILURE), ExitNotMeasured);
}
