// Plain probes against servers that behave rightly and wrongly.

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "tests/support/LoopbackSockets.h"
#include "tests/support/ScriptedServer.h"
#include "tests/unit/common/http_probe_fixture.h"
#include "vpn/Common/IP/HttpProbe.h"

namespace tests {
namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;

TEST_F(HttpProbeTest, AnyStatusCodeIsASuccess) {
  for (const unsigned int code : {200U, 204U, 301U, 400U, 401U, 500U, 503U, 599U}) {
    const std::string answer = "HTTP/1.1 " + std::to_string(code) + " X\r\nX: y\r\n\r\n";
    EXPECT_EQ(probeOf(answering(answer)), HTTP_SESSION_SUCCESS) << code;
    EXPECT_EQ(results.uiHttpStatusCode, code);
    EXPECT_EQ(results.uiLastError, 0U);
    EXPECT_EQ(results.tstrResponseHeaders, answer);
    EXPECT_EQ(results.tstrLocation, "");
  }
}

TEST_F(HttpProbeTest, TheRequestIsForTheRootAndSaysLittle) {
  const ScriptedServer server(answering(kOk, &log));
  const std::string start =
      "GET / HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) + "\r\n";
  probe(server.port());
  userAgent = "ahs\r\nX-Injected: 1\n";
  probe(server.port());
  EXPECT_THAT(log.all(), testing::ElementsAre(start + "Accept: */*\r\n\r\n",
                                              start + "User-Agent: ahsX-Injected: 1\r\n"
                                                      "Accept: */*\r\n\r\n"));
}

TEST_F(HttpProbeTest, TheRequestIsToldAsItWasSentIfItIsWanted) {
  const ScriptedServer server(answering(kOk, &log));
  probe(server.port());
  EXPECT_EQ(results.tstrRequest, "");
  wanted = HttpProbe::HTTP_PROBE_RETURN_REQUEST;
  for (int i = 0; i < 2; ++i) {
    const HttpProbe::KeptConnection connection;
    probe(server.port());
    EXPECT_EQ(results.tstrRequest, log.all().back());
  }
  const RefusingPort closed("127.0.0.1");
  probe(closed.Where().port);
  EXPECT_EQ(results.tstrRequest, "") << "nothing was sent";
  proxy.proxyServer = "127.0.0.1:" + std::to_string(server.port());
  probe(80, kPatience, "gw.example");
  EXPECT_EQ(log.all().size(), 4U);
  EXPECT_EQ(results.tstrRequest, "") << "a proxy's may carry a login";
}

TEST_F(HttpProbeTest, ARedirectIsAnAnswerAndNotFollowed) {
  const ScriptedServer target(answering(kOk));
  const std::string location = "http://127.0.0.1:" + std::to_string(target.port()) + "/x";
  EXPECT_EQ(probeOf(answering("HTTP/1.1 302 Found\r\nLocation: " + location + "\r\n\r\n")),
            HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.uiHttpStatusCode, 302U);
  EXPECT_EQ(results.tstrLocation, location);
  EXPECT_EQ(target.accepted(), 0U);
}

ScriptedServer::Script endless(const std::string& start, const std::string& repeated,
                               std::chrono::milliseconds pause = 0ms) {
  return [=](Connection& connection) {
    connection.readHead();
    for (bool open = connection.send(start); open; open = connection.send(repeated)) {
      connection.wait(pause);
    }
  };
}

TEST_F(HttpProbeTest, ARefusedConnectionIsReportedAsCannotConnect) {
  const RefusingPort closed("127.0.0.1");
  for (const unsigned short port : {closed.Where().port, static_cast<unsigned short>(0)}) {
    EXPECT_EQ(probe(port), HTTP_SESSION_ERROR_CANNOT_CONNECT);
    EXPECT_EQ(results.uiLastError, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(results.uiRtt, 0U);
    EXPECT_EQ(results.uiHttpStatusCode, 0U);
    EXPECT_EQ(report().connectUs, -1);
    EXPECT_EQ(report().networkRttUs, -1);
    EXPECT_EQ(report().address, "");
  }
}

TEST_F(HttpProbeTest, AnAddressThatDropsEverythingIsATimeOutAndOfZeroSecondsCountsAsOne) {
  const SilentPort silent;
  EXPECT_EQ(probe(silent.port(), 0), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_GE(report().totalUs, 990000);
  EXPECT_EQ(results.uiLastError, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_EQ(report().connectUs, -1);
}

TEST_F(HttpProbeTest, AServerThatSaysNothingIsATimeOut) {
  EXPECT_EQ(probeOf(staySilent, false, 3), HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(results.uiRtt, 0U);
  EXPECT_GE(report().connectUs, 0);
  EXPECT_EQ(probeOf(staySilent, true, 1), HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(HttpProbeTest, AnAnswerOfAByteOrALineNowAndThenDoesNotOutlastTheTimeOut) {
  EXPECT_EQ(probeOf(endless("HTTP/1.1 200 OK\r\nX: ", "x", 200ms), false, 1),
            HTTP_SESSION_ERROR_TIMEOUT);
  EXPECT_EQ(probeOf(endless("HTTP/1.1 200 OK\r\n", "X: y\r\n", 200ms), false, 1),
            HTTP_SESSION_ERROR_TIMEOUT);
}

TEST_F(HttpProbeTest, AHugeTimeOutIsTaken) {
  EXPECT_EQ(probeOf(answering(kOk), false, std::numeric_limits<unsigned int>::max()),
            HTTP_SESSION_SUCCESS);
}

/// Scripts that end with an answer which is not HTTP. hostile_gateways_test covers those that also
/// occur over TLS.
struct BROKEN {
  const char* name;
  ScriptedServer::Script script;
};

ScriptedServer::Script closingAfter(const std::string& text) { return answeringAfter(0ms, text); }

const std::string kSwitch = "HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n";

std::vector<BROKEN> brokenServers() {
  return {
      {"ClosedBeforeTheRequest", [](Connection&) {}},
      {"Garbage", answering("\x01\x02garbage\xff\r\n\r\n")},
      {"GarbageWithoutALine", closingAfter("SSH-2.0-x")},
      {"Http09", closingAfter("<html>hello</html>")},
      {"Http2Settings", answering(std::string("\0\0\0\x04\0\0\0\0\0", 9))},
      {"BadStatusCode", answering("HTTP/1.1 abc OK\r\n\r\n")},
      {"StatusCodeZero", answering("HTTP/1.1 000 OK\r\n\r\n")},
      {"SwitchingProtocols", closingAfter(kSwitch)},
      {"SwitchingProtocolsForGood", answering(kSwitch)},
      {"InterimAnswerAlone", closingAfter("HTTP/1.1 100 Continue\r\n\r\n")},
      {"EndlessShortHeaders", endless("HTTP/1.1 200 OK\r\n", "a:\r\n")},
      {"HeaderLineOfTenMegabytes",
       closingAfter("HTTP/1.1 200 OK\r\nX: " + std::string(10UL << 20, 'x') + "\r\n\r\n")},
      {"StatusLineOfTenMegabytes",
       closingAfter("HTTP/1.1 200 " + std::string(10UL << 20, 'x') + "\r\n\r\n")},
  };
}

class HttpProbeOfABrokenServer : public HttpProbeTest,
                                 public testing::WithParamInterface<BROKEN> {};

TEST_P(HttpProbeOfABrokenServer, IsAnInvalidResponseWithARoundTripTime) {
  EXPECT_EQ(probeOf(GetParam().script), HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE)
      << results.uiLastError;
  EXPECT_GE(report().networkRttUs, 0);
  EXPECT_GE(report().responseRttUs, 0);
  EXPECT_LE(report().responseRttUs, report().totalUs);
  EXPECT_LE(results.tstrResponseHeaders.size(), 64UL * 1024);
}

INSTANTIATE_TEST_SUITE_P(Server, HttpProbeOfABrokenServer, testing::ValuesIn(brokenServers()),
                         [](const auto& param) { return param.param.name; });

TEST_F(HttpProbeTest, ALongHeadIsKeptUpTo64KiBInWholeLines) {
  const std::string start = "HTTP/1.1 200 OK\r\nA: " + std::string(40000, 'a') + "\r\n";
  EXPECT_EQ(probeOf(answering(start + "B: " + std::string(40000, 'b') + "\r\nC: c\r\n\r\n")),
            HTTP_SESSION_SUCCESS);
  EXPECT_EQ(results.tstrResponseHeaders, start + "C: c\r\n\r\n");
}

TEST_F(HttpProbeTest, TheNetworkMeasureIgnoresASlowGateway) {
  EXPECT_EQ(probeOf(answeringAfter(300ms)), HTTP_SESSION_SUCCESS);
  ASSERT_GE(report().networkRttUs, 0);
  EXPECT_GE(report().responseRttUs, 300000);
  EXPECT_LT(report().networkRttUs, report().responseRttUs);
  EXPECT_EQ(results.uiRtt, std::max((report().networkRttUs + 500) / 1000, 1LL));
}

TEST_F(HttpProbeTest, TheResponseMeasureCountsASlowGatewayAsFarAwayWhetherItAnswersOrCloses) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  for (const std::string answer : {kOk, ""}) {
    EXPECT_EQ(probeOf(answeringAfter(300ms, answer)),
              answer.empty() ? HTTP_SESSION_ERROR_INVALID_SERVER_RESPONSE : HTTP_SESSION_SUCCESS);
    EXPECT_GE(results.uiRtt, 300U);
    EXPECT_EQ(results.uiRtt, (report().responseRttUs + 500) / 1000);
  }
}

TEST_F(HttpProbeTest,
       WhatServesNothingCannotBeConnectedToWhereAServiceIsNeededUnlessItTestsTheWay) {
  struct Row {
    std::string answer;
    bool serves;
  };
  for (const auto& [answer, serves] :
       {Row{kOk, true}, Row{"HTTP/1.1 404 No\r\n\r\n", true}, Row{"HTTP/1.1 503 No\r\n\r\n", false},
        Row{"SSH-2.0-x\r\n", false}, Row{"", false}}) {
    for (const bool isNeeded : {false, true}) {
      for (const bool isTest : {false, true}) {
        HttpProbe::setNeedsService(isNeeded);
        wanted = isTest ? kAll : kAll & ~HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS;
        const STATUSCODE status = probeOf(closingAfter(answer));
        EXPECT_EQ(status == HTTP_SESSION_ERROR_CANNOT_CONNECT, isNeeded && !isTest && !serves)
            << answer;
        EXPECT_EQ(report().rttMs == 0, status == HTTP_SESSION_ERROR_CANNOT_CONNECT);
      }
    }
  }
}

TEST_F(HttpProbeTest, OnlyTheResultsAskedForAreWritten) {
  HttpProbe::setRoundTripMeasure(HttpProbe::RoundTripMeasure::Response);
  untouched.uiRtt = untouched.uiHttpStatusCode = untouched.uiLastError = 999999;
  untouched.tstrResponseHeaders = "headers";
  untouched.tstrLocation = "location";
  for (wanted = 1; wanted <= kAll; wanted <<= 1U) {
    probeOf(answeringAfter(20ms, "HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\n"));
    EXPECT_EQ(results.tstrResponseHeaders != "headers",
              wanted == HttpProbe::HTTP_PROBE_RETURN_ALL_HEADERS);
    EXPECT_EQ(results.uiHttpStatusCode != 999999,
              wanted == HttpProbe::HTTP_PROBE_RETURN_STATUSCODE);
    EXPECT_EQ(results.uiLastError != 999999, wanted == HttpProbe::HTTP_PROBE_RETURN_LAST_ERROR);
    EXPECT_EQ(results.uiRtt != 999999, wanted == HttpProbe::HTTP_PROBE_RETURN_RTT);
    EXPECT_EQ(results.tstrLocation != "location", wanted == HttpProbe::HTTP_PROBE_RETURN_LOCATION);
  }
}

class HttpProbeOfNoHost : public HttpProbeTest, public testing::WithParamInterface<std::string> {};

TEST_P(HttpProbeOfNoHost, IsADnsErrorAndSendsNothing) {
  const ScriptedServer server(answering(kOk));
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

TEST_F(HttpProbeTest, AnIpv6AddressIsTakenWithAndWithoutBrackets) {
  if (!hasAddress("::1")) {
    GTEST_SKIP() << "this machine has no IPv6";
  }
  const ScriptedServer server(answering(kOk, &log), "::1");
  for (const char* host : {"::1", "[::1]", "0:0::1", "::1%lo", "[::1%25lo]"}) {
    EXPECT_EQ(probe(server.port(), kPatience, host), HTTP_SESSION_SUCCESS) << host;
    EXPECT_EQ(report().address, "::1");
  }
  EXPECT_THAT(log.all()[0], HasSubstr("Host: [::1]:"));
}

TEST_F(HttpProbeTest, AWatcherIsToldOfStartAndEnd) {
  const ScriptedServer server(answering(kOk));
  probe(server.port());
  ASSERT_EQ(watcher->started.size(), 1U);
  ASSERT_EQ(watcher->ended.size(), 1U);
  const HttpProbe::Report& started = watcher->started[0];
  EXPECT_EQ(started.host, "127.0.0.1");
  EXPECT_EQ(started.port, server.port());
  EXPECT_FALSE(started.secure);
  EXPECT_EQ(started.options, kAll);
  EXPECT_EQ(started.connectUs, -1);
  EXPECT_EQ(report().status, HTTP_SESSION_SUCCESS);
  EXPECT_EQ(report().httpStatus, 200U);
  EXPECT_EQ(report().rttMs, results.uiRtt);
  EXPECT_EQ(report().address, "127.0.0.1");
  EXPECT_EQ(report().tlsUs, -1);
  EXPECT_GE(report().totalUs, report().connectUs);
  expectRoundTripTimes();
}

TEST_F(HttpProbeTest, WhatAWatcherThrowsDoesNotReachTheCaller) {
  class Thrower : public ProbeTask {
   public:
    void probeStarted(const HttpProbe::Report&) override { throw std::runtime_error("start"); }
    void probeEnded(const HttpProbe::Report&) override { throw 1; }
  };
  const CTask::Scope thrower(std::make_shared<Thrower>());
  EXPECT_EQ(probeOf(answering(kOk)), HTTP_SESSION_SUCCESS);
}

}  // namespace
}  // namespace tests
