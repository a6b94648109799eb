// The three forms of the output.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cli/show/SelectionOutput.h"
#include "cli/show/SelectionResult.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/include/HttpSession.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

HeadendResult headend(const std::string& name, std::optional<unsigned int> metric,
                      HeadendOutcome outcome) {
  HeadendResult result;
  result.headend = name;
  result.metricMs = metric;
  result.outcome = outcome;
  return result;
}

SelectionResult measured() {
  SelectionResult result;
  result.status = HEADENDSELECTION_ERROR_ADDED_TO_CACHE;
  result.reason = 1;
  result.headends = {"gw-b:8443", "gw-a"};
  result.report = "*** QIB Selection Results ***\nlines\n";
  result.elapsed = std::chrono::milliseconds(321);
  result.results = {headend("gw-b:8443", 20, HeadendOutcome::Answered),
                    headend("gw-a", 40, HeadendOutcome::UntrustedCertificate),
                    headend("gw-c", std::nullopt, HeadendOutcome::CannotConnect)};
  HttpProbe::Report probe;
  probe.rttMs = 20;
  probe.httpStatus = 200;
  probe.connectUs = 20250;
  probe.totalUs = 41000;
  probe.networkRttUs = 20125;
  probe.responseRttUs = 20500;
  probe.address = "192.0.2.7";
  result.results[0].samplesMs = {20};
  result.results[0].probes = {probe};
  HttpProbe::Report refused;
  refused.status = HTTP_SESSION_ERROR_CANNOT_CONNECT;
  result.results[2].probes = {refused};
  return result;
}

SelectionResult failed(STATUSCODE status, const std::vector<std::string>& headends) {
  SelectionResult result;
  result.status = status;
  result.headends = headends;
  return result;
}

}  // namespace

TEST(TextOutput, IsReportThenListThenStatus) {
  EXPECT_EQ(textOutput(measured()),
            "*** QIB Selection Results ***\n"
            "lines\n"
            "\n"
            "Headends, in order of choice:\n"
            "   1. gw-b:8443  20 ms\n"
            "   2. gw-a       40 ms (untrusted certificate)\n"
            "Without a result:\n"
            "      gw-c       cannot connect\n"
            "Status: Selected from measurements made now. "
            "(0xFE530010 HEADENDSELECTION_ERROR_ADDED_TO_CACHE)\n");
}

TEST(TextOutput, ShowsTheNamesOfHostEntriesInAColumnOfTheirOwn) {
  SelectionResult result = measured();
  result.results[0].name = "M\u00fcnchen";
  result.results[1].name = "gw-a";
  result.results[2].name = "Oslo\x1b[2J";
  const std::string text = textOutput(result);
  EXPECT_THAT(text, testing::StartsWith(result.report));
  EXPECT_THAT(text, HasSubstr("   1. gw-b:8443  M\u00fcnchen      20 ms\n"
                              "   2. gw-a                    40 ms (untrusted certificate)\n"
                              "Without a result:\n"
                              "      gw-c       Oslo\\x1b[2J  cannot connect\n"));
}

TEST(TextOutput, SaysThatARetainedHeadendWasNotMeasured) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {"gw-a"});
  result.results = {headend("gw-a", std::nullopt, HeadendOutcome::TimedOut)};
  const std::string text = textOutput(result);
  EXPECT_THAT(text, HasSubstr("1. gw-a  kept, not measured (timed out)\n"));
  EXPECT_THAT(text, HasSubstr("The headend of the list is kept without a measurement."));
  EXPECT_THAT(text, Not(HasSubstr("Without a result")));
}

TEST(TextOutput, WithoutAnyHeadendSaysSo) {
  EXPECT_THAT(textOutput(failed(HEADENDSELECTION_ERROR_NO_HEADENDS, {})),
              testing::StartsWith("Headends: none\nStatus: Nothing was measured"));
}

TEST(JsonOutput, HasEveryMember) {
  const json object = json::parse(jsonOutput(measured()));
  EXPECT_EQ(object.at("schema"), 1);
  EXPECT_EQ(object.at("reason"), 1);
  EXPECT_EQ(object.at("reasonName"), "reconnection");
  EXPECT_EQ(object.at("status"), "0xFE530010");
  EXPECT_EQ(object.at("statusName"), "HEADENDSELECTION_ERROR_ADDED_TO_CACHE");
  EXPECT_EQ(object.at("headends"), json({"gw-b:8443", "gw-a"}));
  EXPECT_EQ(object.at("extraInfo"), "");
  EXPECT_EQ(object.at("fromCache"), false);
  EXPECT_EQ(object.at("elapsedMs"), 321);
  const json& first = object.at("results").at(0);
  EXPECT_EQ(first.at("headend"), "gw-b:8443");
  EXPECT_EQ(first.at("metricMs"), 20);
  EXPECT_EQ(first.at("samplesMs"), json({20}));
  EXPECT_EQ(first.at("outcome"), "answered");
}

TEST(JsonOutput, HasTheDetailsOfEachProbe) {
  const json object = json::parse(jsonOutput(measured()));
  const json& probe = object.at("results").at(0).at("probes").at(0);
  EXPECT_EQ(probe.at("status"), "0x00000000");
  EXPECT_EQ(probe.at("rttMs"), 20);
  EXPECT_EQ(probe.at("httpStatus"), 200);
  EXPECT_EQ(probe.at("address"), "192.0.2.7");
  EXPECT_EQ(probe.at("reused"), false);
  EXPECT_DOUBLE_EQ(probe.at("connectMs"), 20.25);
  EXPECT_TRUE(probe.at("tlsMs").is_null());
  EXPECT_DOUBLE_EQ(probe.at("networkRttMs"), 20.125);
  EXPECT_DOUBLE_EQ(probe.at("responseRttMs"), 20.5);
  EXPECT_DOUBLE_EQ(probe.at("totalMs"), 41.0);
}

TEST(JsonOutput, AHeadendWithoutAResultHasNullsInPlaceOfNumbers) {
  const json object = json::parse(jsonOutput(measured()));
  const json& last = object.at("results").at(2);
  EXPECT_TRUE(last.at("metricMs").is_null());
  EXPECT_EQ(last.at("samplesMs"), json::array());
  EXPECT_EQ(last.at("outcome"), "cannot connect");
  EXPECT_EQ(last.at("probes").at(0).at("status"), "0xFE46001D");
  EXPECT_TRUE(last.at("probes").at(0).at("rttMs").is_null());
  EXPECT_TRUE(last.at("probes").at(0).at("httpStatus").is_null());
  EXPECT_TRUE(last.at("probes").at(0).at("address").is_null());
}

TEST(JsonOutput, TellsTheNameOfEachHostEntry) {
  SelectionResult result = measured();
  result.results[0].name = "Bern";
  result.results[1].name = "gw-a";
  const json results = json::parse(jsonOutput(result)).at("results");
  EXPECT_EQ(results.at(0).at("name"), "Bern");
  EXPECT_EQ(results.at(1).at("name"), "gw-a");
}

TEST(JsonOutput, ARealmThatIsNotUtf8StillGivesJson) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, {});
  result.extraInfo = "caf\xe9";
  const json object = json::parse(jsonOutput(result));
  EXPECT_EQ(object.at("extraInfo"), "caf\xef\xbf\xbd");
}

TEST(QuietOutput, IsTheFirstHeadendAlone) {
  SelectionResult result = measured();
  result.results[0].name = "Bern";
  EXPECT_EQ(quietOutput(result), "gw-b:8443\n");
}

TEST(QuietOutput, IsNothingWithoutAHeadend) {
  EXPECT_EQ(quietOutput(failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {})), "");
}

TEST(StatusAsHex, IsAlwaysEightDigits) {
  EXPECT_EQ(statusAsHex(0), "0x00000000");
  EXPECT_EQ(statusAsHex(HEADENDSELECTION_ERROR_ADDED_TO_CACHE), "0xFE530010");
}

TEST(Advice, AfterAFailureNamesAHeadendToProbe) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {});
  EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr("'ahs probe HOST' tells what is in the way"));
  result.results.resize(1);
  result.results.front().headend = "gw:8443";
  EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr("'ahs probe gw:8443' tells"));
}

TEST(Advice, IsNotGivenAfterASuccess) { EXPECT_EQ(adviceFor(measured(), "'/p'"), ""); }

TEST(Advice, NamesTheRealmWithItsControlCharactersShown) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, {});
  result.extraInfo = "Office\x1b[2J";
  EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr("the realm 'Office\\x1b[2J'"));
}

TEST(Advice, SaysHowToLogInToAProxy) {
  const std::string advice =
      adviceFor(failed(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, {}), "'/p'");
  for (const char* option :
       {"--proxy-user", "--proxy-password-file", "--proxy-password-fd", "--no-proxy"}) {
    EXPECT_THAT(advice, HasSubstr(option));
  }
}

TEST(Advice, SaysThatALoginWasRefused) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, {});
  result.extraInfo = "Office";
  result.hadLogin = true;
  EXPECT_THAT(adviceFor(result, "'/p'"),
              HasSubstr("does not accept the user name and password for the realm 'Office'"));
}

TEST(Advice, SaysWhereTheProfilesStandWhenNoneTakesPart) {
  EXPECT_THAT(adviceFor(failed(HEADENDSELECTION_ERROR_NO_HEADENDS, {}), "'/p'"),
              HasSubstr("the profiles in '/p', set EnableAutomaticServerSelection to true"));
}
