// `ahs probe` as a person meets it: the real program and real servers, its two outputs, its exit
// status, and a terminal where one matters.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <nlohmann/json.hpp>

#include "tests/integration/running_program.h"
#include "tests/integration/simulated_gateways.h"
#include "tests/support/Eventually.h"
#include "tests/support/LoopbackSockets.h"
#include "tests/support/RealServers.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestAuthority.h"
#include "tests/support/TestCertificates.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using tests::Outcome;
using tests::Program;

constexpr const char* Welcome = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

class ProbeCommandTest : public testing::Test {
 protected:
  Outcome run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "probe");
    return Program(arguments, environment()).finish();
  }

  json runJson(std::vector<std::string> arguments, int exitStatus) const {
    arguments.emplace_back("--json");
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exitStatus, exitStatus) << outcome.err;
    return json::parse(outcome.out, nullptr, false);
  }

  /// Ctrl-C at the terminal when this has been shown.
  Outcome interruptAt(unsigned int port, const std::string& shown) const {
    Program program({"probe", "127.0.0.1:" + std::to_string(port), "--timeout", "600"},
                    environment(), Program::Terminal::All);
    EXPECT_TRUE(program.waitForError(shown)) << program.soFar().err;
    program.type("\x03");
    Outcome outcome = program.finish();
    EXPECT_EQ(outcome.exitStatus, 128 + SIGINT);
    return outcome;
  }

  std::vector<std::string> environment() const {
    return {"HOME=" + m_home.Path(), "PATH=/usr/bin:/bin", "TERM=xterm"};
  }

  tests::TemporaryDirectory m_home;
};

}  // namespace

TEST_F(ProbeCommandTest, AWebServerWithTlsIsToldInDetail) {
  const tests::TestCertificates certificates;
  const tests::NginxServer server(certificates);
  const Outcome outcome = run({server.Address()});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(outcome.out, StartsWith("Probing " + server.Address() + ": 3 probes of plain HTTP"));
  EXPECT_THAT(outcome.out, HasSubstr("answered, HTTP 400"));
  EXPECT_THAT(outcome.out, HasSubstr("HTTP_SESSION_SUCCESS (0x00000000)"));
  EXPECT_THAT(outcome.out, HasSubstr("3 probes, 3 with a sample, 0 without (0 %)"));
  EXPECT_THAT(outcome.out, HasSubstr("  127.0.0.1  connected in "));
  EXPECT_THAT(outcome.out, HasSubstr("; the probes went there"));
  EXPECT_THAT(outcome.out, HasSubstr("TLS (a handshake of its own after the probes): TLSv1."));
  EXPECT_THAT(outcome.out, HasSubstr("  subject:  CN = localhost\n"));
  EXPECT_THAT(outcome.out, HasSubstr("  issuer:   CN = Authority of a test\n"));
  EXPECT_THAT(outcome.out, HasSubstr("  names:    127.0.0.1, ::1, localhost\n"));
  EXPECT_THAT(outcome.out, HasSubstr("  trusted:  no: "));
  EXPECT_THAT(outcome.out, HasSubstr("  Host: " + server.Address() + "\n"));
  EXPECT_THAT(outcome.out, HasSubstr("Answer: HTTP/1.1 400 Bad Request\n"));
  EXPECT_THAT(outcome.out, HasSubstr("  outcome:  answered\n"));
}

TEST_F(ProbeCommandTest, SecureProbesAreThoseOfALoginAtAProxy) {
  const tests::TestCertificates certificates;
  const tests::NginxServer server(certificates);
  const json result = runJson({server.Address(), "--secure", "-c", "2"}, 0);
  EXPECT_EQ(result["secure"], true);
  ASSERT_EQ(result["probes"].size(), 2U);
  EXPECT_EQ(result["probes"][0]["statusName"], "HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE");
  EXPECT_EQ(result["selection"]["outcome"], "untrusted certificate");
  EXPECT_TRUE(result["selection"]["metricMs"].is_number());
  EXPECT_TRUE(result["request"].empty()) << "nothing is sent to a server that is not trusted";
  EXPECT_EQ(result["tls"]["certificate"]["trusted"], false);
}

TEST_F(ProbeCommandTest, AServerThatServesOneAfterTheOtherIsServedToo) {
  const tests::TestCertificates certificates;
  const tests::OpensslServer server(certificates);
  const json result = runJson({server.Address()}, 0);
  EXPECT_EQ(result["selection"]["outcome"], "not HTTP");
  EXPECT_EQ(result["tls"]["problem"], nullptr) << result["tls"];
  EXPECT_EQ(result["tls"]["certificate"]["subject"], "CN = localhost");
}

TEST_F(ProbeCommandTest, AServerOfPlainHttpSpeaksNoTlsAndKeepsTheConnection) {
  // First byte of a TLS handshake record.
  constexpr char TlsGreeting = 0x16;
  // It does not let the greeting wait for the time-out, which is long: no connection is kept where
  // an answer takes a good part of it.
  const tests::ScriptedServer server([](tests::Connection& connection) {
    for (std::string request = connection.readSome();
         !request.empty() && request.front() != TlsGreeting; request = connection.readSome()) {
      connection.send(Welcome);
    }
  });
  const json result =
      runJson({"127.0.0.1:" + std::to_string(server.port()), "--count", "5", "--timeout", "60"}, 0);
  ASSERT_EQ(result["probes"].size(), 5U);
  EXPECT_EQ(result["probes"][0]["reused"], false);
  EXPECT_EQ(result["probes"][4]["reused"], true);
  EXPECT_EQ(result["probes"][0]["httpStatus"], 200);
  EXPECT_EQ(result["tls"]["speaksTls"], false);
  EXPECT_THAT(result["tls"]["problem"].get<std::string>(), StartsWith("speaks no TLS"));
  EXPECT_THAT(result["request"], Contains("GET / HTTP/1.1"));
  EXPECT_EQ(result["answer"], "HTTP/1.1 200 OK");
  EXPECT_EQ(result["selection"]["probes"], 3) << "as many as a selection sends";
}

TEST_F(ProbeCommandTest, AClosedPortIsRefusedAndHasNoResult) {
  const tests::RefusingPort port("127.0.0.1");
  const Outcome outcome = run({port.Where().Text()});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("   2. no sample  cannot connect  "));
  EXPECT_THAT(outcome.out, HasSubstr("HTTP_SESSION_ERROR_CANNOT_CONNECT (0xFE46001D)"));
  EXPECT_THAT(outcome.out, HasSubstr("3 probes, 0 with a sample, 3 without (100 %)"));
  EXPECT_THAT(outcome.out, HasSubstr("  127.0.0.1  refused\n"));
  EXPECT_THAT(outcome.out, HasSubstr("gives up at the second probe"));
  EXPECT_THAT(outcome.err, HasSubstr("nothing listens on that port there"));
}

TEST_F(ProbeCommandTest, ASilentPortTimesOut) {
  tests::SilentListener silent("127.0.0.1");
  const Outcome outcome = run({silent.Where().Text(), "-c", "1", "--timeout", "1"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("   1. no sample  timed out  "));
  EXPECT_THAT(outcome.out, HasSubstr("speaks no TLS: it says nothing"));
  EXPECT_THAT(outcome.err, HasSubstr("does not answer within 1 s"));
}

TEST_F(ProbeCommandTest, AnAnswerThatASelectionDoesNotWaitForIsNoResult) {
  const std::string preferences = m_home.Write(
      "preferences.xml",
      "<preferences version=\"1\"><preference name=\"SelectionPingTimeout\" value=\"1000\"/>"
      "</preferences>");
  const tests::ScriptedServer server([](tests::Connection& connection) {
    connection.readHead();
    connection.wait(std::chrono::milliseconds(1300));
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    connection.drain();
  });
  const Outcome outcome = run({"127.0.0.1:" + std::to_string(server.port()), "-c", "2", "--timeout",
                               "30", "--preferences", preferences});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("2 probes, 2 with a sample, 0 without (0 %)"));
  EXPECT_THAT(outcome.out, HasSubstr("  metric:   none\n  outcome:  timed out\n"));
  EXPECT_THAT(outcome.err, HasSubstr("answers, but not within the 1 s that a selection waits"));
}

TEST_F(ProbeCommandTest, AnIpv6AddressWithAZoneIsOneAsTheProbesHaveIt) {
  tests::SilentListener silent("::1");
  const Outcome outcome =
      run({"[::1%25lo]:" + std::to_string(silent.Where().port), "-c", "1", "--timeout", "1"});
  EXPECT_THAT(outcome.out, StartsWith("Probing [::1%25lo]:"));
  EXPECT_THAT(outcome.out, HasSubstr("\n  ::1%lo  connected in "));
  EXPECT_THAT(outcome.out, HasSubstr("; the probes went there\n"));
}

TEST_F(ProbeCommandTest, ALinkLocalAddressWithoutAZoneIsSaidToNeedOne) {
  const Outcome outcome = run({"[fe80::7]", "-c", "2", "--timeout", "1"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("\n  fe80::7  needs a zone\n"));
  EXPECT_THAT(outcome.err, HasSubstr("as in [fe80::7%25eth0]"));
  EXPECT_THAT(outcome.err, Not(HasSubstr("ame servers")));
}

TEST_F(ProbeCommandTest, ANameThatIsUnknownIsToldWithWhatToDo) {
  // Whatever the machine's name servers are, they know no such name (RFC 6761).
  const Outcome outcome = run({"no-such-gateway.invalid", "-c", "100"});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("\n1 probe, 0 with a sample, 1 without (100 %)\n"))
      << "nobody is there to be probed again";
  EXPECT_THAT(outcome.out, HasSubstr("outcome:  name not resolved"));
  EXPECT_THAT(outcome.err, StartsWith("ahs: the name 'no-such-gateway.invalid' is not resolved: "));
  EXPECT_THAT(outcome.err, HasSubstr("Name servers: "));
}

TEST_F(ProbeCommandTest, ExpiredAndSelfSignedCertificatesAreSaidToBe) {
  const tests::SimulatedGateways gateways({"behaviour=expired", "behaviour=self-signed"});
  const json expired = runJson({gateways.Where()[0].Text()}, 0);
  EXPECT_LT(expired["tls"]["certificate"]["daysLeft"], 0);
  EXPECT_THAT(expired["tls"]["certificate"]["doubts"], Contains(HasSubstr("expired")));
  const json selfSigned = runJson({gateways.Where()[1].Text()}, 0);
  EXPECT_THAT(selfSigned["tls"]["certificate"]["doubts"], Contains(HasSubstr("self-signed")));
  EXPECT_EQ(selfSigned["tls"]["certificate"]["subject"],
            selfSigned["tls"]["certificate"]["issuer"]);
}

TEST_F(ProbeCommandTest, TheDaysSinceACertificateWasOverAreCounted) {
  const tests::TestAuthority authority;
  tests::TestAuthority::Subject subject;
  subject.validFrom = -30L * 24 * 3600;
  subject.validUntil = -5L * 24 * 3600 - 60;
  const tests::TlsServerContext context(authority.issue(subject));
  const tests::ScriptedServer server([&context](tests::Connection& connection) {
    connection.startTls(context);
    connection.drain();
  });
  const std::string where = "127.0.0.1:" + std::to_string(server.port());
  EXPECT_THAT(run({where, "--secure", "-c", "1"}).out, HasSubstr(", expired 5 days ago\n"));
  EXPECT_EQ(runJson({where, "--secure", "-c", "1"}, 0)["tls"]["certificate"]["daysLeft"], -6);
}

TEST_F(ProbeCommandTest, WhateverAGatewayDoesTheOutputIsWholeAndLegible) {
  const std::vector<std::string> behaviours = {
      "escapes",       "garbage",          "alert",           "closes",
      "resets",        "resets-at-once",   "endless-headers", "long-header",
      "challenge",     "wrong-host",       "old-tls",         "client-certificate-12",
      "interim-flood", "keeps-then-closes"};
  std::vector<std::string> settings;
  for (const std::string& behaviour : behaviours) {
    settings.push_back("behaviour=" + behaviour);
  }
  const tests::SimulatedGateways gateways(settings);
  for (std::size_t i = 0; i < behaviours.size(); ++i) {
    for (const char* scheme : {"", "--secure"}) {
      std::vector<std::string> arguments = {gateways.Where()[i].Text(), "--timeout", "1"};
      if (*scheme != '\0') {
        arguments.emplace_back(scheme);
      }
      const Outcome outcome = run(arguments);
      EXPECT_GE(outcome.exitStatus, 0) << behaviours[i];
      EXPECT_LE(outcome.exitStatus, 1) << behaviours[i];
      EXPECT_THAT(outcome.out, AllOf(HasSubstr("  outcome:  "), Not(HasSubstr("\x1b"))))
          << behaviours[i];
      EXPECT_LT(outcome.out.size(), 8000U) << behaviours[i];
    }
  }
}

TEST_F(ProbeCommandTest, AHostEntryIsProbedAtItsAddressWithThePreferencesInForce) {
  const tests::ScriptedServer server(tests::answering(Welcome));
  const std::string address = "127.0.0.1:" + std::to_string(server.port());
  const std::string directory = m_home.MakeDirectory("profiles");
  m_home.Write("profiles/office.xml",
               "<profile version=\"1\"><hosts><host name=\"Head office\" address=\"" + address +
                   "\"/></hosts></profile>");
  const std::string preferences = m_home.Write(
      "preferences.xml",
      "<preferences version=\"1\"><preference name=\"SelectionPingsPerHeadend\" value=\"4\"/>"
      "<preference name=\"RoundTripTime\" value=\"response\"/></preferences>");
  const json result = runJson(
      {"head OFFICE", "--profiles", directory, "--preferences", preferences, "--trust-profiles"},
      0);
  EXPECT_EQ(result["headend"], address);
  EXPECT_EQ(result["hostEntry"], "Head office");
  EXPECT_EQ(result["probes"].size(), 4U);
  EXPECT_EQ(result["roundTripTime"], "response");
}

TEST_F(ProbeCommandTest, AWrongCommandLineSaysWhatIsWrongAndSendsNothing) {
  EXPECT_EQ(run({}).exitStatus, 2);
  for (const char* number : {"0", "-1", "3x", "", "99999999999999999999", "1.5", "3601"}) {
    for (const char* option : {"-c", "--timeout"}) {
      const Outcome wrong = run({"127.0.0.1", option, number});
      EXPECT_EQ(wrong.exitStatus, 2) << option << " " << number;
      EXPECT_EQ(wrong.out, "");
    }
  }
  EXPECT_EQ(run({"gw.example.com/ here"}).exitStatus, 2);
  EXPECT_EQ(run({"127.0.0.1", "--profiles", m_home.File("missing")}).exitStatus, 2);
  EXPECT_EQ(run({"127.0.0.1", "127.0.0.2"}).exitStatus, 2);
}

TEST_F(ProbeCommandTest, AnOutputThatCannotBeWrittenIsAnErrorAndEndsTheProbes) {
  const tests::ScriptedServer server(tests::answering(Welcome));
  const Outcome outcome = tests::runForNobody(
      {"probe", "127.0.0.1:" + std::to_string(server.port()), "-c", "1000"}, environment());
  EXPECT_EQ(outcome.exitStatus, 2);
  EXPECT_THAT(outcome.err, HasSubstr("could not be written"));
  EXPECT_EQ(server.accepted(), 0U);
}

TEST_F(ProbeCommandTest, CtrlCSumsUpWhatWasMeasuredSoFar) {
  // It answers twice and then lets the third probe wait.
  const tests::ScriptedServer server([](tests::Connection& connection) {
    for (int i = 0; i < 2; ++i) {
      connection.readHead();
      connection.send(Welcome);
    }
    connection.waitForPeer();
  });
  const Outcome outcome = interruptAt(server.port(), "   2. ");
  EXPECT_THAT(outcome.err, HasSubstr("2 probes, 2 with a sample, 0 without (0 %)"));
  EXPECT_THAT(outcome.err, Not(HasSubstr("In a selection")));
}

TEST_F(ProbeCommandTest, CtrlCAfterTheSumGivesTheVerdict) {
  // It answers the probes, and then takes connections and says nothing.
  std::atomic<int> connections = 0;
  const tests::ScriptedServer server([&connections](tests::Connection& connection) {
    if (connections++ == 0) {
      for (int i = 0; i < 3 && !connection.readHead().empty(); ++i) {
        connection.send(Welcome);
      }
    }
    connection.waitForPeer();
  });
  const Outcome outcome = interruptAt(server.port(), " ms of all samples");
  EXPECT_THAT(outcome.err, HasSubstr("In a selection of 3 probes a headend"));
  EXPECT_THAT(outcome.err, HasSubstr("  outcome:  answered\r\n"));
}

TEST_F(ProbeCommandTest, InterruptedJsonIsNoJson) {
  tests::SilentListener silent("127.0.0.1");
  Program program({"probe", silent.Where().Text(), "--timeout", "600", "--json"}, environment());
  ASSERT_TRUE(tests::eventually([&silent] { return silent.ConnectionCount() > 0; }));
  kill(program.pid(), SIGTERM);
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 128 + SIGTERM);
  EXPECT_EQ(outcome.out, "");
}
