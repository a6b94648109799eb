// What is remembered of probes.

#include <gtest/gtest.h>

#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/include/HttpSession.h"

namespace {

HttpProbe::Report report(const std::string& host, STATUSCODE status, unsigned int rttMs = 0,
                         bool testsTheWay = false) {
  HttpProbe::Report probe;
  probe.host = host;
  probe.port = 443;
  probe.options = HttpProbe::HTTP_PROBE_RETURN_RTT;
  if (testsTheWay) {
    probe.options |= HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS;
  }
  probe.status = status;
  probe.rttMs = rttMs;
  return probe;
}

}  // namespace

TEST(SelectionRecord, TheProbeThatTestsTheWayIsKnownWhileItIsOutAndLeftOutThen) {
  SelectionRecord recorder;
  const HttpProbe::Report test = report("gw", HTTP_SESSION_SUCCESS, 5, true);
  recorder.probeStarted(test);
  EXPECT_EQ(recorder.tracks().at(Place("gw", 443)).testing, 1U);
  recorder.probeEnded(test);
  EXPECT_TRUE(recorder.tracks().empty());
  EXPECT_EQ(recorder.progress().probesEnded, 0U);
  recorder.probeStarted(test);
  recorder.probeStarted(report("gw", 0));
  recorder.probeEnded(test);
  EXPECT_EQ(recorder.tracks().at(Place("gw", 443)).testing, 0U);
  EXPECT_EQ(recorder.tracks().at(Place("gw", 443)).started, 1U);
}

TEST(SelectionRecord, AHeadendThatAnswersTwiceCountsOnceAndARefusalIsNoAnswer) {
  SelectionRecord recorder;
  for (const auto& [host, status] :
       {std::pair{"gw", HTTP_SESSION_SUCCESS}, std::pair{"gw", HTTP_SESSION_SUCCESS},
        std::pair{"no", HTTP_SESSION_ERROR_CANNOT_CONNECT}}) {
    recorder.probeStarted(report(host, 0));
    recorder.probeEnded(report(host, status, 5));
  }
  EXPECT_EQ(recorder.progress().placesAnswered, 1U);
  EXPECT_EQ(recorder.progress().probesEnded, 3U);
}

TEST(SelectionRecord, ASelectionIsDecidedOnceWhenOthersAreFarOrSilent) {
  struct Deciding : SelectionRecord {
    void decided(const Decided& decision) override { told.push_back(decision.headend); }
    std::vector<std::string> told;
  };
  std::vector<Candidate> candidates;
  for (const char* const host : {"gone", "far", "near", "other"}) {
    candidates.push_back({host, host, Place(host, 443)});
  }
  // Silence counts from the test probe on.
  for (const bool wasSilent : {false, true}) {
    Deciding record;
    record.setRules({candidates, 2, 0, nullptr});
    const auto end = [&](const char* host, STATUSCODE status, unsigned int rttMs) {
      record.probeStarted(report(host, 0));
      record.probeEnded(report(host, status, rttMs));
    };
    HttpProbe::Report test = report("gone", HTTP_SESSION_ERROR_TIMEOUT, 0, true);
    test.silent = wasSilent;
    static_cast<void>(record.unanswered(test, std::chrono::milliseconds(400)));
    record.probeEnded(test);
    end("near", HTTP_SESSION_SUCCESS, 11);
    end("near", HTTP_SESSION_SUCCESS, 10);
    record.connected(report("far", 0), 99'000);
    end("other", HTTP_SESSION_ERROR_CANNOT_CONNECT, 0);
    end("other", HTTP_SESSION_ERROR_CANNOT_CONNECT, 0);
    static_cast<void>(record.unanswered(report("gone", 0), std::chrono::milliseconds(200)));
    EXPECT_EQ(record.told.size(), wasSilent ? 1U : 0U);
    static_cast<void>(record.unanswered(report("gone", 0), std::chrono::milliseconds(400)));
    end("gone", HTTP_SESSION_SUCCESS, 1);
    end("gone", HTTP_SESSION_SUCCESS, 1);
    EXPECT_EQ(record.told, std::vector<std::string>{"near"});
    ASSERT_TRUE(record.decision());
    EXPECT_EQ(record.decision()->metricMs, 10U);
  }
}

TEST(SelectionRecord, AnIpv6AddressIsOnePlaceWithOrWithoutBrackets) {
  SelectionRecord recorder;
  recorder.probeStarted(report("[::1]", 0));
  recorder.probeEnded(report("::1", HTTP_SESSION_SUCCESS, 5));
  const auto tracks = recorder.tracks();
  ASSERT_EQ(tracks.size(), 1U);
  EXPECT_EQ(tracks.at(Place("::1", 443)).started, 1U);
  EXPECT_EQ(tracks.at(Place("::1", 443)).ended.size(), 1U);
}
