// Plain probes against servers that do every right and wrong thing a peer can do.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <thread>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using tests::answering;
using tests::Connection;
using tests::RefusingPort;
using tests::RequestLog;
using tests::ScriptedServer;
using tests::SilentPort;
using namespace std::chrono_literals;

constexpr char kOk[] = "HTTP/1.1 200 OK\r\nServer: test\r\nContent-Length: 0\r\n\r\n";

TEST_F(HttpProbeTest, AnAnswerIsASuccess) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_EQ(results.uiLastError, 0U);
  EXPECT_EQ(results.tstrResponseHeaders, kOk);
  EXPECT_EQ(results.tstrLocation, "");
}

TEST_F(HttpProbeTest, TheRequestIsForTheRootAndSaysLittle) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  probe(server.port());
  ASSERT_EQ(log.all().size(), 1U);
  EXPECT_EQ(log.all()[0], "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                              "\r\nAccept: */*\r\n\r\n");
}

TEST_F(HttpProbeTest, TheRequestIsToldAsItWasSentIfItIsWanted) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  probe(server.port());
  EXPECT_EQ(results.tstrRequest, "");
  for (int i = 0; i < 2; ++i) {
    const HttpProbe::KeptConnection connection;
    results = {};
    HttpProbe::SendHttpProbe("127.0.0.1", false, false, server.port(), "ahs", kPatience,
                             PROXY_DATA(), HttpProbe::HTTP_PROBE_RETURN_REQUEST, results);
    ASSERT_FALSE(log.all().empty());
    EXPECT_EQ(results.tstrRequest, log.all().back());
    EXPECT_THAT(results.tstrRequest, HasSubstr("User-Agent: ahs\r\n"));
  }
}

TEST_F(HttpProbeTest, WithoutAConnectionNoRequestIsTold) {
  const RefusingPort port("127.0.0.1");
  HttpProbe::SendHttpProbe("127.0.0.1", false, false, port.Where().port, "", kPatience,
                           PROXY_DATA(), HttpProbe::HTTP_PROBE_RETURN_REQUEST, results);
  EXPECT_EQ(results.tstrRequest, "");
}

TEST_F(HttpProbeTest, ARequestToAProxyWhichMayCarryALoginIsNotTold) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  proxy.proxyServer = "127.0.0.1:" + std::to_string(server.port());
  HttpProbe::SendHttpProbe("gw.example", false, false, 80, "", kPatience, proxy,
                           HttpProbe::HTTP_PROBE_RETURN_REQUEST, results);
  EXPECT_EQ(log.all().size(), 1U);
  EXPECT_EQ(results.tstrRequest, "");
}

TEST_F(HttpProbeTest, AUserAgentIsSentWithoutItsControlCharacters) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  userAgent = "ahs\r\nX-Injected: 1\n";
  probe(server.port());
  ASSERT_EQ(log.all().size(), 1U);
  EXPECT_THAT(log.all()[0], HasSubstr("\r\nUser-Agent: ahsX-Injected: 1\r\n"));
}

TEST_F(HttpProbeTest, AnyStatusCodeIsASuccess) {
  for (const unsigned int code : {204U, 301U, 400U, 401U, 404U, 500U, 503U, 599U}) {
    const ScriptedServer server(answering("HTTP/1.1 " + std::to_string(code) + " X\r\n\r\n"));
    EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS) << code;
    EXPECT_EQ(results.uiHttpStatusCode, code);
  }
}

TEST_F(HttpProbeTest, ARedirectIsAnAnswerAndNotFollowed) {
  const ScriptedServer target(answering(kOk));
  const std::string location = "http://127.0.0.1:" + std::to_string(target.port()) + "/x";
  const ScriptedServer server(
      answering("HTTP/1.1 302 Found\r\nLocation: " + location + "\r\n\r\n"));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 302U);
  EXPECT_EQ(results.tstrLocation, location);
  EXPECT_EQ(target.accepted(), 0U);
  EXPECT_EQ(server.accepted(), 1U);
}

TEST_F(HttpProbeTest, ADemandForProxyAuthenticationIsAnAnswer) {
  const ScriptedServer server(
      answering("HTTP/1.1 407 No\r\nProxy-Authenticate: Basic realm=\"r\"\r\n\r\n"));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 407U);
  EXPECT_THAT(results.tstrResponseHeaders, HasSubstr("realm=\"r\""));
}

TEST_F(HttpProbeTest, AnAnnouncedBodyIsNotWaitedFor) {
  const ScriptedServer server(answering("HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n"));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_EQ(results.uiLastError, 0U);
}

TEST_F(HttpProbeTest, AnEndlessBodyIsNotRead) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n");
    while (connection.send(std::string(4096, 'x'))) {
    }
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
}

TEST_F(HttpProbeTest, AnInterimAnswerIsNotTheAnswer) {
  const ScriptedServer server(
      answering("HTTP/1.1 103 Early Hints\r\nLink: x\r\n\r\n" + std::string(kOk)));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 200U);
  EXPECT_EQ(results.tstrResponseHeaders, kOk);
}

TEST_F(HttpProbeTest, ARefusedConnectionIsReportedAsCannotConnect) {
  const RefusingPort port("127.0.0.1");
  EXPECT_EQ(probe(port.Where().port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_EQ(results.uiHttpStatusCode, 0U);
  EXPECT_EQ(report().connectUs, -1);
  EXPECT_EQ(report().networkRttUs, -1);
  EXPECT_EQ(report().address, "");
}

TEST_F(HttpProbeTest, AnAddressThatDropsEverythingIsATimeOut) {
  const SilentPort port;
  EXPECT_EQ(probe(port.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiLastError, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_EQ(report().connectUs, -1);
}

TEST_F(HttpProbeTest, AServerThatAcceptsAndSaysNothingIsATimeOut) {
  const ScriptedServer server([](Connection& connection) { connection.waitForPeer(); });
  EXPECT_EQ(probe(server.port(), 3), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_GE(report().connectUs, 0);
  EXPECT_EQ(probeSecurely(server.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(HttpProbeTest, ATimeOutOfZeroCountsAsOneSecond) {
  const SilentPort silent;
  EXPECT_EQ(probe(silent.port(), 0), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_GE(report().totalUs, 990000);
}

TEST_F(HttpProbeTest, AHugeTimeOutIsTaken) {
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port(), std::numeric_limits<unsigned int>::max()), HTTP_SESSION_SUCCESS);
}

TEST_F(HttpProbeTest, AnAnswerOfAByteNowAndThenDoesNotOutlastTheTimeOut) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    for (const char byte : "HTTP/1.1 200 OK\r\nX: " + std::string(1000, 'x')) {
      if (!connection.send(std::string(1, byte))) {
        break;
      }
      connection.wait(200ms);
    }
  });
  EXPECT_EQ(probe(server.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(HttpProbeTest, AHeadThatNeverEndsDoesNotOutlastTheTimeOut) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.send("HTTP/1.1 200 OK\r\n");
    for (int i = 0; connection.send("X: " + std::to_string(i) + "\r\n"); ++i) {
      connection.wait(200ms);
    }
  });
  EXPECT_EQ(probe(server.port(), 1), HTTP_SESSION_ERROR_TIMEOUT);
}

/// Scripts whose end is an answer, though none in HTTP.
struct BROKEN {
  const char* name;
  ScriptedServer::Script script;
};

ScriptedServer::Script endless(const std::string& start, const std::string& repeated) {
  return [=](Connection& connection) {
    connection.readHead();
    bool open = connection.send(start);
    while (open) {
      open = connection.send(repeated);
    }
  };
}

std::vector<BROKEN> brokenServers() {
  return {
      {"ResetAfterAccept", [](Connection& connection) { connection.resetAtEnd(); }},
      {"ResetAfterTheRequest",
       [](Connection& connection) {
         connection.readHead();
         connection.resetAtEnd();
       }},
      {"ResetInTheAnswer",
       [](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 200 OK\r\nServer: te");
         connection.wait(50ms);
         connection.resetAtEnd();
       }},
      {"ClosedWithoutAWord", [](Connection& connection) { connection.readHead(); }},
      {"ClosedBeforeTheRequest", [](Connection&) {}},
      {"Garbage", answering("\x01\x02garbage\xff\r\n\r\n")},
      {"GarbageWithoutALine",
       [](Connection& connection) {
         connection.readHead();
         connection.send("SSH-2.0-x");
       }},
      {"TlsAlert", answering(std::string("\x15\x03\x01\x00\x02\x02\x46", 7))},
      {"Http09",
       [](Connection& connection) {
         connection.readHead();
         connection.send("<html>hello</html>");
       }},
      {"Http2Settings", answering(std::string("\0\0\0\x04\0\0\0\0\0", 9))},
      {"BadStatusCode", answering("HTTP/1.1 abc OK\r\n\r\n")},
      {"StatusCodeZero", answering("HTTP/1.1 000 OK\r\n\r\n")},
      {"SwitchingProtocols",
       [](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n");
       }},
      {"SwitchingProtocolsForGood",
       [](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n");
         connection.waitForPeer();
       }},
      {"InterimAnswerAlone",
       [](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 100 Continue\r\n\r\n");
       }},
      {"EndlessHeaders", endless("HTTP/1.1 200 OK\r\n", "X-Header: some value or other\r\n")},
      {"EndlessShortHeaders", endless("HTTP/1.1 200 OK\r\n", "a:\r\n")},
      {"LongHeaders", endless("HTTP/1.1 200 OK\r\n", "X: " + std::string(60000, 'x') + "\r\n")},
      {"HeaderLineOfTenMegabytes",
       [](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 200 OK\r\nX: " + std::string(10UL << 20, 'x') + "\r\n\r\n");
       }},
      {"StatusLineOfTenMegabytes",
       [](Connection& connection) {
         connection.readHead();
         connection.send("HTTP/1.1 200 " + std::string(10UL << 20, 'x') + "\r\n\r\n");
       }},
      {"InterimAnswersForEver", endless("", "HTTP/1.1 100 Continue\r\n\r\n")},
  };
}

class HttpProbeOfABrokenServer : public HttpProbeTest,
                                 public testing::WithParamInterface<BROKEN> {};

TEST_P(HttpProbeOfABrokenServer, IsAnInvalidResponseWithARoundTripTime) {
  const ScriptedServer server(GetParam().script);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE)
      << results.uiLastError;
  EXPECT_GE(report().networkRttUs, 0);
  EXPECT_GE(report().responseRttUs, 0);
  EXPECT_LE(report().responseRttUs, report().totalUs);
  EXPECT_LE(results.tstrResponseHeaders.size(), 64UL * 1024);
}

INSTANTIATE_TEST_SUITE_P(Server, HttpProbeOfABrokenServer, testing::ValuesIn(brokenServers()),
                         [](const auto& param) { return param.param.name; });

TEST_F(HttpProbeTest, ALongHeadIsKeptUpTo64KiBInWholeLines) {
  const ScriptedServer server(answering("HTTP/1.1 200 OK\r\nA: " + std::string(40000, 'a') +
                                        "\r\nB: " + std::string(40000, 'b') + "\r\nC: c\r\n\r\n"));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.tstrResponseHeaders,
            "HTTP/1.1 200 OK\r\nA: " + std::string(40000, 'a') + "\r\nC: c\r\n\r\n");
}

TEST_F(HttpProbeTest, TheNetworkMeasureIgnoresASlowGateway) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.wait(300ms);
    connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  ASSERT_GE(report().networkRttUs, 0);
  EXPECT_GE(report().responseRttUs, 300000);
  EXPECT_LT(report().networkRttUs, report().responseRttUs);
  EXPECT_EQ(results.uiRtt, (report().networkRttUs + 500) / 1000);
}

TEST_F(HttpProbeTest, TheResponseMeasureCountsASlowGatewayAsFarAway) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.wait(300ms);
    connection.send(kOk);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  EXPECT_GE(results.uiRtt, 300U);
  EXPECT_EQ(results.uiRtt, (report().responseRttUs + 500) / 1000);
}

TEST_F(HttpProbeTest, TheResponseMeasureEndsWhereTheServerCloses) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.wait(300ms);
  });
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE);
  EXPECT_GE(results.uiRtt, 300U);
}

TEST_F(HttpProbeTest, OnlyTheResultsAskedForAreWritten) {
  const ScriptedServer server([](Connection& connection) {
    connection.readHead();
    connection.wait(20ms);
    connection.send("HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\n");
  });
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  for (unsigned int bit = 1; bit <= kAll; bit <<= 1U) {
    HttpProbe::HTTP_PROBE_RESULTS untouched;
    untouched.uiRtt = 999999;
    untouched.uiHttpStatusCode = 999;
    untouched.uiLastError = 999;
    untouched.tstrResponseHeaders = "headers";
    untouched.tstrLocation = "location";
    HttpProbe::SendHttpProbe("127.0.0.1", false, false, server.port(), "", kPatience, PROXY_DATA(),
                             bit, untouched);
    EXPECT_EQ(untouched.tstrResponseHeaders != "headers",
              bit == HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS);
    EXPECT_EQ(untouched.uiHttpStatusCode != 999, bit == HttpProbe::HTTP_PROBE_RETURN_STATUSCODE);
    EXPECT_EQ(untouched.uiLastError != 999, bit == HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR);
    EXPECT_EQ(untouched.uiRtt != 999999, bit == HttpProbe::HTTP_PROBE_RETURN_RTT);
    EXPECT_EQ(untouched.tstrLocation != "location", bit == HttpProbe::HTTP_PROBE_RETURN_LOCATION);
  }
}

class HttpProbeOfNoHost : public HttpProbeTest, public testing::WithParamInterface<std::string> {};

TEST_P(HttpProbeOfNoHost, IsADnsErrorAndSendsNothing) {
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log));
  EXPECT_EQ(probe(server.port(), 1, GetParam()), HTTP_SESSION_ERROR_DNS_RESOLUTION);
  EXPECT_EQ(results.uiLastError, CURLE_URL_MALFORMAT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_EQ(server.accepted(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Host, HttpProbeOfNoHost,
                         testing::Values("", " ", "127.0.0.1/", "127.0.0.1/x", "127.0.0.1:80",
                                         "user@127.0.0.1", "http://127.0.0.1", "127.0.0.1\r\nX: y",
                                         "127.0.0.1 ", "127.0.0.1#", "127.0.0.1?x", "[::1",
                                         "[::1]:80", "::1/", "[::1%", "::1%", "127.1", "2130706433",
                                         std::string("127.0.0.1\0", 10), std::string(1 << 20, 'a'),
                                         std::string(1 << 20, ':')),
                         [](const auto& param) { return std::to_string(param.index); });

TEST_F(HttpProbeTest, PortZeroCannotBeConnectedTo) {
  EXPECT_EQ(probe(0), HTTP_SESSION_ERROR_CANNOT_CONNECT);
  EXPECT_EQ(results.uiLastError, CURLE_COULDNT_CONNECT);
}

TEST_F(HttpProbeTest, AnIpv6AddressIsTakenWithAndWithoutBrackets) {
  if (!tests::hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  RequestLog log;
  const ScriptedServer server(answering(kOk, &log), "::1");
  for (const char* host : {"::1", "[::1]", "0:0::1", "::1%lo", "[::1%25lo]"}) {
    EXPECT_EQ(probe(server.port(), kPatience, host), HTTP_SESSION_SUCCESS) << host;
    EXPECT_EQ(report().address, "::1");
  }
  EXPECT_THAT(log.all()[0], HasSubstr("Host: [::1]:"));
}

TEST_F(HttpProbeTest, TheEnvironmentsProxyIsIgnored) {
  RequestLog log;
  const ScriptedServer other(answering(kOk, &log));
  const ScriptedServer server(answering(kOk));
  const std::string address = "http://127.0.0.1:" + std::to_string(other.port());
  setenv("http_proxy", address.c_str(), 1);
  setenv("all_proxy", address.c_str(), 1);
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
  unsetenv("http_proxy");
  unsetenv("all_proxy");
  EXPECT_EQ(server.accepted(), 1U);
  EXPECT_EQ(other.accepted(), 0U);
}

TEST_F(HttpProbeTest, AWatcherIsToldOfStartAndEnd) {
  const ScriptedServer server(answering(kOk));
  probe(server.port());
  ASSERT_EQ(watcher->started().size(), 1U);
  ASSERT_EQ(watcher->ended().size(), 1U);
  const HttpProbe::Report started = watcher->started()[0];
  EXPECT_EQ(started.host, "127.0.0.1");
  EXPECT_EQ(started.port, server.port());
  EXPECT_FALSE(started.secure);
  EXPECT_EQ(started.options, kAll);
  EXPECT_EQ(started.connectUs, -1);
  const HttpProbe::Report ended = report();
  EXPECT_EQ(ended.status, HTTP_SESSION_SUCCESS);
  EXPECT_EQ(ended.httpStatus, 200U);
  EXPECT_EQ(ended.rttMs, results.uiRtt);
  EXPECT_EQ(ended.address, "127.0.0.1");
  EXPECT_GE(ended.connectUs, 0);
  EXPECT_EQ(ended.tlsUs, -1);
  EXPECT_GE(ended.totalUs, ended.connectUs);
  EXPECT_GE(ended.responseRttUs, 0);
}

TEST_F(HttpProbeTest, WhatAWatcherThrowsDoesNotReachTheCaller) {
  class Thrower : public ProbeTask {
   public:
    void probeStarted(const HttpProbe::Report&) override { throw std::runtime_error("start"); }
    void probeEnded(const HttpProbe::Report&) override { throw 1; }
  };
  const CTask::Scope thrower(std::make_shared<Thrower>());
  const ScriptedServer server(answering(kOk));
  EXPECT_EQ(probe(server.port()), HTTP_SESSION_SUCCESS);
}

TEST_F(HttpProbeTest, ProbesOfManyThreadsDoNotDisturbEachOther) {
  constexpr int kThreads = 16;
  constexpr int kRounds = 10;
  const ScriptedServer server(answering(kOk));
  const RefusingPort closed("127.0.0.1");
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < kRounds; ++round) {
        HttpProbe::HTTP_PROBE_RESULTS own;
        const bool refused = (i + round) % 2 == 0;
        const STATUSCODE status = HttpProbe::SendHttpProbe(
            "127.0.0.1", false, false, refused ? closed.Where().port : server.port(), "", kPatience,
            PROXY_DATA(), kAll, own);
        wrong += status != (refused ? HTTP_SESSION_ERROR_CANNOT_CONNECT : HTTP_SESSION_SUCCESS);
        wrong += own.uiHttpStatusCode != (refused ? 0 : 200);
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
    HttpProbe::setTrustFile("");
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

}  // namespace
