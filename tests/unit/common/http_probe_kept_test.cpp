// Probes that share a connection: what keeps one open, what gives it up, and that nothing but its
// price changes.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <optional>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/ScriptedServer.h"
#include "tests/support/TestAuthority.h"
#include "tests/unit/common/gate.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using tests::answering;
using tests::Connection;
using tests::eventually;
using tests::RequestLog;
using tests::ScriptedServer;
using tests::TestAuthority;
using tests::TlsServerContext;
using namespace std::chrono_literals;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
constexpr char kHead[] = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n";

/// A server that treats the requests of the whole test in their order.
class Requests {
 public:
  /// @param number of the request, from 1.
  /// @return whether the connection is served further.
  using Treatment = std::function<bool(unsigned int number, Connection& connection)>;

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

class HttpProbeKeptTest : public HttpProbeTest {
 protected:
  /// Sends probes, all of which have to be answered.
  void probeThrice(unsigned short port) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(probe(port), HTTP_SESSION_SUCCESS) << "probe " << i;
      EXPECT_GE(report().networkRttUs, 0);
      EXPECT_GE(report().responseRttUs, 0);
      EXPECT_LE(report().responseRttUs, report().totalUs);
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

TEST_F(HttpProbeKeptTest, ThreeProbesShareAConnection) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    EXPECT_EQ(results.uiLastError, 0U);
    EXPECT_EQ(results.tstrResponseHeaders, kHead);
    EXPECT_EQ(results.uiRtt, (report().networkRttUs + 500) / 1000);
    expectReused();
  }
  EXPECT_EQ(server.accepted(), 1U);
}

TEST_F(HttpProbeKeptTest, WithoutAScopeNothingIsKept) {
  kept.reset();
  const ScriptedServer server(answering(kOk));
  probeThrice(server.port());
  EXPECT_EQ(server.accepted(), 3U);
}

TEST_F(HttpProbeKeptTest, AnIdenticalRequestIsSentEachTime) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  userAgent = "probe";
  probeThrice(server.port());
  ASSERT_EQ(log.all().size(), 3U);
  EXPECT_THAT(log.all()[0], HasSubstr("\r\nUser-Agent: probe\r\n"));
  EXPECT_EQ(log.all()[1], log.all()[0]);
  EXPECT_EQ(log.all()[2], log.all()[0]);
}

/// What a server answers to each request, all of it at once.
struct ANSWER {
  const char* name;
  std::string text;
};

std::string withFields(const std::string& fields, const std::string& body = "") {
  return "HTTP/1.1 200 OK\r\n" + fields + "\r\n" + body;
}

std::string chunk(std::size_t bytes) {
  std::array<char, 16> size{};
  snprintf(size.data(), size.size(), "%zx\r\n", bytes);
  return size.data() + std::string(bytes, 'x') + "\r\n";
}

class HttpProbeOfAShortAnswer : public HttpProbeKeptTest,
                                public testing::WithParamInterface<ANSWER> {};

TEST_P(HttpProbeOfAShortAnswer, KeepsTheConnection) {
  const ScriptedServer server(answering(GetParam().text));
  probeThrice(server.port());
  expectReused();
  EXPECT_EQ(server.accepted(), 1U);
  EXPECT_EQ(results.tstrResponseHeaders,
            GetParam().text.substr(GetParam().text.rfind("HTTP/1.1 "),
                                   results.tstrResponseHeaders.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Answer, HttpProbeOfAShortAnswer,
    testing::Values(
        ANSWER{"WithoutABody", withFields("content-length:0\r\n")}, ANSWER{"WithABody", kOk},
        ANSWER{"OfTwelveKilobytes",
               withFields("Content-Length: 12000\r\n", std::string(12000, 'x'))},
        ANSWER{"InChunks", withFields("Transfer-Encoding: chunked\r\n",
                                      chunk(3000) + chunk(9000) + "0\r\n\r\n")},
        ANSWER{"InChunksWithFieldsAtTheEnd",
               withFields("Transfer-Encoding: Chunked\r\n", chunk(7) + "0\r\nX: y\r\n\r\n")},
        ANSWER{"NoContent", "HTTP/1.1 204 No Content\r\n\r\n"},
        ANSWER{"NotModified", "HTTP/1.1 304 Not Modified\r\nContent-Length: 100000\r\n\r\n"},
        ANSWER{"Redirect", "HTTP/1.1 302 Found\r\nLocation: /x\r\nContent-Length: 0\r\n\r\n"},
        ANSWER{"AfterAnInterimOne",
               "HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + std::string(kOk)}),
    [](const auto& param) { return param.param.name; });

class HttpProbeOfAnAnswerNotWorthReading : public HttpProbeKeptTest,
                                           public testing::WithParamInterface<ANSWER> {};

TEST_P(HttpProbeOfAnAnswerNotWorthReading, OpensAConnectionEachTime) {
  const ScriptedServer server(answering(GetParam().text));
  probeThrice(server.port());
  expectOpenedAnew();
  EXPECT_EQ(server.accepted(), 3U);
}

INSTANTIATE_TEST_SUITE_P(
    Answer, HttpProbeOfAnAnswerNotWorthReading,
    testing::Values(
        ANSWER{"Announced", withFields("Content-Length: 1000000000\r\n")},
        ANSWER{"JustTooLong", withFields("Content-Length: 15000\r\n", std::string(15000, 'x'))},
        ANSWER{"OfALengthBeyondAllNumbers",
               withFields("Content-Length: 99999999999999999999999\r\n")},
        ANSWER{"InManyChunks", withFields("Transfer-Encoding: chunked\r\n",
                                          chunk(9000) + chunk(9000) + "0\r\n\r\n")},
        ANSWER{"CompressedChunks",
               withFields("Transfer-Encoding: gzip, chunked\r\n", chunk(5) + "0\r\n\r\n")},
        ANSWER{"UpToTheEndOfTheConnection", withFields("", "ok")},
        ANSWER{"ThatClosesByItsWord", withFields("Connection: Close\r\nContent-Length: 0\r\n")},
        ANSWER{"OfTheOldVersion", "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n"}),
    [](const auto& param) { return param.param.name; });

TEST_F(HttpProbeKeptTest, AProbeEndsBeforeTheBodyOfItsAnswerIsSent) {
  Gate gate;
  Gate sent;
  Requests server([&](unsigned int number, Connection& connection) {
    connection.send(number == 1 ? kHead : kOk);
    if (number == 1) {
      gate.pass();
      connection.send("ok");
      sent.open();
    }
    return true;
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_GE(report().networkRttUs, 0);
  gate.open();
  sent.pass();
  // It is there now, so the connection serves again, however late it was.
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectReused();
  EXPECT_EQ(server.connections(), 1U);
}

TEST_F(HttpProbeKeptTest, ABodyThatDoesNotComeCostsTheConnection) {
  Gate gate;
  Requests server([&](unsigned int, Connection& connection) {
    connection.send(kHead);
    gate.pass();
    return false;
  });
  for (unsigned int i = 1; i <= 3; ++i) {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    expectOpenedAnew();
    EXPECT_EQ(server.connections(), i);
  }
  gate.open();
}

TEST_F(HttpProbeKeptTest, ABodyOfAByteNowAndThenDoesNotHoldUpTheNextProbe) {
  Requests server([&](unsigned int, Connection& connection) {
    connection.send(withFields("Content-Length: 1000\r\n"));
    for (int i = 0; i < 1000 && connection.send("x"); ++i) {
      connection.wait(20ms);
    }
    return false;
  });
  probeThrice(server.port());
  EXPECT_EQ(server.connections(), 3U);
  EXPECT_LT(report().totalUs, 1000 * 20'000LL);
}

TEST_F(HttpProbeKeptTest, AServerThatClosesAfterEachAnswerIsConnectedToAnew) {
  for (const auto pause : {0ms, 20ms}) {
    const ScriptedServer closing([](Connection& connection) {
      connection.readHead();
      connection.send(kOk);
    });
    for (unsigned int i = 1; i <= 5; ++i) {
      EXPECT_EQ(probe(closing.port()), HTTP_SESSION_SUCCESS);
      expectOpenedAnew();
      EXPECT_EQ(closing.accepted(), i);
      std::this_thread::sleep_for(pause);
    }
  }
}

TEST_F(HttpProbeKeptTest, AServerThatLeavesAMessageBeforeItClosesIsConnectedToAnew) {
  std::atomic<int> left{0};
  const ScriptedServer server([&](Connection& connection) {
    connection.readHead();
    connection.send(kOk);
    connection.wait(20ms);
    connection.send("HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\n\r\n");
    ++left;
  });
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(results.uiHttpStatusCode, 200U);
    expectOpenedAnew();
    EXPECT_TRUE(eventually([&] { return left == i; }));
  }
}

/// An answer of so many bytes, and one that nobody has asked for.
std::string withAnotherAfter(std::size_t bytes) {
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: ";
  std::string answer = head + std::to_string(bytes) + "\r\n\r\n";
  const std::size_t body = bytes - answer.size();
  answer = head + std::string(std::to_string(bytes).size() - std::to_string(body).size(), '0') +
           std::to_string(body) + "\r\n\r\n" + std::string(body, 'x');
  EXPECT_EQ(answer.size(), bytes);
  return answer + "HTTP/1.1 500 X\r\nContent-Length: 0\r\n\r\n";
}

// Where libcurl stops reading depends on the size of its buffer.
constexpr std::array<std::size_t, 5> kSizesOfAnswers{60, 1024, 2048, 4096, 8192};

TEST_F(HttpProbeKeptTest, WhatAServerSendsBeyondItsAnswerIsNoAnswerToTheNextProbe) {
  for (const std::size_t bytes : kSizesOfAnswers) {
    const ScriptedServer server(answering(withAnotherAfter(bytes)));
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
      EXPECT_EQ(results.uiHttpStatusCode, 200U) << bytes;
      expectOpenedAnew();
    }
  }
}

// What a busy gateway answers late on a kept connection is its answer, whatever a fresh one brings.
TEST_F(HttpProbeKeptTest, ALateAnswerOnAKeptConnectionCounts) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  Requests server([](unsigned int number, Connection& connection) {
    connection.wait(number == 1 ? 0ms : 1400ms);
    return connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), 2), HTTP_SESSION_SUCCESS);
  expectReused();
  EXPECT_GE(results.uiRtt, 1400U);
}

// Nor does waiting for the kept connection make what a fresh one brought any later.
TEST_F(HttpProbeKeptTest, AFreshConnectionThatIsResetHasARoundTripOfItsOwn) {
  Requests server([](unsigned int number, Connection& connection) {
    if (number == 2) {
      connection.waitForPeer();
    }
    return number == 3 ? reset(connection) : connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), 4), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectOpenedAnew();
  EXPECT_LT(report().responseRttUs, 2'000'000);
  EXPECT_GE(report().totalUs, 3'990'000);
}

TEST_F(HttpProbeKeptTest, WhatComesUnaskedAfterALateBodyIsNoAnswerToTheNextProbe) {
  Gate gate;
  Gate sent;
  Requests server([&](unsigned int number, Connection& connection) {
    if (number != 1) {
      return connection.send(kOk);
    }
    // libcurl's buffer ends with the body.
    connection.send(withFields("Content-Length: 1024\r\n"));
    gate.pass();
    connection.send(std::string(1024, 'x') + "HTTP/1.1 500 X\r\nContent-Length: 0\r\n\r\n");
    sent.open();
    return true;
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  gate.open();
  sent.pass();
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  expectOpenedAnew();
}

// What a kept connection does other than answer says nothing about the server.
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
    // The third request is the second one again.
    Requests server([&](unsigned int number, Connection& connection) {
      return number == 2 ? failure(connection) : connection.send(kOk);
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

TEST_F(HttpProbeKeptTest, AServerThatResetsTheFreshConnectionTooIsAnInvalidResponse) {
  Requests server([](unsigned int number, Connection& connection) {
    return number > 1 ? reset(connection) : connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  expectOpenedAnew();
  EXPECT_GE(report().networkRttUs, 0);
  EXPECT_GE(report().responseRttUs, 0);
  EXPECT_EQ(server.connections(), 2U);
}

TEST_F(HttpProbeKeptTest, ARequestThatMeetsAClosedConnectionAndThenNobodyCannotConnect) {
  std::optional<ScriptedServer> server(std::in_place, answering(kOk));
  const unsigned short port = server->port();
  EXPECT_EQ(probe(port), HTTP_SESSION_SUCCESS);
  server.reset();
  EXPECT_EQ(probe(port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_FALSE(report().reused);
}

// There are servers that leave a connection open and do not read from it again.
TEST_F(HttpProbeKeptTest, SilenceOnAKeptConnectionIsNoTimeOutIfAFreshOneIsAnswered) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.send(kOk);
    connection.waitForPeer();
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), 4), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_GE(report().connectUs, 990'000);
  EXPECT_EQ(server.accepted(), 2U);
  // Once is enough.
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_EQ(server.accepted(), 3U);
}

TEST_F(HttpProbeKeptTest, SilenceOnAKeptConnectionAndAFreshOneIsATimeOut) {
  Requests server([](unsigned int number, Connection& connection) {
    if (number != 1) {
      connection.waitForPeer();
      return false;
    }
    return connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), 4), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_GE(report().totalUs, 3'990'000);
  EXPECT_TRUE(eventually([&] { return server.connections() == 2; }));
}

// What it takes its time for on a kept connection would have to be asked for twice.
TEST_F(HttpProbeKeptTest, AServerThatTakesMuchOfTheTimeOutHasAllOfItOnAConnectionOfItsOwn) {
  Requests server([](unsigned int, Connection& connection) {
    connection.wait(2200ms);
    return connection.send(kOk);
  });
  for (unsigned int i = 1; i <= 2; ++i) {
    EXPECT_EQ(probe(server.port(), 4), HTTP_SESSION_SUCCESS);
    expectOpenedAnew();
    EXPECT_EQ(server.connections(), i);
  }
}

TEST_F(HttpProbeKeptTest, SilenceAfterAResetDoesNotOutlastTheTimeOutOfTheProbe) {
  Requests server([](unsigned int number, Connection& connection) {
    if (number == 1) {
      return connection.send(kOk);
    }
    if (number == 2) {
      connection.wait(2s);  // of the three that a kept connection has
      return reset(connection);
    }
    connection.waitForPeer();
    return false;
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port(), 6), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_TRUE(eventually([&] { return server.connections() == 2; }));
  // Had the second attempt a time-out of its own, this would be 8 s at least.
  EXPECT_LT(report().totalUs, 8'000'000);
  EXPECT_GE(report().totalUs, 5'990'000);
}

TEST_F(HttpProbeKeptTest, TheResponseMeasureOfAKeptConnectionStartsAtTheRequest) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  Requests server([](unsigned int number, Connection& connection) {
    connection.wait(number == 2 ? 300ms : 0ms);
    return connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectReused();
  EXPECT_GE(results.uiRtt, 300U);
  EXPECT_EQ(results.uiRtt, (report().responseRttUs + 500) / 1000);
  const auto slow = report().responseRttUs;
  // A measure from the connection on would never be smaller; one of a busy machine may be once.
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    return report().responseRttUs < slow;
  }));
}

TEST_F(HttpProbeKeptTest, TheConnectionClosesWithTheScope) {
  std::atomic<int> closed{0};
  const ScriptedServer server([&](Connection& connection) {
    while (!connection.readHead().empty() && connection.send(kOk)) {
    }
    ++closed;
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(closed, 0);
  kept.reset();
  EXPECT_TRUE(eventually([&] { return closed == 1; }));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
}

TEST_F(HttpProbeKeptTest, TheConnectionClosesWithTheScopeAlsoWhereABodyIsDue) {
  std::atomic<int> closed{0};
  const ScriptedServer server([&](Connection& connection) {
    connection.readHead();
    connection.send(kHead);
    connection.waitForPeer();
    ++closed;
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  kept.reset();
  EXPECT_TRUE(eventually([&] { return closed == 1; }));
}

TEST_F(HttpProbeKeptTest, AnInnerScopeDoesNothing) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  {
    const HttpProbe::KeptConnection inner;
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  }
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(server.accepted(), 1U);
}

TEST_F(HttpProbeKeptTest, AScopeIsItsOwnThreads) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  std::thread([&] {
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  }).join();
  EXPECT_EQ(server.accepted(), 3U);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(server.accepted(), 3U);
}

TEST_F(HttpProbeKeptTest, AnotherTargetHasAConnectionOfItsOwn) {
  const ScriptedServer one(answering(kOk));
  const ScriptedServer other(answering("HTTP/1.1 404 X\r\nContent-Length: 0\r\n\r\n"));
  EXPECT_EQ(probe(one.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_EQ(probe(other.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 404U);
  EXPECT_EQ(probe(one.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_EQ(probe(one.port(), kPatience, "localhost"), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_EQ(probeSecurely(one.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
  expectOpenedAnew();
  EXPECT_TRUE(eventually([&] { return one.accepted() == 4; }));
  EXPECT_EQ(other.accepted(), 1U);
}

TEST_F(HttpProbeKeptTest, ProbesThroughAProxyAreNotKept) {
  const ScriptedServer server(answering(kOk));
  proxy.proxyServer = "http=http://127.0.0.1:" + std::to_string(server.port());
  EXPECT_EQ(probe(80, kPatience, "192.0.2.1"), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(80, kPatience, "192.0.2.1"), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_EQ(server.accepted(), 2U);
}

TEST_F(HttpProbeKeptTest, ProbesWithCredentialsAreNotKeptAndDoNotEndWhatIsKept) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  proxy.proxyUser = "user";
  proxy.proxyPswd = "secret";
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_EQ(server.accepted(), 3U);
  proxy = PROXY_DATA();
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  expectReused();
}

TEST_F(HttpProbeKeptTest, AWatcherIsToldWhichProbesPaidForTheConnection) {
  const ScriptedServer server(answering(kOk));
  probeThrice(server.port());
  EXPECT_THAT(watcher->ended(), ElementsAre(Field(&HttpProbe::Report::reused, false),
                                            Field(&HttpProbe::Report::reused, true),
                                            Field(&HttpProbe::Report::reused, true)));
}

class HttpProbeKeptTlsTest : public HttpProbeKeptTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    HttpProbeKeptTest::SetUp();
    HttpProbe::setTrustFile(authority.file());
  }

  /// @param treatment of the requests of one connection, in their order, from 1.
  ScriptedServer::Script overTls(Requests::Treatment treatment) {
    return [this, treatment = std::move(treatment)](Connection& connection) {
      if (!connection.startTls(m_context)) {
        return;
      }
      ++handshakes;
      bool open = true;
      for (unsigned int number = 1; open && !connection.readHead().empty(); ++number) {
        open = treatment(number, connection);
      }
    };
  }

  static bool answer(unsigned int, Connection& connection) { return connection.send(kOk); }

  TestAuthority authority;
  std::atomic<unsigned int> handshakes{0};

 private:
  TlsServerContext m_context{authority.issue(), {false, GetParam(), GetParam()}};
};

TEST_P(HttpProbeKeptTlsTest, ThreeProbesPayForOneHandshake) {
  const ScriptedServer server(overTls(answer));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  expectOpenedAnew();
  EXPECT_GE(report().tlsUs, report().connectUs);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
    expectReused();
    EXPECT_EQ(results.tstrResponseHeaders, kHead);
    EXPECT_GE(report().responseRttUs, 0);
  }
  EXPECT_EQ(server.accepted(), 1U);
  EXPECT_EQ(handshakes, 1U);
}

TEST_P(HttpProbeKeptTlsTest, AServerThatClosesAfterEachAnswerIsConnectedToAnew) {
  const ScriptedServer server(overTls([](unsigned int, Connection& connection) {
    connection.send(kOk);
    return false;
  }));
  for (unsigned int i = 1; i <= 3; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
    expectOpenedAnew();
    EXPECT_GE(report().tlsUs, report().connectUs);
    EXPECT_EQ(handshakes, i);
  }
}

TEST_P(HttpProbeKeptTlsTest, ARequestThatIsResetOnAKeptConnectionIsSentOnAFreshOne) {
  const ScriptedServer server(overTls([](unsigned int number, Connection& connection) {
    return number == 2 ? reset(connection) : connection.send(kOk);
  }));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS) << results.uiLastError;
  expectOpenedAnew();
  EXPECT_GE(report().tlsUs, report().connectUs);
  EXPECT_EQ(handshakes, 2U);
}

TEST_P(HttpProbeKeptTlsTest, ACertificateThatIsNotTrustedAnyMoreIsNotTrustedOnAKeptConnection) {
  const ScriptedServer server(overTls(answer));
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  HttpProbe::setTrustFile("");
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  expectOpenedAnew();
  EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_ERROR_UNTRUSTED_CERTIFICATE);
  expectOpenedAnew();
}

TEST_P(HttpProbeKeptTlsTest, WhatAServerSendsBeyondItsAnswerIsNoAnswerToTheNextProbe) {
  for (const std::size_t bytes : kSizesOfAnswers) {
    const ScriptedServer server(overTls([bytes](unsigned int, Connection& connection) {
      return connection.send(withAnotherAfter(bytes));
    }));
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
      EXPECT_EQ(results.uiHttpStatusCode, 200U) << bytes;
      expectOpenedAnew();
    }
  }
}

TEST_P(HttpProbeKeptTlsTest, ALongAnswerCostsTheConnection) {
  const ScriptedServer server(overTls([](unsigned int, Connection& connection) {
    return connection.send(withFields("Content-Length: 1000000\r\n", std::string(1'000'000, 'x')));
  }));
  for (unsigned int i = 1; i <= 3; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
    expectOpenedAnew();
  }
}

TEST_P(HttpProbeKeptTlsTest, AnAnswerOfTwelveKilobytesKeepsTheConnection) {
  const ScriptedServer server(overTls([](unsigned int, Connection& connection) {
    return connection.send(withFields("Content-Length: 12000\r\n", std::string(12000, 'x')));
  }));
  for (unsigned int i = 1; i <= 3; ++i) {
    EXPECT_EQ(probeSecurely(server.port()), HTTP_SESSION_SUCCESS);
  }
  expectReused();
  EXPECT_EQ(handshakes, 1U);
}

INSTANTIATE_TEST_SUITE_P(Tls, HttpProbeKeptTlsTest, testing::Values(0x0303, 0x0304),
                         [](const auto& param) { return param.param == 0x0303 ? "1_2" : "1_3"; });

}  // namespace
