// The three forms of the output.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/Wording.h"
#include "cli/show/Explanation.h"
#include "cli/show/SelectionOutput.h"
#include "cli/show/SelectionTable.h"
#include "tests/unit/cli/some_results.h"
#include "vpn/Api/AHS/HeadendSelectionErrors.h"
#include "vpn/include/HttpSession.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

/// What `some_results.h` measures, with all that an output tells of it.
SelectionResult reconnected() {
  SelectionResult result = measured(
      {headend("gw-b:8443", 20, {20}), headend("gw-a", 40), headend("gw-c", std::nullopt)});
  result.reason = 1;
  result.elapsed = std::chrono::milliseconds(321);
  result.results[1].outcome = HeadendOutcome::UntrustedCertificate;
  result.results[2].outcome = HeadendOutcome::CannotConnect;
  HttpProbe::Report probe;
  probe.rttMs = 20;
  probe.httpStatus = 200;
  probe.connectUs = 20250;
  probe.totalUs = 41000;
  probe.networkRttUs = 20125;
  probe.responseRttUs = 20500;
  probe.address = "192.0.2.7";
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

TEST(TextOutput, IsListThenStatus) {
  EXPECT_EQ(textOutput(reconnected()),
            "Headends, in order of choice:\n"
            "   1. gw-b:8443  192.0.2.7  20 ms\n"
            "   2. gw-a                  40 ms (untrusted certificate)\n"
            "Without a result:\n"
            "      gw-c                  cannot connect\n"
            "Status: Selected from measurements made now.\n"
            "Code:   0xFE530010 HEADENDSELECTION_ERROR_ADDED_TO_CACHE (success)\n");
}

TEST(TextOutput, ShowsTheNamesOfHostEntriesInAColumnOfTheirOwn) {
  SelectionResult result = reconnected();
  result.results[0].name = "M\u00fcnchen";
  result.results[1].name = "gw-a";
  result.results[2].name = "Oslo\x1b[2J";
  const std::string text = textOutput(result);
  EXPECT_THAT(text,
              HasSubstr("   1. gw-b:8443  M\u00fcnchen      192.0.2.7  20 ms\n"
                        "   2. gw-a                               40 ms (untrusted certificate)\n"
                        "Without a result:\n"
                        "      gw-c       Oslo\\x1b[2J             cannot connect\n"));
}

TEST(TextOutput, RanksEqualMetricsEqually) {
  const SelectionResult result =
      measured({headend("a", 7), headend("b", 20), headend("c", 20), headend("d", 21)});
  EXPECT_THAT(textOutput(result), HasSubstr("   1. a  7 ms\n"
                                            "   2. b  20 ms\n"
                                            "   2. c  20 ms\n"
                                            "   4. d  21 ms\n"));
}

TEST(TextOutput, TellsLostProbesAndTenthsWhereOnlyTheyDiffer) {
  SelectionResult result =
      measured({headend("192.0.2.7:1", 20), headend("b", 20), headend("c", 21)});
  HttpProbe::Report probe;
  probe.rttMs = 20;
  probe.address = "192.0.2.7";
  probe.networkRttUs = 19'600;
  HttpProbe::Report lost;
  lost.status = HTTP_SESSION_ERROR_TIMEOUT;
  result.results[0].probes = {probe, lost, lost};
  probe.networkRttUs = 3'000;
  probe.responseRttUs = 20'400;
  result.results[1].probes = {probe};
  result.results[2].probes = {probe};
  EXPECT_THAT(textOutput(result),
              HasSubstr("   1. 192.0.2.7:1             19.6 ms (2 of 3 probes lost)\n"
                        "   1. b            192.0.2.7  20.4 ms\n"
                        "   3. c            192.0.2.7  21 ms\n"));
}

TEST(TextOutput, SaysWhyAHeadendStaysThatIsNotTheNearest) {
  SelectionResult result = measured({headend("far", 21), headend("near", 20)});
  EXPECT_THAT(textOutput(result), testing::StartsWith("Headends, in order of choice:\n"));
  result.reason = 1;
  result.last = "far";
  EXPECT_THAT(textOutput(result),
              testing::StartsWith("Stays with far: 21 ms, less than 1.20 times the best metric, "
                                  "20 ms of near.\nHeadends, in order of choice:\n"));
}

TEST(TextOutput, FitsItsSentencesInto80Columns) {
  SelectionResult result = reconnected();
  result.results[0].name = "Berlin, the headend with the longest name of all in this city";
  std::istringstream lines(explanation(result));
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80U) << line;
  }
}

TEST(TextOutput, SaysThatARetainedHeadendWasNotMeasured) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {"gw-a"});
  result.results = {headend("gw-a", std::nullopt)};
  const std::string text = textOutput(result);
  EXPECT_THAT(text, HasSubstr("1. gw-a  kept, not measured (timed out)\n"));
  EXPECT_THAT(text, HasSubstr("The last headend is kept without a\n  measurement.\n"));
  EXPECT_THAT(text, Not(HasSubstr("Without a result")));
}

TEST(TextOutput, TellsThatOtherNamesLeadToTheChosenAddress) {
  const auto at = [](const std::string& headend, const std::string& host,
                     const std::string& address) {
    HeadendResult result = ::headend(headend, 20);
    result.probes.resize(1);
    result.probes[0].host = host;
    result.probes[0].address = address;
    return result;
  };
  SelectionResult result =
      measured({at("gw-a", "gw-a", "192.0.2.7"), at("gw-b:8443", "gw-b", "192.0.2.7"),
                at("gw-b:444", "gw-b", "192.0.2.7"), at("gw-c", "gw-c", "192.0.2.8"),
                at("192.0.2.7:445", "192.0.2.7", "192.0.2.7")});
  EXPECT_THAT(textOutput(result),
              HasSubstr("2 names lead to 192.0.2.7, the chosen one too. Unless"));
  EXPECT_EQ(json::parse(jsonOutput(result)).at("decision").at("sharedAddress"),
            (json{{"address", "192.0.2.7"}, {"names", {"gw-a", "gw-b"}}}));
  std::rotate(result.headends.begin(), result.headends.begin() + 3, result.headends.end());
  EXPECT_THAT(textOutput(result), Not(HasSubstr("lead to"))) << "another one is chosen";
}

TEST(TextOutput, TellsThatManyProbesOfHeadendsThatAnswerWereLost) {
  HeadendResult answers = headend("gw-a", 20);
  HeadendResult isGone = headend("gw-b", std::nullopt);
  answers.probes.resize(4);
  answers.probes[0].status = HTTP_SESSION_ERROR_TIMEOUT;
  isGone.probes.assign(2, answers.probes[0]);
  EXPECT_THAT(textOutput(measured({answers, isGone})), Not(HasSubstr("probes of headends")));
  answers.probes.pop_back();
  EXPECT_THAT(textOutput(measured({answers, isGone})),
              HasSubstr("1 of 3 probes of headends that answer were lost"));
}

TEST(TextOutput, WithoutAnyHeadendSaysSo) {
  EXPECT_THAT(textOutput(failed(HEADENDSELECTION_ERROR_NO_HEADENDS, {})),
              testing::StartsWith("Headends: none\nStatus: Nothing was measured"));
}

TEST(JsonOutput, HasEveryMemberAndNullsInPlaceOfNumbersThatThereAreNot) {
  SelectionResult result = reconnected();
  result.results[0].name = "Bern";
  result.decided = {"Bern", "gw-b:8443", 25, std::chrono::milliseconds(300)};
  json object = json::parse(jsonOutput(result));
  const json first = {{"headend", "gw-b:8443"}, {"name", "Bern"},        {"metricMs", 20},
                      {"samplesMs", {20}},      {"outcome", "answered"}, {"httpStatus", 200}};
  const json probe = {
      {"status", "0x00000000"}, {"rttMs", 20},        {"httpStatus", 200}, {"address", "192.0.2.7"},
      {"reused", false},        {"connectMs", 20.25}, {"tlsMs", nullptr},  {"networkRttMs", 20.125},
      {"responseRttMs", 20.5},  {"totalMs", 41.0}};
  const json last = {{"metricMs", nullptr},
                     {"samplesMs", json::array()},
                     {"outcome", "cannot connect"},
                     {"httpStatus", nullptr}};
  const json lastProbe = {
      {"status", "0xFE46001D"}, {"rttMs", nullptr}, {"httpStatus", nullptr}, {"address", nullptr}};
  const json whole = {{"schema", 1},
                      {"ok", true},
                      {"reason", 1},
                      {"reasonName", "reconnection"},
                      {"status", "0xFE530010"},
                      {"statusName", "HEADENDSELECTION_ERROR_ADDED_TO_CACHE"},
                      {"headends", {"gw-b:8443", "gw-a"}},
                      {"extraInfo", ""},
                      {"fromCache", false},
                      {"elapsedMs", 321}};
  const json& results = object.at("results");
  EXPECT_EQ(object.at("decision").at("decided"),
            (json{{"headend", "gw-b:8443"}, {"metricMs", 25}, {"afterMs", 300}}));
  for (const auto& [part, members] :
       {std::pair{object, whole}, std::pair{results.at(0), first},
        std::pair{results.at(0).at("probes").at(0), probe}, std::pair{results.at(2), last},
        std::pair{results.at(2).at("probes").at(0), lastProbe}}) {
    for (const auto& [name, value] : members.items()) {
      EXPECT_EQ(part.at(name), value) << name;
    }
  }
}

TEST(JsonOutput, ARealmThatIsNotUtf8StillGivesJson) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, {});
  result.extraInfo = "caf\xe9";
  const json object = json::parse(jsonOutput(result));
  EXPECT_EQ(object.at("extraInfo"), "caf\xef\xbf\xbd");
}

TEST(SeparatedOutput, HasARowForEachHeadendAndNoCellThatIsComputed) {
  SelectionResult result = reconnected();
  result.results[1].name = "a,\"b\"\n";
  result.results[2].name = "=1+1";
  EXPECT_EQ(separatedOutput(result, ','),
            "rank,headend,name,metricMs,samplesMs,probes,lost,address,networkRttMs,responseRttMs,"
            "httpStatus,outcome\n"
            "1,gw-b:8443,,20,20,1,0,192.0.2.7,20.125,20.500,200,answered\n"
            "2,gw-a,\"a,\"\"b\"\"\\x0a\",40,,0,0,,,,,untrusted certificate\n"
            ",gw-c,'=1+1,,,1,1,,,,,cannot connect\n");
  EXPECT_THAT(separatedOutput(result, '\t'), HasSubstr("\n2\tgw-a\ta,\"b\"\\x0a\t40\t"));
}

TEST(QuietOutput, IsTheFirstHeadendAloneOrNothing) {
  EXPECT_EQ(quietOutput(reconnected()), "gw-b:8443\n");
  EXPECT_EQ(quietOutput(failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {})), "");
}

TEST(StatusAsHex, IsAlwaysEightDigits) {
  EXPECT_EQ(statusAsHex(0), "0x00000000");
  EXPECT_EQ(statusAsHex(HEADENDSELECTION_ERROR_ADDED_TO_CACHE), "0xFE530010");
}

TEST(Advice, SaysWhatToDoAfterAFailureAndNothingAfterASuccess) {
  EXPECT_EQ(adviceFor(reconnected(), "'/p'"), "");
  SelectionResult result = failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {});
  EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr("'ahs probe HOST' shows what fails there"));
  result.results = {headend("gw:8443", {})};
  EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr("addresses; 'ahs probe gw:8443' shows"));
  result.results.front().outcome = HeadendOutcome::NameNotResolved;
  EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr("and the name server (resolv.conf(5)); 'ahs"));
  EXPECT_THAT(adviceFor(failed(HEADENDSELECTION_ERROR_NO_HEADENDS, {}), "'/p'"),
              HasSubstr("the profiles in '/p', set EnableAutomaticServerSelection to true"));
}

TEST(ProxyInWords, SaysWhatIsWrongWithItAndWhatItCost) {
  SelectionResult result = measured({headend("gw-a", 20)});
  result.proxy = "proxy:3128";
  result.testProbe = HttpProbe::Report();
  result.testProbe->totalUs = 1'234'000;
  EXPECT_EQ(proxyInWords(result), "") << "it was not asked";
  result.testProbe->proxied = true;
  EXPECT_EQ(proxyInWords(result), "");
  constexpr unsigned int UnknownProxy = 5;
  for (const auto& [status, error, connectUs, words] :
       {std::tuple{HTTP_SESSION_ERROR_CONNECT, UnknownProxy, -1, "cannot be found"},
        {HTTP_SESSION_ERROR_CONNECT, 7U, -1, "refuses connections"},
        {HTTP_SESSION_ERROR_TIMEOUT, 28U, -1, "accepts no connection"},
        {HTTP_SESSION_ERROR_TIMEOUT, 28U, 900, "does not answer"},
        {HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, 1U, 900, "does not answer like a proxy"},
        {HTTP_SESSION_SUCCESS, 0U, 900, "or the host behind it answers 503"}}) {
    result.testProbe->httpStatus = status == HTTP_SESSION_SUCCESS ? 503 : 0;
    result.testProbe->status = status;
    result.testProbe->transportError = error;
    result.testProbe->connectUs = connectUs;
    const std::string whole = "the proxy proxy:3128 " + std::string(words) +
                              ", which took 1.2 s; headends are measured directly.";
    EXPECT_EQ(proxyInWords(result), whole);
    EXPECT_THAT(textOutput(result), HasSubstr(Wording::wrapped("Test probe: " + whole)));
    EXPECT_EQ(json::parse(jsonOutput(result)).at("testProbe").at("words"), whole);
  }
  result.status = HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED;
  EXPECT_EQ(proxyInWords(result), "") << "the status says it";
}

TEST(ProxyInWords, SaysThatOnlyTheProxyGetsOut) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_SELECTION_FAILURE, {});
  result.testProbe = HttpProbe::Report();
  EXPECT_THAT(adviceFor(result, ""), Not(HasSubstr("only the proxy answers")));
  result.testProbe->proxied = true;
  EXPECT_THAT(adviceFor(result, ""),
              HasSubstr("only the proxy answers: headends are measured directly, and none can"));
  EXPECT_THAT(textOutput(result), HasSubstr("Test probe: only the proxy answers"));
}

TEST(Advice, SaysHowToLogInToAProxyAndThatALoginWasRefused) {
  SelectionResult result = failed(HEADENDSELECTION_ERROR_AUTH_PROXY_DETECTED, {});
  result.extraInfo = "Office\x1b[2J";
  for (const char* part : {"the realm 'Office\\x1b[2J'", "--proxy-user", "--proxy-password-file",
                           "--proxy-password-fd", "--no-proxy"}) {
    EXPECT_THAT(adviceFor(result, "'/p'"), HasSubstr(part));
  }
  result.hadLogin = true;
  EXPECT_THAT(adviceFor(result, "'/p'"),
              HasSubstr("does not accept the user name and password for the realm 'Office"));
}
