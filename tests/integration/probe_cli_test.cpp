// `ahs probe` as a person sees it: the real program and real servers, both outputs, the exit
// status, and a terminal if it matters.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <nlohmann/json.hpp>

#include "tests/integration/command_test.h"
#include "tests/support/Eventually.h"
#include "tests/support/RealServers.h"
#include "tests/support/TestCertificates.h"

namespace tests {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;

constexpr const char* KeepAlive = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

class ProbeCommandTest : public CommandTest {};

TEST_F(ProbeCommandTest, AWebServerWithTlsIsToldInDetail) {
  const TestCertificates certificates;
  const NginxServer server(certificates);
  const Outcome outcome = run({"probe", server.Address()});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  for (const std::string& part :
       {"Probing " + server.Address() + ": 3 probes of plain HTTP",
        std::string("answered, HTTP 400"), std::string("  127.0.0.1  connected in "),
        std::string("  subject:  CN = Test server\n"), std::string("  trusted:  no: "),
        "  Host: " + server.Address() + "\n", std::string("Answer: HTTP/1.1 400 Bad Request\n"),
        std::string("  outcome:  answered\n")}) {
    EXPECT_THAT(outcome.out, HasSubstr(part));
  }
  for (std::size_t at = 0, end = 0; (end = outcome.out.find('\n', at)) != std::string::npos;) {
    EXPECT_LE(end - at, 80U) << outcome.out.substr(at, end - at);
    at = end + 1;
  }
}

TEST_F(ProbeCommandTest, ProbesComeAtAnIntervalThatCountsForNoLimit) {
  const ScriptedServer server(answering(KeepAlive));
  writePreferences(preference("SelectionConnectTimeout", "3000"));
  const json result = runJson({"probe", "127.0.0.1:" + std::to_string(server.port()), "-c", "5",
                               "--set", "SelectionPingsPerHeadend=5", "--interval", "1"},
                              0);
  EXPECT_EQ(result.at("selection").at("probes"), 5) << "3 s have passed";
}

TEST_F(ProbeCommandTest, SecureProbesAreThoseOfALoginAtAProxy) {
  const TestCertificates certificates;
  const NginxServer server(certificates);
  const json result = runJson({"probe", server.Address(), "--secure", "-c", "2"}, 0);
  EXPECT_EQ(result["secure"], true);
  ASSERT_EQ(result["probes"].size(), 2U);
  EXPECT_EQ(result["probes"][0]["statusName"], "HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE");
  EXPECT_EQ(result["selection"]["outcome"], "untrusted certificate");
  EXPECT_TRUE(result["selection"]["metricMs"].is_number());
  EXPECT_TRUE(result["request"].empty()) << "nothing is sent to a server that is not trusted";
  EXPECT_EQ(result["tls"]["certificate"]["trusted"], false);
}

TEST_F(ProbeCommandTest, AServerOfPlainHttpSpeaksNoTlsAndKeepsTheConnection) {
  // First byte of a TLS handshake record.
  constexpr char TlsGreeting = 0x16;
  // Answers the greeting at once: the time-out is long, and a connection is not kept if an answer
  // takes a good part of it.
  const ScriptedServer server([](Connection& connection) {
    for (std::string request = connection.readSome();
         !request.empty() && request.front() != TlsGreeting; request = connection.readSome()) {
      connection.send(KeepAlive);
    }
  });
  const json result = runJson(
      {"probe", "127.0.0.1:" + std::to_string(server.port()), "--count", "5", "--timeout", "60"},
      0);
  ASSERT_EQ(result["probes"].size(), 5U);
  EXPECT_EQ(result["probes"][0]["reused"], false);
  EXPECT_EQ(result["probes"][4]["reused"], true);
  EXPECT_EQ(result["probes"][0]["httpStatus"], 200);
  EXPECT_EQ(result["tls"]["speaksTls"], false);
  EXPECT_THAT(result["request"], Contains("GET / HTTP/1.1"));
  EXPECT_EQ(result["selection"]["probes"], 3) << "as many as a selection sends";
}

TEST_F(ProbeCommandTest, AClosedPortIsRefusedAndHasNoResult) {
  const RefusingPort port("127.0.0.1");
  const Outcome outcome = run({"probe", port.Where().Text()});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_THAT(outcome.out, HasSubstr("   2. no sample  cannot connect  "));
  EXPECT_THAT(outcome.out, HasSubstr("  127.0.0.1  refused\n"));
  EXPECT_THAT(outcome.err, HasSubstr("nothing listens on that port there"));
}

TEST_F(ProbeCommandTest, AHostEntryIsProbedAtItsAddressWithThePreferencesInForce) {
  const ScriptedServer server(answering(KeepAlive));
  const std::string address = "127.0.0.1:" + std::to_string(server.port());
  writeProfile("false", host("Head office", address));
  writePreferences(preference("SelectionPingsPerHeadend", "4"));
  const json result = runJson({"probe", "head OFFICE"}, 0);
  EXPECT_EQ(result["headend"], address);
  EXPECT_EQ(result["hostEntry"], "Head office");
  EXPECT_EQ(result["probes"].size(), 4U);
  EXPECT_EQ(result["roundTripTime"], "response");
}

TEST_F(ProbeCommandTest, AReaderThatHasGoneEndsTheProbesQuietly) {
  const ScriptedServer server(answering(KeepAlive));
  const Outcome outcome = runForNobody(
      {"probe", "127.0.0.1:" + std::to_string(server.port()), "-c", "1000"}, environment);
  EXPECT_EQ(outcome.exitStatus, 128 + SIGPIPE);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(server.accepted(), 0U);
}

TEST_F(ProbeCommandTest, CtrlCSumsUpWhatWasMeasuredAndGivesTheVerdictAfterTheLastProbe) {
  for (const auto& [answers, shown] :
       {std::pair{2, "   2. "}, std::pair{3, " ms of all samples"}}) {
    // The first connection gets this many answers; later requests wait.
    std::atomic<int> left = answers;
    const ScriptedServer server([&left](Connection& connection) {
      while (left-- > 0 && !connection.readHead().empty()) {
        connection.send(KeepAlive);
      }
      connection.waitForPeer();
    });
    Program program({"probe", "127.0.0.1:" + std::to_string(server.port()), "--timeout", "600"},
                    environment, Program::Terminal::All);
    ASSERT_TRUE(program.waitForError(shown)) << program.soFar().err;
    program.type("\x03");
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.exitStatus, 128 + SIGINT);
    EXPECT_THAT(outcome.err,
                HasSubstr(std::to_string(answers) + " with a sample, 0 without (0 %)"));
    EXPECT_EQ(outcome.err.find("In a selection of 3 probes a headend") != std::string::npos,
              answers == 3);
  }
}

TEST_F(ProbeCommandTest, InterruptedJsonIsNoJson) {
  SilentListener silent("127.0.0.1");
  Program program({"probe", silent.Where().Text(), "--timeout", "600", "--json"}, environment);
  ASSERT_TRUE(eventually([&silent] { return silent.ConnectionCount() > 0; }));
  kill(program.pid(), SIGTERM);
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitStatus, 128 + SIGTERM);
  EXPECT_EQ(outcome.out, "");
}

}  // namespace
}  // namespace tests
