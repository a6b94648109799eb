// Secure probes: what is trusted, what is an answer all the same, and that nothing is said to a
// server that is not trusted.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <thread>

#include "tests/support/ScriptedServer.h"
#include "tests/support/TestAuthority.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

using testing::StartsWith;
using tests::answering;
using tests::answeringOverTls;
using tests::Connection;
using tests::RequestLog;
using tests::ScriptedServer;
using tests::TestAuthority;
using tests::TlsServerContext;
using namespace std::chrono_literals;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

class HttpProbeTlsTest : public HttpProbeTest {
 protected:
  void expectAnswerWithRoundTripTime() {
    EXPECT_GE(report().connectUs, 0);
    EXPECT_GE(report().networkRttUs, 0);
    EXPECT_GE(report().responseRttUs, 0);
    EXPECT_LE(report().responseRttUs, report().totalUs);
  }

  TestAuthority authority;
  RequestLog log;
};

TEST_F(HttpProbeTlsTest, ATrustedServerIsASuccess) {
  HttpProbe::setTrustFile(authority.file());
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk, &log));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  ASSERT_EQ(log.all().size(), 1U);
  EXPECT_THAT(log.all()[0], StartsWith("GET / HTTP/1.1\r\n"));
  EXPECT_TRUE(report().secure);
  EXPECT_GE(report().tlsUs, report().connectUs);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, AnUnknownAuthorityIsAMeasuredAnswerAndNothingIsSentToItsServer) {
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk, &log));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  EXPECT_EQ(results.uiLastError, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  EXPECT_EQ(report().tlsUs, -1);
  for (const std::string& request : log.all()) {
    EXPECT_EQ(request, "");
  }
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, AnExpiredCertificateIsUntrusted) {
  HttpProbe::setTrustFile(authority.file());
  TestAuthority::Subject subject;
  subject.validUntil = -60;
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue(subject)), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, ACertificateThatIsNotYetValidIsUntrusted) {
  HttpProbe::setTrustFile(authority.file());
  TestAuthority::Subject subject;
  subject.validFrom = 600;
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue(subject)), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, ACertificateForAnotherHostIsUntrusted) {
  HttpProbe::setTrustFile(authority.file());
  TestAuthority::Subject subject;
  subject.alternativeNames = "DNS:vpn.example,IP:127.0.0.2";
  const ScriptedServer server(
      answeringOverTls(TlsServerContext(authority.issue(subject)), kOk, &log));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  for (const std::string& request : log.all()) {
    EXPECT_EQ(request, "");
  }
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, ATrustFileThatCannotBeReadAddsNothing) {
  HttpProbe::setTrustFile("/nonexistent/trust.pem");
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
}

TEST_F(HttpProbeTlsTest, AnEmptyPathTakesTheTrustBack) {
  HttpProbe::setTrustFile(authority.file());
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  HttpProbe::setTrustFile("");
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
}

class HttpProbeOfTlsVersion : public HttpProbeTlsTest, public testing::WithParamInterface<int> {
 protected:
  TlsServerContext context(bool demandClientCertificate) {
    TlsServerContext::Settings settings;
    settings.demandClientCertificate = demandClientCertificate;
    settings.minVersion = GetParam();
    settings.maxVersion = GetParam();
    return {authority.issue(), settings};
  }
};

TEST_P(HttpProbeOfTlsVersion, SucceedsWhereNoClientCertificateIsDemanded) {
  HttpProbe::setTrustFile(authority.file());
  const ScriptedServer server(answeringOverTls(context(false), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
}

TEST_P(HttpProbeOfTlsVersion, TellsThatAClientCertificateIsDemanded) {
  HttpProbe::setTrustFile(authority.file());
  const ScriptedServer server(answeringOverTls(context(true), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_CLIENT_AUTH_CERT_NEEDED)
      << results.uiLastError;
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  expectAnswerWithRoundTripTime();
}

TEST_P(HttpProbeOfTlsVersion, PutsAnUntrustedCertificateBeforeTheClientCertificateDemanded) {
  const ScriptedServer server(answeringOverTls(context(true), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
}

INSTANTIATE_TEST_SUITE_P(Tls, HttpProbeOfTlsVersion,
                         testing::Values(TLS1_2_VERSION, TLS1_3_VERSION), [](const auto& param) {
                           return param.param == TLS1_2_VERSION ? "1_2" : "1_3";
                         });

TEST_F(HttpProbeTlsTest, AServerOfAnOldVersionIsAnInvalidResponse) {
  HttpProbe::setTrustFile(authority.file());
  TlsServerContext::Settings settings;
  settings.maxVersion = TLS1_1_VERSION;
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue(), settings), kOk));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_EQ(results.uiLastError, CURLE_SSL_CONNECT_ERROR);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, APlainAnswerToTlsIsAnInvalidResponse) {
  const ScriptedServer server([](Connection& connection) {
    connection.readSome();
    connection.send("HTTP/1.1 400 Bad Request\r\n\r\n");
    connection.waitForPeer();
  });
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, APlainRequestToATlsServerIsAnInvalidResponse) {
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, AConnectionClosedInTheHandshakeIsAnInvalidResponse) {
  const ScriptedServer server([](Connection& connection) { connection.readSome(); });
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, AConnectionResetInTheHandshakeIsAnInvalidResponse) {
  const ScriptedServer server([](Connection& connection) {
    connection.readSome();
    connection.resetAtEnd();
  });
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, ATlsServerThatClosesWithoutAWordIsAnInvalidResponse) {
  HttpProbe::setTrustFile(authority.file());
  const ScriptedServer server(
      [context = TlsServerContext(authority.issue())](Connection& connection) {
        connection.startTls(context);
        connection.readHead();
      });
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectAnswerWithRoundTripTime();
}

TEST_F(HttpProbeTlsTest, TheResponseMeasureOfAFailedHandshakeStartsAtTheConnection) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  const ScriptedServer server([](Connection& connection) {
    connection.readSome();
    connection.wait(300ms);
  });
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_GE(results.uiRtt, 290U);
}

// Both ways make the probe write to a connection that is gone. A SIGPIPE would end this program.
TEST_F(HttpProbeTlsTest, AConnectionGoneAfterTheHandshakeIsAnInvalidResponseAndRaisesNoSignal) {
  HttpProbe::setTrustFile(authority.file());
  const TlsServerContext context(authority.issue());
  const ScriptedServer resetting([context](Connection& connection) {
    connection.startTls(context);
    connection.resetAtEnd();
  });
  const ScriptedServer closing([context](Connection& connection) {
    connection.startTls(context);
    connection.wait(10ms);
  });
  constexpr int kAttempts = 10;
  for (int i = 0; i < kAttempts; ++i) {
    EXPECT_EQ(probeSecurely(resetting.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
    EXPECT_EQ(probeSecurely(closing.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  }
}

TEST_F(HttpProbeTlsTest, SecureProbesOfManyThreadsShareWhatTheyTrust) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 5;
  HttpProbe::setTrustFile(authority.file());
  const ScriptedServer server(answeringOverTls(TlsServerContext(authority.issue()), kOk));
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        HttpProbe::HTTP_PROBE_RESULTS own;
        wrong += HttpProbe::SendHttpProbe("127.0.0.1", true, false, server.port(), "", kPatience,
                                          PROXY_DATA(), kAll, own) != HTTP_SESSION_SUCCESS;
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    HttpProbe::setTrustFile(authority.file());
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

// OpenSSL reads messages that lead nowhere by itself, as long as they come. The servers here would
// go on for much longer than the probe has time; at their end they would hang up, which is another
// outcome.
constexpr auto MuchLater = 20s;
constexpr unsigned int ShortTime = 1;

TEST_F(HttpProbeTlsTest, AHandshakeOfEndlessRequestsToBeginAgainEndsWithTheTimeout) {
  const ScriptedServer server([](Connection& connection) {
    connection.readSome();
    // Records of TLS 1.2 with HelloRequest messages (RFC 5246, section 7.4.1.1).
    std::string requests;
    for (int i = 0; i < 1000; ++i) {
      requests += std::string("\x16\x03\x03\x00\x04\x00\x00\x00\x00", 9);
    }
    const auto end = std::chrono::steady_clock::now() + MuchLater;
    while (std::chrono::steady_clock::now() < end && connection.send(requests)) {
    }
  });
  EXPECT_EQ(probeSecurely(server.port(), ShortTime), HTTP_SESSION_ERROR_TIMEOUT);
}

ScriptedServer::Script changingKeysAfter(const TlsServerContext& context,
                                         const std::string& answer) {
  return [&context, answer](Connection& connection) {
    if (!connection.startTls(context)) {
      return;
    }
    connection.readHead();
    if (!answer.empty()) {
      connection.send(answer);
    }
    const auto end = std::chrono::steady_clock::now() + MuchLater;
    while (std::chrono::steady_clock::now() < end && connection.updateKeys()) {
    }
  };
}

TEST_F(HttpProbeTlsTest, EndlessChangesOfKeysInPlaceOfAnAnswerEndWithTheTimeout) {
  HttpProbe::setTrustFile(authority.file());
  const TlsServerContext context(authority.issue());
  const ScriptedServer server(changingKeysAfter(context, ""));
  EXPECT_EQ(probeSecurely(server.port(), ShortTime), HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(HttpProbeTlsTest, EndlessChangesOfKeysAfterAnAnswerDoNotHoldTheNextProbeUp) {
  HttpProbe::setTrustFile(authority.file());
  const TlsServerContext context(authority.issue());
  const ScriptedServer server(
      changingKeysAfter(context, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n"));
  const HttpProbe::KeptConnection kept;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS) << i;
  }
  EXPECT_EQ(server.accepted(), 3U);
}

}  // namespace
