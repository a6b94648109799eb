// Probes that share a connection: what keeps it open, what ends it, and that sharing changes only
// the cost.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <optional>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/Gate.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestAuthority.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace tests {
namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr char kHead[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";
constexpr char kAnswer[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";

/// The server's reaction to a request.
/// @param number of the request, from 1.
/// @return whether to keep serving the connection.
using Treatment = std::function<bool(unsigned int number, Connection& connection)>;

/// A server that counts the requests of the whole test.
class Requests {
 public:
  explicit Requests(Treatment treatment)
      : m_treatment(std::move(treatment)), m_server([this](Connection& connection) {
          bool open = true;
          while (open && !connection.readHead().empty()) {
            open = m_treatment(++m_count, connection);
          }
        }) {}

  unsigned short port() const { return m_server.port(); }
  unsigned int connections() const { return m_server.accepted(); }

 private:
  const Treatment m_treatment;
  std::atomic<unsigned int> m_count{0};
  ScriptedServer m_server;  // last: its threads use the others
};

bool reset(Connection& connection) {
  connection.resetAtEnd();
  return false;
}

bool silence(Connection& connection) {
  connection.waitForPeer();
  return false;
}

class HttpProbeKeptTest : public HttpProbeTest {
 protected:
  /// Sends three probes; all must be answered.
  void probeThrice(unsigned short port, bool secure = false,
                   std::chrono::milliseconds pause = 0ms) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(secure ? probeSecurely(port) : probe(port), HTTP_SESSION_SUCCESS) << "probe " << i;
      EXPECT_NE(results.uiHttpStatusCode, 500U) << "which nobody has asked for";
      expectRoundTripTimes();
      std::this_thread::sleep_for(pause);
    }
  }
  void expectOpenedAnew() {
    EXPECT_FALSE(report().reused);
    EXPECT_GE(report().connectUs, 0);
    EXPECT_LE(report().connectUs, report().totalUs);
    EXPECT_EQ(report().address, "127.0.0.1");
  }
  void expectReused() {
    EXPECT_TRUE(report().reused);
    EXPECT_EQ(report().connectUs, -1);
    EXPECT_EQ(report().tlsUs, -1);
    EXPECT_GE(report().networkRttUs, 0);
    EXPECT_EQ(report().address, "127.0.0.1");
  }

  std::optional<HttpProbe::KeptConnection> kept{std::in_place};
};

TEST_F(HttpProbeKeptTest, ThreeProbesShareAConnectionAndSendTheSame) {
  const ScriptedServer server(answering(kAnswer, &log));
  userAgent = "probe";
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    EXPECT_EQ(results.uiLastError, 0U);
    EXPECT_EQ(results.tstrResponseHeaders, kHead);
    EXPECT_EQ(results.uiRtt, std::max((report().networkRttUs + 500) / 1000, 1LL));
    expectReused();
  }
  EXPECT_EQ(server.accepted(), 1U);
  const std::string first = log.all()[0];
  EXPECT_THAT(first, HasSubstr("\r\nUser-Agent: probe\r\n"));
  EXPECT_THAT(log.all(), testing::ElementsAre(first, first, first));
}

std::string withFields(const std::string& fields, const std::string& body = "") {
  return "HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}

std::string chunk(std::size_t bytes) {
  std::array<char, 16> size{};
  snprintf(size.data(), size.size(), "%zx\r\n", bytes);
  return size.data() + std::string(bytes, 'x') + "\r\n";
}

struct ANSWER {
  const char* name;
  std::string text;
};

const ANSWER kShortAnswers[] = {
    {"without a body", withFields("content-length:0\r\n")},
    {"with a body", kAnswer},
    {"of 12 KB", withFields("Content-Length: 12000\r\n", std::string(12000, 'x'))},
    {"in chunks",
     withFields("Transfer-Encoding: chunked\r\n", chunk(3000) + chunk(9000) + "0\r\n\r\n")},
    {"in chunks with fields at the end",
     withFields("Transfer-Encoding: Chunked\r\n", chunk(7) + "0\r\nX: y\r\n\r\n")},
    {"no content", "HTTP/1.1 204 No Content\r\n\r\n"},
    {"not modified", "HTTP/1.1 304 Not Modified\r\nContent-Length: 100000\r\n\r\n"},
    {"redirect", "HTTP/1.1 302 Found\r\nLocation: /x\r\nContent-Length: 0\r\n\r\n"},
    {"after an interim one", "HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + std::string(kAnswer)},
};

TEST_F(HttpProbeKeptTest, AShortAnswerKeepsTheConnection) {
  for (const auto& [name, text] : kShortAnswers) {
    SCOPED_TRACE(name);
    const ScriptedServer server(answering(text));
    probeThrice(server.port());
    expectReused();
    EXPECT_EQ(server.accepted(), 1U);
    EXPECT_EQ(results.tstrResponseHeaders,
              text.substr(text.rfind("HTTP/1.1 "), results.tstrResponseHeaders.size()));
  }
}

/// An answer of this size, followed by an unsolicited one.
std::string withAnotherAfter(std::size_t bytes) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: ";
  std::string answer = head + std::to_string(bytes) + "\r\n\r\n";
  const std::size_t body = bytes - answer.size();
  answer = head + std::string(std::to_string(bytes).size() - std::to_string(body).size(), '0') +
           std::to_string(body) + "\r\n\r\n" + std::string(body, 'x');
  EXPECT_EQ(answer.size(), bytes);
  return answer + "HTTP/1.1 500 X\r\nContent-Length: 0\r\n\r\n";
}

// libcurl's buffer size decides where it stops reading.
constexpr std::array<std::size_t, 5> kSizesOfAnswers{60, 1024, 2048, 4096, 8192};

void sendAByteNowAndThen(Connection& connection) {
  connection.readHead();
  connection.send(withFields("Content-Length: 1000\r\n"));
  for (int i = 0; i < 1000 && connection.send("x"); ++i) {
    connection.wait(20ms);
  }
}

struct SERVER {
  std::string name;
  ScriptedServer::Script script;
  std::chrono::milliseconds pause = 0ms;
};

std::vector<SERVER> serversNotWorthKeeping() {
  std::vector<SERVER> servers = {
      {"announces too much", answering(withFields("Content-Length: 1000000000\r\n"))},
      {"sends just too much",
       answering(withFields("Content-Length: 15000\r\n", std::string(15000, 'x')))},
      {"announces a length beyond all numbers",
       answering(withFields("Content-Length: 99999999999999999999999\r\n"))},
      {"sends many chunks", answering(withFields("Transfer-Encoding: chunked\r\n",
                                                 chunk(9000) + chunk(9000) + "0\r\n\r\n"))},
      {"compresses its chunks",
       answering(withFields("Transfer-Encoding: gzip, chunked\r\n", chunk(5) + "0\r\n\r\n"))},
      {"sends up to the end of the connection", answering(withFields("", "ok"))},
      {"says that it closes", answering(withFields("Connection: Close\r\nContent-Length: 0\r\n"))},
      {"speaks the old version", answering("HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n")},
      {"closes", answeringAfter(0ms, kAnswer)},
      {"closes, before the next probe", answeringAfter(0ms, kAnswer), 20ms},
      {"leaves a message before it closes",
       [](Connection& connection) {
         connection.readHead();
         connection.send(kAnswer);
         connection.wait(20ms);
         connection.send("HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\n\r\n");
       },
       60ms},
      {"leaves out the body", answering(kHead)},
      {"sends the body a byte now and then", sendAByteNowAndThen},
  };
  for (const std::size_t bytes : kSizesOfAnswers) {
    servers.push_back({"sends more than asked for after " + std::to_string(bytes),
                       answering(withAnotherAfter(bytes))});
  }
  return servers;
}

TEST_F(HttpProbeKeptTest, AnAnswerNotWorthReadingCostsTheConnection) {
  for (const SERVER& row : serversNotWorthKeeping()) {
    SCOPED_TRACE(row.name);
    const ScriptedServer server(row.script);
    probeThrice(server.port(), false, row.pause);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    EXPECT_LT(report().totalUs, 1000 * 20'000LL) << "a slow body holds nothing up";
    expectOpenedAnew();
    EXPECT_EQ(server.accepted(), 3U);
  }
}

TEST_F(HttpProbeKeptTest,
       AProbeEndsBeforeTheBodyOfItsAnswerIsSentWhichKeepsTheConnectionIfItIsAll) {
  const std::string body(1024, 'x');  // libcurl's buffer ends with it
  for (const std::string unasked : {"", "HTTP/1.1 500 X\r\nContent-Length: 0\r\n\r\n"}) {
    Gate gate;
    Gate sent;
    Requests server([&](unsigned int number, Connection& connection) {
      if (number != 1) {
        return connection.send(kAnswer);
      }
      connection.send(withFields("Content-Length: 1024\r\n"));
      gate.pass();
      connection.send(body + unasked);
      sent.open();
      return true;
    });
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_GE(report().networkRttUs, 0);
    gate.open();
    sent.pass();
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    EXPECT_EQ(server.connections(), unasked.empty() ? 1U : 2U);
  }
}

// Failures of a kept connection say nothing about the server.
TEST_F(HttpProbeKeptTest, ARequestThatAKeptConnectionDoesNotAnswerIsSentOnAFreshOne) {
  const std::function<bool(Connection&)> failures[] = {
      reset,
      [](Connection& connection) {
        connection.send("HTTP/1.1 200 OK\r\nServer: te");
        connection.wait(50ms);
        return reset(connection);
      },
      [](Connection& connection) { return connection.send("\x01\x02garbage\xff\r\n\r\n"); },
      [](Connection& connection) { return !connection.send("x"); },
  };
  for (const auto& failure : failures) {
    // The third request repeats the second.
    Requests server([&](unsigned int number, Connection& connection) {
      return number == 2 ? failure(connection) : connection.send(kAnswer);
    });
    for (unsigned int connections = 1; connections <= 3; ++connections) {
      EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
      EXPECT_EQ(results.uiLastError, 0U);
      expectOpenedAnew();
      EXPECT_LE(report().responseRttUs, report().totalUs - report().connectUs);
      EXPECT_EQ(server.connections(), connections) << "once is enough";
    }
  }
}

/// How a server treats its second and later requests, and the outcome of the second probe.
struct SECOND {
  const char* name;
  Treatment treatment;
  unsigned int timeout;
  STATUSCODE status;
  bool reused;
  long long minTotalUs = 0;
  long long maxTotalUs = 60'000'000;
  long long maxResponseUs = 60'000'000;
};

const SECOND kSecondProbes[] = {
    // A busy gateway's late answer counts, whatever a fresh connection brings.
    {"LateAnswerOnTheKeptConnectionCounts",
     [](unsigned int, Connection& connection) {
       connection.wait(1400ms);
       return connection.send(kAnswer);
     },
     2, HTTP_SESSION_SUCCESS, true, 1'400'000},
    {"FreshConnectionThatIsResetToo",
     [](unsigned int, Connection& connection) { return reset(connection); }, 20,
     HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, false},
    // The wait for the kept connection does not add to the fresh one's round trip.
    {"FreshConnectionThatIsResetHasARoundTripOfItsOwn",
     [](unsigned int number, Connection& connection) {
       return number == 2 ? silence(connection) : reset(connection);
     },
     4, HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE, false, 3'990'000, 60'000'000, 2'000'000},
    // Some servers keep a connection open but never read from it again.
    {"SilenceIsNoTimeOutIfAFreshConnectionIsAnswered",
     [](unsigned int number, Connection& connection) {
       return number == 2 ? silence(connection) : connection.send(kAnswer);
     },
     4, HTTP_SESSION_SUCCESS, false, 990'000},
    {"SilenceOnBothIsATimeOut",
     [](unsigned int, Connection& connection) { return silence(connection); }, 4,
     HTTP_SESSION_ERROR_TIMEOUT, false, 3'990'000},
    // With a time-out of its own, the second attempt would end after 8 s at the earliest.
    {"SilenceAfterAResetDoesNotOutlastTheTimeOut",
     [](unsigned int number, Connection& connection) {
       connection.wait(2s);  // a kept connection has 3 s
       return number == 2 ? reset(connection) : silence(connection);
     },
     6, HTTP_SESSION_ERROR_TIMEOUT, false, 5'990'000, 8'000'000},
};

class HttpProbeAfterAKeptOne : public HttpProbeKeptTest,
                               public testing::WithParamInterface<SECOND> {};

TEST_P(HttpProbeAfterAKeptOne, HasTheOutcomeOfTheServerWithinItsTimeOut) {
  Requests server([](unsigned int number, Connection& connection) {
    return number == 1 ? connection.send(kAnswer) : GetParam().treatment(number, connection);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), GetParam().timeout), GetParam().status);
  EXPECT_TRUE(eventually([&] { return server.connections() == 2; }));
  EXPECT_EQ(report().reused, GetParam().reused);
  EXPECT_GE(report().totalUs, GetParam().minTotalUs);
  EXPECT_LT(report().totalUs, GetParam().maxTotalUs);
  EXPECT_LT(report().responseRttUs, GetParam().maxResponseUs);
  if (GetParam().status == HTTP_SESSION_ERROR_TIMEOUT) {
    EXPECT_EQ(results.uiRtt, 0U);
    return;
  }
  EXPECT_GE(report().responseRttUs, 0);
  if (GetParam().status == HTTP_SESSION_SUCCESS && !report().reused) {
    EXPECT_GE(report().connectUs, GetParam().minTotalUs) << "where the wait is told";
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    expectOpenedAnew();
    EXPECT_EQ(server.connections(), 3U) << "once is enough";
  }
}

INSTANTIATE_TEST_SUITE_P(Server, HttpProbeAfterAKeptOne, testing::ValuesIn(kSecondProbes),
                         [](const auto& param) { return param.param.name; });

TEST_F(HttpProbeKeptTest, ARequestThatMeetsAClosedConnectionAndThenNobodyCannotConnect) {
  std::optional<ScriptedServer> server(std::in_place, answering(kAnswer));
  const unsigned short port = server->port();
  EXPECT_EQ(probe(port), HTTP_SESSION_SUCCESS);
  server.reset();
  EXPECT_EQ(probe(port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_FALSE(report().reused);
}

// A slow request on a kept connection would have to be sent twice.
TEST_F(HttpProbeKeptTest, AServerThatTakesMuchOfTheTimeOutHasAllOfItOnAConnectionOfItsOwn) {
  Requests server([](unsigned int, Connection& connection) {
    connection.wait(2200ms);
    return connection.send(kAnswer);
  });
  for (unsigned int i = 1; i <= 2; ++i) {
    EXPECT_EQ(probe(server.port(), 4), HTTP_SESSION_SUCCESS);
    expectOpenedAnew();
    EXPECT_EQ(server.connections(), i);
  }
}

TEST_F(HttpProbeKeptTest, TheResponseMeasureOfAKeptConnectionStartsAtTheRequest) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  Requests server([](unsigned int number, Connection& connection) {
    connection.wait(number == 2 ? 300ms : 0ms);
    return connection.send(kAnswer);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectReused();
  EXPECT_GE(results.uiRtt, 300U);
  EXPECT_EQ(results.uiRtt, (report().responseRttUs + 500) / 1000);
  const auto slow = report().responseRttUs;
  // A measure from the connection on is never smaller; a busy machine may disturb one.
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    return report().responseRttUs < slow;
  }));
}

TEST_F(HttpProbeKeptTest, TheConnectionClosesWithTheScopeAlsoWhereABodyIsDue) {
  for (const char* answer : {kAnswer, kHead}) {
    std::atomic<int> closed{0};
    const ScriptedServer server([&](Connection& connection) {
      while (!connection.readHead().empty() && connection.send(answer)) {
      }
      ++closed;
    });
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(closed, 0);
    kept.reset();
    EXPECT_TRUE(eventually([&] { return closed == 1; }));
    kept.emplace();
  }
}

TEST_F(HttpProbeKeptTest, AnInnerScopeDoesNothingAndWithoutOneAsOnAnotherThreadNothingIsKept) {
  const ScriptedServer server(answering(kAnswer));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  {
    const HttpProbe::KeptConnection inner;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  }
  EXPECT_EQ(server.accepted(), 1U);
  std::thread([&] { probeThrice(server.port()); }).join();
  EXPECT_EQ(server.accepted(), 4U);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(server.accepted(), 4U);
}

TEST_F(HttpProbeKeptTest, AnotherTargetHasAConnectionOfItsOwn) {
  const ScriptedServer one(answering(kAnswer));
  const ScriptedServer other(answering("HTTP/1.1 404 X\r\nContent-Length: 0\r\n\r\n"));
  for (const ScriptedServer* server : {&one, &other, &one}) {
    EXPECT_EQ(probe(server->port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiHttpStatusCode, server == &one ? 200U : 404U);
  }
  EXPECT_EQ(probe(one.port(), kPatience, "localhost"), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_EQ(probeSecurely(one.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
  expectOpenedAnew();
  EXPECT_TRUE(eventually([&] { return one.accepted() == 4; }));
  EXPECT_EQ(other.accepted(), 1U);
}

TEST_F(HttpProbeKeptTest, ProbesThroughAProxyOrWithCredentialsAreNotKeptAndEndNothingThatIs) {
  const ScriptedServer server(answering(kAnswer));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  PROXY_DATA byProxy;
  byProxy.proxyServer = "http=http://127.0.0.1:" + std::to_string(server.port());
  PROXY_DATA withCredentials;
  withCredentials.proxyUser = "user";
  withCredentials.proxyPswd = "secret";
  for (const PROXY_DATA& data : {byProxy, withCredentials}) {
    proxy = data;
    probeThrice(server.port());
    expectOpenedAnew();
  }
  EXPECT_EQ(server.accepted(), 7U);
  proxy = PROXY_DATA();
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectReused();
}

class HttpProbeKeptTlsTest : public HttpProbeKeptTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override { HttpProbe::setTrustFile(authority.file()); }

  /// @param treatment of each connection's requests, in their order, from 1.
  ScriptedServer::Script overTls(Treatment treatment) {
    return [this, treatment = std::move(treatment)](Connection& connection) {
      bool open = connection.startTls(m_context);
      for (unsigned int number = 1; open && !connection.readHead().empty(); ++number) {
        open = treatment(number, connection);
      }
    };
  }
  /// Probes a server with this treatment.
  void expectConnections(unsigned int count, Treatment treatment) {
    const ScriptedServer server(overTls(std::move(treatment)));
    probeThrice(server.port(), true);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    EXPECT_EQ(server.accepted(), count);
    if (count == 1) {
      expectReused();
    } else {
      expectOpenedAnew();
      EXPECT_GE(report().tlsUs, report().connectUs);
    }
  }
  static Treatment answering(const std::string& answer) {
    return [answer](unsigned int, Connection& connection) { return connection.send(answer); };
  }

  TestAuthority authority;

 private:
  TlsServerContext m_context{authority.issue(), {false, GetParam(), GetParam()}};
};

TEST_P(HttpProbeKeptTlsTest, ThreeProbesPayForOneHandshakeIfTheAnswersAreShort) {
  expectConnections(1, answering(kAnswer));
  expectConnections(1, answering(withFields("Content-Length: 12000\r\n", std::string(12000, 'x'))));
  expectConnections(
      3, answering(withFields("Content-Length: 1000000\r\n", std::string(1'000'000, 'x'))));
}

TEST_P(HttpProbeKeptTlsTest, WhatAServerSendsBeyondItsAnswerIsNoAnswerToTheNextProbe) {
  for (const std::size_t bytes : kSizesOfAnswers) {
    expectConnections(3, answering(withAnotherAfter(bytes)));
  }
}

TEST_P(HttpProbeKeptTlsTest, ACertificateThatIsNotTrustedAnyMoreIsNotTrustedOnAKeptConnection) {
  const ScriptedServer server(overTls(answering(kAnswer)));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  HttpProbe::setTrustFile("");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
    expectOpenedAnew();
  }
}

INSTANTIATE_TEST_SUITE_P(Tls, HttpProbeKeptTlsTest, testing::Values(0x0303, 0x0304),
                         [](const auto& param) { return param.param == 0x0303 ? "1_2" : "1_3"; });

}  // namespace
}  // namespace tests
