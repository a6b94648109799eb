// What is remembered of probes.

#include <gtest/gtest.h>

#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/Api/AHS/SelectionRecord.h"
#include "vpn/Api/AHS/SelectionRules.h"
#include "vpn/include/HttpSession.h"

namespace {

HttpProbe::Report report(const std::string& host, STATUSCODE status, unsigned int rttMs = 0) {
  HttpProbe::Report probe;
  probe.host = host;
  probe.port = 443;
  probe.options = HttpProbe::HTTP_PROBE_RETURN_STATUSCODE |
                  HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR | HttpProbe::HTTP_PROBE_RETURN_RTT;
  probe.status = status;
  probe.rttMs = rttMs;
  return probe;
}

}  // namespace

TEST(SelectionRecord, TheProbeThatTestsTheWayIsLeftOut) {
  SelectionRecord recorder;
  HttpProbe::Report test = report("gw", HTTP_SESSION_SUCCESS, 5);
  test.options |= HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS;
  recorder.probeStarted(test);
  recorder.probeEnded(test);
  EXPECT_TRUE(recorder.tracks().empty());
  EXPECT_EQ(recorder.progress().probesEnded, 0U);
}

TEST(SelectionRecord, TheProbeThatTestsTheWayIsKnownWhileItIsOut) {
  SelectionRecord recorder;
  HttpProbe::Report test = report("gw", HTTP_SESSION_SUCCESS, 5);
  test.options |= HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS;
  recorder.probeStarted(test);
  EXPECT_EQ(recorder.tracks().at(Place("gw", 443)).testing, 1U);
  recorder.probeStarted(report("gw", 0));
  recorder.probeEnded(test);
  EXPECT_EQ(recorder.tracks().at(Place("gw", 443)).testing, 0U);
  EXPECT_EQ(recorder.tracks().at(Place("gw", 443)).started, 1U);
}

TEST(SelectionRecord, AHeadendThatAnswersTwiceCountsOnce) {
  SelectionRecord recorder;
  for (int i = 0; i < 2; ++i) {
    recorder.probeStarted(report("gw", 0));
    recorder.probeEnded(report("gw", HTTP_SESSION_SUCCESS, 5));
  }
  EXPECT_EQ(recorder.progress().placesAnswered, 1U);
  EXPECT_EQ(recorder.progress().probesEnded, 2U);
}

TEST(SelectionRecord, ARefusedConnectionIsNoAnswer) {
  SelectionRecord recorder;
  recorder.probeStarted(report("gw", 0));
  recorder.probeEnded(report("gw", HTTP_SESSION_ERROR_CANNOT_CONNECT));
  EXPECT_EQ(recorder.progress().placesAnswered, 0U);
  EXPECT_EQ(recorder.progress().probesEnded, 1U);
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

TEST(SelectionRecord, EveryStatusThatAServerCausedIsASample) {
  EXPECT_TRUE(SelectionRules::isSample(HTTP_SESSION_SUCCESS));
  EXPECT_TRUE(SelectionRules::isSample(HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE));
  EXPECT_TRUE(SelectionRules::isSample(HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED));
  EXPECT_TRUE(SelectionRules::isSample(HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE));
  EXPECT_TRUE(SelectionRules::isSample(HEADENDSELECTION_ERROR_UNKNOWN));
  EXPECT_FALSE(SelectionRules::isSample(HTTP_SESSION_ERROR_CONNECT));
  EXPECT_FALSE(SelectionRules::isSample(HTTP_SESSION_ERROR_CANNOT_CONNECT));
  EXPECT_FALSE(SelectionRules::isSample(HTTP_SESSION_ERROR_TIMEOUT));
  EXPECT_FALSE(SelectionRules::isSample(HTTP_SESSION_ERROR_DNS_RESOLUTION));
}
