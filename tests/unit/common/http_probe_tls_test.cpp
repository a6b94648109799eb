// Secure probes: which certificates are trusted, what else counts as an answer, and that an
// untrusted server receives nothing.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <time.h>

#include <atomic>
#include <thread>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestAuthority.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace tests {
namespace {

using testing::StartsWith;
using namespace std::chrono_literals;

class HttpProbeTlsTest : public HttpProbeTest {
 protected:
  void SetUp() override { HttpProbe::setTrustFile(authority.file()); }

  /// Probes a TLS server that answers and records its requests.
  STATUSCODE probeOne(const TlsServerContext::Settings& settings = {}) {
    return probeOf(answeringOverTls(TlsServerContext(authority.issue(), settings), kOk, &log),
                   true);
  }
  TestAuthority authority;
};

TEST_F(HttpProbeTlsTest, ATrustedServerIsASuccess) {
  EXPECT_EQ(probeOne(), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_THAT(log.all(), testing::ElementsAre(StartsWith("GET / HTTP/1.1\r\n")));
  EXPECT_TRUE(report().secure);
  EXPECT_GE(report().tlsUs, report().connectUs);
  expectRoundTripTimes();
}

TEST_F(HttpProbeTlsTest, AnUnknownAuthorityIsAMeasuredAnswerAndNothingIsSentToItsServer) {
  for (const char* file : {"", "/nonexistent/trust.pem"}) {
    HttpProbe::setTrustFile(file);
    EXPECT_EQ(probeOne(), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
    EXPECT_EQ(results.uiLastError, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(results.uiHttpStatusCode, 0U);
    EXPECT_EQ(report().tlsUs, -1);
    EXPECT_THAT(log.all(), testing::Each("")) << "nothing is sent to who is not trusted";
    expectRoundTripTimes();
  }
}

class HttpProbeOfTlsVersion : public HttpProbeTlsTest, public testing::WithParamInterface<int> {};

TEST_P(HttpProbeOfTlsVersion, TellsThatAClientCertificateIsDemandedIfTheServerIsTrusted) {
  EXPECT_EQ(probeOne({false, GetParam(), GetParam()}), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probeOne({true, GetParam(), GetParam()}), HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED)
      << results.uiLastError;
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  expectRoundTripTimes();
  HttpProbe::setTrustFile("");
  EXPECT_EQ(probeOne({true, GetParam(), GetParam()}), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
}

INSTANTIATE_TEST_SUITE_P(Tls, HttpProbeOfTlsVersion,
                         testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), [](const auto& param) {
                           return param.param == TLS1_2_VERSION ? "1_2" : "1_3";
                         });

TEST_F(HttpProbeTlsTest, APlainRequestToATlsServerIsAnInvalidResponse) {
  EXPECT_EQ(probeOf(answeringOverTls(TlsServerContext(authority.issue()), kOk)),
            HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectRoundTripTimes();
}

/// Processor time of this process.
std::chrono::nanoseconds worked() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

TEST_F(HttpProbeTlsTest, AServerThatIsSilentInTheHandshakeIsWaitedForWithoutWork) {
  const ScriptedServer server(staySilent);
  const auto before = worked();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(probeSecurely(server.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_LT(worked() - before, (std::chrono::steady_clock::now() - start) / 2);
}

TEST_F(HttpProbeTlsTest, AHandshakeThatEndsInAnotherWayIsAnInvalidResponse) {
  const TlsServerContext context(authority.issue());
  const std::pair<const char*, ScriptedServer::Script> servers[] = {
      {"plain answer",
       [](Connection& connection) {
         connection.readSome();
         connection.send("HTTP/1.1 400 Bad Request\r\n\r\n");
         connection.waitForPeer();
       }},
      {"closed in the handshake", [](Connection& connection) { connection.readSome(); }},
      {"reset in the handshake",
       [](Connection& connection) {
         connection.readSome();
         connection.resetAtEnd();
       }},
      {"closed after the handshake",
       [context](Connection& connection) {
         connection.startTls(context);
         connection.readHead();
       }},
  };
  for (const auto& [name, script] : servers) {
    SCOPED_TRACE(name);
    EXPECT_EQ(probeOf(script, true), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
    EXPECT_EQ(results.uiHttpStatusCode, 0U);
    expectRoundTripTimes();
  }
}

TEST_F(HttpProbeTlsTest, TheResponseMeasureOfAFailedHandshakeStartsAtTheConnection) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  EXPECT_EQ(probeOf(
                [](Connection& connection) {
                  connection.readSome();
                  connection.wait(300ms);
                },
                true),
            HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_GE(results.uiRtt, 290U);
}

TEST_F(HttpProbeTlsTest, ProbesOfManyThreadsShareWhatTheyTrustAndDoNotDisturbEachOther) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 10;
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk));
  const RefusingPort closed("127.0.0.1");
  std::vector<std::jthread> threads;
  std::atomic<int> wrong{0};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < kRounds; ++round) {
        HttpProbe::HTTP_PROBE_RESULTS own;
        const bool refused = (i + round) % 2 == 0;
        const STATUSCODE status = HttpProbe::SendHttpProbe(
            "127.0.0.1", true, false, refused ? closed.Where().port : server.port(), "", kPatience,
            PROXY_DATA(), kAll, own);
        wrong += status != (refused ? HTTP_SESSION_ERROR_CANNOT_CONNECT : HTTP_SESSION_SUCCESS);
        wrong += own.uiHttpStatusCode != (refused ? 0 : 200);
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    HttpProbe::setTrustFile(authority.file());
    HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  }
  threads.clear();  // waits for them
  EXPECT_EQ(wrong, 0);
}

// OpenSSL keeps reading messages that change nothing. The servers here send them much longer than
// the probe's time limit; then they would hang up, with another outcome.
constexpr auto MuchLater = 20s;
constexpr unsigned int ShortTime = 1;

void repeat(const std::function<bool()>& message) {
  const auto end = std::chrono::steady_clock::now() + MuchLater;
  while (std::chrono::steady_clock::now() < end && message()) {
  }
}

TEST_F(HttpProbeTlsTest, AHandshakeOfEndlessRequestsToBeginAgainEndsWithTheTimeout) {
  // Records of TLS 1.2 with HelloRequest messages (RFC 5246, section 7.4.1.1).
  std::string requests;
  for (int i = 0; i < 1000; ++i) {
    requests += std::string("\x16\x03\x03\x00\x04\x00\x00\x00\x00", 9);
  }
  EXPECT_EQ(probeOf(
                [&requests](Connection& connection) {
                  connection.readSome();
                  repeat([&] { return connection.send(requests); });
                },
                true, ShortTime),
            HTTP_SESSION_ERROR_TIMEOUT);
}

ScriptedServer::Script changingKeysAfter(const TlsServerContext& context,
                                         const std::string& answer) {
  return [context, answer](Connection& connection) {
    if (connection.startTls(context)) {
      connection.readHead();
      connection.send(answer);
      repeat([&] { return connection.updateKeys(); });
    }
  };
}

TEST_F(HttpProbeTlsTest, EndlessChangesOfKeysInPlaceOfAnAnswerEndWithTheTimeout) {
  EXPECT_EQ(probeOf(changingKeysAfter(TlsServerContext(authority.issue()), ""), true, ShortTime),
            HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(HttpProbeTlsTest, EndlessChangesOfKeysAfterAnAnswerDoNotHoldTheNextProbeUp) {
  const ScriptedServer server(changingKeysAfter(TlsServerContext(authority.issue()),
                                                "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n"));
  const HttpProbe::KeptConnection kept;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS) << i;
  }
  EXPECT_EQ(server.accepted(), 3U);
}

}  // namespace
}  // namespace tests
