// The output of `ahs probe` for people and programs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/probe/ProbeReport.h"
#include "tests/unit/cli/some_probes.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

CheckedAddress address(const std::string& text, const std::string& outcome) {
  CheckedAddress checked;
  checked.text = text;
  checked.outcome = outcome;
  checked.took = std::chrono::microseconds(18250);
  return checked;
}

/// A typical headend: a TLS server that refuses plain HTTP.
ProbeFindings someFindings() {
  ProbeFindings findings;
  findings.plan = somePlan(3);
  findings.probes = {answered(18), answered(20), answered(19)};
  findings.probes[1].report.reused = true;
  findings.probes[1].report.connectUs = -1;
  findings.request = "GET / HTTP/1.1\r\nHost: gw.example.com:443\r\nAccept: */*\r\n\r\n";
  findings.answerHead = "HTTP/1.1 400 Bad Request\r\nServer: x\r\n\r\n";
  findings.addresses.addresses = {address("192.0.2.7%eth0", "connected"),
                                  address("2001:db8::7", "unreachable")};
  findings.tls = TlsInspection();
  findings.tls->address = "192.0.2.7";
  findings.tls->speaksTls = true;
  findings.tls->version = "TLSv1.3";
  findings.tls->cipher = "TLS_AES_256_GCM_SHA384";
  CertificateSummary certificate;
  certificate.subject = "CN = gw.example.com";
  certificate.issuer = "CN = Example CA";
  certificate.validFrom = "2026-01-01T00:00:00Z";
  certificate.validUntil = "2027-01-01T00:00:00Z";
  certificate.daysLeft = 40;
  certificate.names = {"gw.example.com", "vpn.example.com"};
  certificate.key = "EC prime256v1, 256 bits";
  findings.tls->certificate = certificate;
  return findings;
}

ProbeFindings unresolved() {
  ProbeFindings findings;
  findings.plan = somePlan(3);
  findings.probes = {failed(HTTP_SESSION_ERROR_DNS_RESOLUTION)};
  findings.addresses.problem = "the name servers know no address of it";
  findings.nameServers = {"192.0.2.1", "192.0.2.2"};
  findings.searchDomains = {"example.com"};
  return findings;
}

TEST(ProbeReport, TheHeadingSaysWhatIsProbedAndHow) {
  ProbePlan plan = somePlan(3);
  EXPECT_EQ(probeHeading(plan),
            "Probing gw.example.com:443: 3 probes of plain HTTP, each 2 s at most\n");
  plan.secure = true;
  plan.count = 1;
  plan.place = {"fe80::7%eth0", 8443};
  plan.entry = "Berlin\n";
  plan.profile = "europe.xml";
  EXPECT_EQ(
      probeHeading(plan),
      "Probing [fe80::7%25eth0]:8443 (host entry 'Berlin\\x0a' of the profile 'europe.xml'): 1 "
      "probe of HTTPS, each 2 s at most\n");
}

TEST(ProbeReport, AProbeIsALineWithItsSampleTimesAndStatus) {
  const ProbeFindings findings = someFindings();
  EXPECT_EQ(
      probeLine(findings.probes[0], 0),
      "   1. 18 ms  answered, HTTP 400  network 18.000, response 19.000, connected 18.100 ms\n");
  EXPECT_EQ(probeLine(findings.probes[1], 999),
            "1000. 20 ms  answered, HTTP 400  network 20.000, response 21.000 ms, reused\n");
  EXPECT_EQ(probeLine(failed(HTTP_SESSION_ERROR_TIMEOUT), 1),
            "   2. no sample  timed out  ended 1.500 ms  HTTP_SESSION_ERROR_TIMEOUT "
            "(0xFE46001B)\n");
}

TEST(ProbeReport, TheSumHasSpreadMetricAndLoss) {
  ProbeFindings findings = someFindings();
  findings.probes.push_back(failed(HTTP_SESSION_ERROR_TIMEOUT));
  EXPECT_EQ(probeSummary(findings),
            "4 probes, 3 with a sample, 1 without (25 %)\n"
            "  network   min 18.000, median 19.000, max 20.000 ms\n"
            "  response  min 19.000, median 20.000, max 21.000 ms\n"
            "  metric    18 ms of all samples\n");
  EXPECT_EQ(probeSummary(unresolved()), "1 probe, 0 with a sample, 1 without (100 %)\n");
}

TEST(ProbeReport, TheDetailsOfAGatewayAreAllThere) {
  const std::string text = probeDetails(someFindings());
  EXPECT_THAT(text, HasSubstr("  192.0.2.7%eth0  connected in 18.250 ms; the probes went there\n"
                              "  2001:db8::7     unreachable\n"));
  EXPECT_THAT(text, HasSubstr("TLSv1.3, TLS_AES_256_GCM_SHA384\n"
                              "  subject:  CN = gw.example.com\n"
                              "  issuer:   CN = Example CA\n"
                              "  valid:    2026-01-01T00:00:00Z to 2027-01-01T00:00:00Z, 40 days "
                              "left\n"
                              "  names:    gw.example.com, vpn.example.com\n"
                              "  key:      EC prime256v1, 256 bits\n"
                              "  trusted:  yes\n"));
  EXPECT_THAT(text, HasSubstr("Request, as it was sent:\n  GET / HTTP/1.1\n"
                              "  Host: gw.example.com:443\n  Accept: */*\n"
                              "Answer: HTTP/1.1 400 Bad Request\n"));
  EXPECT_THAT(text, HasSubstr("  samples:  18 20 19\n  metric:   18 ms\n  outcome:  answered\n"));
  EXPECT_THAT(text, HasSubstr("--secure"));
  EXPECT_THAT(probeAdvice(someFindings()), "");
}

TEST(ProbeReport, ACertificateThatIsNotTrustedSaysWhy) {
  ProbeFindings findings = someFindings();
  findings.tls->certificate->doubts = {"certificate has expired", "hostname mismatch"};
  findings.tls->certificate->isExpired = true;
  findings.tls->certificate->daysLeft = -3;
  findings.tls->certificate->moreNames = 7;
  findings.tls->asksForClientCertificate = true;
  const std::string text = probeDetails(findings);
  EXPECT_THAT(text, HasSubstr("trusted:  no: certificate has expired; hostname mismatch\n"));
  EXPECT_THAT(text, HasSubstr("expired 2 days ago\n"));
  EXPECT_THAT(text, HasSubstr(", and 7 more\n"));
  EXPECT_THAT(text, HasSubstr("  asks for a client certificate\n"));
  findings.tls->certificate->daysLeft = -1;
  EXPECT_THAT(probeDetails(findings), HasSubstr(", expired less than a day ago\n"));
}

TEST(ProbeReport, NoLossAndNoAnswerAreSaidOfNothingElse) {
  for (const auto& [lost, words] : {std::pair{0, " 0 without (0 %)"},
                                    {1, " 1 without (1 %)"},
                                    {399, " 399 without (99 %)"},
                                    {400, " 400 without (100 %)"}}) {
    ProbeFindings findings;
    findings.plan = somePlan(400);
    findings.probes.assign(400, answered(18));
    std::fill_n(findings.probes.begin(), lost, failed(HTTP_SESSION_ERROR_TIMEOUT));
    EXPECT_THAT(probeSummary(findings), HasSubstr(words));
  }
}

TEST(ProbeReport, AHostEntryThatTakesNoPartIsSaidToBeOne) {
  ProbeFindings findings = someFindings();
  EXPECT_EQ(json::parse(probeJson(findings))["takesPart"], nullptr);
  findings.plan.entry = "Berlin";
  EXPECT_EQ(json::parse(probeJson(findings))["takesPart"], true);
  findings.plan.leftOut = "it is switched off";
  EXPECT_EQ(json::parse(probeJson(findings))["takesPart"], false);
  EXPECT_THAT(probeDetails(findings),
              AllOf(HasSubstr("(SelectionPingsPerHeadend), if it took part, judged by"),
                    HasSubstr("But the host entry takes no part in a selection: it is switched "
                              "off.\n")));
  findings.plan.leftOut.clear();
  EXPECT_THAT(probeDetails(findings), Not(HasSubstr("took part")));
}

TEST(ProbeReport, WhatTheHeadendSaysCannotMoveTheCursorAndIsCut) {
  ProbeFindings findings = someFindings();
  findings.tls->problem = "speaks no TLS: it hangs up on a TLS greeting";
  findings.tls->certificate.reset();
  findings.answerHead = "HTTP/1.1 200 \x1b[2J" + std::string(5000, 'x') + "\r\n\r\n";
  const std::string text = probeDetails(findings);
  EXPECT_THAT(text, AllOf(HasSubstr("\\x1b[2J"), Not(HasSubstr("\x1b"))));
  EXPECT_LT(text.size(), 3000U);
  EXPECT_THAT(text, HasSubstr("192.0.2.7 speaks no TLS: it hangs up on a TLS greeting\n"));
}

TEST(ProbeReport, OfANameThatIsNotResolvedTheNameServersAreTold) {
  const ProbeFindings findings = unresolved();
  EXPECT_THAT(probeDetails(findings),
              AllOf(HasSubstr("Addresses: none: the name servers know no address of it\n"),
                    HasSubstr("TLS: not tried"), HasSubstr("Request: none was sent\n"),
                    HasSubstr("  metric:   none\n  outcome:  name not resolved\n")));
  EXPECT_EQ(probeAdvice(findings),
            "the name 'gw.example.com' is not resolved: the name servers know no address of it. "
            "Name servers: 192.0.2.1, 192.0.2.2; search domains: example.com. Check the spelling, "
            "and the network that these name servers belong to.");
}

TEST(ProbeReport, WithoutAnAnswerTheAdviceGoesByWhatWasTried) {
  ProbeFindings findings = unresolved();
  const EndedProbe timedOut = failed(HTTP_SESSION_ERROR_TIMEOUT);
  findings.probes = {timedOut, timedOut};
  findings.addresses.problem = "the name servers do not answer in time";
  EXPECT_THAT(probeAdvice(findings),
              StartsWith("the name 'gw.example.com' is not resolved: the name servers do not "
                         "answer in time. Name servers: 192.0.2.1"))
      << "no silent gateway";
  findings.plan.place = {"fe80::7%nowhere", 443};
  findings.probes = {failed(HTTP_SESSION_ERROR_DNS_RESOLUTION)};
  EXPECT_THAT(probeAdvice(findings),
              AllOf(StartsWith("[fe80::7%25nowhere]:443 cannot be reached. Check the address"),
                    Not(HasSubstr("ame servers"))));

  findings.addresses.problem.clear();
  findings.addresses.addresses = {address("fe80::7", "needs a zone")};
  findings.plan.place = {"fe80::7", 443};
  findings.probes = {failed(HTTP_SESSION_ERROR_CANNOT_CONNECT)};
  EXPECT_THAT(probeAdvice(findings), HasSubstr("add %25 and the name of the interface"));
  findings.plan = somePlan(1);
  findings.addresses.addresses = {address("192.0.2.7", "refused"),
                                  address("2001:db8::7", "unreachable")};
  EXPECT_THAT(probeAdvice(findings),
              AllOf(StartsWith("no connection to gw.example.com:443 could be made. A machine "
                               "refuses"),
                    HasSubstr("no way to an address")));
  findings.addresses.addresses.push_back(address("192.0.2.8", "connected"));
  EXPECT_THAT(probeAdvice(findings), HasSubstr("try again"));

  findings.probes = {timedOut};
  EXPECT_THAT(probeAdvice(findings), StartsWith("gw.example.com:443 does not answer within 2 s."));
  findings.probes = {answered(18)};
  findings.probes[0].endedAfter = std::chrono::seconds(11);
  EXPECT_THAT(probeAdvice(findings), HasSubstr("SelectionConnectTimeout"));
  findings.plan.timeout = std::chrono::seconds(6);
  findings.probes[0].endedAfter = {};
  findings.probes[0].report.totalUs = 2'600'000;
  findings.probes.push_back(findings.probes[0]);
  EXPECT_THAT(probeAdvice(findings),
              StartsWith("gw.example.com:443 answers, but not within the 2 s that a selection "
                         "waits. The preference SelectionPingTimeout"));
}

TEST(ProbeReport, TheJsonObjectHasEverythingByNameAndNullForWhatDidNotHappen) {
  const json object = json::parse(probeJson(someFindings()));
  const json none = json::parse(probeJson(unresolved()));
  EXPECT_EQ(object["probes"].size(), 3U);
  struct Member {
    const json& of;
    const char* path;
    json value;
  };
  for (const Member& member :
       std::vector<Member>{{object, "/schema", 1},
                           {object, "/headend", "gw.example.com"},
                           {object, "/port", 443},
                           {object, "/hostEntry", nullptr},
                           {object, "/secure", false},
                           {object, "/timeoutMs", 2000},
                           {object, "/roundTripTime", "auto"},
                           {object, "/probes/0/statusName", "HTTP_SESSION_SUCCESS"},
                           {object, "/probes/0/rttMs", 18},
                           {object, "/probes/1/connectMs", nullptr},
                           {object, "/summary/lossPercent", 0},
                           {object, "/summary/network/medianMs", 19.0},
                           {object, "/summary/metricMs", 18},
                           {object, "/selection/metricMs", 18},
                           {object, "/selection/outcome", "answered"},
                           {object, "/selection/samplesMs", {18, 20, 19}},
                           {object, "/addresses/1/outcome", "unreachable"},
                           {object, "/addresses/1/connectMs", nullptr},
                           {object, "/tls/certificate/daysLeft", 40},
                           {object, "/tls/certificate/trusted", true},
                           {object, "/request/0", "GET / HTTP/1.1"},
                           {object, "/answer", "HTTP/1.1 400 Bad Request"},
                           {none, "/tls", nullptr},
                           {none, "/answer", nullptr},
                           {none, "/selection/metricMs", nullptr},
                           {none, "/summary/metricMs", nullptr},
                           {none, "/summary/network", nullptr},
                           {none, "/resolverProblem", "the name servers know no address of it"},
                           {none, "/nameServers", {"192.0.2.1", "192.0.2.2"}}}) {
    EXPECT_EQ(member.of.at(json::json_pointer(member.path)), member.value) << member.path;
  }
}

}  // namespace
